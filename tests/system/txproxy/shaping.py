"""A slow cable: a destination behind it blocks whoever sends to it faster than the cable carries."""

import subprocess

from . import netns

SLOW_INTERFACE = 0
SLOW_PEER = netns.peer_address(SLOW_INTERFACE)
SLOW_PEER_LINK_ADDRESS = "02:00:0a:4d:00:02"
BURST_BYTES = 3000
# More than a socket's send buffer, so that it is the socket that fills up and nothing is dropped.
QUEUE_BYTES = 50_000_000


def _tc(namespace, *arguments):
    command = ["tc", "-n", namespace.name, *map(str, arguments)]
    result = subprocess.run(command, capture_output=True, text=True, check=False)
    assert result.returncode == 0, f"{command}: {result.stderr}"


class SlowCable:
    """The first cable of a netns.Lan, from the proxy's side to the peer's, carries `rate` until it is freed."""

    def __init__(self, lan, rate):
        self._namespace = lan.proxy
        self._device = f"eth{SLOW_INTERFACE}"
        # The question for the peer's link address would have to wait behind the media.
        lan.peer.ip("link", "set", self._device, "address", SLOW_PEER_LINK_ADDRESS)
        lan.proxy.ip(
            "neigh", "replace", SLOW_PEER, "lladdr", SLOW_PEER_LINK_ADDRESS, "dev", self._device, "nud", "permanent"
        )
        limits = ("rate", rate, "burst", BURST_BYTES, "limit", QUEUE_BYTES)
        _tc(self._namespace, "qdisc", "add", "dev", self._device, "root", "tbf", *limits)

    def free(self):
        """Carries everything at once from now on; what was queued is lost."""
        _tc(self._namespace, "qdisc", "del", "dev", self._device, "root")
