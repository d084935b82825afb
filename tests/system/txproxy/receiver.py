"""UDP end points of a test: receivers that collect, senders, and the pump that never outruns either side."""

import collections
import select
import socket
import threading
import time

from .waiting import DEFAULT_TIMEOUT, wait_until

RECEIVE_BUFFER_BYTES = 8 * 1024 * 1024
SO_SNDBUFFORCE = 32  # not in the socket module
SO_RCVBUFFORCE = 33

Datagram = collections.namedtuple("Datagram", "data source time interface")


def udp_socket(address, port, namespace=None, reuse=True, device=None):
    """A UDP socket bound to (address, port); in `namespace` (netns.Namespace) when one is given.

    SO_REUSEADDR is set by default, because a receiver shares its port number with the proxy's ping socket.
    """
    make = namespace.call if namespace else (lambda function: function())

    def create():
        sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        try:
            if reuse:
                sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            sock.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, RECEIVE_BUFFER_BYTES)
            sock.setsockopt(socket.SOL_SOCKET, SO_SNDBUFFORCE, RECEIVE_BUFFER_BYTES)
            if device:
                sock.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, device.encode())
            sock.bind((address, port))
        except OSError:
            sock.close()
            raise
        return sock

    return make(create)


def join(sock, group, interface_address):
    """Joins a multicast group on the interface that has this address."""
    membership = socket.inet_aton(group) + socket.inet_aton(interface_address)
    sock.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, membership)


class Receiver:
    """Collects every datagram that arrives at one or more sockets, in order of arrival.

    With several sockets (given as {name: socket}) each datagram is marked with the name of its socket.
    `on_datagram(datagram)` is called on the collecting thread, for relays and models of receivers; it may
    answer with send().
    """

    def __init__(self, address="127.0.0.2", port=0, sock=None, sockets=None, on_datagram=None, **keywords):
        if sockets is None:
            sockets = {"": sock or udp_socket(address, port, **keywords)}
        self._sockets = sockets
        self.sock = next(iter(sockets.values()))
        self.address = self.sock.getsockname()
        self._names = {sock: name for name, sock in sockets.items()}
        self._on_datagram = on_datagram
        self._received = []
        self._wake_end, self._close_end = socket.socketpair()
        self._thread = threading.Thread(target=self._collect, daemon=True)
        self._thread.start()

    def _collect(self):
        sources = [self._wake_end, *self._names]
        while self._wake_end not in (readable := select.select(sources, [], [])[0]):
            for sock in readable:
                data, source = sock.recvfrom(65536)
                datagram = Datagram(data, source, time.time(), self._names[sock])
                self._received.append(datagram)
                if self._on_datagram:
                    self._on_datagram(datagram)

    @property
    def datagrams(self):
        """What has arrived so far, as Datagram records."""
        return list(self._received)

    @property
    def payloads(self):
        return [datagram.data for datagram in self._received]

    def count(self):
        return len(self._received)

    def wait_count(self, count, timeout=DEFAULT_TIMEOUT):
        """Waits for at least `count` datagrams; returns their contents."""
        wait_until(lambda: self.count() >= count, lambda: f"{count} datagrams, got {self.count()}", timeout)
        return self.payloads

    def wait_for(self, accept, timeout=DEFAULT_TIMEOUT):
        """Waits for a datagram that accept(Datagram) likes; returns it."""
        return wait_until(
            lambda: next(filter(accept, self.datagrams), None),
            lambda: f"a certain datagram; got {[(len(d.data), d.data[:16].hex()) for d in self.datagrams[-20:]]}",
            timeout,
        )

    def clear(self):
        self._received = []

    def forget(self, data):
        """Takes the first datagram with this content out of the record."""
        self._received.remove(next(datagram for datagram in self._received if datagram.data == data))

    def send(self, data, address):
        """Sends from the receiver's own port, as a receiver's pings and requests are sent."""
        self.sock.sendto(data, address)

    def close(self):
        self._close_end.close()
        self._thread.join()
        for sock in (self._wake_end, *self._sockets.values()):
            sock.close()


class Sender:
    """Sends datagrams to the proxy's input."""

    def __init__(self, address, port, namespace=None, source="0.0.0.0", multicast_interface=None):
        self.sock = udp_socket(source, 0, namespace)
        if multicast_interface:
            self.sock.setsockopt(
                socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(multicast_interface)
            )
        self._destination = (address, port)

    def send(self, data):
        self.sock.sendto(data, self._destination)

    def close(self):
        self.sock.close()


def pump(sender, receivers, datagrams, window=64, timeout=DEFAULT_TIMEOUT):
    """Sends all datagrams, at most `window` ahead of the slowest receiver, and waits for their arrival.

    The window keeps socket buffers from overflowing, so any datagram that is missing was lost by the proxy.
    """
    before = [receiver.count() for receiver in receivers]
    for start in range(0, len(datagrams), window):
        part = datagrams[start : start + window]
        for data in part:
            sender.send(data)
        for receiver, count in zip(receivers, before):
            receiver.wait_count(count + start + len(part), timeout)
