"""The queue between the input and the sending thread."""

import contextlib
import fcntl
import os
import re
import time

from txproxy import preload, reports, rtp, traffic
from txproxy.proxy import LISTENING
from txproxy.waiting import wait_until

STDERR = 2
QUEUE_CAPACITY = 512
SHORT_PIPE_BYTES = 4096
# A broadcast address of loopback: nothing is sent there without leave, and each refusal is a line of log.
REFUSED_DESTINATION = "127.255.255.255"
REFUSED = re.compile(rb"SendData failed: Permission denied\n")
OBSERVED_SECONDS = 0.3


class Feeder:
    """Sends packets, one after the proxy has taken the other, until it takes no more."""

    def __init__(self, sender, net):
        self._sender = sender
        self._net = net
        self.sent = 0

    def is_taken(self):
        return traffic.unread_bytes(self._net.input) == 0

    def is_full(self):
        """The queue is, the input thread holds a packet, and one more stands before it and is left there."""
        held = self.sent - reports.rx_stat(self._net.instance)[0]
        if held != QUEUE_CAPACITY + 2:
            return False
        observed_until = time.monotonic() + OBSERVED_SECONDS
        wait_until(lambda: self.is_taken() or time.monotonic() > observed_until, "the time of observation")
        return not self.is_taken()

    def feed(self):
        while True:
            self._sender.send(rtp.packet(self.sent))
            self.sent += 1
            wait_until(lambda: self.is_taken() or self.is_full(), f"packet {self.sent} to be taken or left")
            if not self.is_taken():
                return


def test_512_packets_wait_while_the_sending_thread_is_held(start_proxy, sender, net, tmp_path):
    log, log_end = os.pipe()
    fcntl.fcntl(log, fcntl.F_SETPIPE_SZ, SHORT_PIPE_BYTES)
    # Without the log thread: whoever prints waits for the reader.
    env = preload.environment(tmp_path, "direct_log")
    proxy = start_proxy(
        "-a", REFUSED_DESTINATION, ready=False, env=env, preexec=lambda: os.dup2(log_end, STDERR)
    )
    os.close(log_end)
    proxy.wait_stdout(LISTENING)
    wait_until(lambda: reports.rx_stat(net.instance) == (0, 0), "the control thread")

    # Nobody reads the log. When it is full the sending thread stands in a packet that it cannot complain of, and
    # the input thread goes on until it stands before the queue with a packet.
    feeder = Feeder(sender, net)
    feeder.feed()
    sent = feeder.sent
    assert reports.rx_stat(net.instance) == (sent - QUEUE_CAPACITY - 2, 0)

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
