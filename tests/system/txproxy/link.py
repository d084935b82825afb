"""A bad line between receivers and a proxy, or between a source and a proxy: the program arqlink as a process."""

import json
import os
import pathlib
import signal
import subprocess

from .model_receiver import raw_port, stamped
from .process import thread_state
from .proxy import SANITIZER_REPORT, Output, binary, build_kind
from .waiting import DEFAULT_TIMEOUT, scaled, wait_until

DONE, TROUBLE, USAGE = 0, 1, 2  # exit statuses


def program():
    """It stands beside the proxy."""
    return str(pathlib.Path(binary()).parent / "arqlink")


def run(*arguments, timeout=DEFAULT_TIMEOUT, **keywords):
    """Runs it to its own end; returns (status, standard output, standard error)."""
    command = [program(), *map(str, arguments)]
    done = subprocess.run(command, capture_output=True, timeout=scaled(timeout), text=True, check=False, **keywords)
    assert not SANITIZER_REPORT.search(done.stderr), done.stderr
    return done.returncode, done.stdout, done.stderr


def started_media(proxy, line, stream_id=0):
    """The proxy's line that tells of media to the line's first client; none as long as it has taken no ping."""
    clients = line.events("client")
    if not clients:
        return []
    host, _, port = clients[0]["upstream"].rpartition(":")
    return proxy.stderr.find(
        stamped(f"Media started on port {raw_port(int(port))} for {host} ID:0x{stream_id:08x}")
    )


class Link:
    """A running arqlink. `targets` are (host, port); `options` are as on its command line, without pairs.

    It listens on ports that the system chooses, `listen` (host, port) in the order of the targets. `objects` are the
    JSON objects that it has printed so far. End it with stop(), which returns the last of them, or let close() do it.
    """

    def __init__(self, targets, *options, address="127.0.0.1", namespace=None, interval="100ms"):
        command = [program(), "--json", "--interval", interval, *map(str, options)]
        command += [f"{address}:0={host}:{port}" for host, port in targets]
        if namespace:
            command = ["ip", "netns", "exec", namespace.name, *command]
        self.process = subprocess.Popen(
            command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, bufsize=0, env=os.environ
        )
        self._stdout = Output("standard output", self.process.stdout)
        self._stderr = Output("standard error", self.process.stderr)
        self.listen = []
        for pair in self.wait(lambda: self.events("ready"), "arqlink to be ready")[0]["pairs"]:
            host, _, port = pair["listen"].rpartition(":")
            self.listen.append((host, int(port)))

    @property
    def objects(self):
        return [json.loads(line) for line in self._stdout.lines]

    def events(self, name):
        """The objects of this kind: "ready", "client", "changed", "figures", ... see docs/arqlink.md."""
        return [thing for thing in self.objects if thing.get("event") == name]

    @property
    def error_text(self):
        return self._stderr.text

    def figures(self):
        """What it has done so far, as it printed it last: "down", "up", "clients", ...; None at first."""
        return next((thing for thing in reversed(self.objects) if thing.get("event") in ("figures", "final")), None)

    def wait(self, condition, what, timeout=DEFAULT_TIMEOUT):
        """Returns the first true value of condition()."""

        def holds():
            alive = self.process.poll() is None
            value = condition()
            assert value or alive, f"arqlink ended, status {self.process.returncode}: {self.error_text}"
            return value

        return wait_until(holds, what, timeout)

    def wait_figures(self, condition, what, timeout=DEFAULT_TIMEOUT):
        """Returns the first figures for which condition(figures) holds."""

        def holds():
            figures = self.figures()
            return figures if figures and condition(figures) else None

        return self.wait(holds, lambda: f"{what}; the last figures are {self.figures()}", timeout)

    def wait_end(self, timeout=DEFAULT_TIMEOUT, expected=DONE):
        """Waits for an end of its own (--duration, a script) with this status; returns its last object."""
        status = self.process.wait(scaled(timeout))
        self._stdout.finish()
        self._stderr.finish()
        assert not SANITIZER_REPORT.search(self.error_text), self.error_text
        assert status == expected, f"status {status}: {self.error_text}"
        return self.objects[-1]

    def stop(self, number=signal.SIGTERM):
        """Ends it as an operator would; returns its last object."""
        if self.process.poll() is None:
            if build_kind() == "asan":
                wait_until(lambda: thread_state(self.process.pid, self.process.pid) in "SZ", "an idle moment")
            self.process.send_signal(number)
        return self.wait_end()

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self._stdout.finish()
        self._stderr.finish()
