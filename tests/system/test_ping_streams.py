"""Streams that receivers make, move and end with their pings."""

import re

import pytest

from txproxy import control, ports, rtp
from txproxy.model_receiver import (
    ID_MAGIC,
    STOP_MAGIC,
    PingingReceiver,
    echo_ping,
    media_started,
    raw_port,
    request,
    retransmission_of,
    stamped,
    start_media,
    tag,
    wait_bound,
)
from txproxy.receiver import pump, udp_socket
from txproxy.waiting import wait_until

ADDED = re.compile(r"Process Ping: Added (\S+) stream ID:0x([0-9a-f]{8})")
FENCE_ID = 0xFE0CE000


@pytest.fixture
def proxy(start_proxy, net):
    return wait_bound(start_proxy(), net.destination, net.request)


@pytest.fixture
def ping_fence(proxy, learn):
    """ping_fence() returns when every datagram sent to the ping port before has been handled."""
    receiver = learn("127.0.0.250", stream_id=FENCE_ID, proxy_address="127.0.0.99")
    calls = []

    def wait():
        calls.append(1)
        receiver.ping()
        proxy.wait_stderr(stamped(f"Process Ping: Added 127.0.0.250 stream ID:0x{FENCE_ID:08x}"), count=len(calls))
        receiver.stop()
        proxy.wait_stderr(stamped(f"Stream stopped for 127.0.0.250 ID:0x{FENCE_ID:08x}"), count=len(calls))

    return wait


def added(proxy):
    """The (address, ID) of every stream that a ping has made, the fence's left out."""
    found = [(address, int(number, 16)) for address, number in ADDED.findall(proxy.stderr.text)]
    return [stream for stream in found if stream[1] != FENCE_ID]


def log(proxy):
    """The replicator's lines about streams, without their time, the fence's left out."""
    lines = [line[17:] for line in proxy.stderr.lines if re.match(r"\w{3} [ \d]\d \d\d:\d\d:\d\d: ", line)]
    return [line for line in lines if f"{FENCE_ID:08x}" not in line]


def media(count, first=100):
    return [rtp.packet(first + i, b"payload %d" % i) for i in range(count)]


def same(received, sent):
    return [rtp.without_timestamp(data) for data in received] == [rtp.without_timestamp(data) for data in sent]


def test_first_ping_makes_a_stream_and_starts_its_media_on_the_port_it_came_from(proxy, learn, sender):
    receiver = start_media(proxy, learn())
    assert log(proxy) == [
        "Process Ping: Added 127.0.0.5 stream ID:0x00000000",
        f"Media started on port {raw_port(receiver.port)} for 127.0.0.5 ID:0x00000000",
    ]
    sent = media(3)
    pump(sender, [receiver], sent)
    assert same(receiver.payloads, sent)


def test_the_log_shows_ports_as_the_raw_network_order_value(proxy, learn):
    receiver = learn()
    receiver.ping()
    line = proxy.wait_stderr(re.compile(r".*Media started on port \d+ for 127\.0\.0\.5 ID:0x00000000"))
    shown = int(re.search(r"port (\d+)", line).group(1))
    assert shown.to_bytes(2, "little") == receiver.port.to_bytes(2, "big")
    assert shown != receiver.port


def test_media_leaves_from_the_ping_port(proxy, learn, sender, net):
    receiver = start_media(proxy, learn())
    pump(sender, [receiver], media(3))
    assert {datagram.source for datagram in receiver.datagrams} == {("127.0.0.1", net.destination)}


def test_no_media_reaches_a_receiver_before_its_first_ping(proxy, learn, sender):
    early, late = start_media(proxy, learn("127.0.0.5")), learn("127.0.0.6")
    pump(sender, [early], media(3, first=1))
    start_media(proxy, late)
    pump(sender, [early, late], media(2, first=4))
    assert [rtp.seq(data) for data in late.payloads] == [4, 5]


@pytest.mark.parametrize(
    "data",
    [b"", b"\0", b"ping", STOP_MAGIC[:3], b"\xff" * 7, echo_ping(b"abcd"), b"x" * 1472],
    ids=["empty", "one_byte", "text", "three_bytes_of_a_stop", "seven_bytes", "echo_ping", "long"],
)
def test_any_datagram_on_the_ping_port_makes_a_stream(proxy, learn, data):
    receiver = learn()
    receiver.send(data, receiver.ping_address)
    proxy.wait_stderr(media_started(receiver))
    assert added(proxy) == [("127.0.0.5", 0)]


