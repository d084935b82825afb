"""The soak: what it writes, and that it tells growth from what merely goes up and down."""

import csv
import importlib.util
import math
import os
import pathlib
import random
import subprocess
import sys

import pytest

from txproxy import proxy
from txproxy.waiting import scaled

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.append(str(ROOT / "tools" / "soak"))

import soak_curves  # noqa: E402
import soak_figures  # noqa: E402

MINUTES = 0.3
LONGEST_SECONDS = 240  # the load is compiled first, and who fell silent is waited for at the end
RUN_SECONDS = 1200
STREAM_KIB = 100


def made_up(second, rng, **changes):
    """A sample of a flat run: streams come and go, each with memory, a descriptor, and a share of the work."""
    streams = 9 + round(2 * math.sin(second / 7) + rng.random())
    flat = {
        "seconds": second,
        "rss_kib": 9000 + STREAM_KIB * 12 + rng.random() * 40,
        "pss_kib": 7000 + STREAM_KIB * 12 + rng.random() * 40,
        "heap_kib": 5000 + STREAM_KIB * streams + rng.random(),
        "descriptors": 12 + streams + (rng.random() < 0.1),
        "threads": 8,
        "streams": streams,
        "cpu_seconds": second * 0.1 + 0.002 * rng.random(),
        "delivered": second * 20000,
    }
    return soak_figures.Sample(**{**flat, **{name: change(flat[name]) for name, change in changes.items()}})


def run_of(change=None, length=RUN_SECONDS):
    """A made-up run; change(second) gives what is different from a flat one, as {field: function of its value}."""
    rng = random.Random(1)
    return [made_up(second, rng, **(change(second) if change else {})) for second in range(length)]


def not_flat(samples):
    return [figure.text.split(":")[0] for figure in soak_figures.judge(samples) if not figure.is_flat]


@pytest.mark.parametrize("length", [40, RUN_SECONDS])
def test_a_run_in_which_streams_only_come_and_go_is_flat(length):
    assert not_flat(run_of(length=length)) == []


def test_room_for_one_more_stream_that_the_allocator_keeps_is_no_leak():
    step = lambda second: {"rss_kib": lambda kib: kib + STREAM_KIB * (second > RUN_SECONDS / 2)}  # noqa: E731
    assert not_flat(run_of(step)) == []


@pytest.mark.parametrize(
    "name, field, grown",
    [
        ("heap", "heap_kib", lambda value, second: value + second * 100 / 3600),
        ("resident memory", "rss_kib", lambda value, second: value + second * 3000 / 3600),
        ("proportional memory", "pss_kib", lambda value, second: value + second * 3000 / 3600),
        ("descriptors", "descriptors", lambda value, second: value + second // 300),
        ("threads", "threads", lambda value, second: value + (second > RUN_SECONDS / 2)),
        ("processor time a datagram", "cpu_seconds", lambda value, second: value * (1 + second / 3000)),
    ],
)
def test_what_grows_is_named_and_nothing_else(name, field, grown):
    assert not_flat(run_of(lambda second: {field: lambda value: grown(value, second)})) == [name]


def test_the_slope_is_the_one_that_was_put_in():
    line = soak_figures.slope_per_hour(
        run_of(lambda second: {"heap_kib": lambda kib: kib + second * 100 / 3600}), "heap_kib"
    )
    assert abs(line.slope - 100) < 3 * line.error < 10


def test_a_plot_of_letters_rises_from_the_lower_left_to_the_upper_right():
    lines = soak_curves.text_plot("memory", "KiB", range(100), range(100)).splitlines()
    assert lines[0].startswith("memory (KiB)")
    assert lines[1].endswith("*") and lines[-2].split("|")[1].startswith("*")
    assert len(lines[1]) > len(lines[-2])


def run_soak(out, *options, **environment):
    return subprocess.run(
        [ROOT / "scripts" / "soak", "--out", out, *options],
        capture_output=True,
        text=True,
        check=False,
        timeout=scaled(LONGEST_SECONDS),
        env={**os.environ, **environment},
    )


def test_a_short_soak_leaves_its_table_curves_and_figures(tmp_path):
    run = run_soak(tmp_path / "out", "--minutes", str(MINUTES), "--binary", proxy.binary())
    assert "wrong" not in run.stdout and run.stderr == "", run.stdout + run.stderr
    with open(tmp_path / "out" / "samples.csv", encoding="ascii") as table:
        rows = list(csv.DictReader(table))
    assert len(rows) >= soak_figures.BLOCKS // 3
    # The receivers take a moment to join.
    assert all(int(row["delivered"]) > 0 and int(row["streams"]) >= 8 for row in rows[len(rows) // 2 :])
    assert "resident memory (KiB)" in (tmp_path / "out" / "curves.txt").read_text(encoding="ascii")
    assert (tmp_path / "out" / "figures.txt").read_text(encoding="utf-8") == run.stdout
    # So short a run shows nothing about growth: what was found flat or not is said all the same, and the status.
    assert (run.returncode == 1) == ("NOT FLAT" in run.stdout)
    if importlib.util.find_spec("matplotlib"):
        assert (tmp_path / "out" / "curves.png").read_bytes().startswith(b"\x89PNG")
    else:
        assert soak_curves.PICTURE_NEEDS in run.stdout


def test_a_binary_that_is_not_there_is_named(tmp_path):
    run = run_soak(tmp_path / "out", "--binary", str(tmp_path / "none"))
    assert (run.returncode, run.stderr) == (2, f"scripts/soak: there is no {tmp_path}/none\n")
