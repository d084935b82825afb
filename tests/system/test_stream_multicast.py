"""One multicast group for the media, and receivers learnt from pings beside it, who get their answers alone."""

import socket
import types

import pytest

from txproxy import control, netns, rtp
from txproxy.model_receiver import (
    RETRANSMIT_PAYLOAD_TYPE,
    PingingReceiver,
    feed,
    is_retransmission,
    retransmission_of,
    stamped,
    start_media,
    wait_bound,
)
from txproxy.receiver import Receiver, Sender, pump, udp_socket
from txproxy.waiting import wait_until

GROUP = "239.77.1.1"
OTHER_ADDRESS = "10.77.0.3"


@pytest.fixture
def lan(make_lan):
    lan = make_lan(1)
    lan.peer.ip("addr", "add", f"{OTHER_ADDRESS}/24", "dev", "eth0")
    return lan


@pytest.fixture
def setup(lan, lease, start_proxy, closing, net):
    """setup(*options) runs the proxy with a listener of the group."""

    def run(*options):
        unicast_port = lease.port()
        proxy = start_proxy("-a", GROUP, "-b", unicast_port, *options, namespace=lan.proxy)
        wait_bound(proxy, unicast_port, net.request)
        sock = udp_socket(GROUP, net.destination, lan.peer)
        membership = socket.inet_aton(GROUP) + socket.inet_aton(netns.peer_address(0))
        sock.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, membership)
        ports = types.SimpleNamespace(destination=unicast_port, request=net.request)

        def learn(address=netns.peer_address(0), **keywords):
            receiver = closing(
                PingingReceiver(
                    address, lease.port(), ports, proxy_address=netns.proxy_address(0), namespace=lan.peer, **keywords
                )
            )
            return start_media(proxy, receiver)

        return types.SimpleNamespace(
            proxy=proxy,
            group=closing(Receiver(sock=sock)),
            sender=closing(Sender("127.0.0.1", net.input, lan.proxy)),
            learn=learn,
            unicast_port=unicast_port,
        )

    return run


def media(count, first=100):
    return [rtp.packet(first + i, b"payload %d" % i) for i in range(count)]


def test_the_destination_port_becomes_the_unicast_port(setup, net):
    parts = setup()
    line = f"Multicasting to {GROUP}:{net.destination}, Unicasting to {parts.unicast_port}"
    parts.proxy.wait_stdout(line)


def test_media_goes_to_the_group_alone_and_answers_to_the_learnt_receiver_alone(setup):
    parts = setup()
    learnt = parts.learn()
    feed(parts.sender, [parts.group], media(10))
    on_air = parts.group.payloads
    assert [rtp.seq(data) for data in on_air[:10]] == list(range(100, 110))
    learnt.ask([103, 107])
    assert learnt.answers() == [retransmission_of(on_air[3]), retransmission_of(on_air[7])]
    assert [data for data in learnt.payloads if not is_retransmission(data) and len(data) > 9] == []
    # Answers leave from the port that the receiver pinged.
    assert {datagram.source for datagram in learnt.datagrams} == {(netns.proxy_address(0), parts.unicast_port)}
    pump(parts.sender, [parts.group], media(3, first=200))
    assert not any(map(is_retransmission, parts.group.payloads))


def test_in_udp_input_mode_learnt_receivers_are_answered_with_the_numbers_of_the_group(setup):
    parts = setup("-u")
    learnt = parts.learn()
    feed(parts.sender, [parts.group], [b"payload %d" % i for i in range(1, 8)], last=b"last")
    assert [rtp.seq(data) for data in parts.group.payloads] == list(range(1, 9))
    learnt.ask([2, 6])
    answers = learnt.answers()
    assert [(rtp.seq(data), rtp.payload(data)) for data in answers] == [(2, b"payload 2"), (6, b"payload 6")]
    assert {data[1] for data in answers} == {RETRANSMIT_PAYLOAD_TYPE}
    assert learnt.payloads[: len(answers)] == answers


def test_two_learnt_receivers_beside_the_group_are_answered_each_for_itself(setup, net, lan):
    parts = setup()
    one, other = parts.learn(), parts.learn(OTHER_ADDRESS, stream_id=77)
    feed(parts.sender, [parts.group], media(10))
    one.ask([101])
    other.ask([102])
    assert [rtp.seq(data) for data in one.answers()] == [101]
    assert [rtp.seq(data) for data in other.answers()] == [102]
    # The group is no entry of the table.
    assert control.request(net.instance, "List") == f"{netns.peer_address(0)},{OTHER_ADDRESS}"


def test_a_receiver_of_the_group_that_has_not_pinged_gets_no_answers(setup, closing, lease, net, lan):
    parts = setup()
    learnt = parts.learn(stream_id=5)
    feed(parts.sender, [parts.group], media(5))
    ports = types.SimpleNamespace(destination=parts.unicast_port, request=net.request)
    silent = closing(
        PingingReceiver(
            OTHER_ADDRESS, lease.port(), ports, proxy_address=netns.proxy_address(0), namespace=lan.peer
        )
    )
    silent.ask([101])
    # One thread answers in turn: what it had sent to the silent one would be there before this echo.
    assert learnt.fence() == []
    assert silent.count() == 0


def test_the_multicast_address_cannot_be_deleted(setup, net):
    parts = setup()
    control.request(net.instance, f"Delete {GROUP}")
    pump(parts.sender, [parts.group], media(3))
    assert [rtp.seq(data) for data in parts.group.payloads] == [100, 101, 102]


def test_a_stopped_learnt_receiver_leaves_the_group_running(setup, net):
    parts = setup()
    learnt = parts.learn(stream_id=5)
    learnt.stop()
    parts.proxy.wait_stderr(stamped(f"Stream stopped for {netns.peer_address(0)} ID:0x00000005"))
    pump(parts.sender, [parts.group], media(3))
    wait_until(lambda: control.request(net.instance, "AllStats").endswith("CLIENTS="), "the end of the stream")
