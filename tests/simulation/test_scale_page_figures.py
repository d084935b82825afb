"""docs/scale.md: its arithmetic, and what the simulation of SIMULATION_BIN says to it."""

import math
import os
import pathlib
import re
import subprocess

import pytest

TEXT = (pathlib.Path(__file__).resolve().parents[2] / "docs" / "scale.md").read_text(encoding="utf-8")
TRY_MS = 105


def rows():
    """(loss, round trip in ms, latency in ms, tries, computed, simulated, words) of each row of the table of losses."""
    pattern = r"\| (\d+) % \| (\d+) ms \| (\d+) ms \| (\d+) \| (\S+) \| ([^|]+) \| `([^`]+)` \|"
    found = re.findall(pattern, TEXT)
    assert len(found) > 5
    return [(int(p) / 100, int(trip), int(latency), int(tries), float(left), simulated, words.split())
            for p, trip, latency, tries, left, simulated, words in found]  # fmt: skip


def test_tries_and_what_they_leave_are_what_the_formulas_give():
    for loss, round_trip, latency, tries, left, *_ in rows():
        assert tries == 1 + (latency - round_trip) // TRY_MS
        assert left == pytest.approx(loss * (1 - (1 - loss) ** 2) ** tries, rel=0.02)


def test_each_row_names_the_words_for_its_own_figures():
    for loss, round_trip, latency, *_, words in rows():
        given = {"loss": "2", "roundtrip": "20", "latency": "600", **dict(word.split("=") for word in words)}
        assert (float(given["loss"]) / 100, int(given["roundtrip"]), int(given["latency"])) == (loss, round_trip, latency)


def lost_in_simulation(words):
    """(packets, lost) of a hop."""
    command = [os.environ["SIMULATION_BIN"], "--recovery", *words]
    done = subprocess.run(command, capture_output=True, text=True, check=True, timeout=60)
    packets, lost = re.search(r"one hop: (\S+) packets expected .* lost (\d+)\n", done.stdout).groups()
    return float(packets), int(lost)


def test_the_simulation_loses_what_the_formula_leaves():
    """Shorter than the page's runs, where there is enough to count."""
    countable = [(left, simulated, words) for _, trip, _, _, left, simulated, words in rows() if left > 1e-4 and trip < 100]
    assert len(countable) >= 4
    for left, simulated, words in countable:
        packets, lost = lost_in_simulation([*words, "seconds=4", "receivers=20"])
        # Packets that one lost request asked for are lost together: the deviation is that of fewer.
        assert lost == pytest.approx(left * packets, abs=6 * math.sqrt(left * packets), rel=0.3)
        assert float(simulated) == pytest.approx(left, rel=0.3)
