"""Destination lists, the stream table, and what one stream's trouble does to the others."""

import errno
import re
import socket

import pytest

from txproxy import control, netns, receiver, refusal, rtp
from txproxy.receiver import Receiver, Sender, pump

STAMP = r"(?:Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ 1-3]\d \d\d:\d\d:\d\d: "
ADDED = re.compile(STAMP + r"AddStream: Added (\S+) stream ID:0x00000000")


def added(proxy):
    return [ADDED.fullmatch(line).group(1) for line in proxy.stderr.find(ADDED)]


def media(count, first=0):
    return [rtp.packet(first + i, f"packet {first + i}".encode()) for i in range(count)]


def assert_got(receiver_, sent):
    assert [rtp.without_timestamp(data) for data in receiver_.payloads] == [rtp.without_timestamp(d) for d in sent]


def test_every_destination_of_the_list_gets_the_stream(start_proxy, receive, sender):
    receivers = [receive(f"127.0.0.{i}") for i in (2, 3, 4)]
    proxy = start_proxy("-a", "127.0.0.2,127.0.0.3,127.0.0.4")
    sent = media(300)
    pump(sender, receivers, sent)
    for receiver_ in receivers:
        assert_got(receiver_, sent)
    assert added(proxy) == ["127.0.0.2", "127.0.0.3", "127.0.0.4"]


def test_all_receivers_get_the_same_bytes(start_proxy, receive, sender):
    receivers = [receive(f"127.0.0.{i}") for i in (2, 3, 4)]
    start_proxy("-a", "127.0.0.2,127.0.0.3,127.0.0.4")
    pump(sender, receivers, media(100))
    assert receivers[0].payloads == receivers[1].payloads == receivers[2].payloads


def test_the_start_of_a_proxy_with_one_stream_prints_these_lines_and_no_others(start_proxy, net):
    proxy = start_proxy("-a", "127.0.0.2")
    request_bound = proxy.wait_stderr(f"SocketListener: sock bound to port {net.request}")
    ping_bound = proxy.wait_stderr(f"SocketListener: sock bound to port {net.destination}")
    lines = [ADDED.sub("AddStream", line) for line in proxy.stderr.lines]
    # The listen thread and the input thread print among the lines of the main thread.
    assert lines.index(request_bound) < lines.index(ping_bound)
    buffer_lines = [line for line in lines if "Rx bufferSize" in line]
    main_lines = [line for line in lines if line not in (request_bound, ping_bound, *buffer_lines)]
    assert main_lines == [
        "Maximum output streams = 50",
        "AddStream",
        "ArqSendReplicator::Start: Create KeepAlive Thread",
        "ArqSendReplicator::Start: Create Status Thread",
        "ArqSendReplicator::Start: started listener thread",
    ]
    assert len(buffer_lines) == 2


def test_a_destination_named_twice_is_one_stream(start_proxy, receive, sender):
    receivers = [receive("127.0.0.2"), receive("127.0.0.3")]
    proxy = start_proxy("-a", "127.0.0.2,127.0.0.2,127.0.0.3,127.0.0.2")
    sent = media(20)
    pump(sender, receivers, sent)
    for receiver_ in receivers:
        assert_got(receiver_, sent)
    assert added(proxy) == ["127.0.0.2", "127.0.0.3"]


def test_empty_tokens_are_skipped(start_proxy, net):
    proxy = start_proxy("-a", ",127.0.0.2,,127.0.0.3,")
    assert added(proxy) == ["127.0.0.2", "127.0.0.3"]


@pytest.mark.parametrize("destinations", ["", ",", ",,,"])
def test_no_destination_is_no_stream(start_proxy, net, destinations):
    proxy = start_proxy("-a", destinations)
    assert control.request(net.instance, "RxStat") == "NET_TOTAL_PACKETS=0\nNET_LOSS=0\n"
    assert added(proxy) == []


def test_a_host_name_is_resolved(start_proxy, receive, sender):
    receiver_ = receive("127.0.0.1")
    proxy = start_proxy("-a", "localhost")
    sent = media(5)
    pump(sender, [receiver_], sent)
    assert_got(receiver_, sent)
    assert added(proxy) == ["127.0.0.1"]


