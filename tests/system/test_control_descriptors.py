"""A control client that comes when the proxy has no free descriptor."""

import os
import resource
import time

from txproxy.control import ControlClient, request

TICKS_PER_SECOND = os.sysconf("SC_CLK_TCK")
OBSERVED_SECONDS = 2.0


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
        fields = stat.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / TICKS_PER_SECOND


def test_a_client_that_cannot_be_accepted_waits_and_costs_nothing_meanwhile(start_proxy, net):
    proxy = start_proxy()
    proxy.wait_stderr(f"SocketListener: sock bound to port {net.destination}")
    assert request(net.instance, "TxStatClear") == "OK: Tx Stat Reset"  # every socket is open now
    used = 1 + max(int(name) for name in os.listdir(f"/proc/{proxy.pid}/fd"))
    _, hard = resource.prlimit(proxy.pid, resource.RLIMIT_NOFILE)
    before = resource.prlimit(proxy.pid, resource.RLIMIT_NOFILE, (used, hard))
    with ControlClient(net.instance) as client:
        client.send("StatClear")
        started = cpu_seconds(proxy.pid)
        time.sleep(OBSERVED_SECONDS)  # a span to look at, not a wait
        assert cpu_seconds(proxy.pid) - started < OBSERVED_SECONDS / 4
        resource.prlimit(proxy.pid, resource.RLIMIT_NOFILE, before)
        assert client.receive() == "OK: Stat Reset"
