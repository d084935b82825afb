"""Streams come and go under load, and nothing goes wrong, is lost or is left over.

Beside three receivers that stay, forty come and go (programs/churn): they ping, move to other ports, stop, are
deleted, fall silent, ask for everything imaginable; destinations are added and deleted, and one of them takes next
to nothing and holds everything up until it is deleted. The input never runs ahead of who stays by more than the
proxy's queue holds, so a packet that is lost has been lost by the proxy. Every datagram that anybody gets is checked.

TX_PROXY_CHURN_SECONDS   how long the load lasts (default 40 with a sanitizer, else 20)
TX_PROXY_CHURN_SEED      what the choices begin with
"""

import collections
import os
import pathlib
import re
import subprocess

import pytest

from txproxy import control, ports, programs, proxy
from txproxy.heap import HeapMeter
from txproxy.model_receiver import wait_bound
from txproxy.process import descriptors, threads
from txproxy.reports import rx_stat
from txproxy.shaping import SLOW_PEER, SlowCable
from txproxy.waiting import scaled, wait_until

pytestmark = pytest.mark.xdist_group("flood")  # one at a time: two floods share the kernel's queues, and leave no core

CONFIGURED = "127.0.1.3"
STAYING = ["127.0.1.1", "127.0.1.2", CONFIGURED]
GUESTS = 40
PER_SECOND = 20000
BARELY_MOVING = "20kbit"
WARM_UP_SECONDS = 5
PATIENCE_SECONDS = 60
LOG_LINES = 6000
GIVES_WAY = 10  # other tests measure times meanwhile
MOST_ROUNDS = 5  # until each kind of event has happened: a busy machine leaves time for few of some kinds
EVENTS = ("STOPS", "DELETES", "MOVES", "EXPIRIES", "ADDS", "BLOCKS", "ECHOES")
FIGURE = re.compile(r"([A-Z_]+)=(\d+)\n")

State = collections.namedtuple("State", "descriptors threads streams heap")


def seconds():
    usual = 20 if proxy.build_kind() == "release" else 40
    return float(os.environ.get("TX_PROXY_CHURN_SECONDS", usual))


def files():
    """Everything in the folders that are the tests' own."""
    return {path for folder in ("/dev", "/run") for path in pathlib.Path(folder).iterdir()}


def figure(line):
    name, value = FIGURE.fullmatch(line).groups()
    return name, int(value)


class Load:
    """The program that makes the load, in the proxy's namespace."""

    def __init__(self, directory, lan, net, process):
        self._proxy = process
        self._namespace = lan.proxy.name
        where = [str(port) for port in (net.input, net.destination, net.request)]
        seed = os.environ.get("TX_PROXY_CHURN_SEED", "1")
        blocking = [SLOW_PEER, lan.peer.name]
        program = programs.build_folder(directory, "churn")
        numbers = [control.path(net.instance), str(PER_SECOND), seed, str(scaled(PATIENCE_SECONDS))]
        self._process = subprocess.Popen(
            ["ip", "netns", "exec", lan.proxy.name, program, *where, *numbers, *blocking],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
            bufsize=1,
            preexec_fn=lambda: os.nice(GIVES_WAY),
        )
        self._faults = []
        self._counters_before = self._kernel_counters()

    def run(self, duration):
        """Load for so long; on return everybody has left who does not stay, and all that was sent has arrived.

        Returns the figures since the beginning as {name: number}.
        """
        self._process.stdin.write(f"{duration}\n")
        figures = {}
        for line in self._process.stdout:
            if line == "calm\n":
                break
            if FIGURE.fullmatch(line):
                figures.update([figure(line)])
            else:
                self._faults.append(line)
        assert not self._faults, "".join(
            (*self._faults, "before:\n", self._counters_before, "now:\n", self._kernel_counters(), self._log_end())
        )
        assert self._process.poll() is None, "the load ended by itself"
        return figures

    def _kernel_counters(self):
        """Where a datagram went that the proxy had sent; the queues before the sockets are those of the whole machine."""
        files = ("/proc/net/snmp", "/proc/net/dev", "/proc/net/udp", "/proc/net/softnet_stat")
        return subprocess.run(["ip", "netns", "exec", self._namespace, "cat", *files], capture_output=True, text=True).stdout

    def _log_end(self):
        return "".join(line + "\n" for line in self._proxy.stderr.lines[-LOG_LINES:])

    def finish(self):
        """Returns the last figures."""
        self._process.stdin.close()
        figures = dict(map(figure, self._process.stdout))
        assert self._process.wait(scaled(PATIENCE_SECONDS)) == 0
        return figures

    def close(self):
        self._process.kill()
        self._process.wait()
        self._process.stdin.close()
        self._process.stdout.close()


