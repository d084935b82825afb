"""The units on a machine with systemd: channels start, end, come back, and do all they can do within their bounds."""

import contextlib
import itertools
import json
import pathlib
import re
import types
import urllib.request

import pytest

from txproxy import arqctl, arqrx, booted, encoder, model_receiver, netns, plugin_builder, ports, receiver, rtp
from txproxy.booted import wait_until
from txproxy.waiting import within

pytestmark = [pytest.mark.release_only, pytest.mark.large, pytest.mark.xdist_group("service_machine")]  # one machine for all

UNITS = ("tx_proxy", "tx_proxy-private")
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
        settings = {"TX_PROXY_LISTEN": listen or self.net.input, "TX_PROXY_OPTIONS": " ".join(map(str, words))}
        settings.update(variables)
        text = "".join(f'{name}="{value}"\n' for name, value in settings.items())
        self.machine.write(f"/etc/default/tx_proxy-{self.net.instance}", text)
        return self

    def start(self):
        self.order("start")
        return self

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
        wait_until(
            lambda: int(self.machine.property(self.unit, "NRestarts")) >= count, f"{self.unit} to be started again"
        )
        self.machine.wait_state(self.unit, "active")

    def journal(self):
        return self.machine.journal(self.unit)

    def wait_journal(self, words):
        """The journal takes lines a moment after they were printed."""
        wait_until(lambda: words in self.journal(), lambda: f"{words} in\n{self.journal()}")

    def close(self):
        self.machine.run("systemctl", "stop", self.unit)
        self.machine.run("systemctl", "reset-failed", self.unit)


class Stopping:
    """A unit that the test has started."""

    def __init__(self, machine, unit):
        self._machine = machine
        self._unit = unit

    def close(self):
        self._machine.run("systemctl", "stop", self._unit)


@pytest.fixture
def channel(closing, machine, net):
    return closing(Channel(machine, net)).set()


@pytest.fixture(params=UNITS)
def either(request, closing, machine, net):
    """A channel by each of both units."""
    return closing(Channel(machine, net, request.param)).set()


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
        return list(map(encoder.number, self.played.payloads))

    def wait_beyond(self, count):
        def is_beyond():
            return self.played.count() and encoder.number(self.played.payloads[-1]) > count

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
    stream = closing(encoder.Stream(channel.net.input))
    players = [Player(closing, lease, channel.net, *who) for who in (("127.0.0.3", "0x51"), ("127.0.0.4", "none"))]
    gaps = [restart(channel, players, stream) for _ in range(count)]
    for player in players:
        player.wait_beyond(stream.count)
        holes = player.holes()
        assert len(holes) == count
        for (number_behind, size), (began, ended) in zip(holes, gaps):
            assert began - 1 <= number_behind - size <= number_behind <= ended + 1, (holes, gaps)
        missing = sum(size for _, size in holes)
        figures = player.arqrx.wait_figures(lambda now, least=missing: now["packets_lost"] >= least, "its losses")
        assert figures["packets_lost"] == missing
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
    with within(10):  # systemd would wait for 30 s
        either.order("stop")
    assert configured.wait_count(5)[:5] == [model_receiver.STOP_MESSAGE] * 5
    learnt.arqrx.wait_figures(lambda figures: figures["stops"] > 0, "the stop message")
    assert with_id.arqrx.figures()["stops"] == 0
    either.wait_journal("1 of 3 receivers is left: 127.0.0.4")
    assert either.machine.property(either.unit, "Result") == "success"


@contextlib.contextmanager
def slow_to_begin(machine):
    """A proxy of which nothing is seen at first."""
    program = machine.root / "usr/bin/tx_proxy"
    real = program.with_suffix(".real")
    program.rename(real)
    try:
        machine.write("/usr/bin/tx_proxy", f'#!/bin/sh\nsleep 1\nexec /usr/bin/{real.name} "$@"\n')
        program.chmod(0o755)
        yield
    finally:
        real.rename(program)


def test_a_start_is_over_when_commands_are_taken(either):
    with slow_to_begin(either.machine):
        for order in ("start", "restart"):
            either.order(order)
            assert either.arqctl("list").returncode == 0


def test_a_proxy_that_dies_is_started_again_and_receivers_come_back(closing, lease, channel):
    channel.start()
    stream = closing(encoder.Stream(channel.net.input))
    player = Player(closing, lease, channel.net, "127.0.0.3", "none")
    player.wait_beyond(stream.count)
    channel.machine.do("systemctl", "kill", "--signal", "KILL", channel.unit)
    channel.wait_restarts(1)
    player.wait_beyond(stream.count)
    assert len(player.holes()) == 1


