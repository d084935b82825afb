"""A bad network between one receiver and the proxy: drops and reorders in both directions, from a seed."""

import collections
import heapq
import itertools
import random

from .receiver import udp_socket

Fault = collections.namedtuple("Fault", "loss reorder")
SHORTEST_DELAY_SECONDS = 0.002
LONGEST_DELAY_SECONDS = 0.015


class LossyRelay:
    """The proxy sees `far_address`; the receiver talks to .ping_address and .request_address. Run by drive()."""

    def __init__(self, seed, fault, far_address, near_address, net, proxy_address="127.0.0.1"):
        self._random = random.Random(seed)
        self._fault = fault
        self._far = udp_socket(far_address, 0, reuse=False)
        self._near_ping = udp_socket(near_address, 0, reuse=False)
        self._near_request = udp_socket(near_address, 0, reuse=False)
        for sock in (self._far, self._near_ping, self._near_request):
            sock.setblocking(False)
        self._proxy_ping = (proxy_address, net.destination)
        self._proxy_request = (proxy_address, net.request)
        self._receiver = None
        self._delayed = []
        self._serial = itertools.count()
        self.passed = {"down": 0, "up": 0}
        self.dropped = {"down": 0, "up": 0}
        self.swapped = 0

    @property
    def ping_address(self):
        return self._near_ping.getsockname()

    @property
    def request_address(self):
        return self._near_request.getsockname()

    @property
    def far_port(self):
        return self._far.getsockname()[1]

    def sockets(self):
        return {
            self._far: self._from_proxy,
            self._near_ping: lambda now: self._from_receiver(self._near_ping, self._proxy_ping, now),
            self._near_request: lambda now: self._from_receiver(self._near_request, self._proxy_request, now),
        }

    def _from_proxy(self, now):
        try:
            while True:
                self._carry("down", self._near_ping, self._far.recv(2048), self._receiver, now)
        except BlockingIOError:
            return

    def _from_receiver(self, sock, proxy_address, now):
        try:
            while True:
                data, self._receiver = sock.recvfrom(2048)
                self._carry("up", self._far, data, proxy_address, now)
        except BlockingIOError:
            return

    def _carry(self, direction, sock, data, address, now):
        draw = self._random.random()
        if draw < self._fault.loss:
            self.dropped[direction] += 1
            return
        self.passed[direction] += 1
        if draw < self._fault.loss + self._fault.reorder:
            self.swapped += 1
            due = now + self._random.uniform(SHORTEST_DELAY_SECONDS, LONGEST_DELAY_SECONDS)
            heapq.heappush(self._delayed, (due, next(self._serial), sock, data, address))
        else:
            sock.sendto(data, address)

    def tick(self, now):
        while self._delayed and self._delayed[0][0] <= now:
            _, _, sock, data, address = heapq.heappop(self._delayed)
            sock.sendto(data, address)

    def close(self):
        for sock in (self._far, self._near_ping, self._near_request):
            sock.close()
