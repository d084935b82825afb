"""Counters and bit rates of the statistics reports, proved against what was sent and received."""

import pytest

from txproxy import impairment, model_receiver, reports, rtp, traffic
from txproxy.control import request
from txproxy.receiver import pump
from txproxy.waiting import DEFAULT_TIMEOUT, wait_until

RECEIVER = "127.0.0.2"
SECOND_RECEIVER = "127.0.0.3"
TS_BYTES = 7 * 188
PER_SECOND = 400
BURST = 200
RATE_TOLERANCE = 0.02  # how much longer than a second a sample may take on a machine that is not busy
CLOCK_TOLERANCE = 0.002
PING = bytes.fromhex("0000ADE2") + b"ping"


def media(number, size=TS_BYTES):
    return rtp.packet(number, bytes(size))


def send_numbers(sender, receiver, numbers):
    pump(sender, [receiver], [media(number, 100) for number in numbers])


def counters(instance):
    report = reports.all_stats(instance)
    return report["RECV_PACKETS"], report["RECV_LOSS"], report["SEND_PACKETS"]


@pytest.mark.parametrize("mode", [(), ("-u",)], ids=["rtp", "udp"])
def test_input_and_output_datagrams_are_counted_one_by_one(start_proxy, net, sender, receive, mode):
    start_proxy(*mode, "-a", f"{RECEIVER},{SECOND_RECEIVER}")
    receivers = [receive(RECEIVER), receive(SECOND_RECEIVER)]
    sent = 0
    for count in (1, 10, 500):
        pump(sender, receivers, [media(sent + i) for i in range(count)])
        sent += count
        assert counters(net.instance) == (sent, 0, 2 * sent)
        assert reports.rx_stat(net.instance) == (sent, 0)
    assert sum(receiver.count() for receiver in receivers) == 2 * sent


def test_without_streams_the_input_is_counted_and_nothing_is_sent(start_proxy, net, sender):
    start_proxy()
    traffic.send_all(sender, net.input, [media(i) for i in range(25)])
    wait_until(lambda: counters(net.instance) == (25, 0, 0), "25 packets")


def test_retransmissions_and_answered_pings_count_as_sent(start_proxy, net, sender, receive):
    start_proxy("-a", RECEIVER)
    receiver = receive(RECEIVER)
    send_numbers(sender, receiver, range(10))
    receiver.send(model_receiver.request([3, 4, 5]), ("127.0.0.1", net.request))
    receiver.wait_count(13)
    wait_until(lambda: counters(net.instance) == (10, 0, 13), "10 packets and 3 again")  # counted once they are sent
    receiver.send(PING, ("127.0.0.1", net.request))
    assert receiver.wait_count(14)[-1] == PING
    assert counters(net.instance) == (10, 0, 14)


@pytest.mark.parametrize(
    "numbers, loss",
    [
        ((10, 11, 14), 2),
        ((65534, 65535, 0, 1), 0),
        ((65535, 2), 2),
        ((65534, 1), 2),
        ((5, 6, 6, 7), 0),
        ((7, 7, 7), 0),
        ((10, 9, 10), 0),
        ((5, 7, 6, 7, 8), 1),  # a late number counts nothing, and the next is expected behind it
        ((5, 7, 6, 8), 2),
        ((100, 50, 51), 0),
        ((1, 3, 5, 7, 17), 12),  # losses add up
        ((0, 32768), 32767),  # the longest step forward
        ((0, 32769), 0),  # a step back
        ((40000,), 0),
    ],
)
def test_loss_is_what_the_input_numbers_jump_forward(start_proxy, net, sender, receive, numbers, loss):
    start_proxy("-a", RECEIVER)
    send_numbers(sender, receive(RECEIVER), numbers)
    assert reports.rx_stat(net.instance) == (len(numbers), loss)
    assert counters(net.instance) == (len(numbers), loss, len(numbers))


def test_plain_input_has_no_loss(start_proxy, net, sender, receive):
    start_proxy("-u", "-a", RECEIVER)
    send_numbers(sender, receive(RECEIVER), (1, 100, 5000))
    assert reports.rx_stat(net.instance) == (3, 0)


def test_an_empty_datagram_is_no_input(start_proxy, net, sender, receive):
    start_proxy("-a", RECEIVER)
    sender.send(b"")
    send_numbers(sender, receive(RECEIVER), (1,))
    assert reports.rx_stat(net.instance) == (1, 0)


