"""The output pacer: its rate, the shape of what it releases, and what a full queue does."""

import collections
import functools

import pytest

from txproxy import instances, reports, rtp, traffic
from txproxy.receiver import pump
from txproxy.waiting import wait_until

RECEIVER = "127.0.0.2"
TS_BYTES = 7 * 188
QUEUE = 1024
TICK_SECONDS = 0.010
# One tick or packet of overdraft between the two ends, in more than a second.
RATE_TOLERANCE = 0.01
QUOTA_LINE = "CPacer::SetPacingRate m_ulQuotaBytes %d"


def media(number, size=TS_BYTES):
    return rtp.packet(number, number.to_bytes(4, "big").ljust(size, b"."))


def plain(number, size=TS_BYTES):
    return number.to_bytes(4, "big").ljust(size, b".")


# Input mode, rate in bit/s and payload bytes of a packet. Small payloads make an error of the 12 header bytes
# show: they are not charged with RTP input, and plain input has none that could be left out.
RATES = (
    ((), 800_000, 200),
    ((), 4_000_000, TS_BYTES),
    (("-u",), 800_000, 200),
    (("-u",), 4_000_000, TS_BYTES),
)


def output_rate(datagrams, size):
    """Payload bits per second by the timestamps, which are those of the release.

    A late tick delays what it releases, and the pacer makes up for it, so packets come late but never early: the
    rate is that between the most punctual packet near the beginning and the most punctual one near the end.
    """
    first = rtp.timestamp(datagrams[0])
    times = [rtp.ticks_since(rtp.timestamp(data), first) / rtp.TICKS_PER_SECOND for data in datagrams]

    def most_punctual(numbers, seconds_each):
        return min(numbers, key=lambda number: times[number] - number * seconds_each)

    about = times[-1] / (len(times) - 1)
    sixth = len(times) // 6
    begin = most_punctual(range(sixth), about)
    end = most_punctual(range(len(times) - sixth, len(times)), about)
    return (end - begin) * size * 8 / (times[end] - times[begin])


def test_the_output_has_the_pacing_bit_rate_in_both_input_modes(launch, closing):
    receivers = []
    for mode, rate, size in RATES:
        place = instances.reserve(closing)
        instances.start(launch, place, *mode, "-X", rate, "-a", RECEIVER)
        receivers.append(instances.receiver_of(closing, place, RECEIVER))
        make = functools.partial(plain if mode else media, size=size)
        # All of it fits into the queue, which nobody has to keep filled then.
        traffic.send_all(instances.sender_to(closing, place), place.input, [make(i) for i in range(QUEUE)])
    rates = [output_rate(receiver.wait_count(QUEUE), size) for receiver, (_, _, size) in zip(receivers, RATES)]
    assert rates == [pytest.approx(rate, rel=RATE_TOLERANCE) for _, rate, _ in RATES]


def is_released_as(wanted, release):
    """Whether one of many bursts comes out in groups of these sizes; release() sends one and waits for it.

    A busy machine merges ticks or splits a burst, so not every burst shows the shape; with a wrong quota none does.
    """
    shapes = collections.Counter()

    def seen():
        shapes[tuple(traffic.release_groups(release(), TICK_SECONDS / 3))] += 1
        return wanted in shapes

    wait_until(seen, lambda: f"{wanted}, got {shapes}")


def test_a_burst_is_released_tick_by_tick_as_quota_and_overdraft_allow(start_proxy, sender, receive):
    # 12,500 bytes a tick and 1,316 charged a packet: 10 leave an overdraft of 660, 9 more one of 4, then again.
    start_proxy("-X", 10_000_000, "-a", RECEIVER)
    receiver = receive(RECEIVER)
    burst = [media(i) for i in range(10 + 9 + 10 + 9 + 10)]

    def release():
        receiver.clear()
        for data in burst:
            sender.send(data)
        return receiver.wait_count(len(burst))

    is_released_as((10, 9, 10, 9, 10), release)


def test_with_plain_input_the_whole_packet_is_charged(start_proxy, sender, receive):
    # 200 bytes a tick: with 100-byte packets 2 a tick. Were 12 bytes not charged, it would be 3 at times.
    start_proxy("-u", "-X", 160_000, "-a", RECEIVER)
    receiver = receive(RECEIVER)

    def release():
        receiver.clear()
        for i in range(20):
            sender.send(plain(i, 100))
        return receiver.wait_count(20)

    is_released_as((2,) * 10, release)


