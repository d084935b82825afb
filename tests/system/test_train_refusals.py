"""Where the kernel, a device or a size refuses datagrams that leave together, they leave one by one in the same moment:
nobody loses one or gets one twice, and nothing is said unless that is refused too.
"""

import errno

import pytest

from txproxy import preload, proxy
from txproxy.audience import MOST_CALLS_SHARE, Run, packet
from txproxy.audience_worlds import OneCable
from txproxy.refused_sends import RefusedSends
from txproxy.send_faults import complaint
from txproxy.waiting import wait_until

BURST = 32
BURSTS = 6
SEATS = 16  # so many that main is behind while a burst comes in
FAULTY = 2  # neither the first nor the last in the table
TRAIN_ERRORS = [errno.EIO, errno.ENOBUFS, errno.EPERM, errno.EINVAL, errno.EMSGSIZE, errno.EOPNOTSUPP]
ERRORS = [errno.EIO, errno.ENOBUFS, errno.EPERM, errno.EINVAL, errno.EMSGSIZE, errno.EAGAIN, errno.ECONNREFUSED]
REMEMBERED_SECONDS = 5
SHORT_MTU = 1300
ABOVE_MTU, BELOW_MTU = 1328, 1000
SEVERAL_RUNS = [700] * 9 + [600] * 9 + [500] * 9 + [400] * 5  # several messages for one call
STREAMS = {
    "configured": ((), SEATS, 0, {}),
    "learnt": ((), 0, SEATS, {}),
    "equal_ports": ((), SEATS, 0, {"equal_ports": True}),
    "udp_configured": (("-u",), SEATS, 0, {}),
    "udp_learnt": (("-u",), 0, SEATS, {}),
}


def by_name(errors):
    return {"argvalues": errors, "ids": [errno.errorcode[error] for error in errors]}


@pytest.fixture(scope="module")
def library_folder(tmp_path_factory):
    return tmp_path_factory.mktemp("library")


@pytest.fixture
def refused(library_folder, tmp_path):
    return RefusedSends(library_folder, tmp_path)


@pytest.fixture
def start(net, closing):
    """start(streams, ...) is a Run of a few receivers."""

    def run(streams="configured", program=None, env=None, **more):
        options, configured, learnt, settings = STREAMS[streams]
        run = closing(Run(program or proxy.binary(), net, options, configured, env=env, **settings, **more))
        run.join(learnt)
        return run

    return run


class Bursts:
    """Bursts of datagrams that follow each other in one run; none resembles another."""

    def __init__(self, run):
        self._run, self.sent = run, 0

    def play(self, size=ABOVE_MTU, count=BURST, **keywords):
        return self.play_sizes([size] * count, **keywords)

    def play_sizes(self, sizes, **keywords):
        first, self.sent = self.sent, self.sent + len(sizes)
        return self._run.play([packet(first + i, size) for i, size in enumerate(sizes)], at_once=True, **keywords)


def check_nothing_said(run):
    run.end().check_owed()
    assert not [line for line in run.report["log"] if "failed" in line]
    sent = len(run.seats[0].owed) * len(run.seats)
    assert run.report["AllStats"]["SEND_PACKETS"] == sent


@pytest.mark.parametrize("streams", STREAMS)
@pytest.mark.parametrize("error", **by_name(TRAIN_ERRORS))
def test_a_train_that_is_refused_arrives_datagram_by_datagram_and_nothing_is_said(start, refused, error, streams):
    run = start(streams, env=refused.env)
    bursts = Bursts(run)
    bursts.play()
    refused.begin(run.seats[FAULTY].address, error, "trains")
    for _ in range(BURSTS):
        bursts.play()
    assert refused.trains > 0
    assert refused.others == 0
    refused.end()
    bursts.play()
    check_nothing_said(run)