def test_rx_stat_clear_zeroes_packets_and_loss_and_takes_the_next_number_as_base(
    start_proxy, net, sender, receive
):
    start_proxy("-a", RECEIVER)
    receiver = receive(RECEIVER)
    send_numbers(sender, receiver, (1, 5))
    assert counters(net.instance) == (2, 3, 2)
    assert request(net.instance, "RxStatClear") == "OK: Rx Stat Reset"
    assert counters(net.instance) == (0, 0, 2)
    send_numbers(sender, receiver, (900, 901))
    assert counters(net.instance) == (2, 0, 4)
    send_numbers(sender, receiver, (903,))
    assert counters(net.instance) == (3, 1, 5)


def test_tx_stat_clear_zeroes_what_was_sent_and_keeps_what_was_received(start_proxy, net, sender, receive):
    start_proxy("-a", RECEIVER)
    receiver = receive(RECEIVER)
    send_numbers(sender, receiver, (1, 5))
    assert request(net.instance, "TxStatClear") == "OK: Tx Stat Reset"
    assert counters(net.instance) == (2, 3, 0)
    send_numbers(sender, receiver, (6, 8))
    assert counters(net.instance) == (4, 4, 2)


def test_stat_clear_zeroes_both_sides_and_takes_the_next_number_as_base(start_proxy, net, sender, receive):
    start_proxy("-a", RECEIVER)
    receiver = receive(RECEIVER)
    send_numbers(sender, receiver, (1, 5))
    assert request(net.instance, "StatClear") == "OK: Stat Reset"
    assert counters(net.instance) == (0, 0, 0)
    send_numbers(sender, receiver, (40,))
    assert counters(net.instance) == (1, 0, 1)


def test_tx_stat_clear_zeroes_the_output_bit_rate_at_once_and_leaves_that_of_the_input(
    start_proxy, net, sender, receive, closing
):
    start_proxy("-a", RECEIVER)
    receive(RECEIVER)
    closing(traffic.Steady(sender, media, PER_SECOND))

    def cleared_between_samples():
        if reports.all_stats(net.instance)["SEND_BITRATE"] == 0:
            return False
        assert request(net.instance, "TxStatClear") == "OK: Tx Stat Reset"
        report = reports.all_stats(net.instance)
        # The next sample of the rates may fall between the two requests, once a second.
        return report["SEND_BITRATE"] == 0 and report["RECV_BITRATE"] > 0

    wait_until(cleared_between_samples, "an output rate of 0 beside an input rate")


def sampled_burst(instance, burst):
    """The bit rates (in, out) of a burst that began and ended between two samples, once there is one.

    A sample covers a second and whatever the sampling thread was late, so a rate may be too low for the burst,
    and never too high. A burst that lies in two samples is in neither as a whole.
    """
    seen = []

    def rates():
        report = reports.all_stats(instance)
        return report["RECV_BITRATE"], report["SEND_BITRATE"]

    def is_whole():
        wait_until(lambda: rates() == (0, 0), "rates of 0 after a second without traffic")
        received_bits = burst()
        seen.append(wait_until(lambda: all(now := rates()) and now, "rates"))
        assert seen[-1][0] <= received_bits * (1 + CLOCK_TOLERANCE), seen
        return seen[-1][0] >= received_bits * (1 - RATE_TOLERANCE)

    wait_until(is_whole, lambda: f"the rates of a whole burst; seen: {seen}", timeout=2 * DEFAULT_TIMEOUT)
    return seen[-1]


@pytest.mark.parametrize("mode, added_bytes", [((), 0), (("-u",), rtp.HEADER_BYTES)], ids=["rtp", "udp"])
def test_the_bit_rates_are_those_of_the_traffic_and_fall_to_0_without_it(
    start_proxy, net, sender, receive, mode, added_bytes
):
    start_proxy(*mode, "-a", f"{RECEIVER},{SECOND_RECEIVER}")
    receivers = [receive(RECEIVER), receive(SECOND_RECEIVER)]
    datagrams = [media(i) for i in range(BURST)]
    bytes_in = len(datagrams[0])

    def burst():
        pump(sender, receivers, datagrams)
        return BURST * bytes_in * 8

    received, sent = sampled_burst(net.instance, burst)
    # Both are of one sample, so the time that it covered does not matter.
    assert sent / received == pytest.approx(2 * (bytes_in + added_bytes) / bytes_in, rel=0.001)


def test_a_withheld_packet_counts_as_received_and_not_as_sent(start_proxy, net, sender, receive):
    impairment.write_settings(net.instance, min_dist=1, min_drop=1)
    impairment.toggle(net.instance)
    proxy = start_proxy("-a", RECEIVER)
    proxy.wait_stderr("Impairment ON")
    receiver = receive(RECEIVER)
    traffic.send_all(sender, net.input, [media(i) for i in range(10)])
    receiver.wait_count(5)
    wait_until(lambda: counters(net.instance) == (10, 0, 5), "10 packets in, 5 out")
