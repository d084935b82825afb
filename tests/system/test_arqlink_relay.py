"""arqlink forwards as a NAT would: who hears whom from where, how many at once, and what is refused."""

import signal

import pytest

from txproxy.link import Link
from txproxy.receiver import Receiver, udp_socket
from txproxy.waiting import scaled, wait_until

HOST = "127.0.0.1"
LARGEST = 65507


@pytest.fixture
def target(closing):
    """target() makes a far end that collects what arrives there."""
    return lambda address=HOST, **keywords: closing(Receiver(address, 0, **keywords))


@pytest.fixture
def client(closing):
    return lambda address=HOST: closing(Receiver(address, 0))


@pytest.fixture
def start(closing):
    """start([target, ...], option, ...) runs arqlink to these far ends."""
    return lambda targets, *options, **keywords: closing(
        Link([end.address for end in targets], *options, **keywords)
    )


def sources(end, count):
    """Where the first `count` datagrams that arrive there came from."""
    wait_until(lambda: len(end.datagrams) >= count, lambda: f"{count} datagrams; there are {len(end.datagrams)}")
    return [datagram.source for datagram in end.datagrams]


@pytest.fixture
def joined(target, client, start):
    """joined(option, ...) runs arqlink to one far end, and a client sends it a datagram.

    Returns the line, the far end, the client, and from where the far end hears it.
    """

    def join(*options):
        far, near = target(), client()
        line = start([far], *options)
        near.send(b"ping", line.listen[0])
        (seen,) = sources(far, 1)
        return line, far, near, seen

    return join


def test_all_of_one_client_comes_from_one_port_and_answers_come_from_where_it_sent_to(target, client, start):
    pings, requests = target(), target()
    line = start([pings, requests])
    receiver = client()
    receiver.send(b"ping", line.listen[0])
    receiver.send(b"request", line.listen[1])
    (seen,) = sources(pings, 1)
    assert sources(requests, 1) == [seen]
    pings.send(b"media", seen)
    requests.send(b"answer", seen)
    pings.send(b"more media", seen)
    wait_until(lambda: len(receiver.datagrams) == 3, "three answers")
    came = {datagram.data: datagram.source for datagram in receiver.datagrams}
    assert came == {b"media": line.listen[0], b"answer": line.listen[1], b"more media": line.listen[0]}
    final = line.stop()
    assert (final["event"], final["clients_seen"], final["strangers"]) == ("final", 1, 0)
    assert (final["up"]["delivered"], final["down"]["delivered"]) == (2, 3)


@pytest.mark.parametrize("ended_by", ["SIGINT", "SIGTERM", "SIGHUP"])
def test_whoever_ends_it_hears_what_it_has_done(target, client, start, ended_by):
    end = target()
    line = start([end])
    client().send(b"request", line.listen[0])
    wait_until(lambda: end.datagrams, "the datagram")
    final = line.stop(getattr(signal, ended_by))
    assert (final["event"], final["up"]["delivered"]) == ("final", 1)


def test_what_leaves_together_goes_each_its_own_way(target, client, start):
    ends = [target(), target()]
    line = start(ends, "--down-delay", "300ms")
    near = client()
    for listen in line.listen:
        near.send(b"ping", listen)
    for number in range(100):
        for end in ends:
            end.send(b"%d" % number, sources(end, 1)[0])
    wait_until(lambda: len(near.datagrams) == 200, lambda: f"200 datagrams; there are {len(near.datagrams)}")
    for listen in line.listen:
        came = [datagram.data for datagram in near.datagrams if datagram.source == listen]
        assert came == [b"%d" % number for number in range(100)]


def test_each_client_has_a_port_of_its_own_upstream_and_gets_only_what_is_for_it(target, client, start):
    far = target()
    line = start([far])
    clients = [client() for _ in range(10)]
    for number, one in enumerate(clients):
        one.send(b"%d" % number, line.listen[0])
    assert len(set(sources(far, 10))) == 10
    for datagram in far.datagrams:
        far.send(b"for " + datagram.data, datagram.source)
    wait_until(lambda: all(one.datagrams for one in clients), "an answer for each")
    assert [one.payloads for one in clients] == [[b"for %d" % number] for number in range(10)]
    assert line.stop()["clients"] == 10


def test_every_size_of_datagram_goes_both_ways_unchanged(target, client, start):
    far = target()
    line = start([far])
    near = client()
    sent = [bytes([size % 251]) * size for size in (0, 1, 11, 12, 1328, 1472, 9000, LARGEST)]
    for data in sent:
        near.send(data, line.listen[0])
        wait_until(lambda data=data: far.payloads[-1:] == [data], f"{len(data)} bytes upwards")
        far.send(data, far.datagrams[-1].source)
        wait_until(lambda data=data: near.payloads[-1:] == [data], f"{len(data)} bytes downwards")
    assert far.payloads == near.payloads == sent


def test_a_source_feeds_a_proxy_through_it(start_proxy, receive, net, closing, client):
    receiver = receive()
    start_proxy("-u", "-a", receiver.address[0])
    line = closing(Link([(HOST, net.input)]))
    source = client()
    source.send(b"through the line", line.listen[0])
    wait_until(lambda: receiver.datagrams, "the proxy's packet")
    assert receiver.payloads[0][12:] == b"through the line"


