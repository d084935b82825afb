"""`arqctl stats` beside a real proxy: one reading in its forms, and a watch through all that can happen meanwhile."""

import contextlib
import csv
import io
import os
import re
import signal
import socket
import subprocess

import pytest

from txproxy import arqctl, control, instances, reports, rtp
from txproxy.process import stopped
from txproxy.receiver import pump
from txproxy.traffic import Steady
from txproxy.waiting import DEFAULT_TIMEOUT, scaled, wait_until, within

pytestmark = pytest.mark.release_only

RECEIVER = "127.0.0.2"
PER_SECOND = 300


def media(number):
    return rtp.packet(number % 65536, bytes(100))


@pytest.fixture
def watch(closing):
    """watch(instance, *options) starts a watch that ends with the test at the latest."""
    return lambda instance, *options: closing(arqctl.Arqctl("-I", instance, "stats", "--watch", "100ms", *options))


@pytest.fixture
def stream(closing, sender):
    """Input at a constant rate, until the end of the test."""
    return lambda: closing(Steady(sender, media, PER_SECOND))


def wait_object(watching, condition, what):
    return wait_until(lambda: next(filter(condition, watching.objects), None),
                      lambda: f"{what}; it printed:\n{watching.stdout.text}\n{watching.stderr.text}")  # fmt: skip


def stop_between_questions(proxy, instance, *watches):
    """Ends the proxy while no question of these is under way: an answer that breaks off is another story."""
    with contextlib.ExitStack() as stack:
        for watching in watches:
            stack.enter_context(stopped(watching))
        control.request(instance, "RxStat")  # clients are served in turn: theirs are through
        proxy.stop()


def test_one_reading_is_the_same_in_all_its_forms(commanded_proxy, net, sender, receive):
    commanded_proxy("-a", RECEIVER)
    pump(sender, [receive(RECEIVER)], [media(number) for number in (1, 2, 5)])
    read = arqctl.run("-I", net.instance, "--json", "stats").json
    assert read.pop("time") > 1.6e9
    assert isinstance(read.pop("input_bit_rate"), int) and isinstance(read.pop("output_bit_rate"), int)
    assert read == {
        "up": True, "input_packets": 3, "input_lost": 2, "output_packets": 3, "receiver_count": 1, "receivers": [RECEIVER]
    }
    (row,) = csv.DictReader(io.StringIO(arqctl.run("-I", net.instance, "stats", "--csv").stdout))
    assert (row["up"], row["input_packets"], row["input_lost"], row["receivers"]) == ("1", "3", "2", RECEIVER)
    assert row["input_packet_rate"] == row["withheld_delta"] == ""
    status, text, _ = arqctl.run("-I", net.instance, "stats")
    assert status == arqctl.GOOD
    lines = text.splitlines()
    assert re.fullmatch(r"input bit rate   [0-9.]+ k?bit/s", lines.pop(1))
    assert re.fullmatch(r"output bit rate  [0-9.]+ k?bit/s", lines.pop(3))
    assert lines == [
        "input packets    3",
        "input lost       2",
        "output packets   3",
        "receivers        1",
        f"                 {RECEIVER}",
    ]


def test_the_deltas_of_a_watch_add_up_and_the_proxy_is_not_reset(commanded_proxy, net, receive, stream, watch):
    commanded_proxy("-a", RECEIVER)
    receive(RECEIVER)
    stream()
    watching = watch(net.instance, "--json", "--count", "8")
    assert watching.wait_exit() == arqctl.GOOD
    objects = watching.objects
    assert len(objects) == 8
    assert "input_packets_delta" not in objects[0]
    assert objects[-1]["input_packets"] - objects[0]["input_packets"] == sum(o["input_packets_delta"] for o in objects[1:])
    for one in objects[1:]:
        assert one["input_packet_rate"] == pytest.approx(one["input_packets_delta"] / one["interval_s"], rel=0.01, abs=0.1)
        assert one["receivers"] == [RECEIVER] and not one["input_gone"] and one["resets"] == one["restarts"] == 0
    assert objects[-1]["input_packets_delta"] > 0
    assert reports.all_stats(net.instance)["RECV_PACKETS"] >= objects[-1]["input_packets"]


def test_a_watch_for_people_prints_aligned_lines_until_sigint(commanded_proxy, net, receive, stream, watch):
    commanded_proxy("-a", RECEIVER)
    receive(RECEIVER)
    stream()
    watching = watch(net.instance)
    lines = wait_until(lambda: len(watching.stdout.lines) > 4 and watching.stdout.lines, "lines of a watch")
    assert lines[0].split() == ["time", "input", "pkt/s", "lost", "output", "pkt/s", "beyond", "withheld", "recv"]
    assert {len(line) for line in lines} == {len(lines[0])} and len(lines[0]) <= 80
    watching.process.send_signal(signal.SIGINT)
    assert watching.wait_exit() == arqctl.GOOD
    assert watching.stderr.text == ""