def test_repeated_pings_from_the_same_port_log_nothing_more(proxy, learn, ping_fence):
    receiver = start_media(proxy, learn())
    for _ in range(5):
        receiver.ping()
    ping_fence()
    assert len(log(proxy)) == 2


@pytest.mark.parametrize("swapped", [False, True], ids=["BABEFACE", "CEFABEBA"])
def test_a_tag_in_either_byte_order_gives_the_id_as_the_host_reads_it(proxy, learn, swapped):
    start_media(proxy, learn(stream_id=0x01020304, swapped=swapped))
    assert added(proxy) == [("127.0.0.5", 0x01020304)]


def test_bytes_behind_the_tag_of_a_ping_do_not_matter(proxy, learn):
    receiver = learn(stream_id=0xCAFE)
    receiver.ping(b"more than a tag")
    proxy.wait_stderr(media_started(receiver))
    assert added(proxy) == [("127.0.0.5", 0xCAFE)]


@pytest.mark.parametrize("length", [4, 7])
def test_a_tag_cut_short_of_8_bytes_carries_no_id(proxy, learn, length):
    receiver = learn()
    receiver.send(tag(0x01020304)[:length], receiver.ping_address)
    proxy.wait_stderr(media_started(receiver))
    assert added(proxy) == [("127.0.0.5", 0)]


def test_two_receivers_behind_one_address_with_ids_have_streams_of_their_own(proxy, learn, sender, net):
    first = start_media(proxy, learn(stream_id=1))
    second = start_media(proxy, learn(stream_id=2))
    sent = media(4)
    pump(sender, [first, second], sent)
    assert same(first.payloads, sent) and same(second.payloads, sent)
    assert control.request(net.instance, "List") == "127.0.0.5,127.0.0.5"
    # The answer goes to the one that asked, though both ask from one address.
    second.ask([101])
    original = second.payloads[1]
    assert second.answers() == [retransmission_of(original)]
    assert first.answers() == []


def test_two_receivers_behind_one_address_without_ids_are_one_that_moves(proxy, learn, sender):
    first = start_media(proxy, learn())
    second = start_media(proxy, learn())
    pump(sender, [second], media(2))
    assert added(proxy) == [("127.0.0.5", 0)]
    assert first.count() == 0


def test_a_ping_from_another_port_moves_the_media_in_the_same_call(proxy, learn, sender, ping_fence):
    old = start_media(proxy, learn())
    new = learn()
    new.ping()
    ping_fence()
    assert log(proxy)[2:] == [
        f"Media port changed from {raw_port(old.port)} to {raw_port(new.port)} for 127.0.0.5 ID:0x00000000",
        f"Media started on port {raw_port(new.port)} for 127.0.0.5 ID:0x00000000",
    ]
    sent = media(3)
    pump(sender, [new], sent)
    assert same(new.payloads, sent)
    assert old.count() == 0
    assert "m_bIsAlive is false" not in proxy.stderr.text


def test_media_moves_back_when_the_old_port_pings_again(proxy, learn, sender):
    one, other = start_media(proxy, learn(stream_id=9)), learn(stream_id=9)
    start_media(proxy, other)
    start_media(proxy, one)
    pump(sender, [one], media(2))
    assert other.count() == 0


def test_packets_from_before_a_port_change_are_sent_again_to_the_new_port(proxy, learn, sender):
    old = start_media(proxy, learn(stream_id=7))
    pump(sender, [old], media(3))
    new = start_media(proxy, learn(stream_id=7))
    new.ask([101])
    assert new.answers() == [retransmission_of(old.payloads[1])]


def test_a_known_id_acts_from_any_address_but_only_the_port_follows(proxy, learn, lease, sender, closing, net):
    here = start_media(proxy, learn("127.0.0.5", stream_id=3))
    port = lease.port()
    elsewhere = learn("127.0.0.6", port=port, stream_id=3)
    same_port = closing(PingingReceiver("127.0.0.5", port, net, stream_id=3))
    elsewhere.ping()
    proxy.wait_stderr(
        stamped(f"Media port changed from {raw_port(here.port)} to {raw_port(port)} for 127.0.0.5 ID:0x00000003")
    )
    proxy.wait_stderr(media_started(same_port))
    same_port.settle()
    pump(sender, [same_port], media(2))
    assert added(proxy) == [("127.0.0.5", 3)]
    assert elsewhere.count() == here.count() == 0


def test_a_ping_without_id_and_one_with_an_id_behind_one_address_make_one_stream(proxy, learn, ping_fence):
    # An unknown ID finds the stream that has the address and no ID.
    plain = start_media(proxy, learn())
    with_id = learn(stream_id=5)
    with_id.ping()
    ping_fence()
    assert added(proxy) == [("127.0.0.5", 0)]
    assert f"Media port changed from {raw_port(plain.port)} to {raw_port(with_id.port)}" in "\n".join(log(proxy))


