"""UDP input mode (-u): the RTP header that the proxy builds, and the numbering."""

import time

from txproxy import rtp
from txproxy.receiver import pump
from txproxy.waiting import scaled


def test_the_header_is_built_as_described(start_proxy, receive, sender):
    receiver_ = receive()
    before = int(time.time())
    start_proxy("-u", "-a", "127.0.0.2")
    after = int(time.time())
    sent = [f"payload {i}".encode() for i in range(50)]
    pump(sender, [receiver_], sent)
    for number, (datagram, payload) in enumerate(zip(receiver_.datagrams, sent), start=1):
        data = datagram.data
        assert data[:2] == b"\x80\x21"
        assert rtp.seq(data) == number
        assert -0.01 <= rtp.age_seconds(data, datagram.time) <= scaled(5)
        assert before <= rtp.ssrc_host_order(data) <= after
        assert rtp.payload(data) == payload


def test_the_ssrc_is_one_word_for_the_whole_run(start_proxy, receive, sender):
    receivers = [receive("127.0.0.2"), receive("127.0.0.3")]
    start_proxy("-u", "-a", "127.0.0.2,127.0.0.3")
    pump(sender, receivers, [b"x"] * 100)
    for receiver_ in receivers:
        assert len({rtp.ssrc_host_order(data) for data in receiver_.payloads}) == 1


def test_input_that_looks_like_rtp_is_payload_all_the_same(start_proxy, receive, sender):
    receiver_ = receive()
    start_proxy("-u", "-a", "127.0.0.2")
    sent = [rtp.packet(900 + i, b"inner") for i in range(3)]
    pump(sender, [receiver_], sent)
    assert [rtp.payload(data) for data in receiver_.payloads] == sent
    assert [rtp.seq(data) for data in receiver_.payloads] == [1, 2, 3]


def test_all_streams_carry_the_same_numbers(start_proxy, receive, sender):
    receivers = [receive(f"127.0.0.{i}") for i in (2, 3, 4)]
    start_proxy("-u", "-a", "127.0.0.2,127.0.0.3,127.0.0.4")
    pump(sender, receivers, [b"payload"] * 100)
    for receiver_ in receivers:
        assert [rtp.seq(data) for data in receiver_.payloads] == list(range(1, 101))


def test_numbers_start_at_1_and_go_from_65535_to_0(start_proxy, receive, sender):
    receiver_ = receive()
    start_proxy("-u", "-a", "127.0.0.2")
    count = 65536 + 5
    pump(sender, [receiver_], [b"%d" % i for i in range(1, count + 1)], window=128)
    got = receiver_.payloads
    assert [rtp.seq(data) for data in got] == [number & 0xFFFF for number in range(1, count + 1)]
    assert [rtp.payload(data) for data in got] == [b"%d" % i for i in range(1, count + 1)]


def test_numbering_starts_anew_with_every_run(start_proxy, receive, sender):
    receiver_ = receive()
    start_proxy("-u", "-a", "127.0.0.2").stop()
    start_proxy("-u", "-a", "127.0.0.2")
    sender.send(b"first")
    assert rtp.seq(receiver_.wait_count(1)[0]) == 1


def test_timestamps_never_go_back(start_proxy, receive, sender):
    receiver_ = receive()
    start_proxy("-u", "-a", "127.0.0.2")
    pump(sender, [receiver_], [b"x"] * 300, window=5)
    stamps = [rtp.timestamp(data) for data in receiver_.payloads]
    assert all(rtp.ticks_since(later, earlier) >= 0 for earlier, later in zip(stamps, stamps[1:]))
    assert stamps[-1] != stamps[0]
