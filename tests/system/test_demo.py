"""The demo: what it shows, whether its verdict is true, and what it leaves behind."""

import csv
import fcntl
import itertools
import os
import pathlib
import re
import signal
import struct
import subprocess
import termios
import uuid
import zlib

import pytest

from txproxy import ports, preload, proxy
from txproxy.traffic import kernel_drops
from txproxy.waiting import TURN_SECONDS, Lateness, scaled, wait_until

ROOT = pathlib.Path(__file__).resolve().parents[2]
SECONDS = 5
LATENCY_SECONDS = 1.0  # of its receivers
MOST_RUNS = 4
RESULTS = {"strip-a.png", "strip-b.png", "plot.png", "run.csv"}
PROXY_LINE = re.compile(r"tx_proxy: process (\d+), instance (\d+), input (\d+), pings (\d+), requests (\d+)")
ROW = re.compile(
    r" *(?P<time>\d+ s|end) \| (?P<line>.{15}) *(?P<sent>\d+) \| *(?P<a>[\d ]+) \| *(?P<b>[\d ]+) \| *(?:\d+ ms|-)"
)
GOOD = re.compile(
    r"GOOD: A recovered (?P<recovered>\d+) of (?P<missing>\d+) missing packets, each sent again as payload type 122, "
    r"restored to 33 and byte for byte what the source sent(?: \((?P<excused>\d+) could not be had: .*\))?; "
    r"B lost (?P<lost>\d+) of (?P<silent>\d+)"
)
TIOCGPTN, TIOCSPTLCK = 0x80045430, 0x40045431  # of Linux: a terminal's number, its lock
HATCHED = (73, 73, 85)  # of the pattern that stands where nothing came


def demo_binary():
    return str(pathlib.Path(os.environ.get("TX_PROXY_DEMO_BIN", pathlib.Path(proxy.binary()).parent / "tx_proxy_demo")))


class RunningDemo:
    """One ./demo. All its descendants carry a mark in their environment, by which they can be found."""

    def __init__(self, folder, *options, wrapper=(), stdout=None, **environment):
        self.folder = folder
        self.results = folder / "out"
        self._mark = f"DEMO_MARK={uuid.uuid4()}"
        name, _, value = self._mark.partition("=")
        programs = {"TX_PROXY_BIN": proxy.binary(), "TX_PROXY_DEMO_BIN": demo_binary()}
        command = [*wrapper, ROOT / "demo", "--builtin", "--seconds", str(SECONDS), "--out", self.results, *options]
        self.process = subprocess.Popen(
            command,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE if stdout is None else stdout,
            stderr=subprocess.PIPE,
            cwd="/",
            bufsize=0,
            env={**os.environ, **programs, "TMPDIR": str(folder), name: value, **environment},
        )
        self.stdout = proxy.Output("standard output", self.process.stdout) if stdout is None else None
        self.stderr = proxy.Output("standard error", self.process.stderr)
        self.terminal = None

    def wait(self, wanted):
        return self.stdout.wait(wanted, alive=lambda: self.process.poll() is None)

    def wait_row(self, label):
        self.wait(re.compile(rf" *{label} \| .*"))

    def numbers(self):
        """Process of the proxy, instance, input port, ping port, request port."""
        return [int(number) for number in PROXY_LINE.fullmatch(self.wait(PROXY_LINE)).groups()]

    def proxy_pid(self):
        return self.numbers()[0]

    def wait_exit(self):
        status = self.process.wait(scaled(SECONDS + 60))
        for output in filter(None, (self.stdout, self.stderr)):
            output.finish()
        return status

    def told(self):
        return (self.stdout or self.terminal.output).text + self.stderr.text

    def rows(self):
        return [match for match in map(ROW.fullmatch, self.stdout.lines) if match]

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

    def assert_nothing_is_left(self, files=frozenset()):
        """No process, no socket, no file but the results."""
        _, instance, *numbers = self.numbers()
        wait_until(lambda: not self.descendants(), lambda: f"the end of {self.descendants()}")
        wait_until(lambda: not any(path.exists() for path in ports.instance_files(instance)), "the files to be gone")
        # A process that ends gives up its memory, by which it is known here, before its sockets.
        used = (*numbers, ports.lock_port(instance))
        wait_until(lambda: all(map(ports.udp_port_is_free, used)), f"the ports {used} to be free")
        assert [path.name for path in self.folder.iterdir()] == ["out"]
        assert {path.name for path in self.results.iterdir()} == files

    def close(self):
        for pid in self.descendants():
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        self.process.wait(scaled(15))


