"""Memory that the system refuses: at the start, when a stream is made, and to everything for a while."""

import collections
import concurrent.futures
import os
import re
import resource

import pytest

from txproxy import control, impairment, instances, reports, rtp
from txproxy.model_receiver import start_media, wait_bound
from txproxy.proxy import run
from txproxy.receiver import pump
from txproxy.refused_memory import RefusedMemory
from txproxy.waiting import wait_until

DESTINATIONS = ("127.0.0.2", "127.0.0.3")
SIDE_BY_SIDE = 6
MOST_ALLOCATIONS = 200  # of a start
LEAST_ALLOCATIONS = 20
ALL = 1  # byte
TURN_PACKETS = 100  # a pacer without its timer thread sends what its full queue of 1024 packets displaces

CANNOT_CREATE = "Cannot create arq_send"
# One line of each group shows how far the part of the start has come that has a thread of its own.
SETTLED = (
    re.compile(
        r"sock bound to port \d+\n(.*\n)*.*sock bound to port \d+\n|Init\(\d\) failed\n|SocketGroup::Start\(\) failed"
    ),
    re.compile(r"New Rx bufferSize = \d+\n|cannot start the input thread"),
    re.compile(r"process_request_thread: exiting\n|cannot start the control thread"),
)
# With these the proxy runs on and sends nothing, and says so.
MUTE = ("SocketGroup::Start() failed", "cannot start the input thread", "Packet queue not created")
OWN_PORT = "a port of its own"
VARIANTS = {
    "plain": (),
    "paced": ("-X", 100_000_000),
    "udp-input": ("-u",),
    "multicast": ("-b", OWN_PORT),
    "library": ("-z",),
}

Outcome = collections.namedtuple("Outcome", "status listed served text calls")


def media(number):
    return rtp.packet(number, b"payload")


class Start:
    """One start with one allocation refused, and what comes of it."""

    def __init__(self, closing, launch, directory, options, number):
        self._where = instances.reserve(closing)
        self._launch = launch
        self._memory = RefusedMemory(directory, f"memory{number}")
        self._memory.refuse_call(number)
        self._receivers = {}
        text = DESTINATIONS
        if "-b" in options:
            text = ("239.1.2.3",)
        else:
            self._receivers = {a: instances.receiver_of(closing, self._where, a) for a in DESTINATIONS}
        self._arguments = ["-I", self._where.instance, "-p", self._where.destination, "-r", self._where.request]
        own = [self._where.destination if option == OWN_PORT else option for option in options]
        self._arguments += ["-a", ",".join(text), *own, self._where.input]
        self._sender = instances.sender_to(closing, self._where)

    def outcome(self):
        proxy = self._launch(*self._arguments, env=self._memory.env)
        wait_until(
            lambda: not proxy.is_alive() or self._is_settled(proxy), lambda: f"the start:\n{proxy.stderr.text}", 30
        )
        if not proxy.is_alive():
            return Outcome(proxy.wait_exit(), None, None, proxy.stderr.text, self._memory.calls)
        listed = self._listed() if self._is_controlled(proxy) else None
        served = self._served(proxy)
        proxy.stop()
        return Outcome(None, listed, served, proxy.stderr.text, self._memory.calls)

    def _listed(self):
        return reports.all_stats(self._where.instance)["CLIENTS"]

    @staticmethod
    def _is_controlled(proxy):
        return not SETTLED[2].search(proxy.stderr.text)

    def _is_settled(self, proxy):
        text = proxy.stderr.text
        is_up = SETTLED[2].search(text) or os.path.exists(control.path(self._where.instance))
        return is_up and all(wanted.search(text) for wanted in SETTLED[:2])

    def _served(self, proxy):
        """The destinations that get media; those that fail, or cannot, are not waited for."""
        if any(text in proxy.stderr.text for text in MUTE):
            return set()
        served = set()

        def all_told():
            for _ in range(TURN_PACKETS):
                self._sender.send(media(1))
            served.update(address for address, receiver in self._receivers.items() if receiver.count() > 0)
            missing = set(self._receivers) - served
            failed = "SendData failed: Bad file descriptor" in proxy.stderr.text
            added = sum(f"AddStream: Added {address} " in proxy.stderr.text for address in missing)
            return added == 0 or failed

        wait_until(all_told, lambda: f"media; got {served}:\n{proxy.stderr.text}")
        return served


@pytest.mark.release_only
@pytest.mark.parametrize("options", VARIANTS.values(), ids=VARIANTS)
def test_memory_refused_once_at_the_start_ends_it_with_status_1_or_leaves_a_proxy_that_runs(
    closing, launch, tmp_path, options
):
    whole = Start(closing, launch, tmp_path, options, 0).outcome()
    assert whole.status is None and LEAST_ALLOCATIONS < whole.calls < MOST_ALLOCATIONS
    starts = [Start(closing, launch, tmp_path, options, number) for number in range(1, whole.calls + 1)]
    with concurrent.futures.ThreadPoolExecutor(SIDE_BY_SIDE) as pool:
        outcomes = list(pool.map(Start.outcome, starts))
    for number, outcome in enumerate(outcomes, 1):
        if outcome.status is not None:
            assert outcome.status == 1, f"allocation {number}: {outcome.text}"
            assert f": {CANNOT_CREATE}\n" in outcome.text, f"allocation {number}: {outcome.text}"
    ended = sum(outcome.status == 1 for outcome in outcomes)
    unhurt = sum(outcome.served == whole.served and outcome.listed == whole.listed for outcome in outcomes)
    assert ended >= 10 and unhurt >= 10  # the refusals do reach the proxy, and not all of them matter


