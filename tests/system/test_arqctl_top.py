"""The terminal view as an operator sees it: its screen in a terminal, its keys, its lines in a pipe."""

import contextlib
import os
import re
import signal

import pytest

from txproxy import arqctl, control, impairment, ports, process, proxy, rtp, tmux
from txproxy.receiver import Receiver, Sender
from txproxy.traffic import Steady
from txproxy.waiting import wait_until, within

pytestmark = pytest.mark.release_only

RATE = 300  # packets a second
PAYLOAD = bytes(1000)
COLOUR = re.compile(r"\x1b\[[0-9;]*(?<![0-9])[34][0-7]m")
ALARM = re.compile(r"\x1b\[[0-9;]*41mINPUT GONE")
ANY_STATE = "(good|waiting|INPUT GONE) "  # it has answered
USAGE_KEYS = "? help  q quit"


class Channel:
    """A proxy with one receiver that nobody deletes, and its input while it is fed."""

    def __init__(self):
        self._lease = ports.Lease()
        self.instance = self._lease.instance
        self.input, self.destination, self.request = (self._lease.port() for _ in range(3))
        self._receiver = Receiver("127.0.0.2", self.destination)
        self._sender = Sender("127.0.0.1", self.input)
        self.proxy = None
        self.start()

    def start(self):
        self.proxy = proxy.Proxy("-I", self.instance, "-p", self.destination, "-r", self.request, "-a", "127.0.0.2",
                                 self.input)  # fmt: skip
        self.proxy.wait_ready()

    @contextlib.contextmanager
    def fed(self):
        stream = Steady(self._sender, lambda number: rtp.packet(number & 0xFFFF, PAYLOAD), RATE)
        try:
            yield
        finally:
            stream.close()

    def receivers(self):
        return control.request(self.instance, "List")

    def close(self):
        self.proxy.kill()
        self._sender.close()
        self._receiver.close()
        self._lease.close()


@pytest.fixture(scope="module")
def channel():
    made = Channel()
    yield made
    made.close()


@pytest.fixture(scope="module")
def window():
    made = tmux.Terminal()
    yield made
    made.close()


@pytest.fixture
def top(window):
    """top(*arguments, NAME=value) runs the view in the terminal; it is ended, whatever it shows."""

    def run(*arguments, **environment):
        window.resize(80, 24)
        window.run("clear")
        window.run(arqctl.program(), "top", *arguments, **environment)
        return window

    yield run
    window.resize(80, 24)  # else the shell's prompt finds no room
    window.keys("Escape")
    window.keys("q")
    window.wait(lambda screen: screen.rstrip().endswith(tmux.SHELL_READY))
    window.keys("C-c")


def has_state(channel, word):
    return lambda screen: re.search(rf"^[> ] {channel.instance} +{word}", screen, re.MULTILINE)


def figures(screen):
    """{label: its text} of the selected proxy."""
    return dict(re.findall(r"^ (input|output|lost|resent|withheld) +(\S+(?: \w*bit/s)?)", screen, re.MULTILINE))


def test_figures_move_while_a_stream_runs_and_a_lost_input_is_red(channel, top):
    with channel.fed():
        window = top(channel.instance)
        window.wait(lambda screen: re.search(r"^ input +2\.\d+ Mbit/s .*[▁▂▃▄▅▆▇█]", screen, re.MULTILINE))
        window.wait(has_state(channel, "good +2"))
        before = window.wait(lambda screen: re.search(r"^ output +2\.\d+ Mbit/s", screen, re.MULTILINE))
        assert "127.0.0.2" in before and "1 receiver" in before
        assert f"input {channel.input}, media {channel.destination}" in before
        assert figures(before)["lost"] == "0/s"
    gone = window.wait(has_state(channel, "INPUT GONE"))
    assert "1 proxy: 1 without input" in gone
    assert re.search(r"INPUT GONE for \d+ s", gone)
    assert ALARM.search(window.screen(colours=True))


def test_add_delete_and_reset_are_done_after_yes_and_not_after_no(channel, top):
    window = top(channel.instance)
    window.wait(has_state(channel, ANY_STATE))
    window.keys("a", *"127.0.0.9", "Enter")
    window.wait(f"Add 127.0.0.9 to proxy {channel.instance}?")
    assert f"to UDP port {channel.destination}" in " ".join(window.screen().split())
    window.keys("n")
    window.wait("nothing was changed")
    assert channel.receivers() == "127.0.0.2"
    for answer in ("was added", "was in the list before"):
        window.keys("a", *"127.0.0.9", "Enter", "y")
        window.wait(f"proxy {channel.instance}: 127.0.0.9 {answer}")
    assert channel.receivers() == "127.0.0.2,127.0.0.9"
    window.wait("2 receivers")
    window.keys("d", "Down", "Enter")
    window.wait(f"Delete 127.0.0.9 from proxy {channel.instance}?")
    window.keys("n")
    assert channel.receivers() == "127.0.0.2,127.0.0.9"
    window.keys("d", "Down", "Enter", "y")
    window.wait("127.0.0.9 was deleted")
    assert channel.receivers() == "127.0.0.2"


