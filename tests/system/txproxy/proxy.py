"""One tx_proxy process: its command line, its output line by line, its end."""

import os
import pathlib
import re
import signal
import subprocess
import threading

from .process import thread_state, threads
from .waiting import DEFAULT_TIMEOUT, scaled, wait_until

LISTENING = re.compile(r"Listening on port \d+ for incoming stream")
RECEIVE_BUFFER_SET = re.compile(r"New Rx bufferSize = \d+")
SANITIZER_REPORT = re.compile(r"ERROR: \w*Sanitizer|WARNING: ThreadSanitizer|runtime error:|SUMMARY: \w*Sanitizer")


def binary():
    path = os.environ.get("TX_PROXY_BIN")
    if not path:
        raise RuntimeError("TX_PROXY_BIN must name the tx_proxy binary")
    return str(pathlib.Path(path).resolve())


def plain_binary():
    """The same program without trains and connected sockets: each datagram leaves by a call of its own."""
    return f"{binary()}_plain"


def build_kind():
    return os.environ.get("TX_PROXY_BUILD_KIND", "")


def matches(wanted, line):
    """A text must be the whole line; a compiled pattern must match the whole line."""
    return bool(wanted.fullmatch(line)) if isinstance(wanted, re.Pattern) else wanted == line


class Output:
    """One captured output stream. A thread collects it, so that the process never waits for us."""

    def __init__(self, name, pipe):
        self.name = name
        self._pipe = pipe
        self._bytes = bytearray()
        self._lock = threading.Lock()
        self._thread = threading.Thread(target=self._collect, daemon=True)
        self._thread.start()

    def _collect(self):
        with self._pipe:
            while chunk := os.read(self._pipe.fileno(), 65536):
                with self._lock:
                    self._bytes += chunk

    @property
    def text(self):
        """Everything written so far, a part of a line at the end included."""
        with self._lock:
            return self._bytes.decode("utf-8", "replace")

    @property
    def lines(self):
        """The complete lines so far, without their line ends."""
        return self.text.split("\n")[:-1]

    def find(self, wanted):
        return [line for line in self.lines if matches(wanted, line)]

    def wait(self, wanted, timeout=DEFAULT_TIMEOUT, count=1, alive=lambda: True):
        """Waits until `count` whole lines are `wanted` (text or pattern); returns the last of these."""

        def enough():
            was_alive = alive()
            found = self.find(wanted)
            if len(found) < count and not was_alive:
                raise AssertionError(f"the process ended without {wanted!r} on {self.name}:\n{self.text}")
            return len(found) >= count

        wait_until(enough, lambda: f"{count} x {wanted!r} on {self.name}; it holds:\n{self.text}", timeout)
        return self.find(wanted)[count - 1]

    def finish(self):
        self._thread.join(scaled(DEFAULT_TIMEOUT))
        assert not self._thread.is_alive(), f"{self.name} was not closed"


class Proxy:
    """A started process.

    `namespace` is a netns.Namespace, `argv0` what the process sees as its own name, `env` is added to our
    environment, `preexec` runs in the child first (see refusal.preexec), `program` is another binary than usual.
    """

    def __init__(self, *arguments, namespace=None, argv0=None, env=None, preexec=None, program=None):
        command = [program or binary(), *map(str, arguments)]
        executable = command[0]
        if namespace:
            command = ["ip", "netns", "exec", namespace.name, *command]
            executable = "/sbin/ip"
        elif argv0 is not None:
            command[0] = argv0
        self.arguments = tuple(map(str, arguments))
        self.process = subprocess.Popen(
            command,
            executable=executable,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            bufsize=0,
            env={**os.environ, **(env or {})},
            preexec_fn=preexec,
        )
        self.ended = False  # by the test: it waited for the end or stopped the process
        self.stdout = Output("standard output", self.process.stdout)
        self.stderr = Output("standard error", self.process.stderr)

    @property
    def pid(self):
        return self.process.pid

    def is_alive(self):
        return self.process.poll() is None

    def wait_stdout(self, wanted, timeout=DEFAULT_TIMEOUT, count=1):
        return self.stdout.wait(wanted, timeout, count, self.is_alive)

    def wait_stderr(self, wanted, timeout=DEFAULT_TIMEOUT, count=1):
        return self.stderr.wait(wanted, timeout, count, self.is_alive)

    def wait_ready(self):
        """The input socket is bound, has joined its group and has its receive buffer."""
        self.wait_stdout(LISTENING)
        self.wait_stderr(RECEIVE_BUFFER_SET)
        return self

    def wait_exit(self, timeout=DEFAULT_TIMEOUT):
        """Waits for an end of its own; returns the exit status, with all output collected."""
        status = self.process.wait(scaled(timeout))
        self.ended = True
        self._finish_output()
        return status

    def stop(self):
        """Ends a running process the way an operator does and checks that it had been well until then.

        With the address sanitizer this includes that it had lost no memory: see programs/leak_check_at_end.cpp.
        """
        self.ended = True
        if self.process.poll() is not None:
            self._finish_output()
            raise AssertionError(f"the process ended by itself, status {self.process.returncode}:\n{self.stderr.text}")
        if build_kind() == "asan":
            # The leak check runs on the main thread, which must not be inside the allocator then.
            self._wait_one_asleep(self.pid)
        self.process.terminate()
        status = self.process.wait(scaled(DEFAULT_TIMEOUT))
        self._finish_output()
        assert status == -signal.SIGTERM, f"status {status} after SIGTERM:\n{self.stderr.text}"

    def wait_asleep(self):
        """Waits until no thread is busy with anything: what a counter tells of has been done then."""
        for thread in threads(self.pid):
            self._wait_one_asleep(thread)

    def _wait_one_asleep(self, thread):
        wait_until(lambda: thread_state(self.pid, thread) in "SZ", "an idle moment")

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()

    def _finish_output(self):
        self.stdout.finish()
        self.stderr.finish()
        report = SANITIZER_REPORT.search(self.stderr.text)
        assert not report, f"sanitizer report:\n{self.stderr.text}"

    def resident_kib(self):
        status = pathlib.Path(f"/proc/{self.pid}/status").read_text(encoding="ascii")
        return int(re.search(r"^VmRSS:\s+(\d+) kB$", status, re.MULTILINE).group(1))


def run(*arguments, **keywords):
    """Runs the binary to its own end; returns (status, standard output, standard error)."""
    proxy = Proxy(*arguments, **keywords)
    try:
        status = proxy.wait_exit()
    finally:
        proxy.kill()
    return status, proxy.stdout.text, proxy.stderr.text