@pytest.fixture
def memory(tmp_path):
    return RefusedMemory(tmp_path)


@pytest.fixture
def start(start_proxy, memory, net):
    """start() runs a proxy with one configured destination and waits until all its threads are at work."""

    def run_refusable(*options):
        proxy = start_proxy("-a", DESTINATIONS[0], *options, env=memory.env)
        wait_until(lambda: control.request(net.instance, "List") == DESTINATIONS[0], "the control socket")
        return wait_bound(proxy, net.destination, net.request)

    return run_refusable


@pytest.mark.release_only
@pytest.mark.parametrize("options", [(), ("-u",)], ids=["rtp-input", "udp-input"])
def test_memory_refused_to_a_new_receiver_leaves_the_others_served_and_lets_it_join_later(
    start, receive, learn, memory, sender, options
):
    proxy = start(*options)
    served = [receive(DESTINATIONS[0]), start_media(proxy, learn("127.0.0.5"))]
    late = learn("127.0.0.6")
    memory.refuse_from(ALL)
    for number in range(3):
        late.ping()
        served[1].settle()
        pump(sender, served, [media(10 + number)])
    assert late.count() == 0
    assert "127.0.0.6" not in proxy.stderr.text
    memory.refuse_nothing()
    pump(sender, [*served, start_media(proxy, late)], [media(20)])


@pytest.mark.release_only
def test_memory_refused_to_everything_for_a_while_ends_nothing(start, receive, learn, memory, sender, net):
    proxy = start()
    served = [receive(DESTINATIONS[0]), start_media(proxy, learn("127.0.0.5"))]
    long_name = "a-host-name-that-is-longer-than-any-short-text.invalid"
    impairment.write_settings(net.instance, mode=1, min_dist=1000, max_dist=1000)
    memory.refuse_from(ALL)
    calls = memory.calls
    for command, reply in {
        f"Add {long_name}": f"OK: Adding: {long_name}",
        "Add 127.0.0.9": "OK: Adding: 127.0.0.9",
        f"Delete {long_name}": f"OK: Deleting: {long_name}",
        "a-command-that-is-longer-than-any-short-text": "command not implemented",
        "List": f"{DESTINATIONS[0]},127.0.0.5",
        "StatClear": "OK: Stat Reset",
    }.items():
        assert control.request(net.instance, command) == reply
    # Settings that cannot be read are the defaults.
    impairment.toggle(net.instance)
    proxy.wait_stderr("Impairment ON")
    assert proxy.stderr.find("min_dist = 100") != []
    impairment.toggle(net.instance)
    proxy.wait_stderr("Impairment OFF")
    pump(sender, served, [media(number) for number in range(10)])
    served[1].ask([3])
    assert len(served[1].answers()) == 1
    assert memory.calls > calls
    memory.refuse_nothing()
    assert control.request(net.instance, "Add 127.0.0.9") == "OK: Adding: 127.0.0.9"
    assert control.request(net.instance, "List") == f"{DESTINATIONS[0]},127.0.0.5,127.0.0.9"
    impairment.toggle(net.instance)
    proxy.wait_stderr("min_dist = 1000")
    proxy.wait_stderr("Impairment ON", count=2)


def address_space(pid):
    with open(f"/proc/{pid}/statm", encoding="ascii") as sizes:
        return int(sizes.read().split()[0]) * resource.getpagesize()


@pytest.mark.release_only
def test_memory_limit_reached_when_a_receiver_joins_leaves_the_others_served_and_lets_it_join_later(
    start_proxy, learn, sender, net
):
    # A ring of that many numbers is too large for what the process has at hand, which is more with an arena a thread.
    proxy = start_proxy("-q", 65536, env={"MALLOC_ARENA_MAX": "1"})
    wait_bound(proxy, net.destination, net.request)
    early, late = start_media(proxy, learn("127.0.0.5")), learn("127.0.0.6")
    before = resource.prlimit(proxy.pid, resource.RLIMIT_AS)
    resource.prlimit(proxy.pid, resource.RLIMIT_AS, (address_space(proxy.pid), before[1]))
    for number in range(3):
        late.ping()
        early.settle()
        pump(sender, [early], [media(number)])
    assert late.count() == 0
    resource.prlimit(proxy.pid, resource.RLIMIT_AS, before)
    pump(sender, [early, start_media(proxy, late)], [media(4)])


@pytest.mark.asan_only
def test_memory_refused_for_the_packets_ends_the_start_with_status_1_and_loses_none(net):
    options = f"{os.environ.get('ASAN_OPTIONS', '')}:allocator_may_return_null=1:max_allocation_size_mb=4"
    status, _, stderr = run("-I", net.instance, net.input, argv0="tx", env={"ASAN_OPTIONS": options})
    assert status == 1
    assert stderr.endswith(f"ArqSendReplicator: ERROR: PacketBufferInit failed!\ntx: {CANNOT_CREATE}\n")