@pytest.mark.parametrize(
    "text, address",
    [
        # Fields with leading zeros are decimal ...
        ("127.0.0.010", "127.0.0.10"),
        ("127.000.000.011", "127.0.0.11"),
        # ... but what is longer than 15 characters or has too few fields is looked up, where zeros mean octal.
        ("127.000.000.0012", "127.0.0.10"),
        ("127.13", "127.0.0.13"),
        ("127.0.14", "127.0.0.14"),
    ],
)
def test_numeric_forms_of_a_destination(start_proxy, text, address, island):
    assert added(start_proxy("-a", text, namespace=island)) == [address]


@pytest.mark.parametrize("text", ["0.0.0.0", "127.0.0.256", "127.0.0.2.3", " 127.0.0.2", "no-such-host.invalid", "*"])
def test_a_destination_that_does_not_resolve_is_skipped_and_the_others_go_on(
    start_proxy, island, net, closing, text
):
    receivers = [closing(Receiver(f"127.0.0.{i}", net.destination, namespace=island)) for i in (3, 4)]
    local_sender = closing(Sender("127.0.0.1", net.input, namespace=island))
    proxy = start_proxy("-a", f"127.0.0.3,{text},127.0.0.4", namespace=island)
    sent = media(5)
    pump(local_sender, receivers, sent)
    assert added(proxy) == ["127.0.0.3", "127.0.0.4"]
    assert not proxy.stdout.find(re.compile("Error.*"))


def test_an_unknown_host_is_reported_when_it_is_added_later(start_proxy, island, net):
    proxy = start_proxy("-a", "127.0.0.2", namespace=island)
    reply = control.request(net.instance, "Add no-such-host.invalid")
    assert reply == "OK: Adding: no-such-host.invalid"
    proxy.wait_stderr("unknown host 'no-such-host.invalid'")
    assert control.request(net.instance, "List") == "127.0.0.2"


def test_50_destinations_of_the_list_are_served_in_its_order(start_proxy, net, receive, sender):
    addresses = [f"127.0.0.{i}" for i in range(2, 52)]
    receivers = [receive(address) for address in addresses]
    proxy = start_proxy("-a", ",".join(addresses))
    sent = media(40)
    pump(sender, receivers, sent, window=10)
    for receiver_ in receivers:
        assert_got(receiver_, sent)
    assert added(proxy) == addresses
    assert control.request(net.instance, "List") == ",".join(addresses)


def test_each_stream_has_a_port_of_its_own_to_send_from(start_proxy, net, receive, sender):
    receivers = [receive(f"127.0.0.{i}") for i in (2, 3)]
    start_proxy("-a", "127.0.0.2,127.0.0.3")
    pump(sender, receivers, media(10))
    sources = [{datagram.source[1] for datagram in receiver_.datagrams} for receiver_ in receivers]
    assert len(sources[0]) == len(sources[1]) == 1
    assert sources[0].isdisjoint(sources[1] | {net.destination, net.request})


def test_with_equal_ports_all_streams_send_from_the_request_port(launch, net, receive, sender):
    receivers = [receive(f"127.0.0.{i}") for i in (2, 3, 4)]
    proxy = launch(
        "-I", net.instance, "-p", net.destination, "-r", net.destination,
        "-a", "127.0.0.2,127.0.0.3,127.0.0.4", net.input,
    ).wait_ready()  # fmt: skip
    proxy.wait_stderr(f"SocketListener: sock bound to port {net.destination}")
    pump(sender, receivers, media(10))
    for receiver_ in receivers:
        assert {datagram.source[1] for datagram in receiver_.datagrams} == {net.destination}
    shared = re.compile(r"Dupping socket (\d+)(?: for stream (\d+))?")
    duplicates = [shared.fullmatch(line).groups() for line in proxy.stderr.find(shared)]
    descriptor = duplicates[0][0]
    assert duplicates == [(descriptor, "1"), (descriptor, "2"), (descriptor, None)]
    assert "KeepAlive" not in proxy.stderr.text


def test_with_equal_ports_and_two_interfaces_two_sockets_are_listened_to(launch, net, make_lan):
    lan = make_lan(2)
    proxy = launch(
        "-I", net.instance, "-p", net.destination, "-r", net.destination, "-n", 2,
        "-a", netns.peer_address(0), net.input, namespace=lan.proxy,
    ).wait_ready()  # fmt: skip
    proxy.wait_stderr(f"SocketListener: sock bound to port {net.destination}", count=2)
    shared = re.compile(r"Dupping socket \d+")
    lines = proxy.stderr.find(shared)
    assert len(lines) == len(set(lines)) == 2


