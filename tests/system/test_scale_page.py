"""docs/scale.md: its example of a tree."""

import pathlib
import re
import shlex

import pytest

from txproxy import arqrx, netns, receiver, rtp
from txproxy.waiting import wait_until

PAGE = pathlib.Path(__file__).resolve().parents[2] / "docs" / "scale.md"
TEXT = PAGE.read_text(encoding="utf-8")
COUNT = 400  # packets through the example
PAYLOAD_BYTES = 1316


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
    for host in made.values():
        host.wait_cables()
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
