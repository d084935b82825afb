"""The demo: what it shows, whether its verdict is true, and what it leaves behind."""

import os
import pathlib
import re
import signal
import subprocess
import uuid

import pytest

from txproxy import ports, proxy
from txproxy.traffic import kernel_drops
from txproxy.waiting import scaled, wait_until

ROOT = pathlib.Path(__file__).resolve().parents[2]
SECONDS = 5
PROXY_LINE = re.compile(r"tx_proxy: process (\d+), instance (\d+), pings on port (\d+), requests on port (\d+)")
SOURCE_LINE = re.compile(r".* as RTP to 127\.0\.0\.1:(\d+)")
ROW = re.compile(r" *(?P<time>\d+ s|end) \| .*")
GOOD = re.compile(
    r"GOOD: ffmpeg decoded (\d+) of (\d+) frames, 127\.0\.0\.2 recovered (\d+) of (\d+) missing packets, "
    r"127\.0\.0\.3 lost (\d+) of (\d+)"
)


class RunningDemo:
    """One ./demo. All its descendants carry a mark in their environment, by which they can be found."""

    def __init__(self, folder, **environment):
        self.folder = folder
        self._mark = f"DEMO_MARK={uuid.uuid4()}"
        name, _, value = self._mark.partition("=")
        settings = {"TX_PROXY_BIN": proxy.binary(), "TMPDIR": str(folder), name: value, **environment}
        self.process = subprocess.Popen(
            [ROOT / "demo", "--seconds", str(SECONDS)],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            cwd="/",
            bufsize=0,
            env={**os.environ, **settings},
        )
        self.stdout = proxy.Output("standard output", self.process.stdout)
        self.stderr = proxy.Output("standard error", self.process.stderr)

    def wait(self, wanted):
        return self.stdout.wait(wanted, alive=lambda: self.process.poll() is None)

    def wait_row(self, label):
        self.wait(re.compile(rf" *{label} \| .*"))

    def numbers(self):
        """Process of the proxy, instance, destination port, request port."""
        return [int(number) for number in PROXY_LINE.fullmatch(self.wait(PROXY_LINE)).groups()]

    def input_port(self):
        return int(SOURCE_LINE.fullmatch(self.wait(SOURCE_LINE))[1])

    def wait_exit(self):
        status = self.process.wait(scaled(SECONDS + 60))
        self.stdout.finish()
        self.stderr.finish()
        return status

    def verdict(self):
        return self.stdout.lines[-1]

    def descendants(self):
        found = []
        for entry in pathlib.Path("/proc").iterdir():
            try:
                if entry.name.isdigit() and self._mark.encode() in (entry / "environ").read_bytes().split(b"\0"):
                    found.append(int(entry.name))
            except OSError:
                pass  # gone meanwhile
        return found

    def close(self):
        for pid in self.descendants():
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        self.process.wait(scaled(15))


@pytest.fixture
def start_demo(closing, tmp_path):
    def start(name="demo", **environment):
        folder = tmp_path / name
        folder.mkdir()
        return closing(RunningDemo(folder, **environment))

    return start


def assert_nothing_is_left(demo):
    _, instance, destination, request = demo.numbers()
    wait_until(lambda: not demo.descendants(), lambda: f"the end of {demo.descendants()}")
    assert not any(path.exists() for path in ports.instance_files(instance))
    assert not list(demo.folder.iterdir())
    assert all(map(ports.udp_port_is_free, (destination, request, ports.lock_port(instance))))


def test_the_demo_decodes_the_picture_recovers_one_loss_shows_the_other_and_leaves_nothing(start_demo):
    demo = start_demo()
    assert demo.wait_exit() == 0, demo.stdout.text + demo.stderr.text
    figures = GOOD.fullmatch(demo.verdict())
    assert figures, demo.verdict()
    decoded, frames, recovered, missing, lost, never_asked = map(int, figures.groups())
    assert frames >= 0.95 * 25 * SECONDS and decoded >= 0.9 * frames
    assert recovered == missing > 0
    assert lost == never_asked > 0
    assert_nothing_is_left(demo)


