"""A machine with systemd: a container whose root is this machine's, under what is installed from the build into it.

Its network is that of the test process, everything else is its own. What it writes is in memory, and goes with it.
"""

import contextlib
import functools
import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import time

from . import waiting
from .proxy import Proxy, binary

TURN_SECONDS = 0.1

FOLDERS_OF_ITS_OWN = ("etc/systemd/system", "etc/default", "var/log/journal", "usr/local/bin")
# A minute of boot is not for what no channel needs.
MASKED = (
    "dbus.socket", "nftables.service", "ssh.socket", "systemd-firstboot.service", "systemd-hwdb-update.service",
    "systemd-journal-flush.service", "systemd-machine-id-commit.service", "systemd-network-generator.service",
    "systemd-networkd.socket", "systemd-pcrphase-sysinit.service", "systemd-pstore.service", "systemd-timesyncd.service",
    "systemd-update-utmp.service", "ldconfig.service", "systemd-random-seed.service",
)  # fmt: skip


def install(root, prefix="/usr"):
    """Installs what the build has made, as both packages do, below the folder `root`."""
    build = pathlib.Path(binary()).resolve().parent
    for component in ("proxy", "tools"):
        subprocess.run(
            ["cmake", "--install", build, "--prefix", prefix, "--component", component],
            env={**os.environ, "DESTDIR": str(root)}, check=True, stdout=subprocess.DEVNULL,
        )  # fmt: skip


def wait_until(condition, what, timeout=waiting.DEFAULT_TIMEOUT):
    """The usual wait for conditions that start programs to look: seldom."""

    def look():
        value = condition()
        if not value:
            time.sleep(TURN_SECONDS)
        return value

    return waiting.wait_until(look, what, timeout)


def _mount(*arguments):
    subprocess.run(["mount", *map(str, arguments)], check=True)


class ControlGroup:
    """A group of its own in each hierarchy that systemd uses: it puts everything that it starts into groups below."""

    def __init__(self, name):
        lines = pathlib.Path("/proc/mounts").read_text(encoding="utf-8").splitlines()
        mounts = [(fields[1], fields[2], fields[3].split(",")) for fields in map(str.split, lines)]
        self._folders = [
            pathlib.Path(path, name) for path, kind, options in mounts
            if kind == "cgroup2" or (kind == "cgroup" and "name=systemd" in options)
        ]  # fmt: skip
        for folder in self._folders:
            folder.mkdir()

    def enter(self):
        for folder in self._folders:
            (folder / "cgroup.procs").write_text("0", encoding="ascii")

    def kill(self):
        """Ends whatever runs in it."""
        for folder in self._folders:
            if (folder / "cgroup.kill").exists():
                (folder / "cgroup.kill").write_text("1", encoding="ascii")

    def close(self):
        for folder in self._folders:
            for below, _, _ in os.walk(folder, topdown=False):
                wait_until(functools.partial(self._remove, below), f"{below} to be empty")

    @staticmethod
    def _remove(folder):
        try:
            os.rmdir(folder)
        except OSError:
            return False
        return True


class Machine:
    """Boots. `settings` are files by their path: {"/etc/default/tx_proxy-1": text}."""

    def __init__(self, settings):
        self._folder = pathlib.Path(tempfile.mkdtemp(prefix="tx_proxy_machine_"))
        self._nspawn = None
        self.leader = 0  # its first process, as we see it
        self._group = ControlGroup(self._folder.name)
        try:
            self._make_root(settings)
            self._boot()
        except BaseException:
            self.close()
            raise

    def _make_root(self, settings):
        _mount("-t", "tmpfs", "none", self._folder)
        upper, work, self.root = (self._folder / name for name in ("upper", "work", "root"))
        for folder in (upper, work, self.root):
            folder.mkdir()
        for name in FOLDERS_OF_ITS_OWN:
            folder = upper / name
            folder.mkdir(parents=True)
            os.setxattr(folder, "trusted.overlay.opaque", b"y")
        _mount("-t", "overlay", "-o", f"lowerdir=/,upperdir={upper},workdir={work}", "overlay", self.root)
        install(self.root)
        for unit in MASKED:
            (self.root / "etc/systemd/system" / unit).symlink_to("/dev/null")
        for path, text in settings.items():
            self.write(path, text)
        # A machine of its own: nspawn would not start a second one of the same number.
        (self.root / "etc/machine-id").write_text(f"{os.getpid():032x}\n", encoding="ascii")

    def _boot(self):
        self._nspawn = Proxy(
            "--quiet", "--directory", self.root, "--register=no", "--keep-unit", "--boot", "--console=pipe",
            f"--machine=txp{os.getpid()}", "systemd.unit=basic.target", "systemd.log_target=journal",
            program=shutil.which("systemd-nspawn"), preexec=self._group.enter,
        )  # fmt: skip
        self.leader = wait_until(self._find_leader, "the container to begin")
        boot = ("systemctl", "is-active", "basic.target")
        wait_until(lambda: self.run(*boot).stdout == "active\n", "the machine to boot", 60)

    def _find_leader(self):
        """The child that is number 1 in a space of its own; nspawn has others before it."""
        assert self._nspawn.is_alive(), self._nspawn.stderr.text
        pid = self._nspawn.pid
        for child in pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text(encoding="ascii").split():
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                status = pathlib.Path(f"/proc/{child}/status").read_text(encoding="ascii")
                if re.search(r"^NSpid:\t\d+\t1$", status, re.MULTILINE):
                    return int(child)
        return None

    def run(self, *command, **keywords):
        """A command on the machine, as its administrator gives it."""
        inside = ["nsenter", "--target", str(self.leader), "--mount", "--uts", "--ipc", "--pid", "--root", "--wd"]
        return subprocess.run(
            [*inside, *map(str, command)], capture_output=True, text=True, check=False, timeout=60, **keywords
        )

    def do(self, *command, **keywords):
        """The same for one that has to succeed; returns what it prints."""
        result = self.run(*command, **keywords)
        assert result.returncode == 0, f"{command}: {result.returncode}\n{result.stdout}{result.stderr}"
        return result.stdout

    def write(self, path, text):
        path = self.root / path.lstrip("/")
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")

    def outside(self, pid):
        """The number that a process of the machine has for us."""
        numbers_of_it = os.readlink(f"/proc/{self.leader}/ns/pid")
        for entry in pathlib.Path("/proc").glob("[0-9]*"):
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                status = (entry / "status").read_text(encoding="ascii", errors="replace")
                numbers = re.search(r"^NSpid:\t(.*)$", status, re.MULTILINE).group(1).split()
                if numbers[-1] == str(pid) and os.readlink(entry / "ns/pid") == numbers_of_it:
                    return int(entry.name)
        raise AssertionError(f"there is no process {pid}")

    def property(self, unit, name):
        return self.do("systemctl", "show", "--value", "--property", name, unit).rstrip("\n")

    def wait_state(self, unit, state, timeout=15):
        return wait_until(lambda: self.property(unit, "ActiveState") == state, f"{unit} to be {state}", timeout)

    def journal(self, unit):
        return self.do("journalctl", "--no-pager", "--output=cat", "--unit", unit)

    def close(self):
        self._group.kill()
        if self._nspawn:
            self._nspawn.wait_exit()
        self._group.close()
        for folder in (self._folder / "root", self._folder):
            subprocess.run(["umount", "--lazy", folder], check=False, stderr=subprocess.DEVNULL)
        self._folder.rmdir()
