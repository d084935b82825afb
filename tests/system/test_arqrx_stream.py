"""arqrx and the real proxy: joining, playing out, repairing, leaving, and what a proxy may do meanwhile."""

import os
import signal
import statistics
import struct

import pytest

from txproxy import arqrx, control, impairment, mpegts, netns, rtp
from txproxy.arqrx import Arqrx, joining, left, patient, seconds, send_evenly, started
from txproxy.link import Link
from txproxy.model_receiver import wait_bound
from txproxy.receiver import Receiver, Sender
from txproxy.traffic import Steady
from txproxy.waiting import TURN_SECONDS, Lateness, scaled, wait_until

RELEASE = os.environ.get("TX_PROXY_BUILD_KIND") == "release"
PER_SECOND = 400 if RELEASE else 200
PLAYER = "127.0.0.60"  # where datagrams of an output arrive
FAR_END = "127.0.0.71"  # of a line: the proxy takes it for the receiver


def payload(index):
    return struct.pack("!I", index) + bytes(range(200))


@pytest.fixture
def join(start_proxy, net, closing):
    """join(*options, proxy_options=()) starts proxy and receiver; returns both once media flow between them."""

    def start(*options, proxy_options=()):
        proxy = wait_bound(start_proxy(*proxy_options), net.destination, net.request)
        receiver = closing(Arqrx(*joining(net, *options)))
        proxy.wait_stderr(started())
        return proxy, receiver

    return start


@pytest.fixture
def player(closing, lease):
    return closing(Receiver(PLAYER, lease.port()))


def url(player, scheme="udp"):
    return f"{scheme}://{player.address[0]}:{player.address[1]}"


def test_rtp_goes_through_with_its_header_in_order_and_on_time(join, sender, player, closing):
    lateness = closing(Lateness(TURN_SECONDS))
    _, receiver = join("--latency", seconds(0.3), "--output", url(player, "rtp"))
    sent = [rtp.packet(65500 + i, payload(i), ssrc=0x01020304, marker=i % 2) for i in range(200)]
    send_evenly(sender, sent, PER_SECOND)
    player.wait_count(len(sent))
    assert [rtp.without_timestamp(data) for data in player.payloads] == [rtp.without_timestamp(data) for data in sent]
    aged = [rtp.age_seconds(datagram.data, datagram.time) for datagram in player.datagrams]
    assert min(aged) > 0.25, "none leaves before its latency has passed"
    # By the proxy's stamps: a busy machine may let the first come late, and the others in time.
    assert statistics.median(aged) < scaled(0.3) + 0.1 + lateness.allowed(), "they are spread as they came"
    assert receiver.end() == arqrx.GOOD


def test_payload_without_header_becomes_a_file_of_the_same_bytes(join, sender, transport_stream, tmp_path):
    path = tmp_path / "live.ts"
    proxy, receiver = join("--latency", "300ms", "--output", f"file:{path}", proxy_options=["-u"])
    datagrams = mpegts.datagrams(transport_stream)
    send_evenly(sender, datagrams, PER_SECOND)
    receiver.wait_played(len(datagrams))
    assert receiver.end() == arqrx.GOOD
    assert path.read_bytes() == transport_stream
    last = receiver.figures()
    assert last["continuity_errors"] == 0
    assert last["transport_packets"] == len(transport_stream) // mpegts.PACKET_BYTES
    proxy.wait_stderr(left())


def test_all_outputs_get_the_stream_each_in_its_form(join, sender, closing, lease, tmp_path):
    with_header, without, both = (closing(Receiver(f"127.0.0.{61 + i}", lease.port())) for i in range(3))
    path = tmp_path / "payloads"
    _, receiver = join("--latency", "300ms", "--strip-rtp", "--output", url(with_header, "rtp"), "--output", url(without),
                       "--output", url(both), "--output", f"file:{path}")  # fmt: skip
    payloads = [payload(i) for i in range(50)]
    send_evenly(sender, [rtp.packet(i, data) for i, data in enumerate(payloads)], PER_SECOND)
    for one in (with_header, without, both):
        one.wait_count(len(payloads))
    assert [rtp.payload(data) for data in with_header.payloads] == payloads
    assert without.payloads == payloads == both.payloads
    assert receiver.end() == arqrx.GOOD
    assert path.read_bytes() == b"".join(payloads)
    assert [output["packets"] for output in receiver.figures()["outputs"]] == [50] * 4


def test_udp_keeps_the_header_and_a_file_can_keep_it_behind_a_length(join, sender, player, tmp_path):
    path = tmp_path / "framed"
    _, receiver = join("--latency", "300ms", "--keep-rtp", "--output", url(player), "--output", f"file:{path}")
    send_evenly(sender, [rtp.packet(i, payload(i)) for i in range(20)], PER_SECOND)
    datagrams = player.wait_count(20)
    assert receiver.end() == arqrx.GOOD
    assert path.read_bytes() == b"".join(struct.pack("!H", len(data)) + data for data in datagrams)
    assert [rtp.payload(data) for data in datagrams] == [payload(i) for i in range(20)]