def test_clients_get_addresses_of_a_range_and_give_them_back(target, client, start):
    far = target()
    line = start([far], "--source-pool", "127.9.0.0/30", "--idle", "1s")
    first, second, third = client(), client(), client()
    first.send(b"1", line.listen[0])
    second.send(b"2", line.listen[0])
    assert [source[0] for source in sources(far, 2)] == ["127.9.0.1", "127.9.0.2"]
    third.send(b"3", line.listen[0])
    line.wait_figures(lambda figures: figures["clients_refused"] == 1, "the third client's refusal")
    line.wait_figures(lambda figures: figures["clients"] == 0, "the silent clients to be forgotten")
    third.send(b"4", line.listen[0])
    assert [source[0] for source in sources(far, 3)] == ["127.9.0.1", "127.9.0.2", "127.9.0.1"]
    assert far.payloads == [b"1", b"2", b"4"]


def test_clients_may_share_one_address(target, client, start):
    far = target()
    line = start([far], "--source", "127.8.0.7")
    for number in range(3):
        client().send(b"%d" % number, line.listen[0])
    seen = sources(far, 3)
    assert {source[0] for source in seen} == {"127.8.0.7"}
    assert len(set(seen)) == 3


def test_more_clients_than_allowed_are_refused_and_the_others_live(target, client, start):
    far = target()
    line = start([far], "--clients", "2")
    clients = [client() for _ in range(3)]
    for one in clients:
        one.send(b"first", line.listen[0])
    line.wait_figures(lambda figures: figures["clients_refused"] == 1, "a refusal")
    for one in clients:
        one.send(b"second", line.listen[0])
    line.wait_figures(lambda figures: figures["clients_refused"] == 2, "another refusal")
    final = line.stop()
    assert (final["clients"], final["clients_seen"], final["up"]["delivered"]) == (2, 2, 4)


def test_a_client_that_keeps_sending_is_not_forgotten(target, client, start):
    idle = 1 + scaled(0.5)
    line = start([target()], "--idle", f"{1000 * idle:.0f}ms")
    near = client()

    def long_enough():
        near.send(b"here", line.listen[0])
        figures = line.figures()
        return figures and figures["seconds"] > 2 * idle + 0.5

    line.wait(long_enough, "twice the time of silence")
    final = line.stop()
    assert (final["clients"], final["clients_seen"]) == (1, 1)


def test_what_is_under_way_for_a_forgotten_client_is_counted(target, client, start):
    far = target()
    line = start([far], "--idle", "500ms", "--down-delay", "1h")
    client().send(b"ping", line.listen[0])
    far.send(b"media", sources(far, 1)[0])
    figures = line.wait_figures(lambda figures: figures["clients_seen"] == 1 and not figures["clients"], "the end")
    assert figures["down"]["lost_by"]["forgotten"] == figures["down"]["lost"] == 1
    assert figures["down"]["under_way"] == 0


def test_strangers_reach_no_client(joined, closing):
    line, far, near, seen = joined()
    stranger = closing(udp_socket("127.0.0.99", 0, reuse=False))
    stranger.sendto(b"from nowhere", seen)
    far.send(b"media", seen)
    line.wait_figures(lambda figures: figures["strangers"] == 1, "the stranger to be counted")
    wait_until(lambda: near.datagrams, "the answer")
    assert near.payloads == [b"media"]


def test_a_target_with_several_addresses_is_known_by_its_port(joined, closing):
    line, far, near, seen = joined()
    other_address = closing(udp_socket("127.0.0.98", far.address[1], reuse=False))
    other_address.sendto(b"media", seen)
    wait_until(lambda: near.datagrams, "the answer")
    assert (near.payloads, near.datagrams[0].source) == ([b"media"], line.listen[0])


def test_a_target_that_does_not_listen_stops_nothing(client, start, target, closing):
    far = target()
    gone = udp_socket(HOST, 0, reuse=False)
    address = gone.getsockname()
    gone.close()
    line = closing(Link([address, far.address]))
    near = client()
    for _ in range(20):
        near.send(b"into the void", line.listen[0])
    line.wait_figures(lambda figures: figures["up"]["came"] == 20, "all that was sent")
    near.send(b"to somebody", line.listen[1])
    far.send(b"answer", sources(far, 1)[0])
    wait_until(lambda: near.datagrams, "the answer")
    assert line.stop()["up"]["came"] == 21


def test_each_client_that_comes_and_goes_is_named_with_its_two_ends(joined):
    line, _, near, seen = joined("--idle", "500ms", "--source", "127.8.0.7")
    line.wait(lambda: line.events("forgotten"), "the client to be forgotten")
    (came,), (gone,) = line.events("client"), line.events("forgotten")
    ends = (0, "{}:{}".format(*near.address), "{}:{}".format(*seen))
    assert (came["client"], came["from"], came["upstream"]) == ends
    assert (gone["client"], gone["from"], gone["upstream"]) == ends
    assert gone["seconds"] - came["seconds"] >= 0.5