def test_the_demo_prints_a_row_a_second_and_its_last_row_carries_the_figures_of_the_verdict(start_demo):
    demo = start_demo()
    assert demo.wait_exit() == 0, demo.stdout.text + demo.stderr.text
    rows = [ROW.fullmatch(line) for line in demo.stdout.lines if ROW.fullmatch(line)]
    labels = [row["time"] for row in rows]
    assert labels[: SECONDS - 1] == [f"{second} s" for second in range(1, SECONDS)]
    assert labels[-1] == "end"
    cells = [list(map(int, cell.split())) for cell in rows[-1].group().split("|")[1:]]
    (frames, packets), asking, silent, (viewer_pings, decoded) = cells
    assert list(map(str, (decoded, frames, asking[3], asking[2], silent[4], silent[2]))) == list(
        GOOD.fullmatch(demo.verdict()).groups()
    )
    # At most the very last packets can be missing without a gap that would show it.
    assert packets - 5 <= asking[1] <= packets + 1
    assert packets - 5 <= silent[1] + silent[4] <= packets + 1
    assert min(asking[0], silent[0], viewer_pings) >= SECONDS


def test_two_demos_run_at_once(start_demo):
    demos = [start_demo("first"), start_demo("second")]
    for demo in demos:
        assert demo.wait_exit() == 0, demo.stdout.text + demo.stderr.text
    assert len({demo.numbers()[1] for demo in demos}) == 2


def test_a_proxy_that_dies_midway_fails_the_demo_and_leaves_nothing(start_demo):
    demo = start_demo()
    demo.wait_row("2 s")
    os.kill(demo.numbers()[0], signal.SIGKILL)
    assert demo.wait_exit() == 1
    assert demo.verdict().startswith("FAILED: the proxy ended by itself, status -9;")
    assert_nothing_is_left(demo)


def test_a_proxy_that_stands_still_for_two_seconds_fails_the_demo(start_demo):
    demo = start_demo()
    demo.wait_row("1 s")
    pid = demo.numbers()[0]
    os.kill(pid, signal.SIGSTOP)
    demo.wait_row("4 s")
    # On a busy machine the picture is late too: it has to have come while nobody took it.
    wait_until(lambda: kernel_drops(demo.input_port()) > 0, "packets to be lost in front of the proxy")
    os.kill(pid, signal.SIGCONT)
    assert demo.wait_exit() == 1, demo.stdout.text
    assert demo.verdict().startswith("FAILED: ")
    assert_nothing_is_left(demo)


def test_a_proxy_that_remembers_one_packet_only_fails_the_demo_for_what_stays_lost(start_demo, tmp_path):
    forgetful = tmp_path / "forgetful_proxy"
    forgetful.write_text(f'#!/bin/sh\nexec "{proxy.binary()}" -q 1 "$@"\n', encoding="utf-8")
    forgetful.chmod(0o755)
    demo = start_demo(TX_PROXY_BIN=str(forgetful))
    assert demo.wait_exit() == 1
    assert re.search(r"127\.0\.0\.2 lost [1-9]\d* packets in spite of asking", demo.verdict())
    assert_nothing_is_left(demo)


def test_a_program_that_is_no_proxy_fails_the_demo(start_demo):
    demo = start_demo(TX_PROXY_BIN="/bin/false")
    assert demo.wait_exit() == 1
    assert demo.verdict() == "FAILED: the proxy did not start: tx_proxy said nothing"


@pytest.mark.parametrize("number", (signal.SIGINT, signal.SIGTERM, signal.SIGHUP))
def test_a_signal_ends_the_demo_at_once_with_its_own_status_and_leaves_nothing(start_demo, number):
    demo = start_demo()
    demo.wait_row("1 s")
    demo.process.send_signal(number)
    assert demo.wait_exit() == 128 + number
    assert demo.verdict() == f"STOPPED by {number.name}"
    assert "end" not in [ROW.fullmatch(line)["time"] for line in demo.stdout.lines if ROW.fullmatch(line)]
    assert_nothing_is_left(demo)


def test_a_killed_demo_takes_its_programs_with_it(start_demo):
    demo = start_demo()
    demo.wait_row("1 s")
    demo.process.kill()
    wait_until(lambda: not demo.descendants(), lambda: f"the end of {demo.descendants()}")
    pathlib.Path(f"/dev/arq_tx_ctrl{demo.numbers()[1]}").unlink()  # a killed demo cannot tidy up


@pytest.mark.parametrize("arguments", (["--seconds", "2"], ["--seconds", "x"], ["5"]))
def test_wrong_arguments_of_the_demo_are_refused_with_status_2(arguments):
    run = subprocess.run(
        [ROOT / "demo", *arguments],
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=scaled(30),
        check=False,
        env={**os.environ, "TX_PROXY_BIN": proxy.binary()},
    )
    assert run.returncode == 2
    assert run.stderr.startswith("usage: ./demo")