@pytest.fixture
def start_demo(closing, tmp_path):
    number = itertools.count()

    def start(*options, **keywords):
        folder = tmp_path / f"demo{next(number)}"
        folder.mkdir()
        return closing(RunningDemo(folder, *options, **keywords))

    return start


def ended_well(*shows):
    """The demos that these functions start side by side, once all have ended with status 0.

    A packet that comes back after the receivers' latency is lost, and the demo says so. Where it was the machine that held
    programs up for so long, it is shown again.
    """
    for _ in range(MOST_RUNS):
        lateness = Lateness(TURN_SECONDS)
        demos = [show() for show in shows]
        statuses = [demo.wait_exit() for demo in demos]
        lateness.close()
        if not any(statuses) or lateness.seconds < LATENCY_SECONDS:
            break
    assert not any(statuses), "\n".join(demo.told() for demo in demos)
    return demos


def points(path):
    """A PNG's width, height and rows of points, read by the checksums and the bytes that the standard names."""
    data = path.read_bytes()
    assert data[:8] == b"\x89PNG\r\n\x1a\n"
    chunks, at = {}, 8
    while at < len(data):
        size, name = struct.unpack_from(">I4s", data, at)
        assert struct.unpack_from(">I", data, at + 8 + size)[0] == zlib.crc32(data[at + 4 : at + 8 + size])
        chunks[name] = data[at + 8 : at + 8 + size]
        at += 12 + size
    width, height = struct.unpack_from(">II", chunks[b"IHDR"])
    rows = zlib.decompress(chunks[b"IDAT"])
    assert len(rows) == height * (1 + 3 * width)
    return width, height, [rows[start + 1 : start + 1 + 3 * width] for start in range(0, len(rows), 1 + 3 * width)]


def hatched_points(path):
    _, _, rows = points(path)
    return sum(bytes(HATCHED) == row[at : at + 3] for row in rows for at in range(0, len(row), 3))


def test_the_demo_recovers_on_one_side_what_stays_lost_on_the_other_and_leaves_its_results_only(start_demo):
    (demo,) = ended_well(start_demo)
    figures = GOOD.fullmatch(demo.verdict())
    assert figures, demo.verdict()
    assert int(figures["recovered"]) > 60  # the burst alone takes 60 packets
    assert figures["missing"] == figures["silent"] == figures["lost"]
    demo.assert_nothing_is_left(RESULTS)


def test_the_strips_show_holes_on_the_side_that_does_not_ask_only(start_demo):
    (demo,) = ended_well(start_demo)
    assert hatched_points(demo.results / "strip-a.png") == 0
    assert hatched_points(demo.results / "strip-b.png") > 1000
    sizes = {name: points(demo.results / name)[:2] for name in RESULTS if name.endswith(".png")}
    assert sizes == {"strip-a.png": (1330, 472), "strip-b.png": (1330, 472), "plot.png": (1200, 680)}
    for name, size in sizes.items():  # somebody else's decoder sees the same
        probe = "ffprobe -v error -show_entries stream=width,height -of csv=p=0".split()
        said = subprocess.run([*probe, demo.results / name], capture_output=True, text=True, check=True).stdout
        assert said.strip() == f"{size[0]},{size[1]}"


def test_the_demo_prints_a_row_a_second_and_its_last_row_carries_the_figures_of_the_verdict(start_demo):
    (demo,) = ended_well(start_demo)
    rows = demo.rows()
    assert [row["time"] for row in rows] == [*(f"{second} s" for second in range(1, SECONDS + 1)), "end"]
    assert {row["line"].strip() for row in rows} >= {"clean", "5 % random"}
    a_got, a_missing, a_recovered, a_lost = map(int, rows[-1]["a"].split())
    b_got, b_missing, b_recovered, b_lost = map(int, rows[-1]["b"].split())
    figures = GOOD.fullmatch(demo.verdict())
    assert [a_recovered, a_missing, b_lost, b_missing] == [
        int(figures[name]) for name in ("recovered", "missing", "lost", "silent")
    ]
    sent = int(rows[-1]["sent"])
    assert (a_lost, b_recovered) == (int(figures["excused"] or 0), 0)
    assert a_got >= sent - a_lost and b_got == sent - b_lost
    assert "\x1b" not in demo.stdout.text
    with (demo.results / "run.csv").open(encoding="ascii", newline="") as file:
        table = list(csv.DictReader(file))
    assert sum(int(row["sent"]) for row in table) == sent
    assert sum(int(row["a_recovered"]) for row in table) == a_recovered
    assert sum(int(row["b_lost"]) for row in table) == b_lost


