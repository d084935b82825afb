"""docs/recipes.md: every command of the page runs as it stands there, and what comes out is what was sent.

Sources send a clip, or their own picture: what left the encoder's host is compared with the source and with what a
receiver played out. Players are sent the clip over and over: what they wrote begins with it.
"""

import fcntl
import functools
import itertools
import json
import re
import shlex
import shutil
import subprocess
import threading
import time

import pytest

from txproxy import capture, mpegts, recipe, rtp
from txproxy.page import quoted
from txproxy.receiver import Receiver, Sender
from txproxy.waiting import scaled, wait_until

# What counts is what the page says of other programs; they take most of the time, so once is enough.
pytestmark = [pytest.mark.release_only, pytest.mark.large]

RECIPES = recipe.recipes()
SETTING = ("Routes for groups", "A file to send", "The receiver behind every source")
STARTED = re.compile(r".*Media started on port \d+ for .*")
TICKS_PER_HOUR = 27_000_000 * 3600
CLIP_SECONDS = 3
FIRST_SEQ = 65500  # the numbers come round
VIDEO_START = b"\0\0\1\xe0"
UDP_BYTES, RTP_BYTES = 1316, 1328
GROUP_TTL = 4
MISSED_PICTURES = 40  # by FFmpeg while it opens its port a second time
VLC_HOLDS_PICTURES = 15  # at most, 0.3 s and what it is about to write
LIVE_PICTURES = 25  # as many as make sure that a stream without an end goes through


TESTED = list(SETTING)


def runs(*headings):
    """The test runs these recipes, one after the other; it takes each as `heading`."""
    TESTED.extend(headings)
    return pytest.mark.parametrize("heading", headings)


def command_of(heading):
    (command,) = RECIPES[heading]
    return command


@pytest.fixture(scope="module")
def hosts():
    """The hosts of the page with its routes."""
    made = recipe.Hosts()
    try:
        for host, line in RECIPES["Routes for groups"]:
            program, *arguments = shlex.split(line)
            assert program == "ip"
            made[host].ip(*arguments)
        yield made
    finally:
        made.close()


class Clip:
    """The page's clip: its bytes, and its pictures as decoded and as coded."""

    def __init__(self, stream):
        self.stream = stream

    @functools.cached_property
    def decoded(self):
        return decoded(self.stream)

    @functools.cached_property
    def coded(self):
        return coded(self.stream)


