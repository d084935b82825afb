"""Every system call of a running proxy: on the path of a packet there are those described, and no other.

ALLOWED below names each thread and what it may call at all. The tests then count: one receive a packet, one send
for each receiver, one send for each number that is asked for. The clocks are read without a system call; a machine
whose clock source needs one fails here, and is slower for it.
"""

import re

import pytest

from txproxy import rtp
from txproxy.model_receiver import start_media, wait_bound
from txproxy.ports import instance_files
from txproxy.receiver import pump
from txproxy.syscalls import Trace, table, without_begun_before
from txproxy.waiting import wait_until

pytestmark = pytest.mark.release_only

PACKETS = 200
PAYLOAD = bytes(800)
CONFIGURED = ("127.0.0.2", "127.0.0.3", "127.0.0.4")

INPUT_WAIT, LISTEN_WAIT, CONTROL_WAIT, TOGGLE_LOOK = 0.25, 0.25, 0.5, 1.0  # seconds
SLEEP, TICK = 0.1, 0.01

# What each thread may call. A futex is a lock or a wait: the queue's for main and input.
ALLOWED = {
    "main": {"futex", "sendto", "sendmsg"},
    "input": {"recvfrom", "futex"},
    "listen": {"poll", "recvfrom", "sendto", "sendmsg", "futex"},
    "keep-alive": {"clock_nanosleep", "futex"},
    "status": {"clock_nanosleep"},
    "control": {"poll", "access"},
    "timer": {"clock_nanosleep", "sendto", "sendmsg", "futex"},
    "log writer": {"futex"},
}
UNPACED = {"main", "input", "listen", "keep-alive", "status", "control"}

# A packet is handed over by one wait and one wake. Where two threads meet at the queue's lock, each may wait
# for it once and wake the other once more.
HAND_OVERS_PER_PACKET = 4
QUEUE_BYTES = 512  # all words that main and input wait at lie in the one queue
# The replicator lock, when a ping and the look at a stream meet.
LOCKS_AT_A_PING = 2

FIRST_BYTES = re.compile(r'"((?:\\x[0-9a-f]{2})+)"')
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
    if "recvfrom" in names:
        return "input"
    if "clock_nanosleep" in names:
        return "timer" if max(sleeps(calls)) <= TICK else "sleeper"
    assert names <= {"futex"}, f"a thread that nobody knows: {calls[:20]}"
    return "log writer"


class Seen:
    """What a trace has shown, by the names of the threads."""

    def __init__(self, trace):
        self.seconds = trace.seconds
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
        found = []
        for call in self.of(thread, "sendto", "sendmsg"):
            assert call.result.isdecimal(), call
            begin = bytes.fromhex(FIRST_BYTES.search(call.arguments)[1].replace("\\x", ""))
            found.append((rtp.seq(begin), ADDRESS.search(call.arguments)[1]))
        return found


def expect_nothing_else(seen, names):
    assert set(seen.calls) - {"log writer"} == names
    for name, calls in seen.calls.items():
        foreign = [call for call in calls if call.name not in ALLOWED[name]]
        assert not foreign, f"{name} has called {foreign[:5]}"
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


def expect_input(seen, packets):
    """One receive a packet; the only others are those that end without a datagram, four a second."""
    receives = [call for call in seen.of("input", "recvfrom") if call.result]
    empty = [call for call in receives if call.result.startswith("-1 ")]
    assert len(receives) - len(empty) == packets
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
    """Each datagram is read once, and after a wait that has reported one at most one read finds nothing more.

    The listen thread wakes without a datagram four times a second.
    """
    reads = seen.of("listen", "recvfrom")
    read = [call for call in reads if call.result.isdecimal()]
    assert len(read) == datagrams
    assert all("MSG_DONTWAIT" in call.arguments for call in reads)
    waits = seen.of("listen", "poll")
    reported = sum(bool(re.match("[12] ", call.result)) for call in waits)
    assert reported <= datagrams
    assert len(reads) - len(read) <= 2 * (reported + 1)  # two sockets; the trace began within a wait
    assert sum(call.result.startswith("0 ") for call in waits) <= seen.at_most_every(LISTEN_WAIT)
    assert len(waits) <= datagrams + seen.at_most_every(LISTEN_WAIT)


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


