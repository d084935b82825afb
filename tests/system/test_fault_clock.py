"""The wall clock is set while the proxy runs: back and forth by an hour and by 2^31 ms.

Schedules (pacer, impairment poll, keep-alive) go on as if nothing had happened. Timestamps and the age of packets
are by the wall clock, as receivers know them, so they show the step.
"""

import signal
import threading
import time

import pytest

from txproxy import control, impairment, instances, reports, rtp, traffic
from txproxy.model_receiver import DEFAULT_WINDOW, PingingReceiver, is_retransmission, stamped, start_media, wait_bound
from txproxy.process import cpu_seconds
from txproxy.receiver import pump
from txproxy.stepped_clock import HOUR, WRAP, SteppedClock
from txproxy.waiting import Lateness, scaled, wait_until, within

CONFIGURED = "127.0.0.2"
BEFORE_WRAP = WRAP - 5.0  # the longest way for a schedule that catches up by signed 32-bit differences
STEPS = {
    "an hour forward": HOUR,
    "an hour back": -HOUR,
    "2^31 ms forward": WRAP,
    "2^31 ms back": -WRAP,
    "almost 2^31 ms forward": BEFORE_WRAP,
    "almost 2^31 ms back": -BEFORE_WRAP,
}
each_step = pytest.mark.parametrize("step", STEPS.values(), ids=[name.replace(" ", "-") for name in STEPS])
each_mode = pytest.mark.parametrize("options", [(), ("-X", 8_000_000)], ids=["unpaced", "paced"])

OBSERVED_SECONDS = 1.0
IDLE_SHARE = 0.25  # of one processor; a loop that spins takes all of it
PROMPT_SECONDS = 1.0
PACKETS_PER_SECOND = 200
TURN_SECONDS = 0.1  # the proxy's sleep between two looks at its streams
LATE_SECONDS = 0.4  # how late a busy machine may let the first or the last packet come


@pytest.fixture
def clock(tmp_path):
    return SteppedClock(tmp_path)


@pytest.fixture
def receiver(receive):
    """The configured receiver. Media for an address that nobody has would come to the proxy as pings."""
    return receive(CONFIGURED)


@pytest.fixture
def start(start_proxy, receiver, clock, net):
    """start(*options) runs the proxy by the clock that can be set."""
    assert receiver

    def run(*options):
        return wait_bound(start_proxy("-a", CONFIGURED, *options, env=clock.env), net.destination, net.request)

    return run


@pytest.fixture
def stream(closing, receiver, sender):
    """Media at a constant rate, whatever happens, for a receiver that is there."""
    assert receiver
    return closing(traffic.Steady(sender, media, PACKETS_PER_SECOND))


def media(number, size=188):
    return rtp.packet(number, number.to_bytes(4, "big").ljust(size, b"."))


def numbers(receiver):
    return [int.from_bytes(rtp.payload(data)[:4], "big") for data in receiver.payloads]


def wrapped_ticks(seconds):
    """A step as the 32-bit timestamps show it."""
    return rtp.ticks_since(int(seconds * rtp.TICKS_PER_SECOND) & 0xFFFFFFFF, 0)


