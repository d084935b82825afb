"""Equal destination and request ports: requests are read from the very socket that sends the media."""

import re
import time
import types

import pytest

from txproxy import control, netns, rtp
from txproxy.model_receiver import (
    STOP_MESSAGE,
    PingingReceiver,
    echo_ping,
    feed,
    request,
    retransmission_of,
    settled_by_list,
    stamped,
    start_media,
)
from txproxy.process import cpu_seconds
from txproxy.receiver import Receiver, Sender, pump, udp_socket
from txproxy.waiting import wait_until

DUPPING = re.compile(r"Dupping socket \d+")
OBSERVED_SECONDS = 0.5
KEEP_ALIVE_THREAD = "ArqSendReplicator::Start: Create KeepAlive Thread"


@pytest.fixture
def shared(net):
    """The ports of a proxy whose request port is its destination port."""
    return types.SimpleNamespace(instance=net.instance, destination=net.destination, request=net.destination)


@pytest.fixture
def start(start_proxy, shared):
    """start(*options) runs a proxy with equal ports; the port is bound once for each listener."""

    def run(*options, listeners=1, **keywords):
        proxy = start_proxy("-r", shared.request, *options, **keywords)
        proxy.wait_stderr(f"SocketListener: sock bound to port {shared.request}", count=listeners)
        return proxy

    return run


@pytest.fixture
def configured(closing, shared):
    """configured(address) is the receiver of a configured stream."""
    return lambda address: closing(PingingReceiver(address, shared.destination, shared))


@pytest.fixture
def learn(closing, lease, shared):
    return lambda address, **keywords: closing(PingingReceiver(address, lease.port(), shared, **keywords))


def media(count, first=100):
    return [rtp.packet(first + i, b"payload %d" % i) for i in range(count)]


def ports_of(receiver):
    return {datagram.source[1] for datagram in receiver.datagrams}


def assert_idle(proxy):
    """A listener that waits on a dead descriptor would spin."""
    before = cpu_seconds(proxy.pid)
    until = time.monotonic() + OBSERVED_SECONDS
    wait_until(lambda: time.monotonic() >= until, "the time of observation")
    assert cpu_seconds(proxy.pid) - before < OBSERVED_SECONDS / 2


# With configured streams


def test_media_and_answers_leave_from_the_request_port(start, configured, sender, shared):
    proxy = start("-a", "127.0.0.5")
    receiver = configured("127.0.0.5")
    feed(sender, [receiver], media(3))
    receiver.ask([101])
    assert receiver.answers() == [retransmission_of(receiver.payloads[1])]
    assert ports_of(receiver) == {shared.request}
    assert len(proxy.stderr.find(DUPPING)) == 1
    assert KEEP_ALIVE_THREAD not in proxy.stderr.lines


def test_all_configured_streams_borrow_the_socket_of_the_first(start, configured, sender, shared):
    proxy = start("-a", "127.0.0.5,127.0.0.6,127.0.0.7")
    receivers = [configured(f"127.0.0.{i}") for i in (5, 6, 7)]
    feed(sender, receivers, media(5))
    for index, receiver in enumerate(receivers):
        receiver.ask([100 + index])
        assert receiver.answers() == [retransmission_of(receiver.payloads[index])]
        assert ports_of(receiver) == {shared.request}
    borrowed = re.findall(r"^Dupping socket (\d+) for stream (\d+)$", proxy.stderr.text, re.MULTILINE)
    assert [stream for _, stream in borrowed] == ["1", "2"]
    [listening] = re.findall(r"^Dupping socket (\d+)$", proxy.stderr.text, re.MULTILINE)
    assert {socket for socket, _ in borrowed} == {listening}


def test_with_configured_streams_pings_and_stops_are_read_as_requests(start, configured, learn, sender, shared):
    proxy = start("-a", "127.0.0.5")
    receiver = configured("127.0.0.5")
    stranger = learn("127.0.0.9")
    stranger.ping(b"a ping that makes no stream")
    receiver.stop()
    receiver.ask_raw(echo_ping(b"1234"))
    assert receiver.wait_count(1) == [echo_ping(b"1234")]
    feed(sender, [receiver], media(3))
    assert control.request(shared.instance, "List") == "127.0.0.5"
    assert "Process Ping" not in proxy.stderr.text
    assert stranger.count() == 0


def test_deleting_stream_0_leaves_the_others_sending_and_answered(start, configured, sender, shared):
    proxy = start("-a", "127.0.0.5,127.0.0.6,127.0.0.7")
    first, second, third = (configured(f"127.0.0.{i}") for i in (5, 6, 7))
    feed(sender, [first, second, third], media(3))
    control.request(shared.instance, "Delete 127.0.0.5")
    first.wait_count(4 + 5)
    feed(sender, [second, third], media(5, first=200))
    for receiver in (second, third):
        receiver.ask([202])
        assert [rtp.seq(data) for data in receiver.answers()] == [202]
        assert ports_of(receiver) == {shared.request}
    assert first.payloads[4:] == [STOP_MESSAGE] * 5
    assert "SendData failed" not in proxy.stderr.text
    assert_idle(proxy)


def test_a_stream_added_after_stream_0_was_deleted_borrows_the_same_port(start, configured, sender, shared):
    start("-a", "127.0.0.5,127.0.0.6")
    second, added = configured("127.0.0.6"), configured("127.0.0.7")
    control.request(shared.instance, "Delete 127.0.0.5")
    control.request(shared.instance, "Add 127.0.0.7")
    feed(sender, [second, added], media(3))
    added.ask([101])
    assert len(added.answers()) == 1
    assert ports_of(added) == ports_of(second) == {shared.request}


