"""Every system call of a running proxy: on the path of a packet there are those described, and no other.

ALLOWED below names each thread and what it may call at all. The tests then count. A packet that comes alone costs one
receive and one send for each receiver, or one for all who share a socket; a request that comes alone one wait, one
read and one send for all of its numbers. What waits is received and sent together, and nothing is read in vain. The
clocks are read without a system call; a machine whose clock source needs one fails here, and is slower for it.
"""

import collections
import itertools
import re

import pytest

from txproxy import process, rtp
from txproxy.model_receiver import start_media, wait_bound
from txproxy.ports import instance_files
from txproxy.receiver import pump
from txproxy.syscalls import Trace, table, without_begun_before
from txproxy.waiting import wait_until

pytestmark = pytest.mark.release_only

PACKETS = 200
PAYLOAD = bytes(800)
CONFIGURED = ("127.0.0.2", "127.0.0.3", "127.0.0.4")
LEARNT = ("127.0.0.6", "127.0.0.7", "127.0.0.8")
BURST, BURSTS = 32, 8
ASKED = [1] * 20 + [64] + [8] * 10  # numbers, of each request
MOST_CALLS_SHARE = 1 / 2  # of one send for each datagram: strace may let main keep up at times
VISIT_SECONDS = 5.0  # the keep-alive looks at each stream so often
BUILT_HEADER_BYTES = 12

INPUT_WAIT, LISTEN_WAIT, CONTROL_WAIT, TOGGLE_LOOK = 0.25, 0.25, 0.5, 1.0  # seconds
SLEEP, TICK = 0.1, 0.01

# What each thread may call. A futex is a lock or a wait: the queue's for main and input.
SENDS = ("sendto", "sendmsg", "sendmmsg")
READS = ("recvfrom", "recvmmsg")
# How the way to a receiver is looked up, once a visit.
LOOK_AT_A_ROUTE = {"socket": 1, "connect": 1, "getsockname": 2, "close": 1}
ALLOWED = {
    "main": {"futex", *SENDS},
    "input": {"futex", *READS},
    "listen": {"poll", *READS, *SENDS, "futex"},
    "keep-alive": {"clock_nanosleep", "futex", *LOOK_AT_A_ROUTE},
    "status": {"clock_nanosleep"},
    "control": {"poll", "access"},
    "timer": {"clock_nanosleep", *SENDS, "futex"},
    "log writer": {"futex"},
}
UNPACED = {"main", "input", "listen", "keep-alive", "status", "control"}

# A packet is handed over by one wait and one wake. Where two threads meet at the queue's lock, each may wait
# for it once and wake the other once more.
HAND_OVERS_PER_PACKET = 4
QUEUE_BYTES = 512  # all words that main and input wait at lie in the one queue
BATCH_WAIT = 0.001  # seconds
MOST_BATCH_WAITS = 20  # of one answer
# The replicator lock, when a ping and the look at a stream meet.
LOCKS_AT_A_PING = 2

# A piece of a datagram: its first bytes, and how many it has.
PIECE = re.compile(r'"((?:\\x[0-9a-f]{2})+)"(?:\.\.\.)?, (?:iov_len=)?(\d+)')
DESCRIPTOR = re.compile(r"(\d+), ")
ADDRESS = re.compile(r'inet_addr\("([\d.]+)"\)')
SLEPT = re.compile(r"CLOCK_\w+, 0, \{tv_sec=(\d+), tv_nsec=(\d+)\}")
POLLED = re.compile(r"\[.*\], (\d), (\d+)")
FUTEX_WORD = re.compile(r"0x([0-9a-f]+), ")


def sleeps(calls):
    found = [SLEPT.match(call.arguments) for call in calls if call.name == "clock_nanosleep"]
    return [int(one[1]) + int(one[2]) / 1e9 for one in found]


def role(thread, pid, calls):
    """Who a thread is, by what it does."""
    names = {call.name for call in calls}
    if thread == pid:
        return "main"
    if "poll" in names:
        places = {POLLED.match(call.arguments)[1] for call in calls if call.name == "poll"}
        return "listen" if places == {"2"} else "control"
    if names & set(READS):
        return "input"
    if "clock_nanosleep" in names:
        return "timer" if max(sleeps(calls)) <= TICK else "sleeper"
    assert names <= {"futex"}, f"a thread that nobody knows: {calls[:20]}"
    return "log writer"


