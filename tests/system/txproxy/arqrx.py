"""The receiver program beside the proxy: its command line, its figures as it prints them, its end."""

import json
import pathlib
import re
import signal
import time

from .model_receiver import STAMP
from .proxy import Proxy, binary
from .waiting import DEFAULT_TIMEOUT, scaled, wait_until

GOOD, LOSS, USAGE, NO_MEDIA, NO_START, OUTPUT_FAILED = range(6)  # exit statuses
ID = 0x51
LOCAL = "127.0.0.2"  # from where it speaks to a proxy on loopback
TEST_INTERVAL = "100ms"


def program():
    return str(pathlib.Path(binary()).parent / "arqrx")


class Arqrx(Proxy):
    """A running arqrx, with exactly these arguments."""

    def __init__(self, *arguments, **keywords):
        super().__init__(*arguments, program=program(), **keywords)
        self._figures_on = self.stderr if "-" in self.arguments else self.stdout

    @property
    def objects(self):
        """The JSON objects it has printed so far."""
        return [json.loads(line) for line in self._figures_on.lines if line.startswith("{")]

    def figures(self):
        return self.objects[-1] if self.objects else {}

    def wait_figures(self, condition, what, timeout=DEFAULT_TIMEOUT):
        """Returns the first figures for which condition(figures) holds."""

        def holds():
            was_alive = self.is_alive()
            figures = self.figures()
            if figures and condition(figures):
                return figures
            assert was_alive, f"arqrx ended, status {self.process.returncode}, while waiting for {what}:\n{self.stderr.text}"
            return None

        return wait_until(holds, lambda: f"{what}; the last figures are {self.figures()}\n{self.stderr.text}", timeout)

    def wait_ready(self):
        """It has printed figures: its sockets and outputs are open."""
        self.wait_figures(lambda figures: "run_s" in figures, "arqrx to be ready")
        return self

    def wait_played(self, count, timeout=DEFAULT_TIMEOUT):
        return self.wait_figures(lambda figures: figures["packets_played"] >= count, f"{count} packets to be played", timeout)

    def end(self, with_signal=signal.SIGTERM):
        """Ends it as an operator does; returns its exit status."""
        self.process.send_signal(with_signal)
        return self.wait_exit()

    def close(self):
        self.kill()
        if not self.ended:
            self._finish_output()


def run(*arguments, **keywords):
    """Runs it to its own end; returns (status, standard output, standard error)."""
    arqrx = Arqrx(*arguments, **keywords)
    try:
        status = arqrx.wait_exit()
    finally:
        arqrx.kill()
    return status, arqrx.stdout.text, arqrx.stderr.text


def joining(net, *options, host="127.0.0.1", interval=TEST_INTERVAL, stream_id=hex(ID)):
    """The arguments of one that joins the proxy of `net` and prints JSON."""
    return [f"{host}:{net.destination}", "--request-port", net.request, "--id", stream_id, "--json", "--interval", interval,
            *options]  # fmt: skip


def started(address=LOCAL, stream_id=ID):
    """The proxy's line when it begins to send to the receiver."""
    return re.compile(STAMP + rf"Media started on port \d+ for {re.escape(address)} ID:0x{stream_id:08x}")


def left(address=LOCAL, stream_id=ID):
    """The proxy's line when a receiver has left, or was deleted."""
    return re.compile(STAMP + rf"Stream stopped for {re.escape(address)} ID:0x{stream_id:08x}")


def send_evenly(sender, datagrams, per_second):
    """Sends them at this rate, or as fast as it can when the machine is too slow for it."""
    began = time.monotonic()
    for index, data in enumerate(datagrams):
        time.sleep(max(0.0, began + index / per_second - time.monotonic()))
        sender.send(data)


def patient():
    """A latency with which nothing that can be had again is lost, also where the machine lets programs wait for a second."""
    return f"{max(3.0, scaled(1)):g}s"


def seconds(text_seconds):
    """A time option that is longer on slow builds."""
    return f"{scaled(text_seconds):g}s"
