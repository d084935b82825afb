"""What arqlink does to packets, seen from its two ends and held against its own log."""

import json
import os
import time

import pytest

from txproxy import rtp
from txproxy.link import Link
from txproxy.receiver import Receiver
from txproxy.waiting import wait_until

HOST = "127.0.0.1"
COUNT = 2000 if os.environ.get("TX_PROXY_BUILD_KIND") == "release" else 500
AT_A_TIME = 100  # so that no socket's buffer overflows


def packets(count=COUNT, first=0):
    return [rtp.packet((first + index) & 0xFFFF, b"packet %06d" % index) for index in range(count)]


class Path:
    """A near end, a line and a far end."""

    def __init__(self, closing, *options):
        self.far = closing(Receiver(HOST, 0))
        self.near = closing(Receiver(HOST, 0))
        self.line = closing(Link([self.far.address], *options, interval="20ms"))
        self._sent = {"down": 0, "up": 0}
        self._upstream = None

    def send(self, way, datagrams):
        """Sends them and waits until all have entered the line."""
        if way == "down" and not self._upstream:
            self.near.send(b"ping", self.line.listen[0])
            wait_until(lambda: self.far.datagrams, "the ping")
            self._upstream = self.far.datagrams[0].source
            self._sent["up"] += 1
        for start in range(0, len(datagrams), AT_A_TIME):
            for data in datagrams[start : start + AT_A_TIME]:
                if way == "up":
                    self.near.send(data, self.line.listen[0])
                else:
                    self.far.send(data, self._upstream)
            self._sent[way] += len(datagrams[start : start + AT_A_TIME])
            self.entered(way)

    def entered(self, way):
        return self.line.wait_figures(
            lambda figures: figures[way]["came"] == self._sent[way], f"{self._sent[way]} packets to have come"
        )

    def left(self, way):
        """The payloads that left the line, once none is under way."""
        figures = self.line.wait_figures(
            lambda figures: figures[way]["came"] == self._sent[way] and figures[way]["under_way"] == 0,
            "everything to have left the line",
        )
        end = self.far if way == "up" else self.near
        wait_until(
            lambda: len(end.datagrams) == figures[way]["delivered"],
            lambda: f"{figures[way]['delivered']} datagrams; there are {len(end.datagrams)}",
        )
        return end.payloads


@pytest.fixture
def path(closing):
    return lambda *options: Path(closing, *options)


def fates(file, way):
    """The log's lines of one direction."""
    lines = [json.loads(line) for line in file.read_text(encoding="ascii").splitlines()]
    return [line for line in lines if line["way"] == way]


def test_the_same_seed_has_the_same_fates_and_the_log_tells_what_arrived(path, tmp_path):
    options = ["--loss", "10%", "--burst", "1%,20%", "--duplicate", "5%", "--corrupt", "5%", "--jitter", "5ms"]
    sent = packets()
    logs, arrived = {}, {}
    for run, seed in (("first", 7), ("again", 7), ("other", 8)):
        file = tmp_path / run
        one = path(*options, "--seed", seed, "--log-fates", file)
        one.send("up", sent)
        arrived[run] = one.left("up")
        one.line.stop()
        logs[run] = fates(file, "up")
    assert logs["first"] == logs["again"]
    assert arrived["first"] == arrived["again"]
    assert [line["fate"] for line in logs["first"]] != [line["fate"] for line in logs["other"]]

    log = logs["first"]
    assert [(line["n"], line["seq"], line["bytes"]) for line in log] == [
        (index, index, len(data)) for index, data in enumerate(sent)
    ]
    expected = []
    for line, data in zip(log, sent):
        if line["fate"] == "passed":
            expected += [(data, line.get("corrupted", False))] * (2 if "copy_delay_us" in line else 1)
    assert len(expected) == len(arrived["first"])
    # Copies may stand among their neighbours, so whole sets are compared.
    whole = sorted(data for data, is_corrupted in expected if not is_corrupted)
    assert whole == sorted(data for data in arrived["first"] if data in set(sent))
    assert {line["fate"] for line in log} == {"passed", "random", "burst"}


def test_the_figures_count_every_packet_once(path):
    one = path("--up-loss", "10%", "--up-duplicate", "10%", "--up-corrupt", "10%", "--up-delay", "5ms")
    one.send("up", packets())
    one.left("up")
    up = one.line.stop()["up"]
    assert up["came"] == COUNT
    assert up["came"] + up["duplicated"] == up["delivered"] + up["lost"] + up["under_way"]
    assert up["lost"] == sum(up["lost_by"].values()) == up["lost_by"]["random"]
    assert 0.05 * COUNT < up["lost"] < 0.15 * COUNT


def test_each_direction_has_its_own_settings(path):
    one = path("--down-loss", "100%")
    one.send("up", packets(50))
    assert one.left("up") == packets(50)
    one.send("down", packets(50))
    assert one.left("down") == []
    assert one.line.stop()["down"]["lost_by"]["random"] == 50


def test_each_direction_has_draws_of_its_own(path, tmp_path):
    one = path("--loss", "50%", "--log-fates", tmp_path / "fates", "--seed", "3")  # the ping passes
    one.send("down", packets(200))
    one.send("up", packets(199))  # and the ping before them
    one.line.stop()
    down, up = ([line["fate"] for line in fates(tmp_path / "fates", way)] for way in ("down", "up"))
    assert len(down) == len(up) == 200
    assert down != up


