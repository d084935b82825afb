"""deploy/: the manifests' tree of a root and two leaves runs, in containers of a real runtime and with the image that
the Containerfile describes. Every host has a network namespace of its own; what the manifests say is carried out word by word.
"""

import re
import shlex
import time
import urllib.request

import pytest

from txproxy import arqrx, container, fleet, netns, receiver, rtp
from txproxy.model_receiver import STOP_MESSAGE, PingingReceiver
from txproxy.page import Page
from txproxy.traffic import Steady
from txproxy.waiting import TURN_SECONDS, Lateness, scaled, wait_until, within

pytestmark = [pytest.mark.release_only, pytest.mark.large]

PAYLOAD_BYTES = 1316
PER_SECOND = 200
PLAYED = 300  # packets that are compared
PLAYER = 1234
STOP_MESSAGES = 5
PING_SECONDS = 1  # arqrx and the relay ping so often


@pytest.fixture(scope="module")
def image(tmp_path_factory):
    return container.Image(tmp_path_factory.mktemp("image") / "root")


class Node(netns.Namespace):
    """A host; `address` is that under which the others know it."""

    def __init__(self, address):
        super().__init__()
        self.address = address

    def hang_below(self, upper, number):
        upper.ip("link", "add", f"to{number}", "type", "veth", "peer", "name", "eth0", "netns", self.name)
        upper.ip("link", "set", f"to{number}", "master", "lan", "up")
        self.ip("addr", "add", f"{self.address}/24", "dev", "eth0")
        self.ip("link", "set", "eth0", "up")


class Running:
    """An instance on its node: a pod, or an allocation."""

    def __init__(self, closing, image, folder, instance, node, hosts):
        self.instance, self.node = instance, node
        self._closing, self._image, self._folder, self._hosts = closing, image, folder, hosts
        self._starts = 0
        self.containers = {}

    def start(self):
        self._starts += 1
        folder = self._folder / f"{self.instance.name}.{self._starts}"
        settings = folder / "default"
        settings.mkdir(parents=True)
        for name, text in self.instance.files.items():
            (settings / name).write_text(text, "utf-8")
        pids = self._closing(container.Pod()) if self.instance.shares_pids else None
        for name, task in self.instance.containers.items():
            # On a client of Nomad the monitor is in the machine's process namespace: here in that of the proxy.
            shared = pids or (self.containers["proxy"] if name == "monitor" else None)
            self.containers[name] = self._closing(
                container.Container(self._image, folder, f"{self.instance.name}.{name}", task.command, env=task.env,
                                    mounts={"/etc/default": settings, "/etc/hosts": self._hosts}, pids=shared,
                                    namespace=self.node)  # fmt: skip
            )
            if name == "proxy":
                self.containers[name].process.wait_ready()
        return self

    def ask(self, command):
        return self.containers["proxy"].execute(command)

    def stop(self):
        """As its orchestrator does it; within the time that the manifest leaves."""
        with within(self.instance.grace):
            if self.instance.before_stop:
                assert self.ask(self.instance.before_stop)[0] == 0
            for one in self.containers.values():
                one.signal("TERM")
            for one in self.containers.values():
                one.wait_exit()
        for one in self.containers.values():
            one.close()


class Player:
    """A receiver on a leaf's host, and what it plays."""

    def __init__(self, closing, node):
        self.played = closing(receiver.Receiver("127.0.0.1", PLAYER, namespace=node))
        closing(arqrx.Arqrx("127.0.0.1:10000", "--request-port", 7020, "--latency", arqrx.seconds(0.6), "--output",
                            f"udp://127.0.0.1:{PLAYER}", "--strip-rtp", namespace=node))  # fmt: skip

    def numbers(self):
        """Of the packets that it has played, in order."""
        assert {len(data) for data in self.played.payloads} <= {PAYLOAD_BYTES}
        return [int.from_bytes(data[:4], "big") for data in self.played.payloads]

    def check_whole(self, count):
        """Plays `count` more packets, and has left none out since the last clear()."""
        self.played.wait_count(count)
        numbers = self.numbers()
        assert numbers == list(range(numbers[0], numbers[0] + len(numbers)))

    def check_again(self, moment):
        """Plays without a hole again after a moment; the longest time without a packet so far, in seconds."""
        self.played.wait_for(lambda one: one.time > moment)
        count = self.played.count()
        self.played.wait_count(count + PLAYED)
        numbers = self.numbers()[count:]
        assert numbers == list(range(numbers[0], numbers[0] + len(numbers)))
        times = [one.time for one in self.played.datagrams]
        return max(later - before for before, later in zip(times, times[1:]))


