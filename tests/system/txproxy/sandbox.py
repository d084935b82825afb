"""A /dev, a /run and a network of the test process's own.

The proxy's paths and its lock port are the machine's, so without these a test could unlink the control socket
of a proxy that serves somebody. Every process that runs tests enters one before its first test, so that
processes side by side share neither instance numbers nor ports; all that they start inherits it.
"""

import ctypes
import os
import pathlib
import shutil
import tempfile

from . import netns

CLONE_NEWNS = 0x00020000
MS_NOSUID = 0x0002
MS_BIND = 0x1000
MS_MOVE = 0x2000
MS_REC = 0x4000
MS_PRIVATE = 0x40000

# Of the machine's /dev only what programs expect anywhere; /dev/shm and the terminals stay the machine's.
DEVICES = ("null", "zero", "full", "random", "urandom", "tty", "ptmx", "pts", "shm", "fd", "stdin", "stdout", "stderr")

NEEDS = "The system tests need root and the right to make namespaces for mounts and networks"

_libc = ctypes.CDLL(None, use_errno=True)


class NoSandbox(Exception):
    """The machine does not let this process make one; the text says why."""


def _call(what, result):
    if result != 0:
        raise NoSandbox(f"{what}: {os.strerror(ctypes.get_errno())}")


def _mount(source, target, kind=None, flags=0, options=None):
    encoded = [None if text is None else os.fsencode(text) for text in (source, target, kind)]
    _call(f"mount on {target}", _libc.mount(*encoded, ctypes.c_ulong(flags), options))


def _unshare():
    _call("namespaces for mounts and network", _libc.unshare(CLONE_NEWNS | netns.CLONE_NEWNET))
    _mount(None, "/", flags=MS_REC | MS_PRIVATE)


def _cover_run():
    # Usually one folder: /var/run is a link to /run.
    for folder in sorted({os.path.realpath("/run"), os.path.realpath("/var/run")}):
        _mount("tmpfs", folder, "tmpfs", MS_NOSUID, b"mode=755")


def _keep_device(machine_path, path):
    if machine_path.is_symlink():
        path.symlink_to(os.readlink(machine_path))
    elif machine_path.exists():
        path.mkdir() if machine_path.is_dir() else path.touch()
        _mount(machine_path, path, flags=MS_BIND | MS_REC)


def _cover_dev():
    # Put together beside /dev, because the machine's devices are out of sight once it is covered.
    folder = pathlib.Path(tempfile.mkdtemp(prefix="tx_proxy_dev_"))
    try:
        _mount("tmpfs", folder, "tmpfs", MS_NOSUID, b"mode=755")
        for name in DEVICES:
            _keep_device(pathlib.Path("/dev", name), folder / name)
        _mount(folder, "/dev", flags=MS_MOVE)
    finally:
        folder.rmdir()


def covering(target, source):
    """The preexec of a child that sees the file `source` in the place of `target`; nobody else does."""
    return covering_all({target: source})


def covering_all(sources):
    """The same for several, {target: source}, in their order."""

    def cover():
        _call("a namespace for mounts", _libc.unshare(CLONE_NEWNS))
        _mount(None, "/", flags=MS_REC | MS_PRIVATE)
        for target, source in sources.items():
            _mount(source, target, flags=MS_BIND)

    return cover


def enter():
    """Moves this process and all its later children. Raises NoSandbox when the machine refuses."""
    if shutil.which("ip") is None:
        raise NoSandbox("the program ip is missing")
    _unshare()
    _cover_run()
    _cover_dev()
    netns.ip("link", "set", "lo", "up")