def test_a_setting_of_one_direction_goes_before_that_of_both(path):
    one = path("--up-loss", "0", "--loss", "100%")
    one.send("up", packets(50))
    assert len(one.left("up")) == 50
    assert one.line.stop()["down"]["settings"] == "loss 100%"


def test_exactly_the_listed_sequence_numbers_are_lost_the_first_times_they_come(path):
    one = path("--down-drop-seq", "65534-1x2,10")
    once = packets(20, first=65530)
    seqs = [rtp.seq(data) for data in once]
    for _ in range(3):
        one.send("down", once)
    arrived = [rtp.seq(data) for data in one.left("down")]
    missing_twice = [seq for seq in seqs if seq in (65534, 65535, 0, 1)]
    assert len(missing_twice) == 4
    expected = [seq for seq in seqs if seq not in missing_twice + [10]]
    expected += [seq for seq in seqs if seq not in missing_twice] + seqs
    assert arrived == expected


def test_delay_and_jitter_hold_packets_and_keep_their_order(path):
    one = path("--up-delay", "100ms", "--up-jitter", "50ms")
    sent = packets(50)
    began = time.time()
    one.send("up", sent)
    assert one.left("up") == sent
    assert one.far.datagrams[0].time - began >= 0.1


def test_nothing_leaves_before_its_delay_is_over(path):
    one = path("--up-delay", "1h")
    one.send("up", packets(50))
    figures = one.line.figures()
    assert (figures["up"]["under_way"], figures["up"]["delivered"]) == (50, 0)
    final = one.line.stop()
    assert (final["up"]["under_way"], final["up"]["lost"]) == (50, 0)


def test_packets_are_reordered_only_if_they_may_be(path):
    one = path("--up-jitter", "50ms", "--up-reorder", "100%")
    sent = packets(200)
    one.send("up", sent)
    arrived = one.left("up")
    assert arrived != sent
    assert sorted(arrived) == sorted(sent)
    assert one.line.stop()["up"]["reordered"] > 20


def test_a_limited_rate_holds_packets_up_and_loses_what_its_queue_cannot_hold(path):
    one = path("--up-rate", "100k", "--up-queue", "5k")
    sent = [rtp.packet(seq, bytes(988)) for seq in range(100)]  # 1000 bytes, 80 ms each
    one.send("up", sent)
    up = one.line.figures()["up"]
    assert up["lost"] == up["lost_by"]["queue"] > 50
    arrived = one.left("up")
    assert arrived[:5] == sent[:5]


def test_more_than_the_memory_holds_is_lost_and_counted(path):
    one = path("--up-delay", "1h", "--memory", "100k")
    one.send("up", packets(200))
    up = one.line.stop()["up"]
    assert up["lost"] == up["lost_by"]["memory"]
    assert 20 < up["under_way"] < 60
    assert up["under_way"] + up["lost"] == 200


def test_a_script_changes_the_line_while_it_runs(path, tmp_path):
    script = tmp_path / "script"
    script.write_text("# from good to bad\n0s both clean\nat 400ms: up blackout on\n", encoding="ascii")
    one = path("--script", script)
    one.send("up", packets(10))
    one.line.wait(lambda: len(one.line.events("changed")) == 2, "the script's second line")
    changes = one.line.events("changed")
    before = one.line.figures()["up"]["delivered"]
    assert [change["up"]["settings"] for change in changes] == ["clean", "blackout on"]
    assert [change["down"]["settings"] for change in changes] == ["clean", "clean"]
    assert changes[1]["seconds"] >= 0.4
    one.send("up", packets(10))
    figures = one.entered("up")
    assert figures["up"]["lost_by"]["blackout"] >= 10
    assert before + figures["up"]["lost_by"]["blackout"] >= 20


def test_a_script_may_end_the_run_and_so_may_a_duration(closing, tmp_path):
    script = tmp_path / "script"
    script.write_text("0s both loss 5%\n300ms end\n", encoding="ascii")
    target = [(HOST, 9)]
    assert 0.3 <= closing(Link(target, "--script", script)).wait_end()["seconds"] < 5
    assert 0.2 <= closing(Link(target, "--duration", "200ms")).wait_end()["seconds"] < 5


def test_clients_have_fates_of_their_own_unless_they_are_told_to_be_alike(closing, tmp_path):
    def fates_of_two(*options):
        far = closing(Receiver(HOST, 0))
        file = tmp_path / f"fates{len(options)}"
        line = closing(Link([far.address], "--loss", "30%", "--log-fates", file, *options))
        for _ in range(2):
            one = closing(Receiver(HOST, 0))
            for data in packets(100):
                one.send(data, line.listen[0])
        line.wait_figures(lambda figures: figures["up"]["came"] == 200, "both clients' packets")
        line.stop()
        log = fates(file, "up")
        return [[line["fate"] for line in log if line["client"] == number] for number in (0, 1)]

    first, second = fates_of_two()
    assert len(first) == len(second) == 100
    assert first != second
    first, second = fates_of_two("--alike")
    assert first == second
    assert "random" in first
