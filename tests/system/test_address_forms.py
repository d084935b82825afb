"""Forms of addresses that the system's parser takes, though they look odd."""

import pytest

from txproxy import control, rtp
from txproxy.model_receiver import stamped
from txproxy.receiver import pump

ADDRESS = "127.0.0.5"
# A blank ends what the system's parser looks at; the fields are read one by one.
FORMS = ["127.0.0 .5", "127.0 .0.5", "127 .0.0.5", "127.0.0\t.5"]


def media(count):
    return [rtp.packet(100 + i, b"payload %d" % i) for i in range(count)]


@pytest.mark.parametrize("text", FORMS)
def test_a_destination_with_a_blank_inside_its_address_is_a_stream(start_proxy, receive, sender, net, text):
    proxy = start_proxy("-a", f"127.0.0.2,{text}")
    proxy.wait_stderr(stamped(f"AddStream: Added {ADDRESS} stream ID:0x00000000"))
    assert control.request(net.instance, "List") == f"127.0.0.2,{ADDRESS}"
    pump(sender, [receive("127.0.0.2"), receive(ADDRESS)], media(3))
    assert "unknown host" not in proxy.stderr.text


def test_the_commands_add_and_delete_take_an_address_with_a_tab_inside(start_proxy, receive, sender, net):
    # A blank would end the argument; a tab is a part of it.
    proxy = start_proxy("-a", "127.0.0.2")
    assert control.request(net.instance, "Add 127.0.0\t.5") == "OK: Adding: 127.0.0\t.5"
    assert control.request(net.instance, "List") == f"127.0.0.2,{ADDRESS}"
    pump(sender, [receive("127.0.0.2"), receive(ADDRESS)], media(3))
    assert control.request(net.instance, "Delete 127.0.0\t.5") == "OK: Deleting: 127.0.0\t.5"
    assert control.request(net.instance, "List") == "127.0.0.2"
    assert "unknown host" not in proxy.stderr.text
