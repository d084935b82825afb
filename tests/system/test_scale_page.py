"""docs/scale.md: its arithmetic, what the simulation says to it, and its example of a tree."""

import math
import pathlib
import re
import shlex
import subprocess

import pytest

from txproxy import arqrx, netns, receiver, rtp
from txproxy.proxy import binary
from txproxy.waiting import scaled, wait_until

PAGE = pathlib.Path(__file__).resolve().parents[2] / "docs" / "scale.md"
TEXT = PAGE.read_text(encoding="utf-8")
TRY_MS = 105
COUNT = 400  # packets through the example
PAYLOAD_BYTES = 1316


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
    command = [pathlib.Path(binary()).parent / "simulation", "--recovery", *words]
    done = subprocess.run(command, capture_output=True, text=True, check=True, timeout=scaled(60))
    packets, lost = re.search(r"one hop: (\S+) packets expected .* lost (\d+)\n", done.stdout).groups()
    return float(packets), int(lost)


@pytest.mark.release_only
def test_the_simulation_loses_what_the_formula_leaves():
    """Shorter than the page's runs, where there is enough to count."""
    countable = [(left, simulated, words) for _, trip, _, _, left, simulated, words in rows() if left > 1e-4 and trip < 100]
    assert len(countable) >= 4
    for left, simulated, words in countable:
        packets, lost = lost_in_simulation([*words, "seconds=4", "receivers=20"])
        # Packets that one lost request asked for are lost together: the deviation is that of fewer.
        assert lost == pytest.approx(left * packets, abs=6 * math.sqrt(left * packets), rel=0.3)
        assert float(simulated) == pytest.approx(left, rel=0.3)


def example():
    """{host: its command lines} of the page's example."""
    lines = re.findall(r"^    (\w+)\$ (.+)$", TEXT, re.MULTILINE)
    hosts = {host: [shlex.split(line) for name, line in lines if name == host] for host, _ in lines}
    assert list(hosts) == ["first", "second", "third"]
    return hosts


@pytest.fixture
def hosts(closing):
    """The three hosts of the example, with the addresses that it names."""
    made = {name: closing(netns.Namespace()) for name in ("first", "second", "third")}
    for number, (upper, lower) in enumerate((("first", "second"), ("second", "third")), 1):
        made[upper].ip("link", "add", "lower", "type", "veth", "peer", "name", "upper", "netns", made[lower].name)
        for name, device, last in ((upper, "lower", 1), (lower, "upper", 2)):
            made[name].ip("addr", "add", f"10.79.{number}.{last}/24", "dev", device)
            made[name].ip("link", "set", device, "up")
    return made


def test_the_example_is_a_tree_as_it_stands(closing, launch, hosts):
    for name, commands in example().items():
        for program, *arguments in commands:
            if program == "tx_proxy":
                launch(*arguments, namespace=hosts[name]).wait_ready()
            else:
                assert program == "arqrx"
                closing(arqrx.Arqrx(*arguments, namespace=hosts[name]))
    player = closing(receiver.Receiver("127.0.0.1", 1234, namespace=hosts["third"]))
    source = closing(receiver.Sender("127.0.0.1", 5000, namespace=hosts["first"]))
    sent = []

    def send(count):
        numbers = range(len(sent), len(sent) + count)
        packets = [rtp.packet(number, number.to_bytes(4, "big") * (PAYLOAD_BYTES // 4)) for number in numbers]
        sent.extend(map(rtp.payload, packets))
        arqrx.send_evenly(source, packets, 200)

    def arrives():
        send(20)
        return player.count()

    wait_until(arrives, "the first packet to come down")
    first = sent.index(player.payloads[0])
    send(COUNT)
    assert player.wait_count(len(sent) - first) == sent[first:]
