"""Where fifty receivers stand: all on the proxy's machine, behind two cables, or in a multicast group."""

from . import netns, receiver

RECEIVERS = 50
GROUP = "239.1.1.1"


class OneMachine:
    """All receivers on addresses of the loopback interface."""

    group = None
    proxy_address = "127.0.0.1"

    def __init__(self):
        self.namespace = self.outside = netns.Namespace()
        self.addresses = [f"127.0.0.{2 + i}" for i in range(RECEIVERS)]
        self.ways = {"": None}  # the interfaces that datagrams come by

    def listen(self, address, port):
        return {way: receiver.udp_socket(address, port, self.outside, device=self.ways[way]) for way in self.ways}

    def close(self):
        self.namespace.close()


class Cabled(OneMachine):
    """All receivers on one machine that cables lead to; how datagrams get there is up to the derived class."""

    proxy_address = netns.proxy_address(0)
    NETWORK = "10.99.0.0/24"

    def __init__(self, cables, ways):
        self._lan = netns.Lan(cables)
        self.namespace, self.outside = self._lan.proxy, self._lan.peer
        self.addresses = [f"10.99.0.{1 + i}" for i in range(RECEIVERS)]
        self.ways = ways
        self.outside.ip("route", "add", "local", self.NETWORK, "dev", "lo")

    def close(self):
        self._lan.close()


class TwoCables(Cabled):
    """Behind two cables, whichever a datagram takes."""

    def __init__(self):
        super().__init__(2, {"eth0": "eth0", "eth1": "eth1"})
        for i in range(2):
            way = ("via", netns.peer_address(i), "dev", f"eth{i}", "metric", 10 + i)
            self.namespace.ip("route", "add", self.NETWORK, *way)


class OneCable(Cabled):
    """Behind one cable."""

    def __init__(self):
        super().__init__(1, {"": None})
        self.route()

    def route(self, *how):
        self.namespace.ip("route", "replace", self.NETWORK, "via", netns.peer_address(0), *how)


class Group(OneMachine):
    """All receivers in one multicast group."""

    group = GROUP

    def __init__(self):
        super().__init__()
        self.namespace.ip("link", "set", "lo", "multicast", "on")
        self.namespace.ip("route", "add", "224.0.0.0/4", "dev", "lo")

    def join(self, port):
        sock = receiver.udp_socket(GROUP, port, self.outside)
        receiver.join(sock, GROUP, "127.0.0.1")
        return {"": sock}