@each_mode
@each_step
def test_clock_stepped_media_go_on_without_loss_and_no_thread_spins(start, receiver, clock, stream, step, options):
    proxy = start(*options)
    receiver.wait_count(PACKETS_PER_SECOND // 4)
    clock.step(step)
    after_step = stream.sent
    used = cpu_seconds(proxy.pid)
    begin = time.monotonic()
    time.sleep(OBSERVED_SECONDS)  # a span to look at, not a wait
    share = (cpu_seconds(proxy.pid) - used) / (time.monotonic() - begin)
    assert share < IDLE_SHARE
    wait_until(lambda: numbers(receiver)[-1] > after_step + PACKETS_PER_SECOND, "media of a second after the step")
    arrived = numbers(receiver)
    assert arrived == list(range(arrived[0], arrived[0] + len(arrived)))


@each_step
def test_clock_stepped_the_timestamps_jump_once_by_the_step(start, receiver, clock, sender, step):
    start()
    began = time.monotonic()
    pump(sender, [receiver], [media(0), media(1)])
    clock.step(step)
    pump(sender, [receiver], [media(2), media(3)])
    most = (time.monotonic() - began) * rtp.TICKS_PER_SECOND + 1
    stamps = [rtp.timestamp(data) for data in receiver.payloads]
    gaps = [rtp.ticks_since(now, before) for before, now in zip(stamps, stamps[1:])]
    assert 0 <= gaps[0] <= most and 0 <= gaps[2] <= most
    assert 0 <= gaps[1] - wrapped_ticks(step) <= most
    assert abs(rtp.age_seconds(receiver.payloads[-1], clock.now())) <= most / rtp.TICKS_PER_SECOND


@each_step
def test_clock_stepped_the_pacer_neither_floods_nor_falls_behind(start, receiver, clock, sender, net, closing, step):
    # 100 packets a second: one tick of 10 ms brings one. The proxy is stopped for a while, which the pacer makes up
    # for: that it still can shows that its schedule has not moved into the future.
    size, rate, count, stopped = 1000, 800_000, 300, 1.6
    proxy = start("-X", rate)
    began = time.monotonic()
    traffic.send_all(sender, net.input, [media(number, size) for number in range(count)])
    supplying = time.monotonic() - began  # what the pacer had to wait for meanwhile is no fault of its own
    receiver.wait_count(1)
    clock.step(step)
    lateness = closing(Lateness(TURN_SECONDS))
    proxy.process.send_signal(signal.SIGSTOP)
    time.sleep(stopped)
    proxy.process.send_signal(signal.SIGCONT)
    receiver.wait_count(count)
    late = LATE_SECONDS + lateness.allowed()
    times = [datagram.time for datagram in receiver.datagrams]
    nominal = count * size * 8 / rate
    assert 0.75 * nominal - LATE_SECONDS <= times[-1] - times[0] <= nominal + stopped / 2 + late + supplying


@each_step
def test_clock_stepped_requests_for_what_is_sent_afterwards_are_answered(start, learn, clock, sender, step):
    receiver = start_media(start(), learn())
    pump(sender, [receiver], [media(number) for number in range(5)])
    clock.step(step)
    pump(sender, [receiver], [media(number) for number in range(5, 10)])
    receiver.ask([6, 7, 8])
    assert [rtp.seq(data) for data in receiver.answers()] == [6, 7, 8]


def asked_for_across(step, clock, receiver, sender, wait_seconds=0.0):
    """Sends 0 to 9, has 0 to 4 sent again, sets the clock and waits; returns what is sent again when all is asked for.

    The window is the one that receivers send: 600 ms of age.
    """
    pump(sender, [receiver], [media(number) for number in range(10)])
    receiver.ask(range(5), DEFAULT_WINDOW)
    receiver.settle()
    before = len([data for data in receiver.payloads if is_retransmission(data)])
    clock.step(step)
    time.sleep(wait_seconds)
    receiver.ask(range(9), DEFAULT_WINDOW)
    return [rtp.seq(data) for data in receiver.answers()[before:]]


@pytest.mark.parametrize("step", [HOUR], ids=["an-hour-forward"])
def test_clock_stepped_forward_what_was_sent_before_counts_as_too_old(start, learn, clock, sender, step):
    receiver = start_media(start(), learn())
    assert asked_for_across(step, clock, receiver, sender) == []


@pytest.mark.parametrize("step", [-HOUR], ids=["an-hour-back"])
def test_clock_stepped_back_what_was_sent_before_stays_young_and_what_was_resent_stays_held_off(
    start, learn, clock, sender, step
):
    receiver = start_media(start(), learn())
    longer_than_the_window = DEFAULT_WINDOW.age_seconds() + 0.2
    assert asked_for_across(step, clock, receiver, sender, longer_than_the_window) == [5, 6, 7, 8]


@pytest.mark.parametrize("step", [WRAP, -WRAP], ids=["2^31-ms-forward", "2^31-ms-back"])
def test_clock_stepped_by_2_to_the_31_ms_the_media_clock_shows_nothing(start, learn, clock, sender, step):
    # 2^31 ms are 45 x 2^32 ticks: what was sent before ages by the real time that passes.
    assert wrapped_ticks(step) == 0
    receiver = start_media(start(), learn())
    longer_than_the_window = DEFAULT_WINDOW.age_seconds() + 0.2
    assert asked_for_across(step, clock, receiver, sender, longer_than_the_window) == []


@each_step
def test_clock_stepped_commands_impairment_files_and_bit_rates_work_as_before(
    start, receiver, clock, stream, net, step
):
    proxy = start()
    receiver.wait_count(1)
    wait_until(lambda: control.request(net.instance, "List") == CONFIGURED, "the control socket")
    clock.step(step)
    with within(PROMPT_SECONDS):
        assert control.request(net.instance, "List") == CONFIGURED
    impairment.toggle(net.instance)
    proxy.wait_stderr("Impairment ON", timeout=5)
    impairment.toggle(net.instance)
    proxy.wait_stderr("Impairment OFF", timeout=5)
    right = PACKETS_PER_SECOND * len(media(0)) * 8
    wait_until(
        lambda: abs(reports.all_stats(net.instance)["RECV_BITRATE"] - right) < right / 4, "the right bit rate", 5
    )
    assert stream.sent > 0


class Pinging(threading.Thread):
    """Pings for a receiver, often enough to keep its stream."""

    def __init__(self, receiver):
        super().__init__(daemon=True)
        self._receiver = receiver
        self._end = threading.Event()
        self.start()

    def run(self):
        while not self._end.wait(1.0):
            self._receiver.ping()

    def close(self):
        self._end.set()
        self.join()


def learnt(closing, proxy, where, address):
    receiver = closing(PingingReceiver(address, where.destination, where))
    return start_media(proxy, receiver)


def test_clock_stepped_who_pings_stays_and_who_is_silent_leaves_in_5_to_10_seconds(launch, closing, tmp_path):
    pinging, silent = "127.0.0.5", "127.0.0.6"
    proxies, runs = [], []
    for number, step in enumerate(STEPS.values()):
        own = SteppedClock(tmp_path, f"clock{number}")
        where = instances.reserve(closing)
        proxy = wait_bound(instances.start(launch, where, env=own.env), where.destination, where.request)
        proxies.append((proxy, where, own, step))
    lateness = closing(Lateness(TURN_SECONDS))
    for proxy, where, own, step in proxies:
        closing(Pinging(learnt(closing, proxy, where, pinging)))
        began = time.monotonic()
        learnt(closing, proxy, where, silent)
        own.step(step)
        runs.append((proxy, where, began, time.monotonic()))
    left = {}

    def all_left():
        for proxy, where, _, _ in runs:
            if where.instance not in left and proxy.stderr.find(stamped(f"Stream suspended for {silent}")):
                left[where.instance] = time.monotonic()
        return len(left) == len(runs)

    wait_until(all_left, "the silent receivers to leave")
    for _, where, began, stepped in runs:
        assert left[where.instance] - began >= 5.0
        assert left[where.instance] - stepped < 10.0 + scaled(1.0) + lateness.allowed()
        assert control.request(where.instance, "List") == pinging


def test_clock_that_drifts_by_50_ppm_changes_nothing(start, receiver, clock, stream):
    proxy = start("-X", 8_000_000)
    clock.drift(50)
    used = cpu_seconds(proxy.pid)
    receiver.wait_count(2 * PACKETS_PER_SECOND)
    clock.drift(-50)
    receiver.wait_count(4 * PACKETS_PER_SECOND)
    assert cpu_seconds(proxy.pid) - used < 4 * IDLE_SHARE
    arrived = numbers(receiver)
    assert arrived == list(range(arrived[0], arrived[0] + len(arrived)))
    assert stream.sent >= len(arrived)
