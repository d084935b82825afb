"""Fifty receivers, and one run of the proxy that sends to them: what each of them read, in order and to the byte.

Each run has a world of its own (audience_worlds) with the same ports, so what two runs of two programs have brought may
be compared whole.
"""

import collections
import itertools
import re
import socket
import struct
import time

from . import control, impairment, model_receiver, proxy, receiver, reports, rtp
from .audience_worlds import GROUP, RECEIVERS, OneMachine
from .kernel_counts import udp
from .process import stopped
from .waiting import wait_until

LONGEST_INPUT = 1536  # what is longer is cut
USUAL_BYTES = 1328
FIRST_SEQ = 65400  # the numbers wrap soon
# Of the calls that a program makes that sends each datagram by itself: more would be no trains.
MOST_CALLS_SHARE = 1 / 4
CLOCK_OF_RTP = rtp.TIMESTAMP
CLOCK_OF_BUILT = slice(4, 12)  # the timestamp, and in the SSRC the second in which the stream was made
DESCRIPTOR = re.compile(r"(?<=socket )\d+")
PING_SECONDS = 1.0
FIRST_LEARNT = 100  # ports of those who ping, counted from the media port

Read = collections.namedtuple("Read", "data address port")


def packet(index, size=USUAL_BYTES):
    """A datagram of this size that nothing else of a run resembles, as far as its size allows."""
    text = f"datagram {index} ".encode()
    payload = (text * (size // len(text) + 1))[:size]
    return rtp.packet(FIRST_SEQ + index, payload)[:size]


def without_clock(data, built):
    clock = CLOCK_OF_BUILT if built else CLOCK_OF_RTP
    return data[: clock.start] + bytes(len(data[clock])) + data[clock.stop :]


class Contents:
    """The datagrams of a run, each once: fifty receivers read the same, and what is asked of its bytes is the same."""

    def __init__(self, built):
        self._built, self._known, self._clockless, self._ticks = built, {}, {}, {}

    def known(self, data):
        """The first that was equal to it."""
        return self._known.setdefault(data, data)

    def without_clock(self, data):
        found = self._clockless.get(data)
        if found is None:
            found = self._clockless[data] = without_clock(data, self._built)
        return found

    def first_ticks(self, data):
        """The timestamp of a first sending; None where there is none."""
        if data not in self._ticks:
            is_first = len(data) >= rtp.HEADER_BYTES and not model_receiver.is_retransmission(data)
            self._ticks[data] = rtp.timestamp(data) if is_first else None
        return self._ticks[data]


class Seat:
    """One receiver: what came by each way to it, and what should have come, its clock left out."""

    def __init__(self, sockets, address, port, contents):
        self.sockets, self.address, self.port, self._contents = sockets, address, port, contents
        self.reads = {way: [] for way in sockets}
        self.owed = []

    @property
    def sock(self):
        return next(iter(self.sockets.values()))

    def read(self):
        known = self._contents.known
        for way, sock in self.sockets.items():
            reads = self.reads[way]
            try:
                while True:
                    data, source = sock.recvfrom(65536, socket.MSG_DONTWAIT)
                    reads.append(Read(known(data), *source))
            except BlockingIOError:
                pass

    def count(self):
        return sum(map(len, self.reads.values()))

    def close(self):
        """The port is closed: what is sent there meanwhile is lost."""
        for sock in self.sockets.values():
            sock.close()
        self.sockets = {}


class Run:
    """One proxy and its audience. `configured` of the receivers are named on the command line; others may join().

    Those who have joined ping whenever something is played, and then only if it is time to.
    """

    def __init__(self, program, net, options=(), configured=RECEIVERS, make_world=OneMachine, equal_ports=False,
                 env=None):  # fmt: skip
        self._net, self.built, self._serial = net, "-u" in options, 0
        self._contents = Contents(self.built)
        self.world = make_world()
        self._request_port = net.destination if equal_ports else net.request
        self._ping_port = net.request + 1 if self.world.group else net.destination
        self.seats, self._present, self._pinged = [], [], time.monotonic()
        self._seat_configured(configured)
        if self.world.group:
            options = (*options, "-b", self._ping_port, "-a", GROUP)
        elif configured:
            options = (*options, "-a", ",".join(seat.address for seat in self.seats))
        self.proxy = proxy.Proxy(
            "-I", net.instance, "-p", net.destination, "-r", self._request_port, *options, net.input,
            program=program, namespace=self.world.namespace, env=env,
        ).wait_ready()  # fmt: skip
        listening = {self._request_port} if equal_ports else {self._request_port, self._ping_port}
        model_receiver.wait_bound(self.proxy, *listening)
        self._sender = receiver.Sender("127.0.0.1", net.input, namespace=self.world.namespace)
        self.sends = 0  # how often the proxy has handed media to the kernel
        self.report = None

    def _seat_configured(self, count):
        for i in range(count):
            sockets = (
                self.world.join(self._net.destination)
                if self.world.group
                else self.world.listen(self.world.addresses[i], self._net.destination)
            )
            self._seat(sockets, GROUP if self.world.group else self.world.addresses[i], self._net.destination)

    def _seat(self, sockets, address, port):
        seat = Seat(sockets, address, port, self._contents)
        self.seats.append(seat)
        self._present.append(seat)
        return seat

    @property
    def first_seq(self):
        """The number of the first datagram that was played."""
        return 1 if self.built else FIRST_SEQ

    def joined(self):
        """Those who have come by a ping."""
        return [seat for seat in self._present if seat.port != self._net.destination]

    def _keep_alive(self):
        if time.monotonic() > self._pinged + PING_SECONDS:
            self._pinged = time.monotonic()
            for seat in self.joined():
                if seat.sockets:
                    self._ping(seat, b"")

    def _ping(self, seat, data):
        seat.sock.sendto(data, (self.world.proxy_address, self._ping_port))

    def join(self, count):
        """So many more receivers ping; returns when all streams stand."""
        free = [address for address in self.world.addresses if address not in {seat.address for seat in self._present}]
        for address in free[:count]:
            self._serial += 1
            port = self._net.destination + FIRST_LEARNT + self._serial
            seat = self._seat(self.world.listen(address, port), address, port)
            line = model_receiver.stamped(f"Process Ping: Added {address} stream ID:0x00000000")
            before = len(self.proxy.stderr.find(line))
            self._ping(seat, b"")
            self.proxy.wait_stderr(line, count=before + 1)
        model_receiver.settled_by_list(self._net.instance)

    def leave(self, seat):
        """The receiver says goodbye; returns when its stream is gone."""
        self._present.remove(seat)
        gone = model_receiver.stamped(f"Stream stopped for {seat.address} ID:0x00000000")
        before = len(self.proxy.stderr.find(gone))
        self._ping(seat, model_receiver.STOP_MAGIC)
        self.proxy.wait_stderr(gone, count=before + 1)

    def reopen(self, seat):
        """A receiver that has closed its port has it again."""
        seat.sockets = self.world.listen(seat.address, seat.port)

    def echo(self, seat):
        """The receiver pings and asks for an echo, which tells that the proxy hears what it says."""
        self._serial += 1
        mark = model_receiver.echo_ping(struct.pack("<I", self._serial))
        self._ping(seat, b"")
        seat.sock.sendto(mark, (self.world.proxy_address, self._request_port))
        seat.owed.append(rtp.payload(mark) if self.built else mark)
        self._wait_all()

    def impair(self, **settings):
        """Switches the fixed pattern of loss on, or off again."""
        if settings:
            impairment.write_settings(self._net.instance, mode=1, **settings)
        impairment.toggle(self._net.instance)
        self.proxy.wait_stderr("Impairment ON" if settings else "Impairment OFF")

    def play(self, datagrams, at_once=False, withheld=(), refused=()):
        """Sends these, of which the proxy withholds some, and waits until everybody present has the others.

        `at_once`: the proxy finds all of them waiting. To those in `refused` nothing gets through. Returns how often
        the proxy has handed something to the kernel.
        """
        self._keep_alive()
        before = udp(self.world.namespace)
        if at_once:
            with stopped(self.proxy):
                self._send(datagrams)
        else:
            self._send(datagrams)
        kept = itertools.chain(withheld, itertools.repeat(False))
        brought = [data[:LONGEST_INPUT] for data, is_kept in zip(datagrams, kept) if not is_kept]
        for seat in self._sent_to():
            if seat not in refused:
                seat.owed += brought
        self._wait_all()
        sends = udp(self.world.namespace).sends - before.sends - len(datagrams)
        self.sends += sends
        return sends

    def _sent_to(self):
        """Where there is a group, others are only answered."""
        return [seat for seat in self._present if seat.address == GROUP] if self.world.group else self._present

    def ask(self, seats, first_seq, wanted):
        """Each of these asks for `wanted`, the first of which has this number, and waits until it has them again."""
        before = udp(self.world.namespace)
        for seat in seats:
            data = model_receiver.request([first_seq + i for i in range(len(wanted))])
            seat.sock.sendto(data, (self.world.proxy_address, self._request_port))
            seat.owed += wanted if self.built else map(model_receiver.retransmission_of, wanted)
            self._wait_all()
        self.sends += udp(self.world.namespace).sends - before.sends - len(seats)

    def _wait_all(self):
        wait_until(self._have_all, self._who_lacks)

    def _send(self, datagrams):
        for data in datagrams:
            self._sender.send(data)

    def _have_all(self):
        for seat in self._present:
            seat.read()
        return all(seat.count() >= len(seat.owed) for seat in self._present)

    def _who_lacks(self):
        lacking = [f"{seat.address}: {seat.count()} of {len(seat.owed)}" for seat in self._present]
        return f"datagrams; {', '.join(lacking)}\n{self.proxy.stderr.text[-2000:]}"

    def end(self):
        """Ends the run, with all that it has told and all that has come."""
        fields = reports.all_stats(self._net.instance)
        # Without streams "List" is not answered.
        commands = ("RxStat", "TxStat", *(["List"] if fields["CLIENTS"] else []))
        self.report = {
            "AllStats": {name: value for name, value in fields.items() if not name.endswith("BITRATE")},
            "Debug": reports.debug_dump(self.proxy, self._net.instance),
            **{text: control.request(self._net.instance, text) for text in commands},
        }
        self.proxy.stop()
        for seat in self.seats:
            seat.read()
        self.report["log"] = sorted(DESCRIPTOR.sub("", line) for line in self._lines())
        return self

    def _lines(self):
        lines = [*self.proxy.stdout.lines, *self.proxy.stderr.lines]
        return [re.sub(f"^{model_receiver.STAMP}", "", line) for line in lines]

    def port_names(self):
        """Ports that are the same in every run keep their numbers; others are the receiver's first, second, ..."""
        return {self._request_port, self._ping_port, self._net.destination}

    def brought(self):
        """{(address, port, way): what was read there}, whatever the clock and the system's choice of ports say."""
        known = self.port_names()
        found = {}
        for index, seat in enumerate(self.seats):
            for way, reads in seat.reads.items():
                own = {}
                found[index, seat.address, way] = [
                    (
                        self._contents.without_clock(read.data),
                        read.address,
                        read.port if read.port in known else own.setdefault(read.port, f"own {len(own)}"),
                    )
                    for read in reads
                ]
        return found

    def datagrams_of(self, seat):
        """What it has read, its clock left out."""
        return [self._contents.without_clock(read.data) for reads in seat.reads.values() for read in reads]

    def check_owed(self):
        """Everybody has each datagram once, in order, and its bytes are the input's, however many ways lead there."""
        for seat in self.seats:
            self.check_seat(seat)

    def check_seat(self, seat):
        got = self.datagrams_of(seat)
        if self.built:
            got, owed = [rtp.payload(data) for data in got], list(seat.owed)
        else:
            owed = [self._contents.without_clock(data) for data in seat.owed]
        if len(seat.reads) > 1:
            got, owed = sorted(got), sorted(owed)
        assert got == owed, seat.address

    def check_clocks(self):
        """No first sending's timestamp is before the one of the datagram before it."""
        for seat in self.seats:
            for reads in seat.reads.values():
                all_ticks = [self._contents.first_ticks(read.data) for read in reads]
                ticks = [value for value in all_ticks if value is not None]
                assert all(rtp.ticks_since(after, before) >= 0 for before, after in zip(ticks, ticks[1:]))

    def close(self):
        self.proxy.kill()
        self._sender.close()
        for seat in self.seats:
            seat.close()
        self.world.close()
