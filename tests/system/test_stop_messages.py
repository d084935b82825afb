"""The pace of the messages that tell a deleted receiver to stop."""

import socket
import struct
import time

from txproxy import control
from txproxy.model_receiver import STOP_MESSAGE
from txproxy.receiver import udp_socket
from txproxy.waiting import DEFAULT_TIMEOUT, scaled, wait_until

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


def test_the_5_stop_messages_of_a_delete_are_20_ms_apart_each(start_proxy, net):
    start_proxy("-a", "127.0.0.5")
    with udp_socket("127.0.0.5", net.destination) as sock:
        sock.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
        sock.settimeout(scaled(DEFAULT_TIMEOUT))
        wait_for_stamps(sock)
        control.request(net.instance, "Delete 127.0.0.5")
        messages = [arrival(sock) for _ in range(STOP_MESSAGES)]
    assert [data for data, _ in messages] == [STOP_MESSAGE] * STOP_MESSAGES
    times = [arrived for _, arrived in messages]
    gaps = [later - earlier for earlier, later in zip(times, times[1:])]
    assert min(gaps) >= GAP_SECONDS - CLOCK_STEP_SECONDS, gaps
