"""Small encryption libraries for the tests, and a private view of the folders where the proxy looks for one.

The proxy's paths are the machine's, so a test that puts a library there starts its proxy in a mount namespace
of its own: what it mounts over /usr/local/bin and /disk is seen by that process alone.
"""

import os
import pathlib
import shlex
import shutil
import subprocess

from .proxy import binary

SOURCE = pathlib.Path(__file__).resolve().parent.parent / "plugins" / "xor_cipher.c"
INSTALLED_FOLDER = pathlib.Path("/usr/local/bin")
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


# Few machines have a /disk to mount on, and none is made here: a root of links to the machine's folders has one.
ROOT_WITH_DISK = """
mount -t tmpfs tmpfs {root}
for entry in /*; do
    if [ -L "$entry" ]; then cp -P "$entry" {root}
    elif [ -d "$entry" ]; then mkdir {root}"$entry" && mount --rbind "$entry" {root}"$entry"
    fi
done
mkdir -p {root}/disk
mount --bind {disk} {root}/disk
exec chroot {root} /proc/self/fd/9 "$@"
"""


class PrivateFolders:
    """Runs a proxy that sees `installed` as /usr/local/bin and, when it is needed, `disk` as /disk."""

    def __init__(self, directory, monkeypatch):
        self.installed = directory / "installed"
        self.disk = directory / "disk"
        self.record = directory / "record"
        self._root = directory / "root"
        for folder in (self.installed, self.disk, self._root):
            folder.mkdir()
        self._script = directory / "tx_proxy_in_private_folders"
        self._monkeypatch = monkeypatch

    def start(self, start_proxy, *options, environment=None, **keywords):
        """start_proxy(*options) in the private view; the libraries write their record to self.record."""
        self._write_script(uses_disk=any(self.disk.iterdir()))
        with self._monkeypatch.context() as patch:
            patch.setenv("TX_PROXY_BIN", str(self._script))
            env = {"SORVANEX_RECORD": str(self.record), **(environment or {})}
            return start_proxy(*options, env=env, **keywords)

    def _write_script(self, uses_disk):
        commands = f"mount --bind {shlex.quote(str(self.installed))} {INSTALLED_FOLDER}"
        if uses_disk:
            commands += ROOT_WITH_DISK.format(root=shlex.quote(str(self._root)), disk=shlex.quote(str(self.disk)))
        else:
            commands += ' && exec /proc/self/fd/9 "$@"'
        # The binary is opened first: it may lie in a folder that is covered.
        self._script.write_text(
            f"#!/bin/sh\nexec 9<{shlex.quote(binary())}\nexec unshare -m sh -ec {shlex.quote(commands)} sh \"$@\"\n",
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
