"""Datagrams that wait leave together, and no receiver can tell: fifty of them read the same, datagram by datagram, from
the program and from one that sends each by a call of its own.

Everything is compared but the clock's bytes and the ports that the system chooses: bytes, order, source, counters and
the log. That datagrams left together at all is seen from how often the kernel was handed something.
"""

import random

import pytest

from txproxy import impairment, proxy, rtp
from txproxy.audience import LONGEST_INPUT, MOST_CALLS_SHARE, Run, packet
from txproxy.audience_worlds import RECEIVERS, Group, OneMachine, TwoCables

BURST = 32
BURSTS = 8
EVEN_PACKETS = 150
PACING_BITRATE = 20_000_000
FIRST_ODD = 5000  # of the datagrams between bursts
LOSS = {"min_dist": 3, "min_drop": 2}
LARGEST_UNFRAGMENTED = 1472

# The streams of a run: (options, configured, learnt, further settings of the run).
STREAMS = {
    "configured": ((), RECEIVERS, 0, {}),
    "learnt": ((), 0, RECEIVERS, {}),
    "both": ((), RECEIVERS // 2, RECEIVERS // 2, {}),
    "equal_ports": ((), RECEIVERS, 0, {"equal_ports": True}),
    "multicast": ((), RECEIVERS, 2, {"make_world": Group}),
    "two_interfaces": (("-n", 2, "-1", 70), RECEIVERS, 0, {"make_world": TwoCables}),
    "udp_configured": (("-u",), RECEIVERS, 0, {}),
    "udp_learnt": (("-u",), 0, RECEIVERS, {}),
    "udp_multicast": (("-u",), RECEIVERS, 2, {"make_world": Group}),
    "udp_equal_ports": (("-u",), RECEIVERS, 0, {"equal_ports": True}),
}


def media(count, first=0):
    return [packet(first + i) for i in range(count)]


class Played:
    """Both runs of one play, over: the program's and the plain one's."""

    def __init__(self, together, plain):
        self.together, self.plain = together, plain

    def check_same(self):
        for run in (self.together, self.plain):
            run.check_owed()
            run.check_clocks()
        mine, other = self.together.brought(), self.plain.brought()
        assert mine.keys() == other.keys()
        for seat, reads in mine.items():
            assert reads == other[seat], seat
        assert self.together.report == self.plain.report


@pytest.fixture
def act(net, closing):
    """act(play, streams, *options) has both programs play(run) to the same audience."""

    def run_once(program, play, streams, more_options):
        options, configured, learnt, settings = STREAMS[streams]
        run = closing(Run(program, net, (*options, *more_options), configured, **settings))
        run.join(learnt)
        play(run)
        return run.end()

    def run_both(play, streams, *options):
        together = run_once(proxy.binary(), play, streams, options)
        return Played(together, run_once(proxy.plain_binary(), play, streams, options))

    return run_both


def even(run):
    for data in media(EVEN_PACKETS):
        run.play([data])


def bursts(run):
    for start in range(0, BURST * BURSTS, BURST):
        run.play(media(BURST, start), at_once=True)


@pytest.mark.parametrize("streams", STREAMS)
def test_an_even_stream_is_read_alike_and_costs_as_many_calls(act, streams):
    played = act(even, streams)
    played.check_same()
    assert played.together.sends == played.plain.sends


@pytest.mark.parametrize("streams", STREAMS)
def test_bursts_are_read_alike_and_leave_in_trains(act, streams):
    played = act(bursts, streams)
    played.check_same()
    if streams != "two_interfaces":  # neighbours leave by different interfaces there
        assert played.together.sends < MOST_CALLS_SHARE * played.plain.sends


@pytest.mark.parametrize("streams", ["configured", "learnt", "udp_configured", "multicast"])
def test_a_paced_stream_is_read_alike(act, streams):
    def play(run):
        run.play(media(BURST * BURSTS))

    act(play, streams, "-X", PACING_BITRATE).check_same()


@pytest.mark.parametrize("streams", ["configured", "learnt", "udp_configured", "multicast", "udp_multicast"])
def test_of_an_impaired_stream_the_same_datagrams_are_withheld_from_all(act, streams):
    def play(run):
        run.play(media(BURST), at_once=True)
        run.impair(**LOSS)
        withheld = impairment.fixed_pattern(BURST * BURSTS, **LOSS)
        for start in range(0, BURST * BURSTS, BURST):
            run.play(media(BURST, BURST + start), at_once=True, withheld=withheld[start : start + BURST])
        run.impair()
        run.play(media(BURST, BURST * (BURSTS + 1)), at_once=True)

    played = act(play, streams)
    played.check_same()
    assert played.together.report["Debug"]["m_nDropPacket"] == sum(impairment.fixed_pattern(BURST * BURSTS, **LOSS))


def mixed_sizes(rest_of_runs):
    """Bursts of every kind of run: each size once, runs of equal sizes, and runs that a shorter or longer one ends."""
    draw = random.Random(9)
    bursts = [[1 + draw.randrange(LARGEST_UNFRAGMENTED) for _ in range(BURST)] for _ in range(BURSTS)]
    bursts += [[draw.randrange(LARGEST_UNFRAGMENTED, LONGEST_INPUT + 100) for _ in range(BURST)]]
    bursts += [[LONGEST_INPUT] * BURST, [1] * BURST, [rtp.HEADER_BYTES] * BURST, list(range(1, BURST + 1))]
    bursts += [[LARGEST_UNFRAGMENTED] * length + [rest] for length in (1, 2, 7, BURST - 1) for rest in rest_of_runs]
    bursts += [[800, 800, 700, 700, 800, 900, 900, 100, 100, 1]]
    return bursts


@pytest.mark.parametrize("streams", ["configured", "learnt", "equal_ports", "udp_configured", "multicast"])
def test_datagrams_of_all_sizes_are_read_alike(act, streams):
    def play(run):
        index = 0
        for sizes in mixed_sizes(rest_of_runs=(1, 11, 700, LARGEST_UNFRAGMENTED - 1, LARGEST_UNFRAGMENTED + 1)):
            run.play([packet(index + i, size) for i, size in enumerate(sizes)], at_once=True)
            index += len(sizes)

    act(play, streams).check_same()


@pytest.mark.parametrize("streams", ["both", "learnt", "udp_learnt"])
def test_streams_that_come_and_go_between_bursts_are_read_alike(act, streams):
    def play(run):
        for turn in range(BURSTS):
            run.play(media(BURST, BURST * turn), at_once=True)
            for seat in run.joined()[turn::7]:
                run.leave(seat)
            run.join(1 + turn % 4)
            run.play(media(1, FIRST_ODD + turn))

    act(play, streams).check_same()


@pytest.mark.parametrize("streams", ["configured", "learnt", "equal_ports", "udp_configured", "udp_learnt", "both"])
def test_answers_are_read_alike_and_leave_in_trains(act, streams):
    def play(run):
        first = run.first_seq
        sent = media(BURST * 4)
        run.play(sent)
        run.sends = 0
        some = run.seats[::9]
        run.ask(some, first, sent[: 2 * BURST])
        run.ask(some, first + 2 * BURST, sent[2 * BURST : 2 * BURST + 1])
        run.ask(some, first + 3 * BURST, sent[3 * BURST :])

    played = act(play, streams)
    played.check_same()
    assert played.together.sends < MOST_CALLS_SHARE * played.plain.sends
