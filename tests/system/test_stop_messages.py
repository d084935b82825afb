"""The pace of the messages that tell a deleted receiver to stop."""

import socket
import struct
import time

import pytest

from txproxy import control
from txproxy.model_receiver import STOP_MESSAGE
from txproxy.receiver import udp_socket
from txproxy.waiting import DEFAULT_TIMEOUT, scaled, wait_until

RECEIVER = "127.0.0.5"
SO_TIMESTAMPNS = 35  # the kernel's own time of arrival comes with each datagram
STOP_MESSAGES = 5
GAP_SECONDS = 0.020
CLOCK_STEP_SECONDS = 0.002  # how far the wall clock may be set back meanwhile


def arrival(sock):
    """The next datagram and when it arrived."""
    data, ancillary, _, _ = sock.recvmsg(2048, 64)
    seconds, nanoseconds = struct.unpack("qq", ancillary[0][2])
    return data, seconds + nanoseconds / 1e9


def wait_for_stamps(sock):
    """The kernel begins to stamp arrivals a while after it was asked to; until then it stamps what is read."""

    def is_stamped_on_arrival():
        sock.sendto(b"probe", sock.getsockname())
        before_reading = time.time()
        return arrival(sock)[1] < before_reading

    wait_until(is_stamped_on_arrival, "stamps of arrival")


@pytest.fixture
def stop_gaps(start_proxy, net):
    """stop_gaps() deletes the receiver, takes its stop messages and adds it again; the gaps of their arrival."""
    start_proxy("-a", RECEIVER)
    with udp_socket(RECEIVER, net.destination) as sock:
        sock.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
        sock.settimeout(scaled(DEFAULT_TIMEOUT))
        wait_for_stamps(sock)

        def once():
            control.request(net.instance, f"Delete {RECEIVER}")
            messages = [arrival(sock) for _ in range(STOP_MESSAGES)]
            assert [data for data, _ in messages] == [STOP_MESSAGE] * STOP_MESSAGES
            control.request(net.instance, f"Add {RECEIVER}")
            times = [arrived for _, arrived in messages]
            return [later - earlier for earlier, later in zip(times, times[1:])]

        yield once


def test_the_5_stop_messages_of_a_delete_are_20_ms_apart_each_and_no_more(stop_gaps):
    gaps = []

    def has_a_gap_of_20_ms():
        gaps.extend(stop_gaps())
        # A busy machine makes gaps longer, but not every one of them, and none shorter.
        return min(gaps) < 1.5 * GAP_SECONDS

    wait_until(has_a_gap_of_20_ms, lambda: f"a gap of {GAP_SECONDS} s; all gaps: {gaps}")
    assert min(gaps) >= GAP_SECONDS - CLOCK_STEP_SECONDS, gaps