def test_a_channel_whose_number_is_taken_comes_when_it_is_free(channel, lease):
    with receiver.udp_socket("0.0.0.0", ports.lock_port(lease.instance), reuse=False):
        assert channel.machine.run("systemctl", "start", channel.unit).returncode == 1
        wait_until(lambda: channel.journal().count("Process already running!") >= 2, "it to be tried a second time")
    channel.wait_ready()
    channel.machine.wait_state(channel.unit, "active")


@pytest.mark.parametrize("settings, status, words", [
    ({"TX_PROXY_OPTIONS": "-p x"}, 255, "invalid udp port: x"),
    ({"TX_PROXY_LISTEN": ""}, 2, "TX_PROXY_LISTEN is empty"),
])  # fmt: skip
def test_settings_that_are_wrong_are_not_tried_again(channel, settings, status, words):
    channel.set(**settings)
    channel.machine.run("systemctl", "start", channel.unit)
    channel.machine.wait_state(channel.unit, "failed")
    channel.wait_journal(words)
    assert channel.machine.property(channel.unit, "ExecMainStatus") == str(status)
    assert channel.machine.property(channel.unit, "NRestarts") == "0"


def test_without_settings_a_channel_does_not_start(machine, lease):
    result = machine.run("systemctl", "start", f"tx_proxy@{lease.instance}")
    assert result.returncode != 0 and "Assertion failed" in result.stderr


def test_without_the_tools_a_stop_says_that_nobody_is_told(channel):
    channel.start()
    program = channel.machine.root / "usr/bin/arqctl"
    program.rename(program.with_suffix(".away"))
    try:
        channel.order("stop")
    finally:
        program.with_suffix(".away").rename(program)
    channel.wait_journal(f"arqctl is not installed: receivers of channel {channel.net.instance} are not told")
    assert channel.machine.property(channel.unit, "Result") == "success"


def capabilities(status):
    """Those that it has or could get."""
    sets = [int(status[name], 16) for name in ("CapBnd", "CapPrm", "CapEff", "CapInh", "CapAmb")]
    return sets[0] | sets[1] | sets[2] | sets[3] | sets[4]


def test_a_channel_has_the_rights_of_its_unit_and_no_more(either):
    status = either.set("-n", 1).start().status()
    is_private = either.unit.startswith("tx_proxy-private")
    assert capabilities(status) == (0 if is_private else CAP_NET_BIND_SERVICE | CAP_NET_RAW)
    assert (int(status["Uid"].split()[0]) == 0) == (not is_private)
    assert (status["NoNewPrivs"], status["Seccomp"]) == ("1", "2")
    root = pathlib.Path(f"/proc/{either.pid}/root")
    # What stands in its place is for nobody.
    orders = root / "run/systemd/private"
    assert not orders.exists() or orders.stat().st_mode & 0o777 == 0
    assert list((root / "root").iterdir()) == []
    lines = pathlib.Path(f"/proc/{either.pid}/mountinfo").read_text(encoding="utf-8").splitlines()
    mounts = [line.split() for line in lines]
    assert "ro" in next(fields[5] for fields in mounts if fields[4] == "/").split(",")


def test_the_control_socket_is_for_the_group(either):
    either.start()
    assert either.machine.do("stat", "--format", "%F %a %G", either.socket) == "socket 770 tx_proxy\n"
    nobody = ("setpriv", "--reuid", "nobody", "--regid", "nogroup")
    asked = ("arqctl", "--socket", either.socket, "list")
    assert either.machine.run(*nobody, "--groups", "tx_proxy", *asked).returncode == arqctl.GOOD
    assert either.machine.run(*nobody, "--clear-groups", *asked).returncode == arqctl.NO_PROXY


def test_without_the_group_a_channel_says_so_and_comes_when_it_is_there(channel):
    channel.machine.do("groupdel", "tx_proxy")
    try:
        channel.machine.run("systemctl", "start", channel.unit)
        channel.wait_journal("status=216/GROUP")
    finally:
        channel.machine.do("systemd-sysusers")
    channel.machine.wait_state(channel.unit, "active")


def test_a_channel_of_either_unit_is_found_and_meant_by_its_number(either):
    either.start()
    listed = json.loads(either.machine.run("arqctl", "instances", "--json").stdout)["instances"]
    running = [one for one in listed if one.get("instance") == either.net.instance and one["state"] == "running"]
    assert [one["socket"] for one in running] == [either.socket]
    assert either.machine.run("arqctl", "-I", str(either.net.instance), "list").returncode == arqctl.GOOD


@pytest.fixture
def interface(closing):
    """An eth0 that leads nowhere, and the way of groups."""
    netns.ip("link", "add", "eth0", "type", "veth", "peer", "name", "nobody")
    closing(types.SimpleNamespace(close=lambda: netns.ip("link", "del", "eth0")))
    netns.ip("addr", "add", "10.78.0.1/24", "dev", "eth0")
    for name in ("eth0", "nobody"):
        netns.ip("link", "set", name, "up")
    netns.ip("route", "add", "224.0.0.0/4", "dev", "eth0")