def test_statistics_are_reset_after_yes_and_not_after_no(channel, top):
    with channel.fed():
        wait_until(lambda: "NET_TOTAL_PACKETS=0" not in control.request(channel.instance, "RxStat"), "input")
    window = top(channel.instance)
    window.wait(has_state(channel, ANY_STATE))
    window.keys("r")
    window.wait("Set the statistics of proxy")
    window.keys("n")
    window.wait("nothing was changed")
    assert "NET_TOTAL_PACKETS=0" not in control.request(channel.instance, "RxStat")
    window.keys("r", "y")
    window.wait("its statistics were set to 0")
    assert "NET_TOTAL_PACKETS=0" in control.request(channel.instance, "RxStat")


def test_deliberate_loss_is_switched_on_and_off_after_yes_and_not_after_no(channel, top):
    impairment.write_settings(channel.instance, min_dist=20)
    with channel.fed():
        window = top(channel.instance)
        window.wait(has_state(channel, "good"))
        window.keys("i")
        window.wait(f"Switch deliberate loss of proxy {channel.instance} ON?")
        window.keys("n")
        window.wait("nothing was changed")
        window.keys("i", "y")
        window.wait("deliberate loss: it is on: ")
        assert channel.proxy.stderr.find("Impairment ON") == ["Impairment ON"]
        window.wait(lambda screen: figures(screen)["withheld"] not in ("0/s", "-"))
        window.keys("i")
        window.wait(f"Switch deliberate loss of proxy {channel.instance} OFF?")
        window.keys("y")
        window.wait("deliberate loss: it is off: ")
    assert channel.proxy.stderr.find("Impairment OFF") == ["Impairment OFF"]


def test_silly_sizes_and_terminals_without_colour_are_drawn_too(channel, top):
    window = top(channel.instance, NO_COLOR="1")
    window.wait(USAGE_KEYS)
    for columns, rows in ((20, 5), (3, 2), (200, 50), (1, 1), (80, 24)):
        window.resize(columns, rows)
        # Curses fills the last cell by inserting before another: where there is no other, it ends up blank.
        drawn = "^>" if columns > 1 else "^$"
        window.wait(lambda screen, drawn=drawn: re.search(drawn, screen, re.MULTILINE))
        assert len(window.rows()) == rows
    window.wait("1 receiver")
    assert "full bar" in window.screen()
    assert not COLOUR.search(window.screen(colours=True))
    window.keys("q")
    window.wait(lambda screen: USAGE_KEYS not in screen)
    top(channel.instance, "--no-color", TERM="vt100", LC_ALL="C")
    screen = window.wait("full bar")
    assert screen.isascii() and "---" in screen
    assert not COLOUR.search(window.screen(colours=True))


def test_the_terminal_is_given_back_after_q_and_after_a_signal(channel, top):
    window = top(channel.instance)

    def settings():
        return os.popen(f"stty -a -F {window.value('pane_tty')}").read()

    for way_out in ("q", "C-c", "TERM", "HUP"):
        window.wait(USAGE_KEYS)
        assert window.value("alternate_on") == "1" and window.value("cursor_flag") == "0"
        drawn = settings()
        if len(way_out) == 1 or "-" in way_out:
            window.keys(way_out)
        else:
            shell = int(window.value("pane_pid"))
            (view,) = map(int, os.popen(f"pgrep -P {shell}").read().split())
            os.kill(view, getattr(signal, f"SIG{way_out}"))
        window.wait(lambda screen: screen.rstrip().endswith(tmux.SHELL_READY))
        assert window.value("alternate_on") == "0" and window.value("cursor_flag") == "1"
        assert settings() != drawn and " echo " in settings() and " icanon " in settings()
        window.run(arqctl.program(), "top", channel.instance)
    window.wait(USAGE_KEYS)


def test_plain_lines_follow_a_proxy_over_its_restart(channel, closing):
    view = closing(arqctl.Arqctl("top", channel.instance))
    number = channel.instance
    figure = r"[\d.]+ [kM]?bit/s"
    with channel.fed():
        view.stdout.wait(re.compile(rf"\d\d:\d\d:\d\d  {number}  good  in 2\.\d+ Mbit/s  out {figure}  lost 0/s  resent \S+  "
                                    r"withheld \S+  receivers 1"))  # fmt: skip
        channel.proxy.kill()
        view.stdout.wait(re.compile(rf"\S+  {number}  NO PROXY: nobody listens on /dev/arq_tx_ctrl{number}: .*"))
        before = len(view.stdout.lines)
        channel.start()
        wait_until(lambda: any("  good  " in line for line in view.stdout.lines[before:]), "the proxy's return")
    assert view.stdout.text.isascii()
    view.process.send_signal(signal.SIGTERM)
    assert view.wait_exit() == arqctl.GOOD
    assert view.stderr.text == ""


def test_a_proxy_that_does_not_answer_holds_no_key_up(channel, top):
    with process.stopped(channel.proxy):
        window = top("--timeout", "6s", channel.instance)
        window.wait(USAGE_KEYS)
        with within(3):
            window.keys("?")
            window.wait("add a receiver to the selected proxy")
            window.keys("x")
        window.wait(has_state(channel, "NO ANSWER"))
        window.keys("r")
        window.wait(f"proxy {channel.instance} does not answer: nothing was changed")
    window.wait(has_state(channel, ANY_STATE))


def test_what_runs_here_is_found_and_what_is_no_proxy_is_refused(channel, top):
    window = top()
    window.wait(has_state(channel, ANY_STATE))
    assert "1 proxy:" in window.screen()
    status, stdout, stderr = arqctl.run("top", "ssh:edge1")
    assert (status, stdout) == (arqctl.USAGE, "")
    assert stderr.startswith("arqctl: 'ssh:edge1' is no proxy\n")
