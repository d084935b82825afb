"""A destination that blocks holds up the others no longer than it would if each datagram left by a call of its own.

Counted in datagrams, not in time: how many the slow one is brought until the others get the next one, and how many
the others are ahead of it by then.
"""

import collections
import itertools
import statistics

import pytest

from txproxy import proxy, receiver, rtp
from txproxy.receiver import Receiver, Sender
from txproxy.shaping import SLOW_PEER, SlowCable
from txproxy.traffic import Steady
from txproxy.waiting import wait_until

OTHERS = ("10.77.1.3", "10.77.1.4", "10.77.1.5")
RATE = "4mbit"
# Runs of so many datagrams in turn: of one size, or of two, so that the slow one takes some of a batch's trains.
SIZES = {"one size": (1328, 1328), "two sizes": (1328, 1200)}
RUN = 4
PACKETS_PER_SECOND = 1000
TAKEN_BY_SLOW = 600
MOST_AT_ONCE = 100
ROUNDS = 2
SLOW = "slow"
SHORTEST_STANDSTILL = 10
LONGEST_WAITS_SHARE = 1.2
SMALLEST_LEADS_SHARE = 0.8


@pytest.fixture
def blocked(start_proxy, make_lan, net, closing):
    """blocked(program, order, sizes) is who got the datagrams, one by one, while a slow cable holds the program up."""

    def run(program, order, sizes):
        def media(number):
            return rtp.packet(number, bytes(sizes[number // RUN % len(sizes)] - rtp.HEADER_BYTES))

        lan = make_lan(2)
        for address in OTHERS:
            lan.peer.ip("addr", "add", f"{address}/24", "dev", "eth1")
        SlowCable(lan, RATE)
        addresses = {SLOW: SLOW_PEER, **{address: address for address in OTHERS}}
        sockets = {
            name: receiver.udp_socket(address, net.destination, namespace=lan.peer)
            for name, address in addresses.items()
        }
        everything = closing(Receiver(sockets=sockets))
        process = start_proxy("-a", ",".join(addresses[name] for name in order), namespace=lan.proxy, program=program)
        sender = closing(Sender("127.0.0.1", net.input, namespace=lan.proxy))
        flow = closing(Steady(sender, media, PACKETS_PER_SECOND, MOST_AT_ONCE))
        names = []

        def taken():
            names[:] = [datagram.interface for datagram in everything.datagrams]
            return names.count(SLOW) >= TAKEN_BY_SLOW

        wait_until(taken, "the slow one to take")
        flow.close()
        process.stop()
        # What this test reads late may be missing yet.
        wait_until(
            lambda: min(collections.Counter(datagram.interface for datagram in everything.datagrams).values())
            >= names.count(SLOW),
            "the others to have what the slow one has",
        )
        return names

    return run


def standstills(names):
    """Each time the others waited: (datagrams that the slow one was brought meanwhile, how far the others still were
    ahead of it at the end)."""
    counts = collections.Counter()
    found = []
    for is_slow, group in itertools.groupby(names, lambda name: name == SLOW):
        length = len(group := list(group))
        counts.update(group)
        if is_slow and length > SHORTEST_STANDSTILL:
            found.append((length, min(counts[other] for other in OTHERS) - counts[SLOW]))
    return found


def usual(runs):
    """The medians of the standstills of several runs."""
    return tuple(map(statistics.median, zip(*itertools.chain(*map(standstills, runs)))))


@pytest.mark.parametrize("sizes", SIZES.values(), ids=SIZES)
@pytest.mark.parametrize("place", range(len(OTHERS)), ids=["first", "second", "third"])
def test_a_destination_that_blocks_lets_the_others_through_as_soon_as_with_plain_calls(
    blocked, place, sizes, record_property
):
    order = [*OTHERS[:place], SLOW, *OTHERS[place:]]
    together, plain = [], []
    for _ in range(ROUNDS):
        together.append(blocked(proxy.binary(), order, sizes))
        plain.append(blocked(proxy.plain_binary(), order, sizes))
    (wait, lead), (plain_wait, plain_lead) = map(usual, (together, plain))
    text = (
        f"wait while the slow one takes {wait} and are {lead} ahead at the end, "
        f"with plain calls {plain_wait} and {plain_lead}"
    )
    print(text)
    record_property("the others", text)
    assert wait <= LONGEST_WAITS_SHARE * plain_wait
    # What the slow one still has before it is the others' lead, less the datagrams that wait for it.
    assert lead >= SMALLEST_LEADS_SHARE * max(wait, plain_wait)