def test_a_ping_without_id_does_not_find_a_stream_with_id(proxy, learn, ping_fence):
    start_media(proxy, learn(stream_id=5))
    start_media(proxy, learn())
    ping_fence()
    assert added(proxy) == [("127.0.0.5", 5), ("127.0.0.5", 0)]


def test_a_ping_with_an_id_finds_the_configured_stream_of_its_address(start_proxy, learn, net):
    proxy = wait_bound(start_proxy("-a", "127.0.0.5"), net.destination, net.request)
    learn(stream_id=5).ping()
    start_media(proxy, learn("127.0.0.6"))
    assert added(proxy) == [("127.0.0.6", 0)]


def test_pings_do_not_move_the_media_of_a_configured_stream(start_proxy, receive, learn, sender, net):
    proxy = wait_bound(start_proxy("-a", "127.0.0.5"), net.destination, net.request)
    configured, other = receive("127.0.0.5"), learn("127.0.0.5")
    other.ping()
    start_media(proxy, learn("127.0.0.6"))
    pump(sender, [configured], media(2))
    assert other.count() == 0
    assert "Media port changed" not in proxy.stderr.text


def test_a_receiver_at_127_0_0_1_is_static_at_once_and_served_on_the_destination_port(
    proxy, receive, learn, sender, ping_fence
):
    # Its own 127.0.0.1 socket would take pings sent to 127.0.0.1, so they go to another address of the host.
    pinging = learn("127.0.0.1", proxy_address="127.0.0.99")
    receiver = receive("127.0.0.1")
    pinging.ping()
    ping_fence()
    assert log(proxy) == ["Process Ping: Added 127.0.0.1 stream ID:0x00000000"]
    sent = media(3)
    pump(sender, [receiver], sent)
    assert same(receiver.payloads, sent)
    assert pinging.count() == 0


@pytest.mark.parametrize("swapped", [False, True], ids=["DEADBEEF", "EFBEADDE"])
@pytest.mark.parametrize("stream_id", [None, 0x11223344], ids=["without_id", "with_id"])
@pytest.mark.parametrize("trailer", [b"", b"xyz", b"x" * 1000], ids=["bare", "3_more_bytes", "1000_more_bytes"])
def test_a_stop_message_ends_the_stream_at_once(proxy, learn, net, swapped, stream_id, trailer):
    receiver = start_media(proxy, learn(stream_id=stream_id, swapped=swapped))
    # Without ID, bytes 4 to 7 of a longer message would be one; it is unknown, so the address decides.
    receiver.stop(trailer)
    proxy.wait_stderr(stamped(f"Stream stopped for 127.0.0.5 ID:0x{stream_id or 0:08x}"))
    wait_until(lambda: control.request(net.instance, "AllStats").endswith("CLIENTS="), "no stream")


def test_a_stopped_receiver_gets_no_more_media(proxy, learn, sender):
    leaving, staying = start_media(proxy, learn("127.0.0.5")), start_media(proxy, learn("127.0.0.6"))
    pump(sender, [leaving, staying], media(2))
    leaving.stop()
    proxy.wait_stderr(stamped("Stream stopped for 127.0.0.5 ID:0x00000000"))
    staying.settle()
    pump(sender, [staying], media(5, first=200))
    assert leaving.count() == 2


def test_a_stop_message_from_an_unknown_receiver_creates_nothing(proxy, learn, net, ping_fence):
    learn().stop()
    learn("127.0.0.6", stream_id=77).stop()
    ping_fence()
    assert log(proxy) == []
    assert control.request(net.instance, "AllStats").endswith("CLIENTS=")


def test_three_bytes_of_a_stop_message_are_a_ping(proxy, learn):
    receiver = learn()
    receiver.send(STOP_MAGIC[:3], receiver.ping_address)
    proxy.wait_stderr(media_started(receiver))


def test_a_stop_with_a_known_id_ends_the_stream_from_any_address(proxy, learn):
    start_media(proxy, learn("127.0.0.5", stream_id=4))
    learn("127.0.0.6", stream_id=4).stop()
    proxy.wait_stderr(stamped("Stream stopped for 127.0.0.5 ID:0x00000004"))


def test_a_stop_without_id_leaves_the_streams_with_id_at_its_address(proxy, learn, sender, ping_fence):
    receiver = start_media(proxy, learn(stream_id=4))
    learn().stop()
    ping_fence()
    assert "Stream stopped" not in "\n".join(log(proxy))
    pump(sender, [receiver], media(1))


