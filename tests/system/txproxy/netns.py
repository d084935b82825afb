"""Network namespaces of a test's own: the proxy runs in one, and the test opens sockets in it or in a peer.

A Lan is a proxy namespace whose interfaces eth0, eth1, ... are each wired to an interface of the same name
in a peer namespace: 10.77.<i>.1 on the proxy's side and 10.77.<i>.2 on the peer's.
"""

import ctypes
import itertools
import os
import subprocess
import threading

from .waiting import wait_until

CLONE_NEWNET = 0x40000000

_libc = ctypes.CDLL(None, use_errno=True)
_serial = itertools.count()


def ip(*arguments):
    result = subprocess.run(["ip", *map(str, arguments)], capture_output=True, text=True, check=False)
    assert result.returncode == 0, f"ip {arguments}: {result.stderr}"
    return result.stdout


def carries(interface):
    """Of a line of ip -o link."""
    return "LOOPBACK" in interface or (" state UP " in interface and " qdisc noop " not in interface)


class Namespace:
    """One namespace with its loopback interface up."""

    def __init__(self):
        self.name = f"txp{os.getpid()}n{next(_serial)}"
        ip("netns", "add", self.name)
        self.ip("link", "set", "lo", "up")

    def ip(self, *arguments):
        return ip("-n", self.name, *arguments)

    def wait_cables(self):
        """Waits until what was set up carries packets. The kernel notices a cable's other end a moment later, up to
        seconds on a busy machine, and until then drops in silence whatever is sent."""
        wait_until(lambda: all(map(carries, self.ip("-o", "link", "show", "up").splitlines())), "the cables of a host")

    def call(self, function):
        """Runs function() inside the namespace; sockets that it opens stay there."""
        outcome = []

        def inside():
            try:
                with open(f"/run/netns/{self.name}", "rb") as handle:
                    if _libc.setns(handle.fileno(), CLONE_NEWNET) != 0:
                        raise OSError(ctypes.get_errno(), "setns")
                outcome.extend((True, function()))
            except BaseException as error:  # pylint: disable=broad-except
                outcome.extend((False, error))

        # Only this thread changes its namespace, and it ends afterwards.
        thread = threading.Thread(target=inside)
        thread.start()
        thread.join()
        succeeded, value = outcome
        if not succeeded:
            raise value
        return value

    def close(self):
        ip("netns", "del", self.name)


def proxy_address(interface):
    return f"10.77.{interface}.1"


def peer_address(interface):
    return f"10.77.{interface}.2"


class Lan:
    """Two namespaces joined by `interfaces` cables. Multicast leaves the proxy's side on eth0."""

    def __init__(self, interfaces=1):
        self.proxy = Namespace()
        self.peer = Namespace()
        for i in range(interfaces):
            self.proxy.ip("link", "add", f"eth{i}", "type", "veth", "peer", "name", f"eth{i}", "netns", self.peer.name)
            for side, address in ((self.proxy, proxy_address(i)), (self.peer, peer_address(i))):
                side.ip("addr", "add", f"{address}/24", "dev", f"eth{i}")
                side.ip("link", "set", f"eth{i}", "up")
        self.proxy.wait_cables()
        self.peer.wait_cables()
        self.proxy.ip("route", "add", "224.0.0.0/4", "dev", "eth0")
        self.peer.ip("route", "add", "224.0.0.0/4", "dev", "eth0")

    def close(self):
        self.proxy.close()
        self.peer.close()