@pytest.mark.parametrize("options, call", [((), "sendto"), (("-u",), "sendmsg")])
def test_a_packet_costs_one_receive_and_one_send_for_each_receiver_and_no_other_call(
    running, traced, sender, options, call
):
    proxy, receivers = running(*options)
    pump(sender, receivers, media(0))  # what is set up once is behind us
    seen = traced(proxy, lambda: pump(sender, receivers, media(PACKETS)))
    expect_nothing_else(seen, UNPACED)
    expect_periods(seen)
    expect_input(seen, PACKETS)
    expect_queue_only(seen, PACKETS)
    expect_requests(seen, 0)
    first = PACKETS + 1 if options else PACKETS  # the proxy's own numbers begin with 1
    assert seen.sent("main") == to_each(range(first, first + PACKETS))
    assert {one.name for one in seen.of("main", "sendto", "sendmsg")} == {call}
    assert seen.of("listen", "futex") == seen.of("keep-alive", "futex") == []


def test_a_packet_that_finds_main_asleep_is_handed_over_by_one_call_of_the_input_thread_and_two_of_main(
    running, traced, sender
):
    proxy, receivers = running()

    def one_by_one():
        for data in media(PACKETS):
            pump(sender, receivers, [data])
            proxy.wait_asleep()

    pump(sender, receivers, media(0))
    seen = traced(proxy, one_by_one)
    expect_nothing_else(seen, UNPACED)
    expect_input(seen, PACKETS)
    assert seen.sent("main") == to_each(range(PACKETS, 2 * PACKETS))
    # The input thread wakes main. Main waits; having waited it holds the lock as one that others may wait for, and
    # so wakes whoever does. Where a lock is met held both have one call more, which is rare.
    assert PACKETS <= len(seen.of("input", "futex")) <= PACKETS * 1.1
    assert 2 * PACKETS <= len(seen.of("main", "futex")) <= 2 * PACKETS * 1.1


def test_a_request_costs_one_read_and_one_send_for_each_number_and_media_nothing_more(
    running, traced, sender, learn
):
    proxy, receivers = running()
    asking = start_media(proxy, learn())
    receivers.append(asking)
    pump(sender, receivers, media(0))
    wanted = [range(0, 10), range(20, 23), range(50, 51)]

    def media_and_requests():
        for numbers in wanted:
            asking.ask(list(numbers))
        pump(sender, receivers[:-1], media(PACKETS))
        asking.wait_count(2 * PACKETS + sum(map(len, wanted)))

    seen = traced(proxy, media_and_requests)
    expect_nothing_else(seen, UNPACED)
    expect_periods(seen)
    expect_input(seen, PACKETS)
    expect_queue_only(seen, PACKETS)
    expect_requests(seen, len(wanted))
    assert seen.sent("listen") == [(number, "127.0.0.5") for numbers in wanted for number in numbers]
    assert seen.sent("main") == to_each(range(PACKETS, 2 * PACKETS), (*CONFIGURED, "127.0.0.5"))
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
    assert len(seen.of("listen", "sendto")) == 1  # the echo by which the test knows that all pings were read
    for name in ("listen", "keep-alive"):
        assert len(seen.of(name, "futex")) <= LOCKS_AT_A_PING


def test_with_pacing_the_timer_sends_in_main_s_place_and_only_sleeps_besides(running, traced, sender):
    proxy, receivers = running("-X", "4000000")
    pump(sender, receivers, media(0))
    seen = traced(proxy, lambda: pump(sender, receivers, media(PACKETS)))
    expect_nothing_else(seen, UNPACED | {"timer"})
    expect_periods(seen)
    expect_input(seen, PACKETS)
    expect_requests(seen, 0)
    assert seen.sent("timer") == to_each(range(PACKETS, 2 * PACKETS))
    assert seen.of("main", "sendto", "sendmsg") == []
    assert set(sleeps(seen.calls["timer"])) <= {TICK}
    assert 1 <= len(sleeps(seen.calls["timer"])) <= seen.at_most_every(TICK)
    for name in ("main", "input", "timer"):
        assert len(seen.of(name, "futex")) <= HAND_OVERS_PER_PACKET * PACKETS + 1
