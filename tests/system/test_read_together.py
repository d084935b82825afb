"""Datagrams that waited while the proxy was stopped (SIGSTOP) are read several at a time, and each is handled as when
it comes alone.
"""

import pytest

from txproxy import reports, rtp
from txproxy.model_receiver import feed, start_media, wait_bound
from txproxy.process import stopped
from txproxy.traffic import kernel_drops

READ_TOGETHER = 16  # on the request port
LONGEST_DATAGRAM = 1536
# So many that main, which sends to each, falls behind the input thread, which then reads what waits by one call.
CONFIGURED = [f"127.0.0.{2 + number}" for number in range(8)]
TURNS = 10


def test_a_request_that_claims_more_than_it_has_is_not_answered_from_what_came_right_behind_it(
    start_proxy, learn, sender, net
):
    proxy = wait_bound(start_proxy(), net.destination, net.request)
    receiver = start_media(proxy, learn())
    behind = range(110, 110 + 2 * (READ_TOGETHER - 1))
    feed(sender, [receiver], [rtp.packet(seq, b"media") for seq in range(100, behind.stop)])
    with stopped(proxy):
        receiver.ask([103], count=65535)
        for seq in behind[::2]:
            receiver.ask([seq, seq + 1], checksum=0)  # which is wrong: it asks for nothing and is there all the same
    assert [rtp.seq(data) for data in receiver.answers()] == [103]
    receiver.ask(behind)
    assert [rtp.seq(data) for data in receiver.answers()] == [103, *behind]


def one_turn(turn):
    """(what is sent, what comes out) of a row with an empty datagram, a short one and ones that are too long in it."""
    head = rtp.packet(turn)
    whole = [rtp.packet(20 * turn + number, bytes([number]) * 1316) for number in range(20)]
    long = [head + bytes([number]) * (length - rtp.HEADER_BYTES) for number, length in enumerate([1537, 1536, 9000])]
    sent = [*whole[:12], b"", long[0], b"", b"", *whole[12:], long[1], head[:9], long[2], b"", *whole[:3]]
    return sent, [data[:LONGEST_DATAGRAM] for data in sent if data]


@pytest.mark.parametrize("options", [(), ("-u",)])
def test_empty_datagrams_and_ones_that_are_too_long_come_out_of_what_waited_together_as_they_do_alone(
    start_proxy, receive, sender, net, options
):
    receivers = [receive(address) for address in CONFIGURED]
    proxy = wait_bound(start_proxy("-a", ",".join(CONFIGURED), *options), net.destination, net.request)
    sent, expected = zip(*map(one_turn, range(TURNS)))
    expected = sum(expected, [])
    for turn, datagrams in enumerate(sent):
        with stopped(proxy):
            for data in datagrams:
                sender.send(data)
        for receiver in receivers:
            receiver.wait_count((turn + 1) * len(expected) // TURNS)
    assert kernel_drops(net.input) == 0
    for receiver in receivers:
        if options:
            assert list(map(rtp.payload, receiver.payloads)) == expected
        else:
            assert list(map(rtp.without_timestamp, receiver.payloads)) == list(map(rtp.without_timestamp, expected))
    assert reports.rx_stat(net.instance)[0] == len(expected)