def test_requests_are_still_read_when_all_streams_were_deleted_and_another_was_added(
    start, configured, sender, shared
):
    proxy = start("-a", "127.0.0.5")
    control.request(shared.instance, "Delete 127.0.0.5")
    assert_idle(proxy)
    control.request(shared.instance, "Add 127.0.0.6")
    receiver = configured("127.0.0.6")
    feed(sender, [receiver], media(3))
    receiver.ask([101])
    assert receiver.answers() == [retransmission_of(receiver.payloads[1])]


# Without configured streams


@pytest.fixture
def started(shared):
    """start_media where requests are not read, so that no echo comes."""
    return lambda proxy, receiver: start_media(proxy, receiver, lambda: settled_by_list(shared.instance))


def test_without_configured_streams_a_ping_makes_one_and_its_media_leaves_from_the_shared_port(
    start, learn, sender, shared, started
):
    proxy = start(listeners=2)
    receiver = started(proxy, learn("127.0.0.5"))
    pump(sender, [receiver], media(3))
    assert ports_of(receiver) == {shared.destination}
    assert proxy.stderr.find(DUPPING) == []
    assert KEEP_ALIVE_THREAD not in proxy.stderr.lines


def test_the_stop_of_the_first_learnt_stream_leaves_those_that_borrowed_from_it(
    start, learn, sender, shared, started
):
    proxy = start(listeners=2)
    first, second, third = (started(proxy, learn(f"127.0.0.{i}", stream_id=i)) for i in (5, 6, 7))
    assert re.findall(r"^Dupping socket \d+ for stream (\d+)$", proxy.stderr.text, re.MULTILINE) == ["1", "2"]
    pump(sender, [first, second, third], media(2))
    first.stop()
    proxy.wait_stderr(stamped("Stream stopped for 127.0.0.5 ID:0x00000005"))
    settled_by_list(shared.instance)
    pump(sender, [second, third], media(2, first=200))
    fourth = started(proxy, learn("127.0.0.8", stream_id=8))
    pump(sender, [second, third, fourth], media(2, first=300))
    assert first.count() == 2
    assert ports_of(second) == ports_of(third) == ports_of(fourth) == {shared.destination}
    assert "SendData failed" not in proxy.stderr.text
    assert_idle(proxy)


def test_a_port_change_of_a_borrowing_stream_leaves_the_first_stream_its_socket(
    start, learn, sender, shared, started
):
    proxy = start(listeners=2)
    first, old = (started(proxy, learn(f"127.0.0.{i}", stream_id=i)) for i in (5, 6))
    new = started(proxy, learn("127.0.0.6", stream_id=6))
    pump(sender, [first, new], media(5))
    assert old.count() == 0
    assert ports_of(first) == ports_of(new) == {shared.destination}
    assert "SendData failed" not in proxy.stderr.text


# Over two interfaces


@pytest.fixture
def over_two_interfaces(make_lan, start, closing, net, shared):
    """A proxy that sends to 10.77.0.2 over eth0 and eth1, and what belongs to it."""
    lan = make_lan(2)
    proxy = start("-a", netns.peer_address(0), "-n", "2", listeners=2, namespace=lan.proxy)
    sockets = {
        name: udp_socket("0.0.0.0", shared.destination, lan.peer, device=name) for name in ("eth0", "eth1")
    }
    return types.SimpleNamespace(
        lan=lan,
        proxy=proxy,
        receiver=closing(Receiver(sockets=sockets)),
        sender=closing(Sender("127.0.0.1", net.input, lan.proxy)),
        # Where each interface reaches the request port.
        request_address={f"eth{i}": (netns.proxy_address(i), shared.request) for i in range(2)},
    )


def test_with_two_interfaces_both_sockets_of_the_stream_are_listened_on(over_two_interfaces, shared):
    proxy, receiver = over_two_interfaces.proxy, over_two_interfaces.receiver
    dupped = proxy.stderr.find(DUPPING)
    assert len(dupped) == 2 and dupped[0] != dupped[1]
    pump(over_two_interfaces.sender, [receiver], media(10))
    by_interface = {name: [d for d in receiver.datagrams if d.interface == name] for name in ("eth0", "eth1")}
    # Both halves leave from the request port.
    assert len(by_interface["eth0"]) == len(by_interface["eth1"]) == 5
    assert {datagram.source[1] for datagram in receiver.datagrams} == {shared.request}


@pytest.mark.parametrize("interface", ["eth0", "eth1"])
def test_with_two_interfaces_a_request_over_either_is_answered(over_two_interfaces, closing, interface):
    receiver = over_two_interfaces.receiver
    asking = closing(
        udp_socket(netns.peer_address(0), 0, over_two_interfaces.lan.peer, reuse=False, device=interface)
    )
    feed(over_two_interfaces.sender, [receiver], media(10))
    answer = retransmission_of(receiver.payloads[4])
    asking.sendto(request([rtp.seq(answer)]), over_two_interfaces.request_address[interface])
    receiver.wait_for(lambda datagram: datagram.data == answer)


def test_with_two_interfaces_deleting_the_stream_leaves_a_quiet_proxy(over_two_interfaces, shared):
    receiver = over_two_interfaces.receiver
    control.request(shared.instance, "Delete " + netns.peer_address(0))
    receiver.wait_count(5)
    # The stop messages share the interfaces as media does.
    assert {datagram.interface for datagram in receiver.datagrams} == {"eth0", "eth1"}
    assert_idle(over_two_interfaces.proxy)