def test_two_demos_run_at_once(start_demo):
    for demo in ended_well(start_demo, start_demo):
        demo.assert_nothing_is_left(RESULTS)


def test_two_demos_without_a_sandbox_choose_numbers_of_their_own(start_demo):
    demos = ended_well(*[lambda: start_demo("--no-sandbox")] * 2)
    for demo in demos:
        assert demo.stdout.lines[0].startswith("no sandbox (not wanted): on free ports of this machine's own loopback")
        demo.assert_nothing_is_left(RESULTS)
    assert len({demo.numbers()[1] for demo in demos}) == 2


def test_a_proxy_that_dies_midway_fails_the_demo_and_leaves_nothing(start_demo):
    demo = start_demo()
    demo.wait_row("2 s")
    os.kill(demo.proxy_pid(), signal.SIGKILL)
    assert demo.wait_exit() == 1
    assert demo.verdict().startswith("FAILED: the proxy ended by itself, killed by signal 9;")
    demo.assert_nothing_is_left()


def test_a_proxy_that_stands_still_for_two_seconds_fails_the_demo(start_demo):
    demo = start_demo("--no-sandbox")
    demo.wait_row("1 s")
    pid, _, source_port, *_ = demo.numbers()
    os.kill(pid, signal.SIGSTOP)
    wait_until(lambda: kernel_drops(source_port) > 0, "packets to be lost in front of the proxy")
    os.kill(pid, signal.SIGCONT)
    assert demo.wait_exit() == 1, demo.stdout.text
    assert demo.verdict().startswith("FAILED: A lost ")
    demo.assert_nothing_is_left(RESULTS)


def test_a_proxy_that_remembers_one_packet_only_fails_the_demo_for_what_stays_lost(start_demo, tmp_path):
    forgetful = tmp_path / "forgetful_proxy"
    forgetful.write_text(f'#!/bin/sh\nexec "{proxy.binary()}" -q 1 "$@"\n', encoding="utf-8")
    forgetful.chmod(0o755)
    demo = start_demo(TX_PROXY_BIN=str(forgetful))
    assert demo.wait_exit() == 1
    assert re.match(
        r"FAILED: A lost [1-9]\d* packets that it could have had \(the first: number \d+, asked for \d+ times, "
        r"of which the proxy saw [1-9]\d*, and sent again 0 times\)",
        demo.verdict(),
    ), demo.verdict()
    demo.assert_nothing_is_left(RESULTS)


def test_garbage_in_what_is_sent_again_fails_the_demo(start_demo, tmp_path):
    environment = preload.environment(tmp_path, "spoil_resends")
    spoiling = tmp_path / "spoiling_proxy"
    settings = " ".join(f'{name}="{value}"' for name, value in environment.items())
    spoiling.write_text(f'#!/bin/sh\nexec env {settings} "{proxy.binary()}" "$@"\n', encoding="utf-8")
    spoiling.chmod(0o755)
    demo = start_demo(TX_PROXY_BIN=str(spoiling))
    assert demo.wait_exit() == 1, demo.stdout.text
    assert re.match(r"FAILED: A played [1-9]\d* packets that are not what the source sent ", demo.verdict())
    _, _, recovered, lost = map(int, demo.rows()[-1]["a"].split())
    assert recovered > 0 and lost == 0  # by its numbers alone all would have been well


def test_a_program_that_is_no_proxy_fails_the_demo(start_demo):
    for program, reason in (("/bin/false", "status 1; its last line: it said nothing"),
                            ("/nonexistent", "status 127; its last line: cannot run /nonexistent: No such file or directory")):
        demo = start_demo(TX_PROXY_BIN=program)
        assert demo.wait_exit() == 1
        assert demo.verdict() == f"FAILED: the proxy did not start: {reason}"


