"""An interface goes down and comes up again, on the proxy's side or the receiver's, under a stream."""

import errno

import pytest

from txproxy import control, netns, receiver, reports
from txproxy.model_receiver import wait_bound
from txproxy.receiver import Receiver, Sender
from txproxy.send_faults import Stream, check_whole, complaint, lines_of_sends, wait_last, wait_more
from txproxy.waiting import Lateness, scaled, wait_until

DOWN = netns.peer_address(0)
OTHER = netns.peer_address(1)
GROUP = "239.1.1.1"
LONGEST_GAP_SECONDS = 0.1
TURN_SECONDS = 0.001
MEDIA_AGAIN_SECONDS = 2.0  # the link and the receiver's link address have to be found again
OBSERVED_PACKETS = 250


@pytest.fixture
def lan(make_lan):
    return make_lan(2)


@pytest.fixture
def behind(lan, net, closing):
    """behind(address) is a receiver in the peer namespace."""
    return lambda address: closing(Receiver(address, net.destination, namespace=lan.peer))


def set_link(namespace, state):
    namespace.ip("link", "set", "eth0", state)


def wait_media_again(faulty, up):
    """`up()` ends the fault; the stream comes on without anything else being done."""
    faulty.clear()
    up()
    faulty.wait_count(OBSERVED_PACKETS, timeout=MEDIA_AGAIN_SECONDS + 15)


def check_others(stream, other, lateness, record_property):
    wait_last(stream, other)
    gap = check_whole(other, stream.sent)
    record_property("longest gap of the other receiver in ms", round(1000 * gap))
    print(f"longest gap of the other receiver {1000 * gap:.0f} ms, of {stream.sent} packets none is missing")
    assert gap < scaled(LONGEST_GAP_SECONDS) + lateness.allowed()


@pytest.mark.parametrize("options", [(), ("-n", 1)], ids=["routed", "bound_to_it"])
def test_an_interface_down_is_complained_of_costs_others_nothing_and_its_receiver_has_media_when_it_is_up(
    options, lan, behind, start_proxy, net, closing, record_property
):
    faulty, other = behind(DOWN), behind(OTHER)
    proxy = wait_bound(start_proxy("-a", DOWN, *options, namespace=lan.proxy), net.destination, net.request)
    # What is added by a command is not bound to an interface.
    assert control.request(net.instance, f"Add {OTHER}") == f"OK: Adding: {OTHER}"
    lateness = closing(Lateness(TURN_SECONDS))
    stream = closing(Stream(closing(Sender("127.0.0.1", net.input, namespace=lan.proxy))))
    wait_more(faulty)
    set_link(lan.proxy, "down")
    proxy.wait_stderr(complaint(errno.ENETUNREACH))
    wait_more(other, OBSERVED_PACKETS)
    # Each of them had a line before it was sent to the other one.
    proxy.wait_stderr(complaint(errno.ENETUNREACH), count=OBSERVED_PACKETS)
    wait_media_again(faulty, lambda: set_link(lan.proxy, "up"))
    check_others(stream, other, lateness, record_property)
    assert lines_of_sends(proxy) == {complaint(errno.ENETUNREACH)}


def test_a_receivers_own_interface_down_is_sent_to_in_silence_and_costs_others_nothing(
    lan, behind, start_proxy, net, closing, record_property
):
    faulty, other = behind(DOWN), behind(OTHER)
    proxy = wait_bound(start_proxy("-a", f"{DOWN},{OTHER}", namespace=lan.proxy), net.destination, net.request)
    lateness = closing(Lateness(TURN_SECONDS))
    stream = closing(Stream(closing(Sender("127.0.0.1", net.input, namespace=lan.proxy))))
    wait_more(faulty)
    set_link(lan.peer, "down")
    wait_more(other)
    wait_more(other)
    wait_media_again(faulty, lambda: set_link(lan.peer, "up"))
    check_others(stream, other, lateness, record_property)
    assert lines_of_sends(proxy) == set()


def join_group(lan, net, closing):
    sock = receiver.udp_socket(GROUP, net.destination, namespace=lan.peer)
    receiver.join(sock, GROUP, netns.peer_address(0))
    return closing(Receiver(sock=sock))


def test_a_group_has_media_again_when_its_interface_is_up_and_its_route_is_back(
    lan, lease, start_proxy, net, closing
):
    group = join_group(lan, net, closing)
    proxy = start_proxy("-b", lease.port(), "-a", GROUP, namespace=lan.proxy)
    stream = closing(Stream(closing(Sender("127.0.0.1", net.input, namespace=lan.proxy))))
    wait_more(group)
    set_link(lan.proxy, "down")
    wait_until(lambda: lines_of_sends(proxy), "a complaint")

    def up():
        set_link(lan.proxy, "up")
        # The system forgets this route with the link; whoever set it up sets it up again.
        lan.proxy.ip("route", "add", "224.0.0.0/4", "dev", "eth0")

    wait_media_again(group, up)
    stream.close()
    assert lines_of_sends(proxy) == {complaint(errno.ENETUNREACH)}


def test_input_from_a_group_goes_on_when_the_interface_that_it_comes_by_is_up_again(
    lan, behind, start_proxy, net, closing
):
    other = behind(OTHER)
    proxy = start_proxy("-a", OTHER, group=GROUP, namespace=lan.proxy)
    sender = Sender(GROUP, net.input, namespace=lan.peer, multicast_interface=netns.peer_address(0))
    stream = closing(Stream(closing(sender)))
    wait_more(other)
    set_link(lan.proxy, "down")
    before = stream.sent
    wait_until(lambda: stream.sent > before + OBSERVED_PACKETS, "media that nobody gets")
    wait_media_again(other, lambda: set_link(lan.proxy, "up"))
    wait_last(stream, other)
    packets, loss = reports.rx_stat(net.instance)
    assert loss > 0
    assert packets + loss == stream.sent
    assert lines_of_sends(proxy) == set()