@pytest.mark.parametrize("options", [[], ["-u"]])
def test_a_send_that_fails_is_reported_and_the_other_streams_go_on(start_proxy, island, net, closing, options):
    receivers = [closing(Receiver(f"127.0.0.{i}", net.destination, namespace=island)) for i in (2, 3)]
    local_sender = closing(Sender("127.0.0.1", net.input, namespace=island))
    proxy = start_proxy(*options, "-a", "127.0.0.2,10.1.2.3,127.0.0.3", namespace=island)
    pump(local_sender, receivers, media(50))
    assert [receiver_.count() for receiver_ in receivers] == [50, 50]
    proxy.wait_stderr("SendData failed: Network is unreachable", count=50)
    # A failed send counts as a sent datagram all the same.
    assert "SEND_PACKETS=150\n" in control.request(net.instance, "AllStats")


def test_a_vanished_interface_fails_its_stream_alone_until_it_is_back(start_proxy, make_lan, net, closing):
    lan = make_lan(1)
    local = closing(Receiver("127.0.0.2", net.destination, namespace=lan.proxy))
    remote = closing(Receiver(netns.peer_address(0), net.destination, namespace=lan.peer))
    local_sender = closing(Sender("127.0.0.1", net.input, namespace=lan.proxy))
    proxy = start_proxy("-a", f"{netns.peer_address(0)},127.0.0.2", namespace=lan.proxy)
    pump(local_sender, [local, remote], media(10))
    lan.proxy.ip("link", "set", "eth0", "down")
    pump(local_sender, [local], media(10, first=10))
    proxy.wait_stderr("SendData failed: Network is unreachable", count=10)
    lan.proxy.ip("link", "set", "eth0", "up")
    pump(local_sender, [local], media(10, first=20))
    pump(local_sender, [remote], media(1, first=30))
    lan.proxy.ip("link", "del", "eth0")
    pump(local_sender, [local], media(10, first=31))
    assert [rtp.seq(data) for data in local.payloads] == list(range(41))
    # An address that comes back up may lose its first datagrams to the search for its neighbour.
    assert [rtp.seq(data) for data in remote.payloads][:10] == list(range(10))
    assert rtp.seq(remote.payloads[-1]) == 30


def test_stream_sockets_without_address_reuse_are_reported_and_fail(start_proxy, receive, sender):
    receive()
    no_reuse = refusal.refuse("setsockopt", errno.EPERM, arg1=socket.SOL_SOCKET, arg2=socket.SO_REUSEADDR)
    proxy = start_proxy("-a", "127.0.0.2", preexec=refusal.preexec(no_reuse))
    proxy.wait_stderr(re.compile(STAMP + r"Error: setsockopt\(SO_REUSEADDR\) failed"))
    assert added(proxy) == ["127.0.0.2"]
    sender.send(rtp.packet(1))
    proxy.wait_stderr("SendData failed: Bad file descriptor")


def test_a_ping_port_in_use_is_reported_and_media_flow(start_proxy, net, receive, sender, closing):
    closing(receiver.udp_socket("127.0.0.99", net.destination, reuse=False))
    receiver_ = receive()
    proxy = start_proxy("-a", "127.0.0.2")
    proxy.wait_stderr(f"SocketListener: bind failed on port {net.destination}")
    pump(sender, [receiver_], media(5))


def test_a_loopback_stream_is_sent_to_at_once(start_proxy, receive, sender):
    receiver_ = receive("127.0.0.1")
    start_proxy("-a", "127.0.0.1")
    pump(sender, [receiver_], media(5))
    assert_got(receiver_, media(5))


def test_a_stream_outlives_a_receiver_that_is_not_there(start_proxy, net, receive, sender, make_lan, closing):
    lan = make_lan(1)
    local_sender = closing(Sender("127.0.0.1", net.input, namespace=lan.proxy))
    local = closing(Receiver("127.0.0.2", net.destination, namespace=lan.proxy))
    # Nobody listens at the peer yet: it answers with "port unreachable".
    start_proxy("-a", f"{netns.peer_address(0)},127.0.0.2", namespace=lan.proxy)
    pump(local_sender, [local], media(10))
    late = closing(Receiver(netns.peer_address(0), net.destination, namespace=lan.peer))
    pump(local_sender, [local, late], media(10, first=10))
    assert [rtp.seq(data) for data in late.payloads] == list(range(10, 20))
