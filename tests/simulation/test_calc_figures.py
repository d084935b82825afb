"""What `arqctl calc` reckons is what happens on virtual time: SIMULATION_BIN runs the proxy and receivers, ARQCTL_BIN
says beforehand what they will lose and ask for."""

import json
import math
import os
import re
import subprocess
from concurrent.futures import ThreadPoolExecutor
from typing import NamedTuple

import pytest

PAYLOAD = 1316
SIGMAS = 4


class Line(NamedTuple):
    """Losses in per cent, times in ms, rate in Mbit/s, seconds of the run; from `since` on it is looked at."""

    loss: float
    back: float
    trip: int
    latency: int
    seconds: int
    rate: float = 8
    since: int = 0
    burst: int = 0


# So much is lost for good in each that it can be counted, some hundreds in most. One, two, three, four tries.
LINES = [
    Line(1, 1, 20, 60, 8),
    Line(5, 5, 20, 200, 8),
    Line(10, 10, 60, 300, 6),
    Line(20, 20, 20, 300, 3),
    Line(20, 5, 60, 400, 6),
]
# Where a round trip is longer than the hold-off, a receiver first has to learn how much is lost.
LONG_WAY = Line(20, 20, 250, 600, 9, rate=4, since=3)
# With so little loss it waits for the answer before it asks again: next to nothing is left, but what is asked for can be
# counted.
PATIENT = Line(2, 2, 250, 1150, 10, rate=2, since=4)
# So is what it takes for granted about the round trip. Bursts have 1 to 19 packets, 10 on average.
BURSTS = Line(5, 5, 20, 60, 38, rate=2, since=18, burst=10)


class Counts(NamedTuple):
    missing: int
    lost: int
    asked: float


def simulate(line, seconds):
    words = {"loss": line.loss, "up": line.back, "roundtrip": line.trip, "latency": line.latency, "rate": line.rate,
             "burst": line.burst, "seconds": seconds, "receivers": 20}  # fmt: skip
    command = [os.environ["SIMULATION_BIN"], "--recovery", *(f"{name}={value}" for name, value in words.items())]
    told = subprocess.run(command, capture_output=True, text=True, check=True, timeout=120).stdout
    missing, lost = re.search(r"missing (\d+), recovered \d+, lost (\d+)\n", told).groups()
    numbers = re.search(r"requests/s for (\S+) numbers/s", told).group(1)
    return Counts(int(missing), int(lost), float(numbers) * seconds * words["receivers"])


def counted(line):
    """Of the run from `since` on: the same seed begins the same way."""
    whole = simulate(line, line.seconds)
    before = simulate(line, line.since) if line.since else Counts(0, 0, 0)
    return Counts(*(one - other for one, other in zip(whole, before, strict=True)))


def calc(line, *more):
    command = [os.environ["ARQCTL_BIN"], "calc", "--json", "--rate", f"{line.rate}M", "--loss", f"{line.loss}%",
               "--loss-back", f"{line.back}%", "--round-trip", f"{line.trip}ms", "--latency", f"{line.latency}ms",
               *more]  # fmt: skip
    return json.loads(subprocess.run(command, capture_output=True, text=True, check=False, timeout=60).stdout)


@pytest.fixture(scope="module")
def runs():
    lines = [*LINES, LONG_WAY, PATIENT, BURSTS]
    with ThreadPoolExecutor(2) as pool:
        return dict(zip(lines, pool.map(counted, lines), strict=True))


@pytest.mark.parametrize("line", [*LINES, LONG_WAY], ids=str)
def test_single_losses_leave_what_calc_says(runs, line):
    reckoned = calc(line)
    expected = runs[line].missing * reckoned["residual_loss"] / reckoned["loss"]
    assert expected > 10, "there is something to count"
    assert runs[line].lost == pytest.approx(expected, abs=SIGMAS * math.sqrt(expected))


@pytest.mark.parametrize("line", [*LINES, LONG_WAY, PATIENT], ids=str)
def test_receivers_ask_for_as_many_numbers_as_calc_says(runs, line):
    reckoned = calc(line)
    expected = runs[line].missing * reckoned["numbers_asked_share"] / reckoned["loss"]
    assert runs[line].asked == pytest.approx(expected, abs=SIGMAS * math.sqrt(expected))


def test_outages_of_all_lengths_leave_what_calc_says(runs):
    """The longer an outage, the more of the missing packets are its own."""
    lengths = range(1, 2 * BURSTS.burst)
    left = 0
    for packets in lengths:
        burst = calc(BURSTS, "--burst", f"{packets * PAYLOAD * 8 / BURSTS.rate:.0f}us")["burst"]
        assert burst["packets"] == packets
        left += packets * burst["residual_loss"] / sum(lengths)
    expected = runs[BURSTS].missing * left
    # Packets of one burst are lost together: the deviation is that of so many fewer.
    assert runs[BURSTS].lost == pytest.approx(expected, abs=SIGMAS * math.sqrt(expected * BURSTS.burst))
