"""The limit of descriptors is reached: at the start, and by what comes while the proxy runs.

New receivers are in test_stream_descriptors.py, clients that cannot be accepted in test_control_descriptors.py.
"""

import pathlib
import re
import resource

import pytest

from txproxy import control, impairment, rtp
from txproxy.model_receiver import raw_port, stamped, start_media, wait_bound
from txproxy.process import NoFreeDescriptor, cpu_seconds
from txproxy.receiver import pump
from txproxy.waiting import wait_until

CONFIGURED = ("127.0.0.2", "127.0.0.3")
BAD_DESCRIPTOR = "SendData failed: Bad file descriptor"
LEAST_LIMIT = 4  # with less the dynamic loader finds no C library
# What a start opens beside the three standard streams: lock, two streams, two listeners, input, control.
SOCKETS = 3 + 1 + len(CONFIGURED) + 2 + 1 + 1
NO_CONTROL = "process_request_thread: exiting"
NO_INPUT = "cannot open socket"
NOT_HEARD = re.compile(r"SocketGroupListenThread::Listen: Init\([01]\) failed")
MOST_IDLE_CPU_SECONDS = 0.5  # for the whole start


@pytest.fixture
def proxy(start_proxy, net):
    proxy = wait_bound(start_proxy("-a", ",".join(CONFIGURED)), net.destination, net.request)
    wait_until(pathlib.Path(control.path(net.instance)).exists, "the control socket")
    return proxy


@pytest.fixture
def served(proxy, receive, learn, sender):
    """Two configured receivers and a learnt one that have been served: all has happened once that happens later."""
    receivers = [*map(receive, CONFIGURED), start_media(proxy, learn("127.0.0.5"))]
    pump(sender, receivers, media(3))
    return receivers


def media(count, first=100):
    return [rtp.packet(first + i, b"payload %d" % i) for i in range(count)]


def test_descriptor_refused_to_an_added_stream_leaves_it_failing_aloud_until_it_is_deleted_and_added(
    proxy, served, receive, sender, net
):
    added = receive("127.0.0.7")
    with control.ControlClient(net.instance) as client:
        assert client.request("StatClear") == "OK: Stat Reset"  # it is accepted now
        with NoFreeDescriptor(proxy):
            assert client.request("Add 127.0.0.7") == "OK: Adding: 127.0.0.7"
            pump(sender, served, media(10))
        proxy.wait_stderr(BAD_DESCRIPTOR, count=10)
        assert client.request("List") == ",".join([*CONFIGURED, "127.0.0.5", "127.0.0.7"])
        assert added.count() == 0
        assert client.request("Delete 127.0.0.7") == "OK: Deleting: 127.0.0.7"
        assert client.request("Add 127.0.0.7") == "OK: Adding: 127.0.0.7"
    pump(sender, [*served, added], media(10, first=200))
    assert len(proxy.stderr.find(BAD_DESCRIPTOR)) == 10


def test_descriptor_limit_below_those_in_use_holds_up_a_receiver_that_moves_until_a_ping_after_it_is_raised(
    proxy, served, learn, sender
):
    early, moved = served[-1], learn("127.0.0.5")
    before = resource.prlimit(proxy.pid, resource.RLIMIT_NOFILE)
    resource.prlimit(proxy.pid, resource.RLIMIT_NOFILE, (3, before[1]))
    moved.ping()
    changed = f"Media port changed from {raw_port(early.port)} to {raw_port(moved.port)} for 127.0.0.5 ID:0x00000000"
    proxy.wait_stderr(stamped(changed))
    proxy.wait_stderr("dup2 failed: Bad file descriptor")
    pump(sender, served[:-1], media(10))
    resource.prlimit(proxy.pid, resource.RLIMIT_NOFILE, before)
    assert moved.count() == 0
    pump(sender, [*served[:-1], start_media(proxy, moved)], media(10))


def test_descriptor_refused_to_the_impairment_settings_gives_the_defaults_and_the_file_counts_later(
    proxy, served, sender, net
):
    impairment.write_settings(net.instance, mode=1, min_dist=1000, max_dist=1000)
    with NoFreeDescriptor(proxy):
        impairment.toggle(net.instance)
        proxy.wait_stderr("Impairment ON")
    assert len(proxy.stderr.find("min_dist = 100")) == 1
    impairment.toggle(net.instance)
    proxy.wait_stderr("Impairment OFF")
    impairment.toggle(net.instance)
    proxy.wait_stderr("Impairment ON", count=2)
    assert len(proxy.stderr.find("min_dist = 1000")) == 1
    pump(sender, served, media(10))


def test_descriptor_limit_while_clients_queue_keeps_media_and_the_impairment_poll_going(proxy, served, sender, net):
    with NoFreeDescriptor(proxy):
        clients = [control.ControlClient(net.instance) for _ in range(3)]
        for client in clients:
            client.send("StatClear")
        impairment.toggle(net.instance)
        proxy.wait_stderr("Impairment ON")
        impairment.toggle(net.instance)
        proxy.wait_stderr("Impairment OFF")
        pump(sender, served, media(50))
        assert not any(client.has_reply() for client in clients)
    for client in clients:
        assert client.receive() == "OK: Stat Reset"
        client.close()


def limited(number):
    return lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (number, resource.getrlimit(resource.RLIMIT_NOFILE)[1]))


@pytest.mark.release_only
@pytest.mark.parametrize("limit", range(LEAST_LIMIT, SOCKETS + 2))
def test_descriptor_limit_at_the_start_leaves_a_proxy_that_does_what_it_has_descriptors_for(
    launch, receive, sender, net, limit
):
    receivers = list(map(receive, CONFIGURED))
    arguments = ["-I", net.instance, "-p", net.destination, "-r", net.request, "-a", ",".join(CONFIGURED), net.input]
    proxy = launch(*arguments, preexec=limited(limit))

    def is_heard():
        return len(proxy.stderr.find(re.compile(r"SocketListener: sock bound to port \d+"))) == 2

    def is_fed():
        return "New Rx bufferSize" in proxy.stderr.text

    def is_controlled():
        return pathlib.Path(control.path(net.instance)).exists()

    def has(line):
        return lambda: proxy.stderr.find(line) != []

    outcomes = {is_heard: has(NOT_HEARD), is_fed: has(NO_INPUT), is_controlled: has(NO_CONTROL)}
    for good, bad in outcomes.items():
        wait_until(lambda good=good, bad=bad: good() or bad(), "an outcome")
    lacking = sum(bad() for bad in outcomes.values())
    most = max(0, min(len(outcomes), SOCKETS - limit))
    # What fails midway gives back what it had, and whoever starts later may get it.
    assert min(most, max(1, most - 1)) <= lacking <= most
    if is_fed():
        pump(sender, receivers, media(10))
    if limit > SOCKETS:  # a client needs one too
        assert control.request(net.instance, "List") == ",".join(CONFIGURED)
    assert cpu_seconds(proxy.pid) < MOST_IDLE_CPU_SECONDS
