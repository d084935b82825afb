"""arqrx and multicast: a stream that comes to a group and is repaired by unicast, and one that goes on to a group."""

import struct

import pytest

from txproxy import arqrx, impairment, netns, rtp
from txproxy.arqrx import Arqrx, left, patient, send_evenly, started
from txproxy.model_receiver import wait_bound
from txproxy.receiver import Receiver, Sender, join, udp_socket
from txproxy.waiting import wait_until

GROUP = "239.1.1.1"
OUTPUT_GROUP = "239.2.2.2"
PER_SECOND = 200


def payload(index):
    return struct.pack("!I", index) + bytes(range(100))


@pytest.fixture
def lan(make_lan):
    return make_lan(1)


@pytest.fixture
def ping_port(lease):
    return lease.port()


@pytest.fixture
def proxy(start_proxy, lan, net, ping_port):
    """It sends to the group on eth0, and is pinged on a port of its own."""
    started_proxy = start_proxy("-u", "-a", GROUP, "-b", ping_port, namespace=lan.proxy)
    return wait_bound(started_proxy, ping_port, net.request)


@pytest.fixture
def sender(closing, lan, net):
    return closing(Sender("127.0.0.1", net.input, namespace=lan.proxy))


@pytest.fixture
def player(closing, lease, lan):
    return closing(Receiver("127.0.0.60", lease.port(), namespace=lan.peer))


@pytest.fixture
def listen(closing, lan, net, player):
    """listen(*options) starts a receiver of the group in the peer namespace."""

    def start(*options):
        return closing(
            Arqrx("--group", f"{GROUP}:{net.destination}", "--interface", "eth0", "--json", "--interval", "100ms",
                  "--latency", patient(), "--output", "udp://127.0.0.60:" + str(player.address[1]), *options,
                  namespace=lan.peer)  # fmt: skip
        )

    return start


def test_a_group_is_heard_and_what_is_missing_comes_by_unicast(proxy, sender, player, listen, net, ping_port):
    impairment.write_settings(net.instance, min_dist=10, min_drop=1)
    receiver = listen(f"{netns.proxy_address(0)}:{ping_port}", "--request-port", net.request, "--id", arqrx.ID)
    proxy.wait_stderr(started(netns.peer_address(0)))
    impairment.toggle(net.instance)
    proxy.wait_stderr("Impairment ON")
    sent = [payload(i) for i in range(150)]
    send_evenly(sender, sent, PER_SECOND)
    send_evenly(sender, [payload(0)] * 5, PER_SECOND)
    player.wait_count(len(sent))
    assert [rtp.payload(data) for data in player.payloads[: len(sent)]] == sent
    assert receiver.end() == arqrx.GOOD
    assert receiver.figures()["packets_recovered"] >= 10
    proxy.wait_stderr(left(netns.peer_address(0)))


def test_a_group_alone_is_only_heard(proxy, sender, player, listen):
    assert proxy
    receiver = listen()
    receiver.wait_ready()
    sent = [payload(i) for i in range(50)]
    send_evenly(sender, sent, PER_SECOND)
    player.wait_count(len(sent))
    assert [rtp.payload(data) for data in player.payloads] == sent
    assert receiver.end() == arqrx.GOOD
    last = receiver.figures()
    assert last["pings"] == last["requests"] == 0
    assert "proxy" not in last


def test_an_unknown_interface_is_told(lan, net):
    status, _, stderr = arqrx.run("--group", f"{GROUP}:{net.destination}", "--interface", "eth9", namespace=lan.peer)
    assert status == arqrx.NO_START
    assert stderr.startswith(f"arqrx: cannot join {GROUP}:{net.destination}: ")
    assert stderr.endswith("; see the interfaces with: ip -brief addr\n")
    assert "eth9" in stderr


def test_what_is_played_out_goes_to_a_group_by_the_chosen_interface_with_its_time_to_live(make_lan, net, closing, lease):
    lan = make_lan(2)
    port = lease.port()

    def listener(interface):
        sock = udp_socket(OUTPUT_GROUP, port, lan.proxy, device=f"eth{interface}")
        join(sock, OUTPUT_GROUP, netns.proxy_address(interface))
        sock.setsockopt(0, 12, 1)  # IP_RECVTTL
        sock.settimeout(0)
        return sock

    sockets = [listener(0), listener(1)]
    url = f"udp://{OUTPUT_GROUP}:{port}?ttl=7&interface=eth1&source={netns.peer_address(1)}"
    receiver = closing(Arqrx("--listen", net.destination, "--latency", "100ms", "--json", "--interval", "100ms", "--output",
                             url, namespace=lan.peer))  # fmt: skip
    receiver.wait_ready()
    source = closing(Sender("127.0.0.1", net.destination, namespace=lan.peer))
    got = []

    def arrived():
        try:
            got.append(sockets[1].recvmsg(2000, 100))
        except BlockingIOError:
            return len(got) == 20
        return False

    send_evenly(source, [rtp.packet(i, payload(i)) for i in range(20)], PER_SECOND)
    wait_until(arrived, "the group's datagrams on eth1")
    assert [rtp.payload(data) for data, *_ in got] == [payload(i) for i in range(20)]
    for _, ancillary, _, address in got:
        assert [struct.unpack("i", value)[0] for _, _, value in ancillary] == [7]
        assert address[0] == netns.peer_address(1)
    with pytest.raises(BlockingIOError):
        sockets[0].recv(2000)
    for sock in sockets:
        sock.close()
    assert receiver.end() == arqrx.GOOD
