"""RTP input of less than a header is treated like any other: stamped, counted, sent, stored.

The header's bytes lie in the packet's buffer whatever the length of the datagram: what a short one does not
bring is what the buffer held before.
"""

import pytest

from txproxy import rtp
from txproxy.model_receiver import PingingReceiver, retransmission_of, wait_bound
from txproxy.receiver import pump
from txproxy.reports import rx_stat

BUFFERS = 16
POOL = BUFFERS + 1024
BEFORE = rtp.packet(700)
HEADER = rtp.packet(500)
LENGTHS = [1, 2, 3, 4, 7, 8, 11]


@pytest.fixture
def receiver(start_proxy, closing, net):
    wait_bound(start_proxy("-q", BUFFERS, "-a", "127.0.0.5"), net.destination, net.request)
    return closing(PingingReceiver("127.0.0.5", net.destination, net))


def unstamped(data):
    """The datagram with those bytes of its timestamp that it has set to zero."""
    stamp = data[rtp.TIMESTAMP]
    return data[: rtp.TIMESTAMP.start] + bytes(len(stamp)) + data[rtp.TIMESTAMP.stop :]


def as_answer(first):
    """What the proxy answers to a request for a packet that it had sent as `first`."""
    return retransmission_of(first) if len(first) > 1 else first


def answers(receiver, seqs):
    """What the request brings, whatever its length."""
    receiver.clear()
    receiver.ask(seqs)
    return receiver.fence()


@pytest.mark.parametrize("length", LENGTHS)
def test_a_short_datagram_goes_out_with_its_length_and_comes_again_with_payload_type_122(
    receiver, sender, net, length
):
    pump(sender, [receiver], [BEFORE] * POOL)
    receiver.clear()
    sent = HEADER[:length]
    # The next one shows that the short one is stored. It has the number that follows, so nothing is lost.
    seq = rtp.seq(sent + BEFORE[length:])
    pump(sender, [receiver], [sent, rtp.packet(seq + 1)])
    first = receiver.payloads[0]
    assert unstamped(first) == unstamped(sent)
    assert answers(receiver, [seq]) == [as_answer(first)]
    assert rx_stat(net.instance) == (POOL + 2, 0)


def test_a_datagram_of_8_to_11_bytes_carries_the_time_of_its_sending(receiver, sender):
    pump(sender, [receiver], [HEADER[:8], HEADER[:11]])
    for datagram in receiver.datagrams:
        assert abs(rtp.age_seconds(datagram.data, datagram.time)) < 5


def test_a_datagram_of_5_to_7_bytes_carries_the_first_bytes_of_the_time(receiver, sender):
    pump(sender, [receiver], [HEADER[:7], rtp.packet(501)])
    short, whole = receiver.payloads
    # The stamps are neighbours, so their first bytes are the same or follow each other.
    assert (whole[4] * 256 + whole[5] - short[4] * 256 - short[5]) % 65536 <= 1


def test_the_numbers_of_short_datagrams_are_followed_like_any_others(receiver, sender, net):
    pump(sender, [receiver], [rtp.packet(10), rtp.packet(11)[:4], rtp.packet(14)[:8], rtp.packet(15)[:11]])
    assert rx_stat(net.instance) == (4, 2)
    pump(sender, [receiver], [rtp.packet(16)])
    assert rx_stat(net.instance) == (5, 2)


def test_an_empty_datagram_is_none(receiver, sender, net):
    pump(sender, [receiver], [rtp.packet(10)])
    sender.send(b"")
    pump(sender, [receiver], [rtp.packet(11)])
    assert [rtp.seq(data) for data in receiver.payloads] == [10, 11]
    assert rx_stat(net.instance) == (2, 0)


def test_a_short_datagram_takes_the_place_of_the_packet_with_its_number(receiver, sender):
    pump(sender, [receiver], [rtp.packet(20, b"long"), rtp.packet(20)[:8], rtp.packet(21)])
    short = receiver.payloads[1]
    assert len(short) == 8
    assert answers(receiver, [20]) == [as_answer(short)]
