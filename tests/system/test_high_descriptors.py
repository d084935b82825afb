"""A proxy that inherits so many descriptors that its own have numbers above 1023."""

import os
import shlex
import sys

import pytest

from txproxy import control, rtp
from txproxy.model_receiver import echo_ping, retransmission_of, start_media, wait_bound
from txproxy.process import descriptors
from txproxy.proxy import binary
from txproxy.receiver import pump

INHERITED = 1100
LIMIT = 4096
FIRST_HIGH = 1024

# Opens descriptors that survive the exec, and becomes the proxy.
SCRIPT = """#!{python}
import os, resource, sys
soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
resource.setrlimit(resource.RLIMIT_NOFILE, ({limit}, max(hard, {limit})))
for _ in range({inherited}):
    os.set_inheritable(os.open("/dev/null", os.O_RDONLY), True)
os.execv({binary!r}, sys.argv)
"""


@pytest.fixture
def start_high(start_proxy, tmp_path, monkeypatch, net):
    """start_high(*options) runs the proxy with all its sockets above 1023."""
    script = tmp_path / "with_many_descriptors"
    text = SCRIPT.format(python=sys.executable, limit=LIMIT, inherited=INHERITED, binary=binary())
    script.write_text(text, encoding="utf-8")
    script.chmod(0o755)

    def start(*options):
        with monkeypatch.context() as patch:
            patch.setenv("TX_PROXY_BIN", shlex.quote(str(script)))
            proxy = wait_bound(start_proxy(*options), net.destination, net.request)
        sockets = [
            number
            for number in descriptors(proxy.pid)
            if number > 2 and os.readlink(f"/proc/{proxy.pid}/fd/{number}").startswith("socket:")
        ]
        assert len(sockets) >= 4 and sockets[0] >= FIRST_HIGH
        return proxy

    return start


def media(count, first=100):
    return [rtp.packet(first + i, b"payload %d" % i) for i in range(count)]


def test_a_receiver_that_pings_a_high_descriptor_joins_and_is_served(start_high, learn, sender, net):
    receiver = start_media(start_high(), learn(stream_id=7))
    pump(sender, [receiver], media(5))
    assert {datagram.source[1] for datagram in receiver.datagrams} == {net.destination}
    receiver.stop()


def test_a_high_request_port_echoes_pings_and_sends_again_what_is_asked_for(start_high, learn, sender):
    receiver = start_media(start_high(), learn())
    receiver.ask_raw(echo_ping(b"data"))
    receiver.wait_for(lambda datagram: datagram.data == echo_ping(b"data"))
    receiver.clear()
    pump(sender, [receiver], media(5))
    receiver.ask([102])
    first = receiver.payloads[2]
    assert receiver.answers() == [retransmission_of(first)]


def test_control_commands_reach_a_high_control_socket(start_high, receive, sender, net):
    start_high()
    assert control.request(net.instance, "Add 127.0.0.5") == "OK: Adding: 127.0.0.5"
    assert control.request(net.instance, "List") == "127.0.0.5"
    pump(sender, [receive("127.0.0.5")], media(3))
    assert control.request(net.instance, "Delete 127.0.0.5") == "OK: Deleting: 127.0.0.5"
    # A client that stays connected is waited for too.
    with control.ControlClient(net.instance) as client:
        assert client.request("StatClear") == "OK: Stat Reset"
        assert client.request("RxStat") == "NET_TOTAL_PACKETS=0\nNET_LOSS=0\n"
