"""The rules for nftables of docs/security.md: only receivers and encoders of their sets reach the proxy's ports."""

import pathlib
import re
import subprocess

import pytest

from txproxy import netns, ports, rtp
from txproxy.control import request as command
from txproxy.model_receiver import PingingReceiver, echo_ping, feed, retransmission_of, stamped, start_media, wait_bound
from txproxy.receiver import Sender, pump
from txproxy.waiting import wait_until

PAGE = pathlib.Path(__file__).resolve().parents[2] / "docs" / "security.md"
ALLOWED, STRANGER, ENCODER = netns.peer_address(0), "10.77.0.3", "10.77.0.4"
PING_PORT, REQUEST_PORT, INPUT_PORT, LOCK_PORT = "10000", "7020", "5000", "32124"


class Firewall:
    """nft in the proxy's namespace."""

    def __init__(self, namespace):
        self._namespace = namespace

    def run(self, *arguments, text=None):
        commands = ["ip", "netns", "exec", self._namespace.name, "nft", *arguments]
        result = subprocess.run(commands, input=text, capture_output=True, text=True, check=False)
        assert result.returncode == 0, f"{commands}: {result.stderr}\n{text}"
        return result.stdout

    def load_page(self, net):
        """The page's rules with this proxy's ports; the addresses stay the page's."""
        rules = re.search(r"^```nft\n(.*?)^```", PAGE.read_text(encoding="utf-8"), re.MULTILINE | re.DOTALL).group(1)
        here = {
            PING_PORT: net.destination,
            REQUEST_PORT: net.request,
            INPUT_PORT: net.input,
            LOCK_PORT: ports.lock_port(net.instance),
        }
        for port, used in here.items():
            assert re.search(rf"\b{port}\b", rules)
            rules = re.sub(rf"\b{port}\b", str(used), rules)
        self.run("-f", "-", text=rules)

    def change(self, verb, address, name="receivers"):
        """The page's command to let a receiver in or put it out, for `address` and the set `name`."""
        pattern = rf"^    nft ({verb} element inet tx_proxy) receivers {{ 192\.0\.2\.77 }}$"
        shown = re.search(pattern, PAGE.read_text(encoding="utf-8"), re.MULTILINE).group(1)
        self.run(*shown.split(), name, f"{{ {address} }}")

    def dropped(self):
        return int(re.search(r"counter packets (\d+)", self.run("list", "table", "inet", "tx_proxy")).group(1))


@pytest.fixture
def lan(make_lan):
    made = make_lan()
    for address in (STRANGER, ENCODER):
        made.peer.ip("addr", "add", f"{address}/24", "dev", "eth0")
    return made


@pytest.fixture
def proxy(start_proxy, net, lan):
    return wait_bound(start_proxy(namespace=lan.proxy), net.destination, net.request)


@pytest.fixture
def firewall(proxy, lan, net):
    made = Firewall(lan.proxy)
    made.load_page(net)
    made.change("add", ALLOWED)
    made.change("add", ENCODER, "encoders")
    return made


@pytest.fixture
def at(closing, lease, net, lan):
    """at(address) makes a receiver there."""
    return lambda address: closing(
        PingingReceiver(address, lease.port(), net, proxy_address=netns.proxy_address(0), namespace=lan.peer)
    )


@pytest.fixture
def encoder(closing, net, lan):
    return closing(Sender(netns.proxy_address(0), net.input, namespace=lan.peer, source=ENCODER))


def media(first, count=20):
    return [rtp.packet(first + i, b"good %06d" % (first + i)) for i in range(count)]


def test_without_the_rules_a_stranger_joins(proxy, net, at):
    start_media(proxy, at(STRANGER))
    assert command(net.instance, "List") == STRANGER


def test_an_allowed_receiver_joins_and_recovers(proxy, firewall, at, encoder):
    allowed = start_media(proxy, at(ALLOWED))
    feed(encoder, [allowed], media(100))
    first = allowed.payloads[7]
    allowed.ask([107])
    assert allowed.answers() == [retransmission_of(first)]
    assert firewall.dropped() == 0


def test_pings_requests_and_input_of_a_stranger_do_not_get_through(proxy, firewall, net, at, encoder, closing, lan):
    allowed, stranger = start_media(proxy, at(ALLOWED)), at(STRANGER)
    intruder = closing(Sender(netns.proxy_address(0), net.input, namespace=lan.peer, source=STRANGER))
    stranger.ping()
    stranger.ask([100])
    stranger.ask_raw(echo_ping())
    intruder.send(rtp.packet(1, b"of a stranger"))
    intruder.sock.sendto(b"lock", (netns.proxy_address(0), ports.lock_port(net.instance)))
    wait_until(lambda: firewall.dropped() == 5, lambda: f"five drops, not {firewall.dropped()}")
    # Whatever had got through would have been handled before these.
    pump(encoder, [allowed], media(100))
    received = [rtp.without_timestamp(data) for data in allowed.fence()]
    assert received == [rtp.without_timestamp(data) for data in media(100)]
    assert command(net.instance, "List") == ALLOWED
    assert not stranger.payloads


def test_a_receiver_that_is_added_to_the_set_gets_in_and_one_that_is_put_out_is_dropped(
    proxy, firewall, net, at, encoder
):
    late = at(STRANGER)
    late.ping()
    wait_until(lambda: firewall.dropped() == 1, "a drop")
    firewall.change("add", STRANGER)
    start_media(proxy, late)
    pump(encoder, [late], media(100))
    firewall.change("delete", STRANGER)
    late.ping()
    wait_until(lambda: firewall.dropped() == 2, "another drop")
    proxy.wait_stderr(stamped(f"Stream suspended for {STRANGER}"), timeout=60)