def test_what_the_proxy_withholds_comes_back_with_the_payload_type_of_the_first_sending(join, sender, player, net):
    impairment.write_settings(net.instance, min_dist=10, min_drop=2)
    proxy, receiver = join("--latency", patient(), "--output", url(player, "rtp"), proxy_options=["-u"])
    impairment.toggle(net.instance)
    proxy.wait_stderr("Impairment ON")
    sent = [payload(i) for i in range(400 if RELEASE else 200)]
    send_evenly(sender, sent, PER_SECOND)
    send_evenly(sender, [payload(0)] * 20, PER_SECOND)  # behind these, what is missing at the end is noticed
    player.wait_count(len(sent))
    assert [rtp.payload(data) for data in player.payloads[: len(sent)]] == sent
    assert {rtp.payload_type(data) for data in player.payloads} == {rtp.MEDIA_PAYLOAD_TYPE}
    assert receiver.end() == arqrx.GOOD
    last = receiver.figures()
    assert last["packets_recovered"] >= len(sent) // 10
    assert last["packets_lost"] == 0
    assert last["packets_missing"] == last["packets_recovered"] + last["packets_lost"] + last["packets_waiting"]


def test_through_a_line_that_loses_both_ways_nothing_is_missing(start_proxy, net, closing, sender, player):
    proxy = wait_bound(start_proxy("-u"), net.destination, net.request)
    line = closing(Link([("127.0.0.1", net.destination), ("127.0.0.1", net.request)], "--loss", "10%", "--delay", "10ms",
                        "--seed", "7", "--source", FAR_END, address="127.0.0.70"))  # fmt: skip
    (host, ping_port), (_, request_port) = line.listen
    receiver = closing(Arqrx(f"{host}:{ping_port}", "--request-port", request_port, "--id", arqrx.ID, "--json", "--interval",
                             "100ms", "--latency", patient(), "--output", url(player)))  # fmt: skip
    proxy.wait_stderr(started(FAR_END))
    assert receiver
    sent = [payload(i) for i in range(600 if RELEASE else 200)]
    send_evenly(sender, sent, PER_SECOND)
    send_evenly(sender, [payload(0)] * 40, PER_SECOND)
    player.wait_count(len(sent))
    assert [rtp.payload(data) for data in player.payloads[: len(sent)]] == sent


def test_a_proxy_that_is_killed_and_started_again_is_joined_again(start_proxy, net, closing, sender, player):
    first = wait_bound(start_proxy("-u"), net.destination, net.request)
    receiver = closing(Arqrx(*joining(net, "--latency", "300ms", "--output", url(player))))
    first.wait_stderr(started())
    send_evenly(sender, [payload(i) for i in range(50)], PER_SECOND)
    player.wait_count(50)
    first.process.kill()
    first.wait_exit()
    second = wait_bound(start_proxy("-u"), net.destination, net.request)
    second.wait_stderr(started())
    player.clear()
    send_evenly(sender, [payload(i) for i in range(100, 150)], PER_SECOND)
    player.wait_count(50)
    assert [rtp.payload(data) for data in player.payloads] == [payload(i) for i in range(100, 150)]
    assert receiver.end() == arqrx.GOOD
    assert receiver.figures()["packets_lost"] == 0, "the numbers of another proxy are no gap"


def test_a_source_that_starts_again_with_other_numbers_is_played_from_its_beginning(join, sender, player):
    _, receiver = join("--latency", "300ms", "--output", url(player))
    before = [rtp.packet(100 + i, payload(i), ssrc=1) for i in range(50)]
    after = [rtp.packet(40000 + i, payload(100 + i), ssrc=2) for i in range(50)]
    send_evenly(sender, before + after, PER_SECOND)
    player.wait_count(100)
    assert [rtp.payload(data) for data in player.payloads] == [rtp.payload(data) for data in before + after]
    assert receiver.end() == arqrx.GOOD
    assert receiver.figures()["packets_lost"] == 0


def test_who_is_deleted_by_the_proxys_operator_is_told_and_says_so(start_proxy, net, closing, sender):
    proxy = wait_bound(start_proxy("-u"), net.destination, net.request)
    receiver = closing(Arqrx(*joining(net, "--latency", "300ms", stream_id="none")))
    proxy.wait_stderr(started(stream_id=0))
    send_evenly(sender, [payload(i) for i in range(20)], PER_SECOND)
    assert control.request(net.instance, f"Delete {arqrx.LOCAL}") == f"OK: Deleting: {arqrx.LOCAL}"
    receiver.wait_figures(lambda figures: figures["stops"] >= 1, "the stop message")
    receiver.wait_stderr("arqrx: the proxy's operator has stopped this stream; --stay-away says when it is joined anew")
    assert receiver.end() == arqrx.GOOD