class Seen:
    """What a trace has shown, by the names of the threads."""

    def __init__(self, trace):
        self.seconds = trace.seconds
        self._peers = process.peers(trace.pid)
        self.calls = {}
        sleepers = []
        for thread, calls in trace.calls.items():
            made = without_begun_before(calls)
            name = role(thread, trace.pid, made)
            if name == "sleeper":
                sleepers.append(made)
                continue
            assert name not in self.calls, f"two threads that look like {name}:\n{table(trace.calls)}"
            self.calls[name] = made
        # Status sleeps 100 ms each time, keep-alive what is left of 100 ms. If both do alike, so much the better.
        sleepers.sort(key=lambda calls: min(sleeps(calls)))
        assert len(sleepers) == 2, f"not the keep-alive and the status thread alone:\n{table(trace.calls)}"
        self.calls["keep-alive"], self.calls["status"] = sleepers
        print(f"{self.seconds:.2f} s\n{table(self.calls)}")

    def of(self, thread, *names):
        return [call for call in self.calls[thread] if call.name in names]

    def at_most_every(self, period):
        """How many turns of this length fit, one more at each end, and one that came late before."""
        return int(self.seconds / period) + 3

    def sent(self, thread):
        """(sequence number, address) of every datagram that the thread has sent, in order."""
        return [datagram for call in self.of(thread, *SENDS) for datagram in self._datagrams(call)]

    def _datagrams(self, call):
        assert call.result.isdecimal(), call
        messages = call.arguments.split("msg_hdr=")[1:][: int(call.result)] if call.name == "sendmmsg" else [
            call.arguments
        ]  # fmt: skip
        peer = self._peers.get(int(DESCRIPTOR.match(call.arguments)[1]))
        found = []
        for message in messages:
            named = ADDRESS.search(message)
            found += [(number, named[1] if named else peer) for number in numbers(message)]
        return found


def numbers(message):
    """The sequence numbers of the datagrams of one message. A header that the proxy has built is a piece of its own."""
    pieces = PIECE.findall(message)
    if int(pieces[0][1]) == BUILT_HEADER_BYTES:
        pieces = pieces[::2]
    return [rtp.seq(bytes.fromhex(begin.replace("\\x", ""))) for begin, _ in pieces]


def by_address(sent):
    """{address: the numbers that were sent there, in order}"""
    found = collections.defaultdict(list)
    for number, address in sent:
        found[address].append(number)
    return dict(found)


def is_wait_for_a_batch(name, call):
    """An answer waits while packets that were sent before are still on their way to others, a millisecond at a time."""
    return name == "listen" and call.name == "clock_nanosleep" and sleeps([call]) == [BATCH_WAIT]


def expect_batch_waits(seen):
    """Who answers nothing waits for no batch, and an answer only so long."""
    waits = [call for call in seen.of("listen", "clock_nanosleep") if is_wait_for_a_batch("listen", call)]
    assert len(waits) <= MOST_BATCH_WAITS * len(seen.of("listen", *SENDS))


def expect_nothing_else(seen, names):
    assert set(seen.calls) - {"log writer"} == names
    for name, calls in seen.calls.items():
        foreign = [call for call in calls if call.name not in ALLOWED[name] and not is_wait_for_a_batch(name, call)]
        assert not foreign, f"{name} has called {foreign[:5]}"
    expect_batch_waits(seen)
    if "log writer" in seen.calls:
        assert len(seen.calls["log writer"]) <= 2