@pytest.fixture(scope="module")
def clip(hosts, tmp_path_factory, worker_id):
    """Test processes side by side make it once."""
    folder = tmp_path_factory.getbasetemp()
    if worker_id != "master":
        folder = folder.parent
    path = folder / "recipe_clip.ts"
    with open(folder / "recipe_clip.lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not path.exists():
            kitchen = recipe.Kitchen(hosts)
            try:
                assert kitchen.start(command_of("A file to send")).wait_exit() == 0
                path.write_bytes(kitchen.file("clip.ts"))
            finally:
                kitchen.close()
    return Clip(path.read_bytes())


@pytest.fixture
def kitchen(closing, hosts, clip):
    made = closing(recipe.Kitchen(hosts))
    path = made.folder / "clip.ts"
    path.write_bytes(clip.stream)
    path.chmod(0o644)
    return made


def checksums(stream, *options):
    command = mpegts.ffmpeg("-i", "-", "-map", "0:v", "-fps_mode", "passthrough", *options, "-f", "framemd5", "-")
    command.remove("-nostdin")
    done = subprocess.run(command, input=stream, capture_output=True, check=True, timeout=scaled(30))
    lines = [line.split(",") for line in done.stdout.decode().splitlines() if not line.startswith("#")]
    return [(int(line[4]), line[5].strip()) for line in lines]


def decoded(stream):
    """(size, checksum) of each picture as a player shows it."""
    return checksums(stream)


def coded(stream):
    """(size, checksum) of each picture as it is in the stream."""
    return checksums(stream, "-c", "copy")


def assert_part(got, wanted, at_least, first_at_most=0):
    """`got` begins with pictures that follow each other in `wanted`: `at_least` of them, and none is left out."""
    first = wanted.index(got[0])
    assert first <= first_at_most, f"the first {first} pictures are missing"
    count = min(len(got), len(wanted) - first)
    assert count >= at_least and got[:count] == wanted[first : first + count]


def where_it_listens(line):
    """The UDP port of a player's command, and its group or None."""
    (port,) = re.findall(r"(?:(?:udp://@?|rtp://@?| @)[\d.]+:| port=)(\d+)", line)
    group = re.search(r"\b239[\d.]+", line)
    return int(port), group and group.group()


class Chain:
    """The proxy and the receivers of a recipe, started in the order of the page."""

    def __init__(self, kitchen, heading):
        self.kitchen = kitchen
        self.commands = list(RECIPES[heading])
        self.proxy = None
        self.joined = 0  # receivers that have pinged
        self._players = []

    def take(self, host):
        """The commands of a host, which are then started."""
        taken = [command for command in self.commands if command.host == host]
        self.commands = [command for command in self.commands if command.host != host]
        return taken

    def start_proxy(self):
        (command,) = self.take("proxy") or RECIPES["FFmpeg: RTP"][:1]
        self.proxy = self.kitchen.start(command).wait_ready()

    def start_player(self, command):
        running = self.kitchen.start(command)
        if running.runs("mkdir"):
            assert running.wait_exit() == 0
        elif running.runs("arqlink"):
            self.kitchen.wait_listens(running, 17020)
        elif running.runs("arqrx"):
            self.joined += 1
            self.proxy.wait_stderr(STARTED, count=self.joined)
        else:
            self.kitchen.wait_listens(running, *where_it_listens(command.line))
        return running

    def start_players(self):
        self._players = [self.start_player(command) for command in self.take("player")]
        return self._players

    def texts(self):
        """What all have printed, for who looks for a fault."""
        return "\n".join(f"{one.line}\n{one.stdout.text}{one.stderr.text}" for one in (self.proxy, *self._players))


# Sources


class Sent:
    """What leaves the encoder's host for the proxy's input, as a capture there shows it."""

    def __init__(self, closing, chain, line):
        self._capture = closing(capture.Capture(chain.kitchen.hosts["encoder"], "eth0"))
        self._is_rtp = not re.search(r" -u\b", line)
        group = re.search(r" (2\d+\.[\d.]+)$", line)
        self._address, self._ttl = (group.group(1), GROUP_TTL) if group else ("10.80.1.1", None)
        self._stream = b""
        self.reports = 0  # of RTP, to the next port

    def stream(self):
        """The transport stream so far. All datagrams are as the page says."""
        for frame in self._capture.take():
            if frame.port == 5001:
                self.reports += 1
                continue
            assert (frame.address, frame.port) == (self._address, 5000)
            assert self._ttl in (None, frame.ttl)
            payload = frame.payload
            if self._is_rtp:
                assert len(payload) <= RTP_BYTES and payload[0] == 0x80
                assert rtp.payload_type(payload) == rtp.MEDIA_PAYLOAD_TYPE
                payload = rtp.payload(payload)
            assert len(payload) % mpegts.PACKET_BYTES == 0 and payload[0] == mpegts.SYNC_BYTE
            self._stream += payload
        return self._stream


@pytest.fixture
def run_source(closing, kitchen):
    """run_source(heading, enough, judged) returns the Sent of the source, which is what the receiver wrote.

    A source that does not end is ended once enough(stream) holds, however late; `judged` bytes must be without holes then.
    """

    def run(heading, enough=None, judged=None):
        chain = Chain(kitchen, heading)
        sent = Sent(closing, chain, RECIPES[heading][0].line)
        chain.start_proxy()
        player = chain.start_player(command_of("The receiver behind every source"))
        *before, source = chain.take("encoder")
        for command in before:
            assert kitchen.start(command).wait_exit() == 0
        source = kitchen.start(source)
        assert not chain.commands
        if enough:
            wait_until(lambda: enough(sent.stream()), lambda: f"a live stream\n{source.stderr.text}")
            source.end()
        else:
            assert source.wait_exit() == 0, source.stderr.text
        wait_until(lambda: kitchen.size("live.ts") >= len(sent.stream()), "everything to be played out")
        assert player.end() == 0, player.stderr.text
        assert kitchen.file("live.ts") == sent.stream()
        assert mpegts.continuity_errors(sent.stream()[:judged]) == 0
        return sent

    return run


@runs("FFmpeg: RTP", "FFmpeg: UDP", "FFmpeg: RTP to a group")
def test_ffmpeg_sends_every_picture_of_a_file(run_source, clip, heading):
    sent = run_source(heading)
    stream = sent.stream()
    assert (sent.reports > 0) == ("RTP" in heading)
    # Over RTP it keeps back what does not fill the last datagram: the end of the last picture.
    assert_part(coded(stream)[:-1], clip.coded, len(clip.coded) - 1)


@runs("GStreamer: RTP", "GStreamer: RTP to a group", "multicat: RTP", "multicat: UDP", "multicat: RTP to a group")
def test_gstreamer_and_multicat_send_the_bytes_of_a_file(run_source, clip, heading):
    stream = run_source(heading).stream()
    assert len(stream) % UDP_BYTES == 0
    # Null packets fill up the last datagram.
    assert mpegts.without_nulls(stream) == mpegts.without_nulls(clip.stream)


def test_tsparse_alone_sends_the_rest_of_a_file_as_one_large_datagram(closing, kitchen, hosts):
    host, line = RECIPES["GStreamer: RTP"][-1]
    listener = closing(Receiver("10.80.1.1", 5000, namespace=hosts["proxy"]))
    assert "! rtpmp2tpay " in line
    assert kitchen.start(recipe.Command(host, line.replace("! rtpmp2tpay ", ""))).wait_exit() == 0
    listener.wait_for(lambda datagram: len(datagram.data) > 1536)
    assert len(listener.payloads[0]) == UDP_BYTES


def test_multicat_leaves_datagrams_out_when_nobody_has_the_port(closing, kitchen, hosts, clip):
    sent = closing(capture.Capture(hosts["encoder"], "eth0"))
    for command in RECIPES["multicat: UDP"][1:]:
        assert kitchen.start(command).wait_exit() == 0
    assert 0 < len(sent.take()) < len(mpegts.datagrams(clip.stream))


@runs("VLC: RTP", "VLC: UDP", "VLC: RTP to a group")
def test_vlc_sends_the_pictures_of_a_file(run_source, clip, heading):
    # Where the clip begins again, so do its counters.
    half = len(clip.stream) // mpegts.PACKET_BYTES // 2 * mpegts.PACKET_BYTES
    stream = run_source(heading, lambda stream: len(stream) > half, judged=half).stream()[:half]
    # The last picture has no end.
    assert_part(decoded(stream)[:-2], clip.decoded, LIVE_PICTURES)


@runs("FFmpeg: a test picture", "GStreamer: a test picture")
def test_a_test_picture_arrives_whole(run_source, heading):
    # A picture takes two packets of its own at most: one may hold nothing but parameters.
    stream = run_source(heading, lambda stream: stream.count(VIDEO_START) > 2 * LIVE_PICTURES + 2).stream()
    assert len(decoded(stream)) >= LIVE_PICTURES


# Players and recorders


class Feeding:
    """A source that sends the clip over and over, faster than its clock or slower."""

    def __init__(self, kitchen, clip, speed):
        self._sender = Sender("10.80.1.1", 5000, namespace=kitchen.hosts["encoder"])
        self._datagrams = mpegts.datagrams(clip.stream)
        self._pause = CLIP_SECONDS / speed / len(self._datagrams)
        self._running = True
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        began = time.monotonic()
        for number, data in enumerate(itertools.cycle(self._datagrams)):
            time.sleep(max(0.0, began + number * self._pause - time.monotonic()))
            if not self._running:
                return
            self._sender.send(rtp.packet(FIRST_SEQ + number, data))

    def close(self):
        self._running = False
        self._thread.join()
        self._sender.close()


@pytest.fixture
def feed(closing, kitchen, clip):
    """feed(speed=1) sends the clip over and over from now on."""
    return lambda speed=1.0: closing(Feeding(kitchen, clip, speed))


@pytest.fixture
def run_players(closing, kitchen, clip, feed):
    """run_players(heading, enough, speed) ends the last program of a recipe once enough() holds; returns it."""

    def run(heading, enough, speed=1.0):
        chain = Chain(kitchen, heading)
        chain.start_proxy()
        *_, player = chain.start_players()
        assert not chain.commands
        feed(speed)
        wait_until(enough, lambda: f"enough of the stream\n{chain.texts()}")
        player.end()
        return player

    return run


@runs("FFmpeg behind arqrx: UDP", "FFmpeg behind arqrx: RTP", "FFmpeg behind arqrx: a pipe",
      "FFmpeg behind arqrx: a group of the house", "FFmpeg from the proxy: RTP")  # fmt: skip
def test_ffmpeg_records_every_picture(run_players, kitchen, clip, heading):
    begins_late = "RTP" in heading
    run_players(heading, lambda: kitchen.size("live.ts") > 0.9 * len(clip.stream), speed=1 if begins_late else 2)
    stream = kitchen.file("live.ts")
    assert mpegts.continuity_errors(stream) == 0
    # Where it has missed something it begins in the middle of a picture.
    assert_part(coded(stream)[1:], clip.coded, LIVE_PICTURES, first_at_most=MISSED_PICTURES if begins_late else 1)


def assert_begins_with(stream, clip):
    assert mpegts.continuity_errors(stream[: len(clip.stream)]) == 0
    assert stream.startswith(clip.stream)


@runs(
    "GStreamer behind arqrx: RTP", "GStreamer behind arqrx: UDP", "GStreamer behind arqrx: a pipe",
    "GStreamer from the proxy: a group", "multicat behind arqrx: RTP", "multicat behind arqrx: UDP",
    "multicat from the proxy: a group", "VLC behind arqrx: UDP", "VLC behind arqrx: RTP",
    "VLC behind arqrx: a group of the house", "VLC from the proxy: RTP", "arqrx records an hour",
)  # fmt: skip
def test_a_recorder_writes_the_bytes_that_were_sent(run_players, kitchen, clip, heading):
    # What a recorder has no time to take from its socket is lost: the faster the sooner.
    has_socket = "a pipe" not in heading and "an hour" not in heading
    run_players(heading, lambda: kitchen.size("live.ts") > len(clip.stream), speed=1 if has_socket else 4)
    assert_begins_with(kitchen.file("live.ts"), clip)


def test_what_the_proxy_sends_to_a_group_passes_no_router(closing, kitchen, hosts, feed):
    chain = Chain(kitchen, "multicat from the proxy: a group")
    chain.start_proxy()
    sent = closing(capture.Capture(hosts["proxy"], "eth1"))
    feed()
    frames = wait_until(lambda: [frame for frame in sent.take() if frame.address == "239.2.2.2"], "media to the group")
    assert {(frame.port, frame.ttl) for frame in frames} == {(10000, 1)}


@runs("VLC behind arqrx: a pipe")
def test_vlc_records_every_picture_of_a_pipe(run_players, kitchen, clip, heading):
    run_players(heading, lambda: kitchen.size("live.ts") > 0.8 * len(clip.stream))
    stream = kitchen.file("live.ts")
    assert mpegts.continuity_errors(stream) == 0
    # What it has in hand when the programme's clock goes back, as where the clip begins again, it throws away.
    before_the_end = len(clip.decoded) - VLC_HOLDS_PICTURES
    assert_part(decoded(stream)[:-2][:before_the_end], clip.decoded, LIVE_PICTURES)


def recorded(folder, pattern):
    """The bytes of all files that match, in the order of their names."""
    return b"".join(path.read_bytes() for path in sorted(folder.glob(pattern)))


@runs("FFmpeg records pieces")
def test_ffmpeg_records_pieces(run_players, kitchen, clip, heading):
    def stream():
        return recorded(kitchen.folder, "live-[0-9][0-9][0-9][0-9][0-9][0-9].ts")

    run_players(heading, lambda: len(stream()) > 0.9 * len(clip.stream), speed=2)
    assert mpegts.continuity_errors(stream()) == 0
    assert_part(coded(stream()), clip.coded, LIVE_PICTURES)


@runs("multicat records into a folder")
def test_multicat_records_into_a_folder(run_players, kitchen, clip, heading):
    assert f" -r {TICKS_PER_HOUR} " in RECIPES[heading][-1].line
    run_players(heading, lambda: len(recorded(kitchen.folder, "live/*.ts")) > len(clip.stream), speed=4)
    assert_begins_with(recorded(kitchen.folder, "live/*.ts"), clip)
    # Each file has its times beside it.
    assert len(recorded(kitchen.folder, "live/*.aux")) % 8 == 0


# Looking, and comparing


@runs("What is in it")
def test_ffprobe_says_what_is_in_the_stream(kitchen, feed, heading):
    chain = Chain(kitchen, heading)
    chain.start_proxy()
    (probe,) = chain.start_players()
    feed()
    assert probe.wait_exit() == 0, probe.stderr.text
    found = re.findall(r"Stream #0:\d\[(0x\w+)\]: (\w+: \w+)", probe.stderr.text)
    assert found == [("0x100", "Video: mpeg2video"), ("0x101", "Audio: mp2")]
    assert int("0x100", 16) == int(re.search(r" -p (\d+) ", RECIPES["multicat: RTP"][1].line).group(1))


@runs("Is it whole")
def test_arqrx_says_whether_the_stream_is_whole(run_players, kitchen, heading):
    def passed():
        lines = [json.loads(line) for line in kitchen.running[-1].stdout.lines]
        return lines and lines[-1].get("transport_packets", 0) > 500

    player = run_players(heading, passed)
    last = json.loads(player.stdout.lines[-1])
    assert last["status"] == 0 and last["continuity_errors"] == 0 and last["packets_recovered"] == 0


@runs("With and without asking")
def test_who_asks_has_every_byte_over_a_bad_line_and_who_does_not_has_holes(run_players, kitchen, clip, heading):
    def holes():
        return mpegts.continuity_errors(kitchen.file("not-asked.ts")[: len(clip.stream) // 2])

    run_players(heading, lambda: kitchen.size("asked.ts") > len(clip.stream) and holes())
    assert_begins_with(kitchen.file("asked.ts"), clip)


# The page


def test_every_recipe_of_the_page_has_a_test_that_runs_it():
    assert sorted(TESTED) == sorted(RECIPES)


def test_every_indented_line_of_the_page_is_a_command():
    lines = [line for line in recipe.joined(recipe.PAGE.text).splitlines() if line.startswith("    ")]
    assert len(lines) == sum(map(len, RECIPES.values())) == len(recipe.commands_of(recipe.PAGE.text))
    blocks = re.findall(r"^```.*\n", recipe.PAGE.text, re.MULTILINE)
    assert len(blocks) == 2, "but for the picture of the hosts"


def said_by(kitchen, command):
    """What a program says of its settings, on standard output or in a file."""
    running = kitchen.start(recipe.Command("player", command))
    assert running.wait_exit() == 0, running.stderr.text
    return kitchen.file("vlcrc").decode() if running.runs("cvlc") else running.stdout.text


def test_the_defaults_on_the_page_are_those_of_the_programs(kitchen):
    rows = [cells for cells in recipe.PAGE.rows("Delay") if re.fullmatch(r"\d+", cells[1])]
    assert len(rows) == 8
    said = {}
    for setting, value, by in rows:
        command = quoted(by)[0] if by != "the same" else command
        if command not in said:
            said[command] = said_by(kitchen, command)
        name = re.escape(quoted(setting)[0])
        found = re.search(rf"^(?: +-?{name} .*?[Dd]efault:? |#{name}=)(\d+)", said[command], re.MULTILINE | re.DOTALL)
        assert found and found.group(1) == value, setting


PACKAGE_OF = {"ffmpeg": "FFmpeg", "ffprobe": "FFmpeg", "gst-launch-1.0": "GStreamer", "multicat": "multicat",
              "ingests": "multicat", "cvlc": "VLC"}  # fmt: skip


def test_the_programs_are_in_the_packages_that_the_page_names():
    named = {cells[0]: quoted(cells[1]) for cells in recipe.PAGE.rows("Hosts and addresses")}
    paths = {shutil.which(program): package for program, package in PACKAGE_OF.items()}
    owners = subprocess.run(["dpkg", "--search", *paths], capture_output=True, text=True, check=True).stdout
    for owner in owners.splitlines():
        package, path = owner.split(": ")
        assert package in named[paths[path]], owner


def test_vlc_refuses_to_run_as_root():
    done = subprocess.run([shutil.which("cvlc"), "vlc://quit"], capture_output=True, text=True, check=False)
    assert done.returncode != 0 and "VLC is not supposed to be run as root" in done.stderr