def test_ports_below_1024_sockets_of_an_interface_and_groups_work_in_a_channel(channel, closing, interface):
    channel.set("-n", 1, "-a", "10.78.0.9", listen="601 239.7.7.7").start()
    sender = closing(receiver.Sender("239.7.7.7", 601, multicast_interface="10.78.0.1"))
    sender.send(rtp.packet(1, bytes(encoder.PAYLOAD_BYTES)))
    wait_until(lambda: "input packets    1" in channel.arqctl("stats").stdout, "the packet to arrive")
    assert "SO_BINDTODEVICE" not in channel.journal()


def test_deliberate_loss_is_switched_by_its_file(either):
    either.start()
    folder = f"/run/tx_proxy-{either.net.instance}/run" if either.unit.startswith("tx_proxy-private") else "/run"
    switch = f"{folder}/tx_proxy{either.net.instance}.imp"
    either.machine.do("touch", switch)
    either.wait_journal("Impairment ON")
    assert either.machine.run("test", "-e", switch).returncode == 1


def test_the_library_gets_its_password_with_blanks(either):
    library = plugin_builder.build(either.machine.root / "usr/local/bin" / plugin_builder.INSTALLED_NAME)
    try:
        either.set(TX_PROXY_PASSWORD="two words").start()
        either.wait_journal("Loaded")
        arguments = pathlib.Path(f"/proc/{either.pid}/cmdline").read_text(encoding="utf-8").split("\0")
        assert arguments[arguments.index("-Z") + 1] == "two words"
        assert "two words" not in pathlib.Path(f"/proc/{either.pid}/environ").read_text(encoding="utf-8")
    finally:
        library.unlink()


def test_names_of_destinations_are_looked_up(either):
    either.machine.write("/etc/hosts", "127.0.0.1 localhost\n127.0.0.5 studio-b\n")
    either.set("-a", "studio-b").start()
    assert either.list() == ["127.0.0.5"]


def test_both_units_of_one_channel_exclude_each_other(closing, machine, net):
    usual = closing(Channel(machine, net)).set().start()
    private = closing(Channel(machine, net, "tx_proxy-private")).start()
    assert machine.property(usual.unit, "ActiveState") == "inactive"
    assert private.list() == []
    usual.start()
    assert machine.property(private.unit, "ActiveState") == "inactive"
    assert "Process already running!" not in usual.journal() + private.journal()


def test_the_page_and_the_metrics_see_a_channel_and_its_machine(closing, machine, either, lease):
    either.start()
    unit = f"arqctl@{lease.instance}"
    port = lease.port()
    options = f"--listen 127.0.0.1:{port}"
    machine.write(f"/etc/default/arqctl-{lease.instance}", f'ARQCTL_OPTIONS="{options}"\n')
    machine.do("systemctl", "start", unit)
    closing(Stopping(machine, unit))

    def metrics():
        with contextlib.suppress(OSError):
            with urllib.request.urlopen(f"http://127.0.0.1:{port}/metrics", timeout=5) as reply:
                return reply.read().decode()
        return ""

    wanted = ("tx_proxy_cpu_seconds_total", "tx_proxy_input_kernel_drops_total", "tx_proxy_ring_packets")
    channel = f'channel="{either.net.instance}"'
    lines = [rf"^tx_proxy_up\{{{channel}\}} 1$", *(rf"^{name}\{{{channel}\}} \d" for name in wanted)]
    wait_until(lambda: all(re.search(line, metrics(), re.MULTILINE) for line in lines), metrics)


def test_a_receiver_writes_into_its_folder_and_says_that_it_leaves(closing, machine, channel, lease):
    channel.start()
    stream = closing(encoder.Stream(channel.net.input))
    unit = f"arqrx@{lease.instance}"
    ports_of_it = f"127.0.0.1:{channel.net.destination} --request-port {channel.net.request}"
    options = f"{ports_of_it} --id none --output file:live.ts"
    machine.write(f"/etc/default/arqrx-{lease.instance}", f'ARQRX_OPTIONS="{options}"\n')
    machine.do("systemctl", "start", unit)
    closing(Stopping(machine, unit))
    path = machine.root / f"var/lib/private/arqrx-{lease.instance}/live.ts"
    wait_until(lambda: path.exists() and path.stat().st_size > 10 * encoder.PAYLOAD_BYTES, "the stream in its file")
    assert channel.list() == ["127.0.0.2"] and stream.count
    assert machine.do("readlink", f"/var/lib/arqrx-{lease.instance}") == f"private/arqrx-{lease.instance}\n"
    machine.do("systemctl", "stop", unit)
    wait_until(lambda: not channel.list(), "the receiver to have left")