@pytest.mark.parametrize("number", (signal.SIGINT, signal.SIGTERM, signal.SIGHUP))
def test_a_signal_ends_the_demo_at_once_with_its_own_status_and_leaves_nothing(start_demo, number):
    demo = start_demo()
    demo.wait_row("1 s")
    demo.process.send_signal(number)
    assert demo.wait_exit() == 128 + number
    assert demo.verdict() == f"STOPPED by {number.name}"
    assert "end" not in [row["time"] for row in demo.rows()]
    demo.assert_nothing_is_left()


@pytest.mark.parametrize("options", ([], ["--no-sandbox"]))
def test_a_killed_demo_takes_its_programs_and_files_with_it(start_demo, options):
    demo = start_demo(*options)
    demo.wait_row("1 s")
    demo.process.kill()
    demo.assert_nothing_is_left()


def test_help_comes_without_building_anything(tmp_path):
    run = subprocess.run([ROOT / "demo", "--help"], capture_output=True, text=True, timeout=scaled(30), check=False,
                         env={"PATH": os.environ["PATH"], "TMPDIR": str(tmp_path)})  # fmt: skip
    assert (run.returncode, run.stderr) == (0, "")
    assert "--seconds N" in run.stdout and "./demo --picture" in run.stdout


@pytest.mark.parametrize("arguments", ("5", "--foo", "--seconds", "--seconds 4", "--seconds=3601", "--seconds x", "--out"))
def test_wrong_arguments_of_the_demo_are_refused_with_status_2_before_anything_is_built(arguments):
    def run(program, **environment):
        return subprocess.run([program, *arguments.split()], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              timeout=scaled(30), check=False, env=environment)  # fmt: skip

    starter = run(ROOT / "demo", PATH="/nowhere:/usr/bin", CXX="/nowhere/c++")  # a build would fail with another status
    assert (starter.returncode, starter.stdout) == (2, "")
    assert starter.stderr.startswith("usage: ./demo")
    program = run(demo_binary())
    assert (program.returncode, program.stderr) == (2, starter.stderr), "the program says the same"


def nobody(*limits):
    """A command in front of another: as a user without rights."""
    return ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", *limits]


def test_without_root_the_demo_makes_a_sandbox_and_has_the_proxys_figures(start_demo, tmp_path):
    for folder in (tmp_path, *tmp_path.parents):
        if folder.stat().st_uid == os.geteuid() and folder != pathlib.Path("/"):
            folder.chmod(folder.stat().st_mode | 0o005)
    open_folder = tmp_path / "open"
    open_folder.mkdir()
    open_folder.chmod(0o777)
    (demo,) = ended_well(lambda: start_demo("--out", open_folder / "out", wrapper=nobody()))
    assert not demo.stdout.lines[0].startswith("no sandbox")
    assert {path.name for path in (open_folder / "out").iterdir()} == RESULTS
    assert (open_folder / "out").stat().st_uid == 65534


# In a user namespace in which no further one may be made, and whose root is not the machine's.
FORBIDDEN = ["unshare", "--user", "--map-root-user", "sh", "-c",
             'echo 0 > /proc/sys/user/max_user_namespaces; exec setpriv --bounding-set=-all --inh-caps=-all "$@"', "sh"]  # fmt: skip


def test_where_namespaces_are_forbidden_the_demo_says_so_in_one_line_and_goes_on(start_demo):
    (demo,) = ended_well(lambda: start_demo(wrapper=FORBIDDEN))
    assert re.fullmatch(r"no sandbox \(namespaces: .*\): on free ports of this machine's own loopback; all works.*",
                        demo.stdout.lines[0])  # fmt: skip
    assert GOOD.fullmatch(demo.verdict())