def test_a_packet_larger_than_the_quota_leaves_at_once_and_its_debt_is_paid_back_in_full(
    start_proxy, sender, receive
):
    # 125 bytes a tick: 1,316 bytes are a debt of ten ticks and more.
    start_proxy("-X", 100_000, "-a", RECEIVER)
    receiver = receive(RECEIVER)
    due = 10 * TS_BYTES * 8 / 100_000

    def released_when_due():
        receiver.clear()
        for i in range(11):
            sender.send(media(i))
        first, *_, last = receiver.wait_count(11)
        seconds = rtp.ticks_since(rtp.timestamp(last), rtp.timestamp(first)) / rtp.TICKS_PER_SECOND
        assert seconds >= due - 2 * TICK_SECONDS
        return seconds < due + 3 * TICK_SECONDS  # on a busy machine some runs take longer

    wait_until(released_when_due, "a release that is not late")


def test_quota_left_over_in_an_idle_spell_is_not_saved_up(start_proxy, sender, receive):
    start_proxy("-X", 1_000_000, "-a", RECEIVER)
    receiver = receive(RECEIVER)

    def release():
        # 1,250 bytes a tick: every tick of the time before could have released a packet of 1,250 bytes.
        pump(sender, [receiver], [media(0, 100)])
        wait_until(lambda: rtp.age_seconds(receiver.payloads[-1]) > 0.2, "an idle spell")
        receiver.clear()
        for i in range(6):
            sender.send(media(i, 1250))
        return receiver.wait_count(6)

    is_released_as((1,) * 6, release)


def test_pacing_keeps_the_order_and_loses_nothing(start_proxy, net, sender, receive):
    start_proxy("-X", 40_000_000, "-a", f"{RECEIVER},127.0.0.3")
    receivers = [receive(RECEIVER), receive("127.0.0.3")]
    sent = [media(i) for i in range(2000)]
    pump(sender, receivers, sent, window=200)
    for receiver in receivers:
        assert [rtp.payload(data) for data in receiver.payloads] == [rtp.payload(data) for data in sent]
    assert reports.rx_stat(net.instance) == (2000, 0)


def test_with_1024_packets_queued_each_further_one_pushes_the_oldest_out_at_once(
    start_proxy, net, sender, receive
):
    # A quota of 0 bytes releases nothing by itself.
    proxy = start_proxy("-X", 1, "-a", RECEIVER)
    proxy.wait_stdout(QUOTA_LINE % 0)
    receiver = receive(RECEIVER)
    traffic.send_all(sender, net.input, [media(i) for i in range(QUEUE)])
    assert reports.rx_stat(net.instance) == (0, 0), "packets count when they are released"
    assert receiver.count() == 0
    for i in range(76):
        sender.send(media(QUEUE + i))
        assert rtp.seq(receiver.wait_count(i + 1)[-1]) == i
    assert reports.rx_stat(net.instance) == (76, 0)
    assert receiver.count() == 76


def test_the_messages_of_a_paced_start(start_proxy):
    proxy = start_proxy("-X", 1_000_000)
    proxy.wait_stderr("Pacing bit rate 1000000")
    proxy.wait_stdout("PeriodicTimer::Start 10")
    assert [line for line in proxy.stdout.lines if "Pac" in line or "Timer" in line] == [
        QUOTA_LINE % 12500,
        QUOTA_LINE % 1250,
        "PeriodicTimer::Start 10",
    ]


@pytest.mark.parametrize(
    "rate, quota",
    [
        (1, 0),
        (799, 0),
        (800, 1),
        (8_000_000, 10_000),
        (429_496_729, 536_870),
        (429_496_730, 0),  # the product with the period wraps
        (500_000_000, 88_129),
        (2_147_483_647, 536_870),
    ],
)
def test_the_quota_is_a_hundredth_of_a_second_in_32_bits_that_wrap(start_proxy, rate, quota):
    proxy = start_proxy("-X", rate)
    proxy.wait_stdout("PeriodicTimer::Start 10")
    assert proxy.stdout.find(QUOTA_LINE % quota)


@pytest.mark.parametrize("options", [(), ("-X", "0"), ("-X", "-1"), ("-X", "")])
def test_below_1_bit_per_second_packets_go_straight_out(start_proxy, net, sender, receive, options):
    proxy = start_proxy(*options, "-a", RECEIVER)
    receiver = receive(RECEIVER)
    pump(sender, [receiver], [media(i) for i in range(200)], window=100)
    assert reports.rx_stat(net.instance) == (200, 0)
    for text in ("Pac", "PeriodicTimer"):
        assert text not in proxy.stdout.text + proxy.stderr.text


def test_a_rate_that_is_no_number_ends_the_start(launch, net):
    process = launch("-I", net.instance, "-X", "1M", net.input, argv0="tx_proxy")
    assert process.wait_exit() == 255
    assert process.stderr.text == "tx_proxy: invalid nPacingBitrate: 1M\n"
