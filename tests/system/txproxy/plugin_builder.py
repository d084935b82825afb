"""Small encryption libraries for the tests, and a private view of the folders where the proxy looks for one.

The proxy's paths are the machine's, so a test that puts a library there starts its proxy in a mount namespace
of its own: what it mounts over /usr/local/bin and /disk is seen by that process alone.
"""

import contextlib
import fcntl
import os
import pathlib
import shlex
import shutil
import subprocess
import tempfile

from .proxy import binary

SOURCE = pathlib.Path(__file__).resolve().parent.parent / "plugins" / "xor_cipher.c"
INSTALLED_FOLDER = pathlib.Path("/usr/local/bin")
DISK_FOLDER = pathlib.Path("/disk")
INSTALLED_NAME = "libsorvanex.so.1.0"
DISK_NAME = "sorvanex/libsorvanex.so.1.0"
BARE_NAME = "libsorvanex.so"
XOR = 0x5A
NO_SESSION = "NO_SESSION"
SYMBOLS = ("open_callback", "data_callback", "close_callback", "print_info")


def without(symbol):
    """The build switch that leaves out one of SYMBOLS."""
    return f"WITHOUT_{symbol.upper()}"


def build(path, *switches, name="xor"):
    """Compiles the cipher to `path`; `name` is what it calls itself."""
    path.parent.mkdir(parents=True, exist_ok=True)
    defines = [f"-D{switch}" for switch in switches] + [f'-DNAME="{name}"']
    subprocess.run(["cc", "-shared", "-fPIC", "-O1", *defines, "-o", path, SOURCE], check=True)
    return path


@contextlib.contextmanager
def _disk_mount_point():
    """/disk for as long as the block lasts; one test process at a time makes and removes it."""
    with open(pathlib.Path(tempfile.gettempdir()) / "tx_proxy_test_disk.lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        made = not DISK_FOLDER.exists()
        DISK_FOLDER.mkdir(exist_ok=True)
        try:
            yield
        finally:
            if made:
                DISK_FOLDER.rmdir()


class PrivateFolders:
    """Runs a proxy that sees `installed` as /usr/local/bin and, when it is needed, `disk` as /disk."""

    def __init__(self, directory, monkeypatch):
        self.installed = directory / "installed"
        self.disk = directory / "disk"
        self.record = directory / "record"
        for folder in (self.installed, self.disk):
            folder.mkdir()
        self._script = directory / "tx_proxy_in_private_folders"
        self._monkeypatch = monkeypatch

    def start(self, start_proxy, *options, environment=None, **keywords):
        """start_proxy(*options) in the private view; the libraries write their record to self.record."""
        uses_disk = any(self.disk.iterdir())
        with _disk_mount_point() if uses_disk else contextlib.nullcontext():
            self._write_script(uses_disk)
            with self._monkeypatch.context() as patch:
                patch.setenv("TX_PROXY_BIN", str(self._script))
                env = {"SORVANEX_RECORD": str(self.record), **(environment or {})}
                return start_proxy(*options, env=env, **keywords)

    def _write_script(self, uses_disk):
        mounts = [(self.installed, INSTALLED_FOLDER)] + ([(self.disk, DISK_FOLDER)] if uses_disk else [])
        # The binary is opened first: it may lie in a folder that is covered.
        commands = " && ".join(f"mount --bind {shlex.quote(str(new))} {old}" for new, old in mounts)
        self._script.write_text(
            "#!/bin/sh\n"
            f"exec 9<{shlex.quote(binary())}\n"
            f"exec unshare -m sh -c '{commands} && exec /proc/self/fd/9 \"$@\"' sh \"$@\"\n",
            encoding="ascii",
        )
        self._script.chmod(0o755)

    def calls(self):
        """What the libraries have recorded so far, one line a call."""
        return self.record.read_text(encoding="ascii").splitlines() if self.record.exists() else []

    def library(self, name, source):
        """Puts a built library (or any file) at a name below this object's folders."""
        target = name if isinstance(name, pathlib.Path) else self.installed / name
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(source, target)
        return target


def transformed(data, start, length):
    """`data` with `length` bytes from `start` on as the cipher leaves them."""
    end = min(len(data), start + length)
    return data[:start] + bytes(byte ^ XOR for byte in data[start:end]) + data[end:]


def search_path(folder):
    """The environment in which the dynamic loader finds libraries of `folder` by their bare names."""
    return {"LD_LIBRARY_PATH": os.pathsep.join(filter(None, [str(folder), os.environ.get("LD_LIBRARY_PATH")]))}
