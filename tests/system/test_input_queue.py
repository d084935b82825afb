"""The queue between the input and the sending thread."""

import contextlib
import fcntl
import os
import re

from txproxy import reports, rtp, traffic
from txproxy.proxy import LISTENING
from txproxy.waiting import wait_until

STDERR = 2
QUEUE_CAPACITY = 512
SHORT_PIPE_BYTES = 4096
# A broadcast address of loopback: nothing is sent there without leave, and each refusal is a line of log.
REFUSED_DESTINATION = "127.255.255.255"
REFUSED = re.compile(rb"SendData failed: Permission denied\n")
PATIENCE_SECONDS = 2.0


def is_taken(port):
    """Whether the proxy takes what has been sent to its input."""
    try:
        wait_until(lambda: traffic.unread_bytes(port) == 0, "the input", PATIENCE_SECONDS)
    except AssertionError:
        return False
    return True


def test_512_packets_wait_while_the_sending_thread_is_held(start_proxy, sender, net):
    log, log_end = os.pipe()
    fcntl.fcntl(log, fcntl.F_SETPIPE_SZ, SHORT_PIPE_BYTES)
    proxy = start_proxy("-a", REFUSED_DESTINATION, ready=False, preexec=lambda: os.dup2(log_end, STDERR))
    os.close(log_end)
    proxy.wait_stdout(LISTENING)
    wait_until(lambda: reports.rx_stat(net.instance) == (0, 0), "the control thread")

    # Nobody reads the log. When it is full the sending thread stands in a packet that it cannot complain of, and
    # the input thread goes on until it stands before the queue with a packet.
    sent = 0
    while is_taken(net.input):
        sender.send(rtp.packet(sent))
        sent += 1
    packets, loss = reports.rx_stat(net.instance)
    assert packets + QUEUE_CAPACITY + 1 == sent - 1
    assert loss == 0

    # With a reader everything that waited goes on, in order.
    os.set_blocking(log, False)
    text = b""

    def all_refused():
        nonlocal text
        with contextlib.suppress(BlockingIOError):
            text += os.read(log, 65536)
        return len(REFUSED.findall(text)) == sent

    wait_until(all_refused, "a complaint about each packet")
    os.close(log)
    wait_until(lambda: reports.rx_stat(net.instance) == (sent, 0), "all packets")