def test_a_reset_and_a_restart_are_told_and_counted_over(launch, closing, lease, watch):
    where = instances.reserve(closing)
    proxy = instances.start(launch, where)
    sender = instances.sender_to(closing, where)
    feed = closing(Steady(sender, media, PER_SECOND))
    watching = watch(where.instance, "--json")
    people = watch(where.instance)
    wait_object(watching, lambda one: one.get("input_packets_delta", 0) > 0, "input")
    # "time 133 kbit/s 299.0 ...": a rate of packets that is not 0.
    wait_until(lambda: re.search(r"bit/s +[\d.]*[1-9]", people.stdout.text), "lines with input")
    feed.close()  # counts that came up to the earlier ones before the next question would hide the reset
    assert control.request(where.instance, "StatClear") == "OK: Stat Reset"
    wait_object(watching, lambda one: one["resets"] == 1, "a reset")
    wait_until(lambda: "its counts were reset" in people.stdout.text, "a line of it")
    closing(Steady(sender, media, PER_SECOND))
    stop_between_questions(proxy, where.instance, watching, people)
    down = wait_object(watching, lambda one: not one["up"], "the proxy to be down")
    assert down["error"] == f"nobody listens on /dev/arq_tx_ctrl{where.instance}: its proxy has ended"
    wait_until(lambda: "its proxy has ended" in people.stdout.text, "a line of it")
    instances.start(launch, where)
    again = wait_object(watching, lambda one: one["restarts"] == 1 and one.get("input_packets_delta", 0) > 0, "it is back")
    assert again["up"] and again["resets"] == 1
    wait_until(lambda: "started anew" in people.stdout.text, "a line of it")
    told = [line[9:] for line in people.stdout.lines if line[9:10].isalpha()]
    assert [line.split(",")[0] for line in told if "input" not in line] == [
        "its counts were reset",
        f"nobody listens on /dev/arq_tx_ctrl{where.instance}: its proxy has ended; it is asked on",
        "it answers again",
        "the proxy has been started anew",
    ]
    for one in (watching, people):
        one.process.terminate()
        assert one.wait_exit() == arqctl.GOOD
    assert all(one.get("input_packets_delta", 0) >= 0 for one in watching.objects)


def test_with_fail_on_down_a_watch_ends_when_the_proxy_does(commanded_proxy, net, watch):
    proxy = commanded_proxy()
    watching = watch(net.instance, "--csv", "--fail-on-down")
    wait_until(lambda: len(watching.stdout.lines) > 2, "rows")
    stop_between_questions(proxy, net.instance, watching)
    assert watching.wait_exit() == arqctl.NO_PROXY
    assert watching.stderr.lines[0] == f"arqctl: nobody listens on /dev/arq_tx_ctrl{net.instance}: its proxy has ended"
    rows = list(csv.DictReader(io.StringIO(watching.stdout.text)))
    assert all(row["up"] == "1" for row in rows) and rows[-1]["input_gone"] in "01"


def test_a_reader_that_goes_ends_the_watch_quietly(commanded_proxy, net):
    commanded_proxy()
    command = [arqctl.program(), "-I", str(net.instance), "stats", "--watch", "24h"]
    with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE) as watching:
        assert watching.stdout.readline().startswith(b"time")
        assert watching.stdout.readline()
        watching.stdout.close()  # the next line would come tomorrow
        assert watching.wait(scaled(DEFAULT_TIMEOUT)) == arqctl.GOOD
        assert watching.stderr.read() == b""


@pytest.mark.parametrize("told", [signal.SIGTERM, signal.SIGHUP])
def test_a_watch_of_a_proxy_that_never_answers_ends_on_a_signal_at_once(lease, closing, watch, told):
    path = control.path(lease.instance)
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as listener:
        listener.bind(path)
        try:
            listener.listen()
            watching = watch(lease.instance, "--timeout", "1h")
            closing(listener.accept()[0])
            watching.process.send_signal(told)
            with within(3):
                assert watching.wait_exit() == arqctl.GOOD
        finally:
            os.unlink(path)


@pytest.mark.parametrize(
    "options, problem",
    [
        (["--csv", "--json"], "--csv and --json do not go together"),
        (["--count", "3"], "--count and --fail-on-down are for a watch"),
        (["--watch", "soon"], "--watch: 'soon' is not a time; write 1s or 500ms"),
        (["--watch", "10ms"], "--watch: '10ms' is not between 100ms and 24h"),
    ],
)
def test_options_that_do_not_go_together_are_refused(options, problem):
    result = arqctl.run("stats", *options)
    assert result.status == arqctl.USAGE
    assert result.problem[0] == problem
