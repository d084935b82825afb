"""Input packets and losses, as the control socket reports them."""

import pytest

from txproxy import control, rtp
from txproxy.receiver import pump


@pytest.fixture
def report(start_proxy, receive, net, sender):
    """report(sequence numbers) sends them and returns the control connection and the counters."""
    receiver_ = receive()
    start_proxy("-a", "127.0.0.2")

    def feed(numbers):
        pump(sender, [receiver_], [rtp.packet(number) for number in numbers])
        return control.request(net.instance, "RxStat")

    return feed


@pytest.mark.parametrize(
    "numbers, lost",
    [
        ([10, 11, 14], 2),
        ([65535, 0], 0),
        ([65534, 1], 2),
        ([7, 7, 7], 0),
        # A lower number is no loss, and the number after it is expected next.
        ([10, 9, 10], 0),
        ([10, 9, 11], 1),
        ([0, 32768], 32767),
        # 32768 and more ahead counts as behind.
        ([0, 32769], 0),
        ([30000], 0),
    ],
)
def test_gaps_in_the_input_numbers_are_losses(report, numbers, lost):
    assert report(numbers) == f"NET_TOTAL_PACKETS={len(numbers)}\nNET_LOSS={lost}\n"


def test_losses_add_up(report):
    assert report([1, 3, 5, 7, 17]) == "NET_TOTAL_PACKETS=5\nNET_LOSS=12\n"


@pytest.mark.parametrize("command", ["RxStatClear", "StatClear"])
def test_the_next_number_after_a_reset_is_the_new_base(report, net, command):
    report([1, 2, 10])
    control.request(net.instance, command)
    assert report([500, 501, 503]) == "NET_TOTAL_PACKETS=3\nNET_LOSS=1\n"


def test_raw_input_is_counted_but_has_no_losses(start_proxy, receive, net, sender):
    receiver_ = receive()
    start_proxy("-u", "-a", "127.0.0.2")
    pump(sender, [receiver_], [rtp.packet(number) for number in (1, 5, 900)])
    assert control.request(net.instance, "RxStat") == "NET_TOTAL_PACKETS=3\nNET_LOSS=0\n"


def test_sent_datagrams_are_counted_for_every_stream(start_proxy, receive, net, sender):
    receivers = [receive("127.0.0.2"), receive("127.0.0.3")]
    start_proxy("-a", "127.0.0.2,127.0.0.3")
    pump(sender, receivers, [rtp.packet(number) for number in range(7)])
    reply = control.request(net.instance, "AllStats").splitlines()
    assert reply[0] == "RECV_PACKETS=7"
    assert reply[3] == "SEND_PACKETS=14"


def test_empty_datagrams_are_no_input(report, sender):
    sender.send(b"")
    assert report([1]) == "NET_TOTAL_PACKETS=1\nNET_LOSS=0\n"