def expect_periods(seen):
    """The threads that only look now and then do so at the described times."""
    assert set(sleeps(seen.calls["status"])) == {SLEEP}
    assert max(sleeps(seen.calls["keep-alive"])) <= SLEEP
    for name in ("status", "keep-alive"):
        assert 1 <= len(sleeps(seen.calls[name])) <= seen.at_most_every(SLEEP)
    assert {POLLED.match(call.arguments)[2] for call in seen.of("listen", "poll")} == {"250"}
    assert {POLLED.match(call.arguments)[2] for call in seen.of("control", "poll")} == {"500"}
    assert 1 <= len(seen.of("control", "poll")) <= seen.at_most_every(CONTROL_WAIT)
    looks = seen.of("control", "access")
    # A look may be seen late, and the next one then seems early. Waits of 500 ms end close to the second, or at 1.5.
    assert all(after.time - before.time > 0.75 * TOGGLE_LOOK for before, after in zip(looks, looks[1:]))
    assert all(re.match(r'"/var/run/tx_proxy\d+\.imp", F_OK', look.arguments) for look in looks)


def datagrams_read(call):
    return 1 if call.name == "recvfrom" else int(call.result)


def expect_input(seen, packets):
    """Each packet is received once; the only empty receives are those that time out, four a second."""
    receives = [call for call in seen.of("input", *READS) if call.result]
    empty = [call for call in receives if call.result.startswith("-1 ")]
    assert sum(datagrams_read(call) for call in receives if call not in empty) == packets
    assert all(re.match("-1 (EAGAIN|EINTR) ", call.result) for call in empty)  # the trace's own begin: EINTR
    assert len(empty) <= seen.at_most_every(INPUT_WAIT)


def expect_queue_only(seen, packets):
    """Main and input meet at the queue and nowhere else."""
    words = set()
    for name in ("main", "input"):
        waits = seen.of(name, "futex")
        assert len(waits) <= HAND_OVERS_PER_PACKET * packets + 1
        words |= {int(FUTEX_WORD.match(call.arguments)[1], 16) for call in waits}
    assert max(words) - min(words) < QUEUE_BYTES


def expect_requests(seen, datagrams):
    """Each datagram is read once and nothing is read in vain: every read follows a wait that has reported one.

    The listen thread wakes without a datagram four times a second.
    """
    reads = seen.of("listen", *READS)
    assert all(call.result.isdecimal() for call in reads)
    assert sum(map(datagrams_read, reads)) == datagrams
    assert all("MSG_DONTWAIT" in call.arguments for call in reads)
    waits = seen.of("listen", "poll")
    reported = sum(int(call.result.split()[0]) for call in waits if re.match("[12] ", call.result))
    assert reported + 1 >= len(reads)  # the trace began within a wait
    assert sum(call.result.startswith("0 ") for call in waits) <= seen.at_most_every(LISTEN_WAIT)
    assert len(waits) <= datagrams + seen.at_most_every(LISTEN_WAIT)


def expect_looks_at_routes(seen, streams):
    """Once a visit, of each stream whose socket is connected."""
    visits = len(seen.of("keep-alive", "socket"))
    assert visits <= streams * (seen.seconds / VISIT_SECONDS + 2)
    for name, calls in LOOK_AT_A_ROUTE.items():
        assert len(seen.of("keep-alive", name)) == calls * visits


def media(first, count=PACKETS):
    return [rtp.packet(first + i, PAYLOAD) for i in range(count)]


def to_each(numbers, addresses=CONFIGURED):
    return [(number, address) for number in numbers for address in addresses]


@pytest.fixture
def running(start_proxy, receive, net):
    """running(*options) is a proxy with three receivers, ready for everything: (proxy, receivers)."""

    def start(*options):
        receivers = [receive(address) for address in CONFIGURED]
        proxy = start_proxy("-a", ",".join(CONFIGURED), *options)
        wait_bound(proxy, net.destination, net.request)
        control_socket, *_ = instance_files(net.instance)
        wait_until(control_socket.exists, "the control socket")
        proxy.wait_asleep()  # the last thread's start is over
        return proxy, receivers

    return start


@pytest.fixture
def traced(tmp_path):
    """traced(proxy, act) is what was seen while act() ran, and until every thread has shown what it does."""

    def trace_while(proxy, act):
        with Trace(proxy.pid, tmp_path) as trace:
            act()
            wait_until(lambda: has_come_round(trace), lambda: f"a look at a file; got\n{table(trace.so_far())}")
        return Seen(trace)

    def has_come_round(trace):
        """The slowest of them all: once a second the control thread looks at a file."""
        looks = [call for calls in trace.so_far().values() for call in calls if call.name == "access"]
        return len(looks) >= 2

    return trace_while