class Watched:
    """What the running proxy holds, the blocks and bytes of its heap included; made before any load.

    Resident memory is no measure: the allocator keeps the room that the most streams at one time needed.
    """

    def __init__(self, process, instance, meter):
        self._process, self._instance, self._meter = process, instance, meter
        at_start = self.state()
        assert at_start.streams == [CONFIGURED]
        self._descriptors_at_start = len(at_start.descriptors)

    def settled_state(self):
        """The state once all streams are destroyed that have left, which comes a moment after their end.

        Of those who stay all but the configured one have come since the start, with a descriptor each.
        """
        wanted = self._descriptors_at_start + len(STAYING) - 1

        def settled():
            first, second = self.state(), self.state()
            return first if first == second and len(first.descriptors) == wanted else None

        return wait_until(settled, lambda: f"{wanted} descriptors that last; it is {self.state()}")

    def state(self):
        # The proxy serves one client at a time: while this one is connected no other has a descriptor.
        with control.ControlClient(self._instance) as client:
            streams = sorted(client.request("List").split(","))
            heap = self._meter.read() if self._meter else None
            return State(descriptors(self._process.pid), len(threads(self._process.pid)), streams, heap)


@pytest.fixture
def scene(make_lan, start_proxy, closing, net, tmp_path):
    """A proxy and its load, both of which give way to others."""
    lan = make_lan()
    SlowCable(lan, BARELY_MOVING)
    before = files()
    meter = HeapMeter(tmp_path) if proxy.build_kind() == "release" else None
    process = start_proxy(
        "-a",
        CONFIGURED,
        namespace=lan.proxy,
        env=meter.env if meter else None,
        preexec=lambda: os.nice(GIVES_WAY),
    )
    wait_bound(process, net.destination, net.request)
    wait_until(pathlib.Path(control.path(net.instance)).exists, "the control socket")
    watched = Watched(process, net.instance, meter)  # before anybody joins
    return process, closing(Load(tmp_path, lan, net, process)), watched, before


def summary(figures, duration, grown):
    names = "JOINS STOPS DELETES MOVES EXPIRIES ADDS BLOCKS REQUESTS RESENDS RECOVERED".split()
    events = ", ".join(f"{figures[name]} {name.lower()}" for name in names)
    rates = "few {RATE_FEW_MEAN} (best {RATE_FEW_BEST}), with about {MANY} {RATE_MANY_MEAN} (best {RATE_MANY_BEST})"
    return (
        f"streams under load, {proxy.build_kind()}, {duration:.0f} s: {events}; {figures['SENT']} packets, "
        f"{figures['DATAGRAMS']} datagrams checked; packets/s with {rates.format(**figures)} receivers; "
        f"slowest command {figures['SLOWEST_COMMAND_MS']} ms; resident memory {grown:+} KiB"
    )


def test_nobody_gets_what_is_not_theirs_who_stays_gets_everything_and_nothing_is_left_over(scene, net, capsys):
    process, load, watched, files_before = scene
    duration = seconds()
    load.run(WARM_UP_SECONDS)
    before = watched.settled_state()
    resident = process.resident_kib()
    assert before.streams == STAYING
    rounds, lacking = 0, EVENTS
    while lacking and rounds < MOST_ROUNDS:
        figures = load.run(duration)
        rounds += 1
        lacking = [name for name in (*EVENTS, "FEWEST_JOINS", "LOST_ON_PURPOSE") if figures[name] == 0]
    wait_until(lambda: watched.state() == before, lambda: f"{before}\nto come back, it is\n{watched.state()}")
    grown = process.resident_kib() - resident
    accepted, lost = rx_stat(net.instance)
    figures = load.finish()
    with capsys.disabled():
        print("\n" + summary(figures, rounds * duration, grown))
    assert figures["FAULTS"] == 0
    assert (accepted, lost) == (figures["SENT"], 0)
    assert not lacking, f"{rounds} rounds without {lacking}"
    assert figures["RECOVERED"] == figures["LOST_ON_PURPOSE"]
    # An end by a signal leaves the sockets of this instance, and nothing else.
    process.stop()
    assert files() - files_before <= set(ports.instance_files(net.instance))
