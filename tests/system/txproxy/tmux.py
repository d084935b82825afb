"""A terminal for programs that draw on one: tmux keeps its screen, takes keys and changes its size."""

import os
import pathlib
import shlex
import subprocess
import tempfile

from . import sandbox
from .waiting import DEFAULT_TIMEOUT, scaled, wait_until

SHELL_READY = "ready$"


class Terminal:
    """One window with a shell in it, and a tmux of its own. `environment` is set for the shell."""

    def __init__(self, columns=80, rows=24, **environment):
        self._folder = tempfile.TemporaryDirectory(prefix="tx_proxy_tmux_")
        self._socket = pathlib.Path(self._folder.name, "socket")
        settings = {"LC_ALL": "C.UTF-8", "TERM": "xterm-256color", "ENV": "", **environment}
        kept = {name: value for name, value in os.environ.items() if name not in ("TMUX", "NO_COLOR", "COLORTERM")}
        # The ptmx of the tests' own /dev does not work, the one beside the terminals does.
        self._tmux("-u", "-f", "/dev/null", "new-session", "-d", "-x", columns, "-y", rows, "exec sh",
                   env={**kept, **settings}, preexec_fn=sandbox.covering("/dev/ptmx", "/dev/pts/ptmx"))  # fmt: skip
        self._tmux("set-option", "-g", "status", "off")
        self._tmux("resize-window", "-x", columns, "-y", rows)
        self._tmux("send-keys", "-l", "PS1=rea''dy$")  # not what is waited for, until the shell has read it
        self.keys("Enter")
        self.wait(SHELL_READY)

    def _tmux(self, *words, **keywords):
        done = subprocess.run(["tmux", "-S", self._socket, *map(str, words)], capture_output=True, encoding="utf-8",
                              check=False, timeout=scaled(DEFAULT_TIMEOUT), **keywords)  # fmt: skip
        assert done.returncode == 0, f"tmux {words}: {done.stderr}"
        return done.stdout

    def run(self, *words, **environment):
        """Types a command, its words quoted for the shell."""
        settings = [f"{name}={shlex.quote(value)}" for name, value in environment.items()]
        self._tmux("send-keys", "-l", " ".join([*settings, *(shlex.quote(str(word)) for word in words)]))
        self.keys("Enter")

    def keys(self, *names):
        """Presses keys: letters, or "Up", "Enter", "Escape", "C-c", ..."""
        self._tmux("send-keys", *names)

    def resize(self, columns, rows):
        self._tmux("resize-window", "-x", columns, "-y", rows)

    def screen(self, colours=False):
        """What stands there, one line a row; with `colours` also as which escape sequences."""
        return self._tmux("capture-pane", "-p", *(["-e"] if colours else []))

    def rows(self):
        return self.screen().split("\n")[:-1]

    def value(self, name):
        """Of tmux itself: "alternate_on", "cursor_flag", "pane_pid"."""
        return self._tmux("display-message", "-p", f"#{{{name}}}").strip()

    def wait(self, wanted, timeout=DEFAULT_TIMEOUT):
        """Until the screen has the text, or the function says yes to it; returns the screen."""
        found = wanted if callable(wanted) else lambda screen: wanted in screen
        screen = ""

        def look():
            nonlocal screen
            screen = self.screen()
            return found(screen)

        wait_until(look, lambda: f"{wanted!r} on the screen:\n{screen}", timeout)
        return screen

    def close(self):
        self._tmux("kill-server")
        self._folder.cleanup()