def payload(number):
    return number.to_bytes(4, "big") * (PAYLOAD_BYTES // 4)


class Tree:
    def __init__(self, closing, image, folder, orchestrator):
        self._closing = closing
        addresses = [f"10.79.0.{last}" for last in (1, 2, 3)]
        self.nodes = [closing(Node(address)) for address in addresses]
        upper = self.nodes[0]
        upper.ip("link", "add", "lan", "type", "bridge")
        upper.ip("addr", "add", f"{upper.address}/24", "dev", "lan")
        upper.ip("link", "set", "lan", "up")
        for number, node in enumerate(self.nodes[1:], 1):
            node.hang_below(upper, number)
        for node in self.nodes:
            node.wait_cables()
        instances = orchestrator(addresses)
        names = dict(zip(addresses, (instance.names for instance in instances)))
        hosts = folder / "hosts"
        lines = [f"{address} {' '.join(all_names)}\n" for address, all_names in names.items()]
        hosts.write_text("".join(lines), "utf-8")
        self.all = [Running(closing, image, folder, *pair, hosts).start() for pair in zip(instances, self.nodes)]
        self.root, *self.leaves = self.all
        assert [one.instance.level for one in self.all] == ["root", "leaf", "leaf"]

    def feed(self):
        source = self._closing(receiver.Sender("127.0.0.1", 5000, namespace=self.root.node))
        self._closing(Steady(source, lambda number: rtp.packet(number, payload(number)), PER_SECOND))

    def players(self):
        return [Player(self._closing, leaf.node) for leaf in self.leaves]


def metrics(tree, running):
    """Of a channel, as Prometheus gets them from another machine."""
    url = f"http://{running.instance.containers['monitor'].env['MONITOR_LISTEN']}/metrics"
    opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
    return tree.root.node.call(lambda: opener.open(url, timeout=scaled(5)).read().decode())


def plain_receiver(closing, leaf):
    """Joined without an ID: it can be told to stop."""
    ports = type("Ports", (), {"destination": 10000, "request": 7020})
    one = closing(PingingReceiver("127.0.0.9", 0, ports, namespace=leaf.node))
    one.ping()
    one.wait_count(1)
    return one


@pytest.mark.parametrize("orchestrator", [fleet.kubernetes, fleet.nomad], ids=["kubernetes", "nomad"])
def test_the_tree_of_the_manifests_runs_and_a_leaf_is_drained_and_started_again(closing, image, tmp_path, orchestrator):
    tree = Tree(closing, image, tmp_path, orchestrator)
    for one in tree.all:
        wait_until(lambda one=one: one.ask(one.instance.live) == (0, ""), "each channel to live")
        status, text = one.ask(one.instance.ready)
        assert status == 1 and "has no input" in text
    tree.feed()
    for one in tree.all:
        wait_until(lambda one=one: one.ask(one.instance.ready) == (0, ""), "each channel to be ready")
    players = tree.players()
    for player in players:
        player.check_whole(PLAYED)
    for number, one in enumerate(tree.all, 1):
        wait_until(lambda one=one, number=number: f'tx_proxy_up{{channel="/run/channel-{number}"}} 1' in metrics(tree, one),
                   "each channel's metrics")  # fmt: skip

    leaf, other = tree.leaves
    told = plain_receiver(closing, leaf)
    began = time.time()
    leaf.stop()
    wait_until(lambda: told.payloads.count(STOP_MESSAGE) == STOP_MESSAGES, "the stop messages")
    leaf.start()
    wait_until(lambda: leaf.ask(leaf.instance.ready) == (0, ""), "the leaf to be ready again")
    # Its player has an ID: it was not told, and pings on.
    assert players[0].check_again(time.time()) < time.time() - began + PING_SECONDS
    players[1].check_whole(players[1].played.count() + PLAYED)
    assert other.ask(other.instance.live) == (0, "")


def test_what_is_below_a_root_that_is_replaced_comes_back_by_itself(closing, image, tmp_path):
    tree = Tree(closing, image, tmp_path, fleet.kubernetes)
    tree.feed()
    players = tree.players()
    for player in players:
        player.check_whole(PLAYED)
    for command in page_commands("leaf-0"):
        status, text = tree.leaves[0].ask(command)
        assert status == 0 and "127.0.0." in text, command
    lateness = closing(Lateness(TURN_SECONDS))
    began = time.time()
    tree.root.stop()
    tree.root.start()
    back = time.time()
    for player in players:
        # Of the relay's ping; what is late on a busy machine besides.
        assert player.check_again(back) < back - began + PING_SECONDS + scaled(1) + lateness.allowed()


def page_commands(pod):
    """What docs/fleet.md lets run in the proxy's container of a pod."""
    pattern = rf"^    kubectl --namespace tx-proxy exec {pod} --container proxy -- (.+)$"
    found = re.findall(pattern, Page("fleet.md").text, re.MULTILINE)
    assert len(found) == 2
    return map(shlex.split, found)