def one_by_one(proxy, sender, receivers):
    """What sends the media so that each packet finds all threads asleep."""

    def send():
        for data in media(PACKETS):
            pump(sender, receivers, [data])
            proxy.wait_asleep()

    return send


def learn_all(learn, proxy):
    return [start_media(proxy, learn(address)) for address in LEARNT]


@pytest.mark.parametrize("options, call", [((), "sendto"), (("-u",), "sendmsg")])
def test_a_packet_that_comes_alone_costs_one_receive_and_one_send_for_each_receiver_and_no_other_call(
    running, traced, sender, options, call
):
    proxy, receivers = running(*options)
    pump(sender, receivers, media(0))  # what is set up once is behind us
    seen = traced(proxy, one_by_one(proxy, sender, receivers))
    expect_nothing_else(seen, UNPACED)
    expect_periods(seen)
    expect_input(seen, PACKETS)
    expect_queue_only(seen, PACKETS)
    expect_requests(seen, 0)
    expect_looks_at_routes(seen, len(CONFIGURED))
    first = PACKETS + 1 if options else PACKETS  # the proxy's own numbers begin with 1
    assert seen.sent("main") == to_each(range(first, first + PACKETS))
    assert [one.name for one in seen.of("main", *SENDS)] == [call] * len(CONFIGURED) * PACKETS
    assert [one.name for one in seen.of("input", *READS) if one.result.isdecimal()] == ["recvfrom"] * PACKETS
    assert seen.of("listen", "futex") == seen.of("keep-alive", "futex") == []
    # The input thread wakes main, and main waits. Where a lock is met held both have one call more, which is rare.
    assert PACKETS <= len(seen.of("input", "futex")) <= PACKETS * 1.1
    assert PACKETS <= len(seen.of("main", "futex")) <= PACKETS * 1.1


def test_a_packet_that_comes_alone_costs_one_send_for_all_who_share_a_socket(running, traced, sender, learn):
    proxy, receivers = running()
    receivers += learn_all(learn, proxy)
    pump(sender, receivers, media(0))
    seen = traced(proxy, one_by_one(proxy, sender, receivers))
    expect_nothing_else(seen, UNPACED)
    assert seen.sent("main") == to_each(range(PACKETS, 2 * PACKETS), (*CONFIGURED, *LEARNT))
    calls = [one.name for one in seen.of("main", *SENDS)]
    assert calls == [*["sendto"] * len(CONFIGURED), "sendmmsg"] * PACKETS


@pytest.mark.parametrize("options", [(), ("-u",)])
def test_packets_that_wait_are_received_together_and_cost_one_send_for_each_receiver(
    running, traced, sender, learn, options
):
    proxy, receivers = running(*options)
    receivers += learn_all(learn, proxy)
    pump(sender, receivers, media(0))

    def bursts():
        for start in range(0, BURST * BURSTS, BURST):
            pump(sender, receivers, media(PACKETS + start, BURST))

    seen = traced(proxy, bursts)
    expect_nothing_else(seen, UNPACED)
    expect_periods(seen)
    expect_input(seen, BURST * BURSTS)
    expect_queue_only(seen, BURST * BURSTS)
    expect_requests(seen, 0)
    first = PACKETS + 1 if options else PACKETS
    everything = list(range(first, first + BURST * BURSTS))
    assert by_address(seen.sent("main")) == {address: everything for address in (*CONFIGURED, *LEARNT)}
    assert len(seen.of("main", *SENDS)) < MOST_CALLS_SHARE * BURST * BURSTS * len(receivers)
    assert sum(call.result.isdecimal() for call in seen.of("input", *READS)) < BURST * BURSTS / 2


