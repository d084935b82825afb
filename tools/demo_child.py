"""A program that the demo runs: its output as it comes, and an end without anything left behind."""

import contextlib
import os
import selectors
import subprocess


class Child:
    """Collects both outputs without ever waiting for them: figures as "key=number", all else line by line.

    It runs in a session of its own, so that Ctrl-C reaches the demo only, and ends with the demo even when
    the demo is killed.
    """

    def __init__(self, name, arguments, selector, stdin=b""):
        self.name = name
        self.lines = []
        self._values = {}
        self._selector = selector
        self._rests = {}
        self.process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", *map(str, arguments)],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            start_new_session=True,
        )
        with contextlib.suppress(BrokenPipeError), self.process.stdin as pipe:
            pipe.write(stdin)
        for pipe in (self.process.stdout, self.process.stderr):
            os.set_blocking(pipe.fileno(), False)
            self._rests[pipe] = b""
            selector.register(pipe, selectors.EVENT_READ, lambda _now, pipe=pipe: self._read(pipe))

    @property
    def status(self):
        """The exit status, None while it runs. All its output has been read by then."""
        if self.process.poll() is None:
            return None
        for pipe in list(self._rests):
            self._read(pipe)
        return self.process.returncode

    def last_line(self):
        return self.lines[-1] if self.lines else f"{self.name} said nothing"

    def value(self, key):
        """The latest number reported as "key=number", 0 before there is one."""
        return self._values.get(key, 0)

    def kill(self):
        """At once: none of these programs has anything to save."""
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        for pipe in list(self._rests):
            self._read(pipe)

    def _read(self, pipe):
        while pipe in self._rests:
            try:
                chunk = os.read(pipe.fileno(), 65536)
            except BlockingIOError:
                return
            if not chunk:
                self._close(pipe)
                return
            *whole, self._rests[pipe] = (self._rests[pipe] + chunk).split(b"\n")
            for line in whole:
                self._keep(line.decode("utf-8", "replace").strip())

    def _keep(self, line):
        key, _, value = line.partition("=")
        if value.strip().isdigit():
            self._values[key] = int(value)
        elif line:
            self.lines.append(line)

    def _close(self, pipe):
        self._selector.unregister(pipe)
        pipe.close()
        del self._rests[pipe]
