"""Keep-alive judges a receiver by its pings, whatever joins and leaves around it.

The promise: pings at most 4.9 s apart keep a stream; 5 to 10 s of silence end it. The table has 50 positions,
of which one is looked at every 100 ms; who leaves is replaced by the last entry of the table.
"""

import re
import time

import pytest

from txproxy import control
from txproxy.model_receiver import STOP_MAGIC, tag, wait_bound
from txproxy.receiver import udp_socket
from txproxy.waiting import Lateness, wait_until

STATIC = "127.0.0.1"
PROXY_ADDRESS = "127.0.0.99"
KEEP_ALIVE_STARTS = "ArqSendReplicator::Start: Create KeepAlive Thread"
SUSPENDED = re.compile(r"Stream suspended for (\S+)$", re.MULTILINE)
ROUND_SECONDS = 5.0
BEFORE_A_NEW_ROUND = 0.05
GUESTS = 40
OFTEN_PINGING = 8
OFTEN_SECONDS = 2.0
SELDOM_SECONDS = 4.9
SHORTEST_SECONDS = 5.0
LONGEST_SECONDS = 10.0
EARLY_SECONDS = 0.2  # a ping is on its way, and a line is read, for a moment
TURN_SECONDS = 0.1  # the proxy's sleep between two looks
SLACK_SECONDS = 1.0  # 100 sleeps of 100 ms are never exact, on an idle machine either
LATE_PING_SECONDS = 0.05


class Member:
    """A receiver with an address and an ID of its own. It pings when it joins, then once every `interval`."""

    def __init__(self, number, net, interval=None):
        self.address = f"127.0.1.{number}"
        self._tag = tag(number)
        self._stop = tag(number, STOP_MAGIC)
        self._sock = udp_socket(self.address, 0, reuse=False)
        self._ping_address = (PROXY_ADDRESS, net.destination)
        self._interval = interval
        self._due = None
        self.last_ping = None
        self.longest_gap = 0.0

    def join(self, part_of_interval=1.0):
        """The first ping; the second comes after a part of the interval, so that members keep out of step."""
        self.ping()
        if self._interval:
            self._due = self.last_ping + self._interval * part_of_interval

    def ping(self):
        now = time.monotonic()
        if self.last_ping is not None:
            self.longest_gap = max(self.longest_gap, now - self.last_ping)
        self.last_ping = now
        self._sock.sendto(self._tag, self._ping_address)

    def tick(self):
        if self._due is not None and time.monotonic() >= self._due:
            self.ping()
            self._due += self._interval

    def leave(self):
        self._sock.sendto(self._stop, self._ping_address)

    def close(self):
        self._sock.close()


class Table:
    """A proxy whose table is full: a static entry, 40 guests, and 9 members that ping without fail."""

    def __init__(self, start_proxy, closing, net):
        self.proxy = start_proxy("-a", STATIC, ready=False)
        self.proxy.wait_stderr(KEEP_ALIVE_STARTS)
        self.began = time.monotonic()  # the walk over the positions
        wait_bound(self.proxy.wait_ready(), net.destination, net.request)
        self.guests = [closing(Member(1 + i, net)) for i in range(GUESTS)]
        self.kept = [closing(Member(100 + i, net, OFTEN_SECONDS)) for i in range(OFTEN_PINGING)]
        self.kept.append(closing(Member(200, net, SELDOM_SECONDS - LATE_PING_SECONDS)))
        self._instance = net.instance
        for guest in self.guests:
            guest.join()
        for i, member in enumerate(self.kept):
            member.join((i + 1) / len(self.kept))
        everybody = [STATIC] + [member.address for member in self.guests + self.kept]
        wait_until(lambda: self.listed() == everybody, "the whole table")

    def listed(self):
        return control.request(self._instance, "List").split(",")

    def suspended(self):
        """The addresses that were suspended so far, in this order."""
        return SUSPENDED.findall(self.proxy.stderr.text)

    def wait(self, condition, what, timeout):
        """Waits while the members ping."""

        def step():
            for member in self.kept:
                member.tick()
            return condition()

        wait_until(step, what, timeout)

    def wait_for_time(self, seconds):
        """Until so long after the first look at the first position."""
        self.wait(lambda: time.monotonic() >= self.began + seconds, f"{seconds} s", timeout=seconds + 1)

    def check_kept(self):
        """Nobody who pinged in time was suspended, and there were such."""
        in_time = {
            member.address for member in self.kept if member.longest_gap <= SELDOM_SECONDS + LATE_PING_SECONDS
        }
        assert in_time, "the machine let every single member ping too late"
        assert in_time & set(self.suspended()) == set()
        assert in_time <= set(self.listed())


@pytest.fixture
def table(start_proxy, closing, net):
    return Table(start_proxy, closing, net)


def test_receivers_that_ping_stay_while_others_leave_and_join_around_them(table):
    # Just before the first position's turn, guests at the first positions leave: the last entries, which were
    # looked at a moment ago, take their places.
    table.wait_for_time(ROUND_SECONDS - BEFORE_A_NEW_ROUND)
    for guest in table.guests[:5]:
        guest.leave()
    table.wait_for_time(1.2 * ROUND_SECONDS)
    table.check_kept()
    for guest in table.guests[:5]:
        guest.join()
    # Once more with those that are the last then; the guests that fell silent leave by themselves.
    table.wait_for_time(2 * ROUND_SECONDS - BEFORE_A_NEW_ROUND)
    for guest in table.guests[:5] + table.guests[5:9]:
        guest.leave()
    for guest in reversed(table.guests[:20]):
        guest.join()
    table.wait_for_time(2.5 * ROUND_SECONDS)
    table.check_kept()
    assert STATIC in table.listed()


def test_of_40_receivers_that_fall_silent_together_each_is_gone_in_5_to_10_s_and_nobody_else(table, closing):
    for guest in table.guests:
        guest.ping()
    silent = {guest.address: guest.last_ping for guest in table.guests}
    gone_after = {}
    lateness = closing(Lateness(TURN_SECONDS))

    def all_are_gone():
        now = time.monotonic()
        for address in table.suspended():
            if address in silent:
                gone_after.setdefault(address, now - silent[address])
        longest = LONGEST_SECONDS + SLACK_SECONDS + lateness.allowed()
        late = [address for address, ping in silent.items() if address not in gone_after and now - ping > longest]
        assert not late, f"{len(late)} receivers live after {longest} s of silence"
        return len(gone_after) == len(silent)

    table.wait(all_are_gone, "the end of all who are silent", timeout=3 * LONGEST_SECONDS)
    assert min(gone_after.values()) >= SHORTEST_SECONDS - EARLY_SECONDS
    table.check_kept()
    assert set(table.listed()) <= {STATIC} | {member.address for member in table.kept}
