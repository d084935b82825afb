"""System calls that a signal interrupts: nothing is lost, doubled or ended, and nothing spins."""

import time

import pytest

from txproxy import control, impairment, preload, raw_control, reports, rtp
from txproxy.model_receiver import start_media, wait_bound
from txproxy.process import cpu_seconds
from txproxy.receiver import pump
from txproxy.waiting import scaled

CALLS = (
    "recvfrom", "recvmmsg", "sendto", "sendmsg", "sendmmsg", "send", "poll", "accept", "read", "write", "nanosleep",
)  # fmt: skip
ALWAYS = ("recvfrom", "recvmmsg", "poll", "nanosleep", "write")
PACKETS = 1000
EVEN_PACKETS = 20
REQUESTS = 50
COMMANDS = 50
COMMAND_SECONDS = 0.3  # less than one wait of the control thread
LOOK_SECONDS = 1.0
LARGEST_PROCESSOR_SHARE = 0.3


class Interrupted:
    """A proxy of whose calls every n-th is interrupted."""

    def __init__(self, tmp_path, every):
        path = tmp_path / "counts"
        self._counts = preload.shared_words(path, len(CALLS))
        self.env = preload.environment(
            tmp_path, "interrupt_calls", INTERRUPT_EVERY=str(every), INTERRUPT_COUNTS=str(path)
        )

    def counts(self):
        return dict(zip(CALLS, self._counts))


@pytest.fixture(params=[2, 3])
def interrupted(request, tmp_path):
    return Interrupted(tmp_path, request.param)


@pytest.fixture
def start(start_proxy, interrupted, net):
    def run(*options):
        proxy = start_proxy("-a", "127.0.0.2", *options, env=interrupted.env)
        return wait_bound(proxy, net.destination, net.request)

    return run


def media(count):
    return [rtp.packet(i, b"payload %d" % i) for i in range(count)]


@pytest.mark.parametrize(
    "options, calls",
    [
        ((), (*ALWAYS, "sendto", "send", "sendmmsg")),
        (("-u",), (*ALWAYS, "sendmsg", "sendmmsg")),
        (("-X", "20000000"), (*ALWAYS, "sendmmsg")),
    ],
)
def test_every_packet_and_answer_arrives_once_and_in_order_when_calls_are_interrupted(
    start, interrupted, receive, learn, sender, options, calls
):
    proxy = start(*options)
    receivers = [receive(), start_media(proxy, learn())]
    for receiver in receivers:
        receiver.clear()
    built = "-u" in options
    sent = [rtp.payload(data) for data in media(PACKETS)] if built else media(PACKETS)
    pump(sender, receivers, sent[:EVEN_PACKETS], window=1)
    pump(sender, receivers, sent[EVEN_PACKETS:])
    for receiver in receivers:
        arrived = [rtp.payload(data) if built else rtp.without_timestamp(data) for data in receiver.payloads]
        assert arrived == sent
    asking = receivers[1]
    first = rtp.seq(asking.payloads[0])
    for number in range(REQUESTS):
        asking.ask([first + number])
    asking.settle()
    assert [rtp.seq(data) for data in asking.answers()] == [first + number for number in range(REQUESTS)]
    assert "SendData failed" not in proxy.stderr.text
    assert all(interrupted.counts()[call] > 0 for call in calls), interrupted.counts()


def test_every_command_is_carried_out_once_and_answered_when_calls_are_interrupted(start, interrupted, net):
    proxy = start()
    took = []
    for _ in range(COMMANDS):
        began = time.monotonic()
        assert control.request(net.instance, "List") == "127.0.0.2"
        assert raw_control.converse(net.instance, b"Debug") == ""
        took.append(time.monotonic() - began)
    # Whatever was printed before the line of a later command stands before it.
    assert control.request(net.instance, "Add a.b") == "OK: Adding: a.b"
    proxy.wait_stderr("unknown host 'a.b'")
    assert len(reports.dumps(proxy)) == COMMANDS
    assert sorted(took)[COMMANDS // 2] < scaled(COMMAND_SECONDS), took
    with raw_control.connected(net.instance) as client:
        for _ in range(COMMANDS):
            assert raw_control.ask(client, "List") == "127.0.0.2"
    counts = interrupted.counts()
    assert all(counts[call] > 0 for call in ("accept", "read", "send", "poll")), counts


def test_settings_are_read_whole_when_calls_are_interrupted(start, net, sender, receive):
    proxy = start()
    for turn in range(1, 4):
        impairment.write_settings(net.instance, min_drop=2 + turn, mode=9)
        impairment.toggle(net.instance)
        proxy.wait_stderr("Impairment ON", count=turn)
        proxy.wait_stderr(f"min_drop = {2 + turn}")
        impairment.toggle(net.instance)
        proxy.wait_stderr("Impairment OFF", count=turn)
    assert len(proxy.stderr.find("mode = 9")) == 3


def test_a_proxy_whose_calls_are_interrupted_burns_no_processor(start):
    proxy = start()
    used, began = cpu_seconds(proxy.pid), time.monotonic()
    time.sleep(scaled(LOOK_SECONDS))  # a span to look at, not a wait
    assert cpu_seconds(proxy.pid) - used < LARGEST_PROCESSOR_SHARE * (time.monotonic() - began)
