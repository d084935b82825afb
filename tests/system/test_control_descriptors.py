"""A control client that comes when the proxy has no free descriptor."""

import resource
import time

from txproxy.control import ControlClient, request
from txproxy.process import cpu_seconds, descriptors

OBSERVED_SECONDS = 2.0


def test_a_client_that_cannot_be_accepted_waits_and_costs_nothing_meanwhile(start_proxy, net):
    proxy = start_proxy()
    proxy.wait_stderr(f"SocketListener: sock bound to port {net.destination}")
    assert request(net.instance, "TxStatClear") == "OK: Tx Stat Reset"  # every socket is open now
    used = 1 + max(descriptors(proxy.pid))
    _, hard = resource.prlimit(proxy.pid, resource.RLIMIT_NOFILE)
    before = resource.prlimit(proxy.pid, resource.RLIMIT_NOFILE, (used, hard))
    with ControlClient(net.instance) as client:
        client.send("StatClear")
        started = cpu_seconds(proxy.pid)
        time.sleep(OBSERVED_SECONDS)  # a span to look at, not a wait
        assert cpu_seconds(proxy.pid) - started < OBSERVED_SECONDS / 4
        resource.prlimit(proxy.pid, resource.RLIMIT_NOFILE, before)
        assert client.receive() == "OK: Stat Reset"