@pytest.mark.parametrize("streams", ["configured", "learnt", "udp_configured"])
def test_what_was_refused_is_not_tried_again_for_some_seconds_and_then_it_is(start, refused, streams):
    run = start(streams, env=refused.env)
    bursts = Bursts(run)
    together = MOST_CALLS_SHARE * BURST * SEATS
    refused.begin(run.seats[FAULTY].address, errno.EMSGSIZE, "trains")
    for _ in range(BURSTS):
        bursts.play()
    # Time passes on a slow machine, so that more than one may have been tried.
    assert 1 <= refused.trains <= BURSTS / 2
    tried = refused.trains
    wait_until(lambda: bursts.play() and refused.trains > tried, "another try", 4 * REMEMBERED_SECONDS)
    refused.end()
    wait_until(lambda: bursts.play() < together, "trains again", 4 * REMEMBERED_SECONDS)
    check_nothing_said(run)


@pytest.mark.parametrize("streams", STREAMS)
@pytest.mark.parametrize("error", **by_name(ERRORS))
def test_what_is_refused_one_by_one_too_is_said_once_for_each_datagram(start, refused, error, streams):
    run = start(streams, env=refused.env)
    faulty = run.seats[FAULTY]
    bursts = Bursts(run)
    bursts.play()
    refused.begin(faulty.address, error)
    for _ in range(BURSTS):
        bursts.play(refused=[faulty])
    for _ in range(BURSTS):
        bursts.play(count=1, refused=[faulty])
    run.proxy.wait_asleep()
    refused.end()
    bursts.play()
    run.end().check_owed()
    if streams == "learnt":
        assert refused.parts > 0  # they share a socket, and so a call
    missed = (BURST + 1) * BURSTS
    assert run.report["log"].count(complaint(error)) == missed
    assert sum("failed" in line for line in run.report["log"]) == missed
    assert run.report["AllStats"]["SEND_PACKETS"] == bursts.sent * SEATS


@pytest.mark.parametrize("streams", STREAMS)
@pytest.mark.parametrize("kind, every", [("all", 2), ("all", 3), ("all", 5), ("trains", 2)])
def test_of_a_call_that_takes_a_part_nothing_is_lost_or_doubled_but_what_is_complained_of(
    start, refused, kind, every, streams
):
    run = start(streams, env=refused.env)
    faulty = run.seats[FAULTY]
    bursts = Bursts(run)
    refused.begin(faulty.address, errno.ENOBUFS, kind, every)
    for turn in range(BURSTS):
        bursts.play_sizes(SEVERAL_RUNS, refused=[faulty])
        bursts.play(count=1 + turn, refused=[faulty])
    run.proxy.wait_asleep()
    refused.end()
    run.end()
    assert refused.parts > 0
    came, everything = run.datagrams_of(faulty), run.datagrams_of(run.seats[0])
    assert len(came) + run.report["log"].count(complaint(errno.ENOBUFS)) == bursts.sent
    assert is_part_in_order(came, everything)
    for seat in set(run.seats) - {faulty}:
        run.check_seat(seat)


def is_part_in_order(part, whole):
    left = iter(whole)
    return all(one in left for one in part)


def test_sockets_without_checksums_bring_the_same_and_nothing_is_said(start, library_folder):
    run = start(env=preload.environment(library_folder, "no_checksums"))
    bursts = Bursts(run)
    sends = [bursts.play() for _ in range(BURSTS)]
    assert min(sends) == BURST * SEATS  # the kernel took none together
    check_nothing_said(run)


def test_datagrams_above_the_mtu_arrive_smaller_ones_still_leave_in_trains_and_with_the_mtu_back_all_do(start):
    run = start(make_world=OneCable)
    bursts = Bursts(run)
    together = MOST_CALLS_SHARE * BURST * SEATS

    def set_mtu(octets):
        for side in (run.world.namespace, run.world.outside):
            side.ip("link", "set", "eth0", "mtu", octets)

    assert bursts.play() < together
    set_mtu(SHORT_MTU)
    for _ in range(BURSTS):
        assert bursts.play() == BURST * SEATS
        assert bursts.play(size=BELOW_MTU) < together
    set_mtu(1500)
    wait_until(lambda: bursts.play() < together, "trains again", 4 * REMEMBERED_SECONDS)
    check_nothing_said(run)