def test_a_stop_message_removes_a_configured_stream_too(start_proxy, receive, learn, net):
    proxy = wait_bound(start_proxy("-a", "127.0.0.5,127.0.0.6"), net.destination, net.request)
    learn("127.0.0.5").stop()
    proxy.wait_stderr(stamped("Stream stopped for 127.0.0.5 ID:0x00000000"))
    wait_until(lambda: control.request(net.instance, "List") == "127.0.0.6", "the other stream alone")


def test_a_stopped_receiver_may_come_back(proxy, learn, sender):
    receiver = start_media(proxy, learn())
    receiver.stop()
    proxy.wait_stderr(stamped("Stream stopped for 127.0.0.5 ID:0x00000000"))
    start_media(proxy, receiver)
    pump(sender, [receiver], media(2))
    assert added(proxy) == [("127.0.0.5", 0)] * 2


def test_a_stream_that_comes_back_has_forgotten_its_packets(proxy, learn, sender):
    receiver, other = start_media(proxy, learn()), start_media(proxy, learn("127.0.0.6"))
    pump(sender, [receiver, other], media(3))
    receiver.stop()
    start_media(proxy, receiver)
    receiver.ask([100, 101, 102])
    assert receiver.answers() == []
    other.ask([100])
    assert len(other.answers()) == 1


def test_a_stop_message_on_the_request_port_removes_nothing(proxy, learn, sender):
    receiver = start_media(proxy, learn(stream_id=4))
    receiver.send(tag(4, STOP_MAGIC), receiver.request_address)
    receiver.send(STOP_MAGIC, receiver.request_address)
    receiver.fence()
    pump(sender, [receiver], media(1))
    assert "Stream stopped" not in proxy.stderr.text


def test_a_request_on_the_request_port_makes_no_stream(proxy, learn, net, ping_fence):
    stranger, known = learn(stream_id=6), start_media(proxy, learn("127.0.0.6"))
    stranger.ask([1, 2, 3])
    stranger.ask_raw(echo_ping(b"1234"))
    known.fence()
    ping_fence()
    assert added(proxy) == [("127.0.0.6", 0)]
    assert stranger.count() == 0


def test_a_request_on_the_ping_port_is_only_a_ping(proxy, learn, sender):
    receiver = start_media(proxy, learn())
    pump(sender, [receiver], media(3))
    receiver.send(request([100, 101]), receiver.ping_address)
    receiver.send(echo_ping(b"1234"), receiver.ping_address)
    # The ping port is read in order, so this ping comes behind the two.
    other = start_media(proxy, learn("127.0.0.6"))
    assert other.fence() == []
    assert receiver.fence()[3:] == []


def test_an_id_whose_bytes_are_a_magic_is_an_id_like_any_other(proxy, learn):
    as_id = int.from_bytes(ID_MAGIC, "little")
    start_media(proxy, learn(stream_id=as_id))
    assert added(proxy) == [("127.0.0.5", as_id)]


def test_the_listen_thread_ends_alone_when_the_request_port_is_taken(start_proxy, receive, closing, net, sender):
    closing(ports_holder(net.request))
    proxy = start_proxy("-a", "127.0.0.2")
    proxy.wait_stderr(f"SocketListener: bind failed on port {net.request}")
    proxy.wait_stderr("SocketGroupListenThread::Listen: Init(0) failed")
    # The other listener is not served either: its port was never bound.
    assert ports.udp_port_is_free(net.destination)
    receiver = receive()
    pump(sender, [receiver], media(3))
    assert control.request(net.instance, "List") == "127.0.0.2"


def test_a_ping_port_that_is_taken_ends_the_listen_thread_after_the_request_port_was_bound(
    start_proxy, closing, net, sender
):
    receiver = closing(PingingReceiver("127.0.0.2", net.destination, net))
    closing(ports_holder(net.destination, "127.0.0.9"))
    proxy = start_proxy("-a", "127.0.0.2")
    proxy.wait_stderr(f"SocketListener: sock bound to port {net.request}")
    proxy.wait_stderr(f"SocketListener: bind failed on port {net.destination}")
    proxy.wait_stderr("SocketGroupListenThread::Listen: Init(1) failed")
    receiver.ask_raw(echo_ping(b"1234"))
    pump(sender, [receiver], media(20))
    assert len(receiver.payloads) == 20


def ports_holder(port, address="0.0.0.0"):
    """A socket that shares its port with nobody."""
    return udp_socket(address, port, reuse=False)