def test_started_by_nohup_it_outlives_its_terminal(closing, net):
    receiver = closing(Arqrx("--listen", f"{arqrx.LOCAL}:{net.destination}", "--json", "--interval", "100ms",
                             preexec=lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN)))  # fmt: skip
    receiver.wait_ready()
    receiver.process.send_signal(signal.SIGHUP)
    objects = len(receiver.objects)
    receiver.wait_figures(lambda _: len(receiver.objects) > objects + 2, "more figures")
    assert receiver.end() == arqrx.NO_MEDIA


@pytest.mark.parametrize("leaves_by", ["SIGTERM", "SIGINT", "SIGHUP", "duration"])
def test_the_proxy_is_told_when_the_receiver_ends(join, leaves_by, sender, closing):
    options = ["--duration", seconds(1)] if leaves_by == "duration" else []
    # From before its start on: in its whole time some of it comes.
    closing(Steady(sender, lambda index: rtp.packet(index, payload(index)), PER_SECOND))
    proxy, receiver = join("--latency", "300ms", *options)
    if leaves_by == "duration":
        assert receiver.wait_exit() == arqrx.GOOD
    else:
        receiver.wait_figures(lambda figures: figures["packets_received"] > 0, "media")
        assert receiver.end(getattr(signal, leaves_by)) == arqrx.GOOD
    proxy.wait_stderr(left())
    assert receiver.figures()["reason"] == ("duration" if leaves_by == "duration" else "signal")


def test_drained_the_last_packets_are_played_and_else_not(join, sender, player):
    _, receiver = join("--latency", seconds(1), "--drain", "--output", url(player))
    sent = [rtp.packet(i, payload(i)) for i in range(50)]
    send_evenly(sender, sent, PER_SECOND)
    receiver.wait_figures(lambda figures: figures["packets_received"] == len(sent), "the whole stream")
    assert receiver.end() == arqrx.GOOD
    player.wait_count(len(sent))
    assert receiver.figures()["packets_played"] == len(sent)


def test_a_stream_that_the_proxy_sends_by_itself_is_only_listened_to_and_asked_for(start_proxy, net, closing, make_lan, lease):
    impairment.write_settings(net.instance, min_dist=10, min_drop=1)
    lan = make_lan()
    port = lease.port()
    player = closing(Receiver(PLAYER, port, namespace=lan.peer))
    receiver = closing(Arqrx("--listen", net.destination, "--proxy-request", f"{netns.proxy_address(0)}:{net.request}",
                             "--latency", patient(), "--json", "--interval", "100ms", "--output", url(player),
                             namespace=lan.peer))  # fmt: skip
    receiver.wait_ready()
    proxy = start_proxy("-u", "-a", netns.peer_address(0), namespace=lan.proxy)
    wait_bound(proxy, net.destination, net.request)
    impairment.toggle(net.instance)
    proxy.wait_stderr("Impairment ON")
    sender = closing(Sender("127.0.0.1", net.input, namespace=lan.proxy))
    sent = [payload(i) for i in range(100)]
    send_evenly(sender, sent, PER_SECOND)
    send_evenly(sender, [payload(0)] * 5, PER_SECOND)
    player.wait_count(len(sent))
    assert [rtp.payload(data) for data in player.payloads[: len(sent)]] == sent
    assert receiver.end() == arqrx.GOOD
    last = receiver.figures()
    assert last["pings"] == 0
    assert last["packets_recovered"] >= 5


def test_silence_ends_it_when_that_is_asked_for(join, sender):
    _, receiver = join("--latency", "300ms", "--exit-after-silence", seconds(1))
    send_evenly(sender, [rtp.packet(i, payload(i)) for i in range(20)], PER_SECOND)
    assert receiver.wait_exit() == arqrx.GOOD
    assert receiver.figures()["reason"] == "silence"
    assert receiver.figures()["packets_received"] == 20


def test_media_from_elsewhere_do_not_disturb_a_receiver_that_waits(closing, net):
    receiver = closing(Arqrx(*joining(net, "--bind", "127.0.0.80:" + str(net.destination))))
    receiver.wait_figures(lambda figures: figures["pings"] >= 1, "a ping")
    stranger = closing(Sender("127.0.0.80", net.destination))
    for data in (b"", b"\0", b"\xff" * 9, b"\x80", os.urandom(1500), b"\x80\x21" + bytes(10)):
        stranger.send(data)
    wait_until(lambda: receiver.figures()["strangers"] >= 4, "the count of strangers")
    assert receiver.end() in (arqrx.NO_MEDIA, arqrx.GOOD)
