"""Real media: what goes in comes out, byte for byte, but for what the proxy is there to write."""

import subprocess

import pytest

from txproxy import mpegts, rtp
from txproxy.receiver import Receiver, pump
from txproxy.waiting import scaled, wait_until

LIVE_SECONDS = 3


def test_rtp_passes_with_only_the_timestamp_rewritten(start_proxy, receive, sender, transport_stream):
    receivers = [receive("127.0.0.2"), receive("127.0.0.3")]
    start_proxy("-a", "127.0.0.2,127.0.0.3")
    sent = mpegts.rtp_datagrams(transport_stream, first_seq=65500)
    assert len(sent) > 100
    pump(sender, receivers, sent)
    for receiver_ in receivers:
        for datagram, original in zip(receiver_.datagrams, sent, strict=True):
            assert datagram.data[:4] == original[:4]
            assert datagram.data[8:] == original[8:]
            assert -0.01 <= rtp.age_seconds(datagram.data, datagram.time) <= scaled(5)
        assert b"".join(rtp.payload(data) for data in receiver_.payloads) == transport_stream


def test_raw_transport_packets_pass_behind_the_built_header(start_proxy, receive, sender, transport_stream):
    receivers = [receive("127.0.0.2"), receive("127.0.0.3")]
    start_proxy("-u", "-a", "127.0.0.2,127.0.0.3")
    pump(sender, receivers, mpegts.datagrams(transport_stream))
    for receiver_ in receivers:
        assert b"".join(rtp.payload(data) for data in receiver_.payloads) == transport_stream


@pytest.mark.parametrize(
    "name, header",
    [
        ("marker", rtp.packet(1, marker=1)),
        ("payload type", rtp.packet(2, payload_type=96)),
        ("extension", rtp.packet(3, bytes.fromhex("BEDE000110AA0000"), flags=0x90)),
        ("sources", rtp.packet(4, bytes(range(8)), flags=0x82)),
        ("padding", rtp.packet(5, b"x\x00\x00\x03", flags=0xA0)),
        ("another version", rtp.packet(6, flags=0x00)),
        ("all bits", b"\xff" * 12),
        ("no bits", bytes(12)),
    ],
)
def test_other_header_fields_are_left_alone(start_proxy, receive, sender, name, header):
    receiver_ = receive()
    start_proxy("-a", "127.0.0.2")
    sender.send(header + name.encode())
    (data,) = receiver_.wait_count(1)
    assert rtp.without_timestamp(data) == rtp.without_timestamp(header + name.encode())
    assert abs(rtp.age_seconds(data)) < scaled(10)


def test_lost_repeated_and_reordered_input_is_forwarded_as_it_comes(start_proxy, receive, sender):
    receiver_ = receive()
    start_proxy("-a", "127.0.0.2")
    numbers = [10, 11, 14, 12, 12, 65535, 0, 9, 9, 30000]
    pump(sender, [receiver_], [rtp.packet(number) for number in numbers])
    assert [rtp.seq(data) for data in receiver_.payloads] == numbers


@pytest.mark.parametrize("options", [[], ["-u"]])
def test_bursts_of_a_live_encoder_pass_whole(start_proxy, receive, lease, sender, closing, options):
    receivers = [receive("127.0.0.2"), receive("127.0.0.3")]
    start_proxy(*options, "-a", "127.0.0.2,127.0.0.3")
    # The tap notes what the encoder sends and hands it on at once, so that its bursts stay as they are.
    tap = closing(Receiver("127.0.0.1", lease.port(), on_datagram=lambda datagram: sender.send(datagram.data)))
    subprocess.run(
        mpegts.live_rtp(tap.address[1], LIVE_SECONDS),
        check=True,
        timeout=scaled(LIVE_SECONDS + 30),
        stdout=subprocess.DEVNULL,
    )
    sent = tap.payloads
    assert len(sent) > 100
    assert all(rtp.payload(data)[0] == mpegts.SYNC_BYTE for data in sent)
    for receiver_ in receivers:
        wait_until(lambda: receiver_.count() >= len(sent), "the last burst")
        if options:
            assert [rtp.payload(data) for data in receiver_.payloads] == sent
        else:
            assert [rtp.without_timestamp(data) for data in receiver_.payloads] == [
                rtp.without_timestamp(data) for data in sent
            ]


def test_a_burst_that_fits_the_receive_buffer_passes_whole(start_proxy, receive, sender):
    receiver_ = receive()
    start_proxy("-a", "127.0.0.2")
    sent = [rtp.packet(i, bytes(1316)) for i in range(200)]
    for round_ in range(5):
        for data in sent:
            sender.send(data)
        receiver_.wait_count((round_ + 1) * len(sent))
    assert [rtp.seq(data) for data in receiver_.payloads] == list(range(200)) * 5
