"""Pings on the request port, which come back as they are."""

import re

import pytest

from txproxy import control, rtp
from txproxy.model_receiver import (
    STOP_MAGIC,
    PingingReceiver,
    echo_ping,
    start_media,
    tag,
    wait_bound,
)
from txproxy.receiver import pump

BAD_PING = "CArqSend: ProcessBuffer: BAD ARQ_PING_ID"


@pytest.fixture
def proxy(start_proxy, net):
    return wait_bound(start_proxy("-a", "127.0.0.5"), net.destination, net.request)


@pytest.fixture
def receiver(proxy, closing, net):
    """The receiver of a configured stream."""
    assert proxy.is_alive()
    return closing(PingingReceiver("127.0.0.5", net.destination, net))


@pytest.fixture
def learnt(proxy, closing, lease, net):
    """A learnt receiver with an ID whose media has started."""
    receiver = closing(PingingReceiver("127.0.0.6", lease.port(), net, stream_id=0xA1B2C3D4))
    return start_media(proxy, receiver)


def assert_nothing_reported(receiver, proxy):
    """A report that is asked for now is the first one."""
    receiver.ask_raw(bytes.fromhex("0000e2ad"))
    proxy.wait_stderr(BAD_PING)
    assert len(proxy.stderr.find(BAD_PING)) == 1


@pytest.mark.parametrize("data", [b"", b"\1", b"\0\0", b"abc", b"\xff\0\xff\0", b"12345"], ids=len)
def test_a_ping_of_4_to_9_bytes_comes_back_byte_for_byte(receiver, data):
    receiver.ask_raw(echo_ping(data))
    assert receiver.wait_count(1) == [bytes.fromhex("0000ade2") + data]
    assert len(receiver.fence()) == 1


def test_a_ping_with_the_id_in_the_other_byte_order_is_reported_and_not_answered(receiver, proxy):
    receiver.ask_raw(bytes.fromhex("0000e2ad") + b"1234")
    assert receiver.fence() == []
    proxy.wait_stderr(BAD_PING)


@pytest.mark.parametrize("wrong", ["00000000", "0000ade3", "0000ffff00"])
def test_any_other_id_behind_a_zero_word_is_reported_each_time(receiver, proxy, wrong):
    receiver.ask_raw(bytes.fromhex(wrong))
    receiver.ask_raw(bytes.fromhex(wrong))
    assert receiver.fence() == []
    proxy.wait_stderr(BAD_PING, count=2)


@pytest.mark.parametrize("data", ["0001ade2", "0100ade231323334", "ade20000", "ffffffffffffffffff"])
def test_a_short_datagram_that_does_not_begin_with_a_zero_word_is_ignored_silently(receiver, proxy, data):
    receiver.ask_raw(bytes.fromhex(data))
    assert receiver.fence() == []
    assert_nothing_reported(receiver, proxy)


@pytest.mark.parametrize("data", [b"", b"\0", b"\0\0", b"\0\0\xad"], ids=["0_bytes", "1_byte", "2_bytes", "3_bytes"])
def test_a_datagram_too_short_for_a_ping_does_no_harm(receiver, data):
    for _ in range(3):
        receiver.ask_raw(data)
    receiver.fence()


def test_10_bytes_that_begin_like_a_ping_are_a_request(receiver, proxy):
    receiver.ask_raw(echo_ping(b"123456"))
    assert receiver.fence() == []
    assert_nothing_reported(receiver, proxy)


def test_the_echo_goes_to_the_stream_and_not_to_the_port_that_asked(receiver, closing, lease, net):
    other_port = closing(PingingReceiver("127.0.0.5", lease.port(), net))
    other_port.ask_raw(echo_ping(b"1234"))
    assert receiver.wait_count(1) == [echo_ping(b"1234")]
    receiver.fence()
    assert other_port.count() == 0


def test_the_echo_of_a_tagged_ping_carries_no_tag_and_comes_from_the_ping_port(learnt, net):
    learnt.ask_raw(echo_ping(b"1234"))
    assert learnt.wait_count(1) == [echo_ping(b"1234")]
    assert learnt.datagrams[0].source == ("127.0.0.1", net.destination)


@pytest.mark.parametrize("magic", [bytes.fromhex("deadbeef"), bytes.fromhex("babeface")])
@pytest.mark.parametrize("swapped", [False, True])
def test_every_form_of_the_tag_is_taken_off_a_ping(learnt, magic, swapped):
    learnt.send(tag(learnt.stream_id, magic, swapped) + echo_ping(b"1234"), learnt.request_address)
    assert learnt.wait_count(1) == [echo_ping(b"1234")]


def test_a_wrong_ping_behind_a_tag_is_reported(learnt, proxy):
    learnt.ask_raw(bytes.fromhex("0000e2ad"))
    assert learnt.fence() == []
    proxy.wait_stderr(BAD_PING)


def test_a_tag_with_id_0_stays_so_a_ping_behind_it_is_not_answered(receiver):
    receiver.send(tag(0) + echo_ping(b"1234"), receiver.request_address)
    assert receiver.fence() == []


@pytest.mark.parametrize("magic", [bytes.fromhex("deadbeef"), bytes.fromhex("babeface")])
def test_a_bare_tag_on_the_request_port_is_ignored(learnt, proxy, magic):
    learnt.send(tag(learnt.stream_id, magic), learnt.request_address)
    assert learnt.fence() == []
    assert_nothing_reported(learnt, proxy)
    assert STOP_MAGIC not in learnt.payloads


def test_an_echo_counts_as_a_datagram_sent(receiver, sender, net):
    pump(sender, [receiver], [rtp.packet(seq) for seq in range(3)])
    for _ in range(4):
        receiver.ask_raw(echo_ping())
    receiver.wait_count(7)
    assert "SEND_PACKETS=7\n" in control.request(net.instance, "AllStats")


def test_a_retransmission_counts_as_a_datagram_sent_and_not_as_one_received(receiver, sender, net):
    pump(sender, [receiver], [rtp.packet(seq) for seq in range(5)])
    receiver.ask([1, 2])
    receiver.wait_count(7)
    stats = control.request(net.instance, "AllStats")
    assert re.search(r"RECV_PACKETS=5\n", stats) and re.search(r"SEND_PACKETS=7\n", stats)


def test_a_ping_from_an_unknown_address_is_not_answered(receiver, closing, lease, net):
    stranger = closing(PingingReceiver("127.0.0.9", lease.port(), net))
    stranger.ask_raw(echo_ping(b"1234"))
    receiver.fence()
    assert stranger.count() == 0