def test_a_request_that_comes_alone_costs_one_wait_one_read_and_one_send(running, traced, sender, learn):
    proxy, receivers = running()
    asking = start_media(proxy, learn())
    receivers.append(asking)
    pump(sender, receivers, media(0))
    ends = list(itertools.accumulate(ASKED))
    wanted = [range(end - count, end) for end, count in zip(ends, ASKED)]

    def requests():
        for numbers_ in wanted:
            before = asking.count()
            asking.ask(list(numbers_))
            asking.wait_count(before + len(numbers_))
            proxy.wait_asleep()

    seen = traced(proxy, requests)
    expect_nothing_else(seen, UNPACED)
    expect_periods(seen)
    expect_requests(seen, len(ASKED))
    assert seen.sent("listen") == [(number, "127.0.0.5") for numbers_ in wanted for number in numbers_]
    assert len(seen.of("listen", *SENDS)) == len(seen.of("listen", *READS)) == len(ASKED)
    assert 0 <= len(ASKED) - sum(call.result.startswith("1 ") for call in seen.of("listen", "poll")) <= 1  # as above
    assert seen.of("listen", "futex") == []


def test_requests_cost_one_send_each_whatever_they_ask_for_and_media_nothing_more(running, traced, sender, learn):
    proxy, receivers = running()
    asking = start_media(proxy, learn())
    receivers.append(asking)
    pump(sender, receivers, media(0))
    wanted = [range(0, 10), range(20, 23), range(50, 51)]

    def media_and_requests():
        for numbers_ in wanted:
            asking.ask(list(numbers_))
        pump(sender, receivers[:-1], media(PACKETS))
        asking.wait_count(2 * PACKETS + sum(map(len, wanted)))

    seen = traced(proxy, media_and_requests)
    expect_nothing_else(seen, UNPACED)
    expect_periods(seen)
    expect_input(seen, PACKETS)
    expect_queue_only(seen, PACKETS)
    expect_requests(seen, len(wanted))
    assert seen.sent("listen") == [(number, "127.0.0.5") for numbers_ in wanted for number in numbers_]
    assert len(seen.of("listen", *SENDS)) == len(wanted)
    everything = list(range(PACKETS, 2 * PACKETS))
    assert by_address(seen.sent("main")) == {address: everything for address in (*CONFIGURED, "127.0.0.5")}
    assert seen.of("listen", "futex") == seen.of("keep-alive", "futex") == []


def test_a_ping_that_keeps_a_stream_costs_one_read_and_no_send(running, traced, sender, learn):
    proxy, receivers = running()
    pinging = start_media(proxy, learn())
    receivers.append(pinging)
    pump(sender, receivers, media(0))
    pings = 20

    def media_and_pings():
        for data in media(PACKETS, pings):
            pinging.ping()
            pump(sender, receivers, [data])
        pinging.settle()

    seen = traced(proxy, media_and_pings)
    expect_nothing_else(seen, UNPACED)
    expect_periods(seen)
    expect_input(seen, pings)
    expect_requests(seen, pings + 1)
    assert len(seen.of("listen", *SENDS)) == 1  # the echo by which the test knows that all pings were read
    meetings = 1 + len(seen.of("keep-alive", "socket"))  # a look at a route takes its time
    for name in ("listen", "keep-alive"):
        assert len(seen.of(name, "futex")) <= LOCKS_AT_A_PING * meetings


def test_with_pacing_the_timer_sends_in_main_s_place_and_only_sleeps_besides(running, traced, sender):
    proxy, receivers = running("-X", "4000000")
    pump(sender, receivers, media(0))
    seen = traced(proxy, lambda: pump(sender, receivers, media(PACKETS)))
    expect_nothing_else(seen, UNPACED | {"timer"})
    expect_periods(seen)
    expect_input(seen, PACKETS)
    expect_requests(seen, 0)
    assert by_address(seen.sent("timer")) == {address: list(range(PACKETS, 2 * PACKETS)) for address in CONFIGURED}
    # One train for each receiver and tick. On a busy machine a tick that is late leaves out its sleep.
    assert len(seen.of("timer", *SENDS)) <= len(CONFIGURED) * seen.at_most_every(TICK)
    assert seen.of("main", *SENDS) == []
    assert set(sleeps(seen.calls["timer"])) <= {TICK}
    assert 1 <= len(sleeps(seen.calls["timer"])) <= seen.at_most_every(TICK)
    for name in ("main", "input", "timer"):
        assert len(seen.of(name, "futex")) <= HAND_OVERS_PER_PACKET * PACKETS + 1
