"""The units on a machine with systemd: channels start, end, come back, and do all they can do within their bounds."""

import itertools
import pathlib
import threading
import time

import pytest

from txproxy import arqrx, booted, model_receiver, plugin_builder, ports, receiver, rtp
from txproxy.waiting import scaled, wait_until

pytestmark = [pytest.mark.release_only]

UNITS = ("tx_proxy", "tx_proxy-private")
PACKETS_A_SECOND = 100
PAYLOAD_BYTES = 188
NEW_MEDIA_SECONDS = 4  # a restart, the ping a second after it, and a slow machine
NO_CAPABILITY = 0
CAP_NET_BIND_SERVICE, CAP_NET_RAW = 1 << 10, 1 << 13


@pytest.fixture(scope="module")
def machine():
    booted_machine = booted.Machine({})
    yield booted_machine
    booted_machine.close()


class Channel:
    """A unit tx_proxy@N or tx_proxy-private@N with ports of its own."""

    def __init__(self, machine, net, unit="tx_proxy"):
        self.machine = machine
        self.net = net
        self.unit = f"{unit}@{net.instance}"
        self.socket = f"/run/tx_proxy-{net.instance}/dev" if unit.endswith("private") else "/dev"
        self.socket += f"/arq_tx_ctrl{net.instance}"

    def set(self, *options, listen=None, **variables):
        words = ["-p", self.net.destination, "-r", self.net.request, *options]
        settings = {"TX_PROXY_LISTEN": listen or self.net.input, "TX_PROXY_OPTIONS": " ".join(map(str, words)), **variables}
        text = "".join(f'{name}="{value}"\n' for name, value in settings.items())
        self.machine.write(f"/etc/default/tx_proxy-{self.net.instance}", text)
        return self

    def start(self):
        self.order("start")
        return self.wait_ready()

    def order(self, what):
        self.machine.do("systemctl", what, self.unit)

    def wait_ready(self):
        wait_until(lambda: self.arqctl("list").returncode == 0, f"{self.unit} to answer")
        return self

    def arqctl(self, *arguments):
        return self.machine.run("arqctl", "--socket", self.socket, *arguments)

    def list(self):
        return self.arqctl("list").stdout.split()

    @property
    def pid(self):
        """The proxy's process as the test sees it."""
        inside = self.machine.property(self.unit, "MainPID")
        return self.machine.outside(int(inside))

    def status(self):
        lines = pathlib.Path(f"/proc/{self.pid}/status").read_text(encoding="ascii").splitlines()
        return dict(line.split(":\t", 1) for line in lines if ":\t" in line)

    def wait_restarts(self, count):
        wait_until(lambda: int(self.machine.property(self.unit, "NRestarts")) >= count, f"{self.unit} to be started again")
        self.machine.wait_state(self.unit, "active")

    def journal(self):
        return self.machine.journal(self.unit)

    def close(self):
        self.machine.run("systemctl", "stop", self.unit)
        self.machine.run("systemctl", "reset-failed", self.unit)


@pytest.fixture
def channel(closing, machine, net):
    return closing(Channel(machine, net)).set()


@pytest.fixture(params=UNITS)
def either(request, closing, machine, net):
    """A channel by each of both units."""
    return closing(Channel(machine, net, request.param)).set()


class Stream:
    """An encoder: numbered packets at an even rate from the beginning to the end of the test."""

    def __init__(self, port):
        self.count = 0
        self._sender = receiver.Sender("127.0.0.1", port)
        self._is_running = True
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        began = time.monotonic()
        while self._is_running:
            payload = self.count.to_bytes(4, "big") * (PAYLOAD_BYTES // 4)
            self._sender.send(rtp.packet(self.count, payload))
            self.count += 1
            time.sleep(max(0.0, began + self.count / PACKETS_A_SECOND - time.monotonic()))

    def close(self):
        self._is_running = False
        self._thread.join()
        self._sender.close()


def number(payload):
    return int.from_bytes(payload[:4], "big")


class Player:
    """An arqrx that joins by ping, and what it plays."""

    def __init__(self, closing, lease, net, address, stream_id):
        port = lease.port()
        self.played = closing(receiver.Receiver("127.0.0.1", port))
        self.arqrx = closing(arqrx.Arqrx(
            *arqrx.joining(net, "--bind", address, "--latency", "100ms", "--strip-rtp",
                           "--output", f"udp://127.0.0.1:{port}", stream_id=stream_id)
        ))  # fmt: skip

    def numbers(self):
        return list(map(number, self.played.payloads))

    def wait_beyond(self, count):
        def is_beyond():
            return self.played.count() and number(self.played.payloads[-1]) > count

        wait_until(is_beyond, lambda: f"packets behind {count}: {self.arqrx.figures()}", NEW_MEDIA_SECONDS)

    def holes(self):
        """[(the first number behind a hole, how many are missing there)]."""
        return [(now, now - before - 1) for before, now in itertools.pairwise(self.numbers()) if now != before + 1]


def restart(channel, players, stream):
    before = stream.count
    for player in players:
        player.wait_beyond(before)
    began = stream.count
    channel.order("restart")
    ended = stream.count
    for player in players:
        player.wait_beyond(ended)
    return began, stream.count


def restarts(closing, lease, channel, count):
    """Receivers notice a gap each time, and nothing else: neither a message nor a loss beside it."""
    stream = closing(Stream(channel.net.input))
    players = [Player(closing, lease, channel.net, *who) for who in (("127.0.0.3", "0x51"), ("127.0.0.4", "none"))]
    gaps = [restart(channel, players, stream) for _ in range(count)]
    for player in players:
        player.wait_beyond(stream.count)
        holes = player.holes()
        assert len(holes) == count
        for (number_behind, size), (began, ended) in zip(holes, gaps):
            assert began - 1 <= number_behind - size <= number_behind <= ended + 1, (holes, gaps)
        figures = player.arqrx.figures()
        assert figures["packets_lost"] == sum(size for _, size in holes)
        assert (figures["stops"], figures["rejoins"], figures["packets_duplicate"]) == (0, 0, 0)
    assert channel.machine.property(channel.unit, "NRestarts") == "0"
    assert channel.journal().count("Process already running!") == 0


def test_receivers_notice_a_gap_when_a_channel_is_restarted_and_nothing_else(closing, lease, either):
    restarts(closing, lease, either.start(), 2)


@pytest.mark.long
def test_twenty_restarts_are_twenty_gaps(closing, lease, either):
    restarts(closing, lease, either.start(), 20)


def test_a_stop_tells_the_receivers_and_does_not_wait_for_those_that_cannot_be_told(closing, lease, either):
    either.set("-a", "127.0.0.5").start()
    configured = closing(receiver.Receiver("127.0.0.5", either.net.destination))
    learnt = Player(closing, lease, either.net, "127.0.0.3", "none")
    with_id = Player(closing, lease, either.net, "127.0.0.4", "0x51")
    wait_until(lambda: len(either.list()) == 3, "all receivers to be there")
    began = time.monotonic()
    either.order("stop")
    assert time.monotonic() - began < scaled(1 + 3 * 0.15 + 1.5)
    assert configured.wait_count(5)[:5] == [model_receiver.STOP_MESSAGE] * 5
    learnt.arqrx.wait_figures(lambda figures: figures["stops"] > 0, "the stop message")
    assert with_id.arqrx.figures()["stops"] == 0
    assert "1 of 3 receivers is left: 127.0.0.4" in either.journal()
    assert either.machine.property(either.unit, "Result") == "success"
