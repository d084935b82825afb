"""Datagrams that wait for their turn leave in trains, which a capture on the sender shows as single frames; others do not.

What receivers read is compared elsewhere: here it is only made sure that trains are what leaves.
"""

import subprocess

import pytest

from txproxy import proxy, rtp
from txproxy.audience import Run, packet
from txproxy.audience_worlds import OneCable
from txproxy.capture import Capture

SEATS = 16  # so many that main is behind while a burst comes in
BURST = 32
BURSTS = 5
SIZE = 1328
BUILT_HEADER_BYTES = 12
EVEN_PACKETS = 50
PACING_BITRATE = 20_000_000
MOST_FRAMES = BURST * BURSTS // 4
MIXED = [900] * 20 + [800, 800, 800, 300, 700, 700, 701, 701, 20, 1472, 1]
# (options, configured, learnt)
STREAMS = {
    "configured": ((), SEATS, 0),
    "learnt": ((), 0, SEATS),
    "udp_configured": (("-u",), SEATS, 0),
    "equal_ports": ((), SEATS, 0),
}


@pytest.fixture
def stage(net, closing):
    """stage(streams, *options) is (a run, a capture of what leaves for its receivers, the bytes of each datagram)."""

    def make(streams, *more_options):
        options, configured, learnt = STREAMS[streams]
        run = closing(Run(
            proxy.binary(), net, (*options, *more_options), configured, OneCable, equal_ports=streams == "equal_ports"
        ))  # fmt: skip
        run.join(learnt)
        run.play([packet(0)])  # the link addresses are found
        capture = closing(Capture(run.world.namespace, "eth0"))
        return run, capture, SIZE + (BUILT_HEADER_BYTES if run.built else 0)

    return make


def burst(number):
    return [packet(1 + BURST * number + i, SIZE) for i in range(BURST)]


def frames_by_seat(run, capture):
    frames = capture.take()
    return [[frame.payload for frame in frames if frame[:2] == (seat.address, seat.port)] for seat in run.seats]


def trains(frames, sizes):
    """How many datagrams each frame has, given the sizes of all; none but the last of a frame may be another's size."""
    left = iter(sizes)
    found = []
    for frame in frames:
        train = []
        while sum(train) < len(frame):
            train.append(next(left))
        assert sum(train) == len(frame)
        assert set(train[:-1]) <= {train[0]} and train[-1] <= train[0], train
        found.append(len(train))
    assert not list(left)
    return found


def set_segmentation(run, state):
    command = ["ip", "netns", "exec", run.world.namespace.name, "ethtool", "-K", "eth0", "tx-udp-segmentation", state]
    subprocess.run(command, check=True, capture_output=True)


@pytest.mark.parametrize("streams", STREAMS)
def test_what_waits_leaves_in_few_frames_for_each_receiver_and_is_read_datagram_by_datagram(stage, streams):
    run, capture, size = stage(streams)
    seen = 0
    for number in range(BURSTS):
        run.play(burst(number), at_once=True)
        for frames in frames_by_seat(run, capture):
            seen += len(trains(frames, [size] * BURST))
            numbers = [rtp.seq(frame[start:]) for frame in frames for start in range(0, len(frame), size)]
            assert numbers == [(run.first_seq + 1 + BURST * number + i) & 0xFFFF for i in range(BURST)]
    assert seen <= MOST_FRAMES * SEATS
    run.end().check_owed()


def test_a_train_ends_with_a_shorter_datagram_and_before_a_longer_one(stage):
    run, capture, _ = stage("configured")
    seen = set()
    for number in range(BURSTS):
        run.play([packet(1 + BURST * number + i, size) for i, size in enumerate(MIXED)], at_once=True)
        for frames in frames_by_seat(run, capture):
            trains(frames, MIXED)
            seen |= set(map(len, frames))
    # What the first ones of a burst make depends on when main looks; in the end it is behind.
    assert {800 * 2 + 300, 700 * 2, 701 * 2 + 20, 1472 + 1} <= seen
    run.end().check_owed()


@pytest.mark.parametrize("streams", STREAMS)
def test_with_segmentation_off_on_the_device_single_frames_leave(stage, streams):
    run, capture, size = stage(streams)
    set_segmentation(run, "off")
    run.play(burst(0), at_once=True)
    assert [[len(frame) for frame in frames] for frames in frames_by_seat(run, capture)] == [[size] * BURST] * SEATS
    set_segmentation(run, "on")
    for number in range(BURSTS):
        run.play(burst(1 + number), at_once=True)
    for frames in frames_by_seat(run, capture):
        assert len(trains(frames, [size] * BURST * BURSTS)) <= MOST_FRAMES
    run.end().check_owed()


@pytest.mark.parametrize("streams", STREAMS)
def test_an_even_stream_leaves_datagram_by_datagram(stage, streams):
    run, capture, size = stage(streams)
    for number in range(EVEN_PACKETS):
        run.play([packet(1 + number, SIZE)])
        assert [[len(frame) for frame in frames] for frames in frames_by_seat(run, capture)] == [[size]] * SEATS
    run.end().check_owed()


def test_what_the_pacer_releases_in_one_tick_leaves_together_and_ticks_leave_apart(stage):
    run, capture, size = stage("configured", "-X", PACING_BITRATE)
    run.play([datagram for number in range(BURSTS) for datagram in burst(number)], at_once=True)
    for frames in frames_by_seat(run, capture):
        lengths = trains(frames, [size] * BURST * BURSTS)
        assert len(lengths) > 2
        assert max(lengths) > 1
    run.end().check_owed()
