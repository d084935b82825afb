"""The sockets of configured streams are connected, and no receiver can tell: what the network says about an earlier
datagram neither costs the next one nor is reported, and what routing chooses is followed.

Whatever happens here happens to the program and to the one that connects nothing, and both bring the same.
"""

import pytest

from txproxy import control, model_receiver, netns, proxy
from txproxy.audience import MOST_CALLS_SHARE, Run, packet
from txproxy.audience_worlds import OneCable
from txproxy.forged_icmp import Router
from txproxy.waiting import wait_until

SEATS = 4
CROWD = 16  # so many that main is behind while a burst comes in
FAULTY = 1
BURST = 32
NEW_ADDRESS = "10.77.0.9"
FOLLOWS_SECONDS = 10  # the keep-alive's round, twice
STOP_MESSAGES = 5
# Codes of "destination unreachable": all that the kernel tells a connected socket, and one that it does not.
CODES = {"host": 1, "protocol": 2, "port": 3, "fragments_needed": 4, "prohibited": 13}
STREAMS = {
    "configured": ((), SEATS, 0, {}),
    "learnt": ((), 0, SEATS, {}),
    "both": ((), SEATS // 2, SEATS // 2, {}),
    "equal_ports": ((), SEATS, 0, {"equal_ports": True}),
    "udp_configured": (("-u",), SEATS, 0, {}),
}


class Flow:
    """Datagrams that follow each other in one run; none resembles another."""

    def __init__(self, run):
        self._run, self.sent = run, 0

    def even(self, count, **keywords):
        for _ in range(count):
            self.burst(1, **keywords)

    def burst(self, count=BURST, **keywords):
        first, self.sent = self.sent, self.sent + count
        return self._run.play([packet(first + i) for i in range(count)], at_once=count > 1, **keywords)


@pytest.fixture
def act(net, closing):
    """act(play, streams) lets both programs meet play(run, flow) and compares what came of it.

    The receivers are on another machine: on the proxy's own one its ping port would take what a closed port does not.
    """

    def run_once(program, play, streams):
        options, configured, learnt, settings = STREAMS[streams]
        run = closing(Run(program, net, options, configured, make_world=OneCable, **settings))
        run.join(learnt)
        play(run, Flow(run))
        return run.end()

    def run_both(play, streams="configured"):
        runs = [run_once(program, play, streams) for program in (proxy.binary(), proxy.plain_binary())]
        for run in runs:
            run.check_owed()
            assert not [line for line in run.report["log"] if "failed" in line]
        connected, plain = runs
        assert connected.brought() == plain.brought()
        assert connected.report == plain.report

    return run_both


def source_of(run, seat):
    """Where the media of this receiver come from."""
    last = seat.reads[""][-1]
    return last.address, last.port


@pytest.mark.parametrize("streams", STREAMS)
def test_a_port_that_closes_costs_nobody_anything_and_its_receiver_nothing_once_it_is_open(act, streams):
    def play(run, flow):
        faulty = run.seats[FAULTY]
        flow.even(3)
        for closed_for in (1, 2, 3, 4, 5):
            faulty.close()
            flow.even(closed_for, refused=[faulty])
            run.reopen(faulty)
            flow.even(3)
        for closed_for in (1, 2, 3):
            faulty.close()
            for _ in range(closed_for):
                flow.burst(refused=[faulty])
            run.reopen(faulty)
            flow.burst()
            flow.even(1)

    act(play, streams)


@pytest.mark.parametrize("code", CODES.values(), ids=CODES)
@pytest.mark.parametrize("streams", STREAMS)
def test_what_the_network_says_of_a_datagram_costs_the_next_one_nothing(act, closing, streams, code):
    def play(run, flow):
        router = closing(Router(run.world.outside))
        seat = run.seats[FAULTY]

        def complain():
            router.complain(code, source_of(run, seat), (seat.address, seat.port))

        flow.even(1)
        for count in (1, 1, 2, BURST, BURST):
            complain()
            flow.burst(count)
        complain()
        run.ask([seat], run.first_seq, [packet(0), packet(1), packet(2)])

    act(play, streams)


def test_stop_messages_reach_a_receiver_of_whose_port_the_network_complained(act, net, closing):
    def play(run, flow):
        router = closing(Router(run.world.outside))
        seat = run.seats[FAULTY]
        flow.even(1)
        router.complain(CODES["port"], source_of(run, seat), (seat.address, seat.port))
        assert control.request(net.instance, f"Delete {seat.address}") == f"OK: Deleting: {seat.address}"
        seat.read()
        stops = [read.data for read in seat.reads[""]][1:]
        assert stops == [model_receiver.STOP_MESSAGE] * STOP_MESSAGES
        del seat.reads[""][1:]
        flow.even(3, refused=[seat])

    act(play)


def renumber(world):
    """The proxy's machine has another address from now on, and not the old one any more."""
    world.namespace.ip("addr", "flush", "dev", "eth0")
    world.namespace.ip("addr", "add", f"{NEW_ADDRESS}/24", "dev", "eth0")
    world.route()


@pytest.mark.parametrize("streams", ["configured", "learnt", "both", "udp_configured"])
def test_media_go_on_at_once_when_the_machines_address_has_changed(act, streams):
    def play(run, flow):
        flow.even(2)
        flow.burst()
        renumber(run.world)
        run.world.proxy_address = NEW_ADDRESS
        flow.even(3)
        flow.burst()
        flow.even(3)
        run.ask(run.seats, run.first_seq, [packet(0), packet(1), packet(2)])
        assert {source_of(run, seat)[0] for seat in run.seats} == {NEW_ADDRESS}

    act(play, streams)


def test_with_another_address_datagrams_leave_in_trains_again(net, closing):
    run = closing(Run(proxy.binary(), net, configured=CROWD, make_world=OneCable))
    flow = Flow(run)
    flow.burst()
    renumber(run.world)
    together = MOST_CALLS_SHARE * BURST * CROWD
    wait_until(lambda: flow.burst() < together, "trains again", 2 * FOLLOWS_SECONDS)
    run.end().check_owed()


def test_another_source_address_of_the_route_is_taken_over_within_seconds(net, closing):
    run = closing(Run(proxy.binary(), net, configured=SEATS, make_world=OneCable))
    flow = Flow(run)
    flow.even(2)
    run.world.namespace.ip("addr", "add", f"{NEW_ADDRESS}/24", "dev", "eth0")
    run.world.route("src", NEW_ADDRESS)

    def all_come_from_there():
        flow.even(1)
        flow.burst()
        return {source_of(run, seat)[0] for seat in run.seats} == {NEW_ADDRESS}

    wait_until(all_come_from_there, "media from the other address", FOLLOWS_SECONDS)
    for seat in run.seats:
        sources = [read.address for read in seat.reads[""]]
        assert sources == sorted(sources)  # the old one, and then the new one
        assert len({read.port for read in seat.reads[""]}) == 1
    assert {netns.proxy_address(0), NEW_ADDRESS} >= set(sources)
    run.end().check_owed()
    assert not [line for line in run.report["log"] if "failed" in line]


@pytest.mark.parametrize("streams", STREAMS)
def test_pings_and_requests_of_all_are_heard_whoever_has_media_from_a_socket_of_its_own(act, streams):
    def play(run, flow):
        flow.even(2)
        for _ in range(3):
            for seat in run.seats:
                run.echo(seat)
                flow.even(1)

    act(play, streams)