class ScreenOfDemo:
    """A terminal of a given size on which a demo runs; keeps what it is sent."""

    def __init__(self, columns, rows):
        # Not by openpty: the tests' own /dev has no working ptmx, but the one beside the terminals works.
        self.master = os.open("/dev/pts/ptmx", os.O_RDWR | os.O_NOCTTY)
        fcntl.ioctl(self.master, TIOCSPTLCK, struct.pack("i", 0))
        (number,) = struct.unpack("I", fcntl.ioctl(self.master, TIOCGPTN, bytes(4)))
        self.slave = os.open(f"/dev/pts/{number}", os.O_RDWR | os.O_NOCTTY)
        self.resize(columns, rows)
        self.output = None

    def resize(self, columns, rows):
        fcntl.ioctl(self.master, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def started(self):
        os.close(self.slave)
        self.output = Terminal(os.fdopen(self.master, "rb", buffering=0))


class Terminal(proxy.Output):
    """The reader's end of a terminal: a hang-up is its end."""

    def __init__(self, pipe):
        super().__init__("terminal", pipe)

    def _collect(self):
        try:
            super()._collect()
        except OSError:
            pass


def on_terminal(start_demo, columns, rows, **environment):
    terminal = ScreenOfDemo(columns, rows)
    demo = start_demo(stdout=terminal.slave, **environment)
    demo.terminal = terminal
    terminal.started()
    return demo


def cells(text, columns, rows):
    """What stands on a screen after this: the few sequences that the demo uses, carried out."""
    screen = [[" "] * columns for _ in range(rows)]
    row = column = 0
    for move, other, letter in re.findall(r"\x1b\[(\d+);1H|(\x1b\[[?\d;]*[a-zA-Z])|([^\x1b])", text):
        if move:
            row, column = int(move) - 1, 0
        elif other == "\x1b[K":
            screen[row][column:] = [" "] * (columns - column)
        elif other == "\x1b[2J":
            screen = [[" "] * columns for _ in range(rows)]
        elif letter:
            assert row < rows and column < columns, (row, column)
            screen[row][column] = letter
            column += 1
    return ["".join(line).rstrip() for line in screen]


@pytest.mark.parametrize("columns,rows,environment", (
    (80, 24, {"LC_ALL": "C.UTF-8", "COLORTERM": "truecolor", "NO_COLOR": ""}),
    (200, 50, {"LC_ALL": "C", "NO_COLOR": "1"}),
))  # fmt: skip
def test_on_a_terminal_the_demo_shows_its_view_and_gives_the_terminal_back(start_demo, columns, rows, environment):
    (demo,) = ended_well(lambda: on_terminal(start_demo, columns, rows, TERM="xterm-256color", **environment))
    terminal = demo.terminal
    wait_until(lambda: "GOOD: " in terminal.output.text, "the verdict on the terminal")
    before, _, rest = terminal.output.text.partition("\x1b[?1049h")
    view, _, after = rest.partition("\x1b[?1049l")
    assert "tx_proxy: process" in before
    assert "\x1b[?1049l" not in view and view.endswith("\x1b[0m\x1b[?7h\x1b[?25h")
    screen = cells(view, columns, rows)
    assert screen[0].startswith(" tx_proxy demo")
    assert screen[2].split("B  ")[0].strip() == "A  asks for what is missing"
    assert any(re.match(r" A +\d+ +\d+ +\d+ +\d+ ", line) for line in screen)
    assert any(re.match(r" tx_proxy in \d+ packets", line) for line in screen)  # its control socket is in the sandbox
    has_color = "38;2;" in view
    assert has_color == (environment["NO_COLOR"] == "")
    assert ("▀" in view) == has_color  # the pictures
    figures = GOOD.fullmatch(re.sub(r"\s+", " ", after[after.index("GOOD: ") :]).strip())
    # What stays on the terminal is the end; the last live view may be older.
    last = re.sub(r"\x1b\[[\d;]*m", "", after).splitlines()
    assert any(re.match(rf" A +\d+ +\d+ +{figures['recovered']} +{figures['excused'] or 0} ", line) for line in last)
    terminal.output.finish()


def test_ctrl_c_gives_the_terminal_back_and_so_does_a_kill(start_demo):
    for number, status in ((signal.SIGINT, 130), (signal.SIGKILL, -9)):
        demo = on_terminal(start_demo, 80, 24, TERM="xterm", LC_ALL="C")
        terminal = demo.terminal
        wait_until(lambda: "asks for what is missing" in terminal.output.text, "the view")
        demo.process.send_signal(number)
        assert demo.wait_exit() == status
        wait_until(lambda: "\x1b[?25h\x1b[?1049l" in terminal.output.text, "the terminal to be given back")
        wait_until(lambda: not demo.descendants(), "the end of its programs")


def test_a_dumb_terminal_gets_a_row_a_second(start_demo):
    (demo,) = ended_well(lambda: on_terminal(start_demo, 80, 24, TERM="dumb"))
    terminal = demo.terminal
    wait_until(lambda: "GOOD: " in terminal.output.text, "the verdict")
    assert "\x1b" not in terminal.output.text
    assert re.search(r"\n +3 s \| ", terminal.output.text)
