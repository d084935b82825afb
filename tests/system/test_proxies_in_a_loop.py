"""Two proxies that a forged ping has set on each other, as docs/security.md warns."""

import pytest

from txproxy import instances, netns, rtp
from txproxy.control import request
from txproxy.model_receiver import PingingReceiver, stamped, start_media, wait_bound
from txproxy.receiver import Sender, udp_socket
from txproxy.traffic import Steady
from txproxy.waiting import wait_until

HERE, THERE = netns.proxy_address(0), netns.peer_address(0)
SILENT = "10.77.0.3"
PER_SECOND = 100


@pytest.fixture
def lan(make_lan):
    made = make_lan()
    made.peer.ip("addr", "add", f"{SILENT}/24", "dev", "eth0")
    return made


@pytest.fixture
def pair(launch, closing, lan):
    """Two proxies with a stream each, and where they are."""
    made = []
    for namespace in (lan.proxy, lan.peer):
        where = instances.reserve(closing)
        proxy = wait_bound(instances.start(launch, where, namespace=namespace), where.destination, where.request)
        sender = closing(Sender("127.0.0.1", where.input, namespace=namespace))
        closing(Steady(sender, lambda i: rtp.packet(i, bytes(100)), PER_SECOND))
        made.append((proxy, where))
    return made


def receivers(where):
    """The list of streams, which "List" does not send when it is empty."""
    return request(where.instance, "AllStats").partition("CLIENTS=")[2]


def forge_ping(lan, here, there):
    """A ping to the proxy here that comes from the ping port of the proxy there."""
    with udp_socket(THERE, there.destination, namespace=lan.peer) as forger:
        forger.sendto(b"", (HERE, here.destination))


def test_one_forged_ping_makes_two_proxies_keep_each_other_alive(pair, lan, closing, lease):
    (proxy, here), (_, there) = pair
    forge_ping(lan, here, there)
    wait_until(lambda: receivers(there) == HERE, "the proxy there to take media for pings")
    for round_number in (1, 2):
        # Silence ends a stream after 5 to 10 s: after two such times a stream that nobody pings is gone.
        silent = PingingReceiver(SILENT, lease.port(), here, proxy_address=HERE, namespace=lan.peer)
        start_media(proxy, closing(silent))
        proxy.wait_stderr(stamped(f"Stream suspended for {SILENT}"), timeout=60, count=round_number)
    assert receivers(here) == THERE
    assert receivers(there) == HERE
