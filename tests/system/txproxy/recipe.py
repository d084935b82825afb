"""docs/recipes.md: its hosts, and its commands as they stand there, run as a person would type them.

A command is an indented line `host$ words`; a backslash at its end joins the next line to it. What stands below one
heading of the third rank is a recipe.
"""

import collections
import contextlib
import os
import pathlib
import re
import shutil
import signal
import socket
import sys
import tempfile

from . import netns, proxy
from .page import Page
from .waiting import wait_until

PAGE = Page("recipes.md")
NOBODY = 65534  # VLC does not run as root

Command = collections.namedtuple("Command", "host line")


def joined(text):
    """The text with the parts of each command on one line."""
    return re.sub(r" *\\\n +", " ", text)


def commands_of(text):
    """The commands in a piece of the page."""
    return [Command(*match) for match in re.findall(r"^    (\w+)\$ (.+)$", joined(text), re.MULTILINE)]


def recipes():
    """{heading of the third rank: its commands} of the whole page; those without commands are left out."""
    pieces = re.split(r"^#{2,3} (.+)\n", PAGE.text, flags=re.MULTILINE)
    found = {heading: commands_of(text) for heading, text in zip(pieces[1::2], pieces[2::2], strict=True)}
    return {heading: commands for heading, commands in found.items() if commands}


class Hosts:
    """The three hosts of the page, with its addresses: encoder - eth0 - proxy - eth1 - player's eth0."""

    def __init__(self):
        self.by_name = {name: netns.Namespace() for name in ("encoder", "proxy", "player")}
        middle = self.by_name["proxy"]
        for number, (name, at_proxy) in enumerate((("encoder", "eth0"), ("player", "eth1")), 1):
            host = self.by_name[name]
            middle.ip("link", "add", at_proxy, "type", "veth", "peer", "name", "eth0", "netns", host.name)
            for side, device, last in ((middle, at_proxy, 1), (host, "eth0", 2)):
                side.ip("addr", "add", f"10.80.{number}.{last}/24", "dev", device)
                side.ip("link", "set", device, "up")
        for host in self.by_name.values():
            host.wait_cables()

    def __getitem__(self, name):
        return self.by_name[name]

    def close(self):
        for host in self.by_name.values():
            host.close()


class Running(proxy.Proxy):
    """A command line in a shell of its own, with all that the shell starts in one process group."""

    def __init__(self, line, host, folder, path):
        self.line = line
        text = line if "|" in line else f"exec {line}"
        environment = {"PATH": f"{path}:{os.environ['PATH']}", "HOME": str(folder), "SDL_VIDEODRIVER": "dummy",
                       "SDL_AUDIODRIVER": "dummy", "LC_ALL": "C.UTF-8"}  # fmt: skip

        def begin():
            os.setsid()
            os.chdir(folder)

        super().__init__("-c", text, program="/bin/sh", namespace=host, env=environment, preexec=begin)

    def runs(self, name):
        """It starts this program, or begins a pipe with it."""
        return self.line.split()[0] == name

    def signal_all(self, number):
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self.pid, number)

    def end(self, with_signal=signal.SIGINT):
        """Ends it as Ctrl-C does; returns the exit status."""
        self.signal_all(with_signal)
        return self.wait_exit()

    def close(self):
        self.signal_all(signal.SIGKILL)
        self.process.wait()
        if not self.ended:
            self._finish_output()


class Kitchen:
    """Where recipes run: the hosts, a folder for all files, and everything started, which ends with it."""

    def __init__(self, hosts):
        self.hosts = hosts
        # Not below pytest's own folder: a user who is not root must get there.
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="recipe_"))
        self.folder.chmod(0o777)
        self._path = self.folder / "bin"
        self._path.mkdir(mode=0o755)
        for program in ("tx_proxy", "arqrx", "arqlink"):
            (self._path / program).symlink_to(pathlib.Path(proxy.binary()).parent / program)
        self._as_nobody("cvlc")
        self.running = []

    def _as_nobody(self, program):
        script = self._path / program
        user = f"--reuid={NOBODY} --regid={NOBODY} --clear-groups"
        script.write_text(f'#!/bin/sh\nexec setpriv {user} {shutil.which(program)} "$@"\n', encoding="ascii")
        script.chmod(0o755)

    def start(self, command):
        running = Running(command.line, self.hosts[command.host], self.folder, self._path)
        self.running.append(running)
        return running

    def file(self, name):
        """The bytes of a file of the recipe so far."""
        path = self.folder / name
        return path.read_bytes() if path.exists() else b""

    def size(self, name):
        path = self.folder / name
        return path.stat().st_size if path.exists() else 0

    def wait_listens(self, running, port, group=None):
        """Somebody on the host of the command has a UDP socket on the port, and has joined the group."""
        # As the kernel's lists show them: a group as a number of this machine.
        wanted = {"udp": f":{port:04X} "}
        if group:
            wanted["igmp"] = f"{int.from_bytes(socket.inet_aton(group), sys.byteorder):08X} "

        def listens():
            assert running.is_alive(), f"{running.line}: ended\n{running.stderr.text}"
            lists = {name: pathlib.Path(f"/proc/{running.pid}/net/{name}").read_text("ascii") for name in wanted}
            return all(text in lists[name] for name, text in wanted.items())

        wait_until(listens, lambda: f"{running.line} to listen on port {port}\n{running.stderr.text}")

    def close(self):
        for running in reversed(self.running):
            running.close()
        shutil.rmtree(self.folder)

