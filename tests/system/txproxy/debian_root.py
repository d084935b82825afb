"""A Debian system to install packages into: a root, a layer above it for what changes, and mounts of its own.

It sees the test's /dev and network, so that a proxy in it is reached as any other, but has an empty /run and /tmp. All
that is changed in it is gone when it is closed. The root is the machine's own or a bare one made by make_bare().
"""

import contextlib
import ctypes
import os
import pathlib
import subprocess

from . import sandbox
from .netns import CLONE_NEWNET

SET_UP = r"""
set -e
mount -t tmpfs none "$1"
mkdir "$1/upper" "$1/work" "$1/root"
mount -t overlay overlay -o "lowerdir=$2,upperdir=$1/upper,workdir=$1/work" "$1/root"
cd "$1/root"
mount -t proc proc proc
mount --rbind /dev dev
mount -t tmpfs none run
mount -t tmpfs none tmp
chmod 1777 tmp
# Nothing is to be had from a mirror here, and no index of manual pages is wanted: both take seconds.
mount -t tmpfs none var/lib/apt/lists
rm -f var/lib/man-db/auto-update
# Debian's sign for: start no service here.
printf '#!/bin/sh\nexit 101\n' >usr/sbin/policy-rc.d
chmod 755 usr/sbin/policy-rc.d
echo ready
exec chroot . sleep infinity
"""
BARE = r"""
set -e
mirror=$(apt-get indextargets --format '$(REPO_URI) $(CODENAME) $(COMPONENT)' 'Created-By: Packages' |
    awk -v codename="$(. /etc/os-release && echo "$VERSION_CODENAME")" \
        '$2 == codename && $3 == "main" { print $1 " " $2; exit }')
debootstrap --variant=minbase "${mirror#* }" "$1" "${mirror% *}"
apt-config dump | { grep -E '^Acquire::(http|https)::Proxy' || true; } >"$1/etc/apt/apt.conf.d/proxy"
cp -L /etc/resolv.conf /etc/hosts "$1/etc/"
root=$1
shift
chroot "$root" apt-get -q -y install --no-install-recommends "$@"
"""

_libc = ctypes.CDLL(None, use_errno=True)


def _enter_namespace(handle, kind):
    if _libc.setns(handle, kind) != 0:
        raise OSError(ctypes.get_errno(), "setns")


def _outside_network():
    """The network of the first of all ancestors that we may look at, the machine's, with its way to a mirror.

    Nearer ones may be test processes, which have networks of their own.
    """
    own = os.stat("/proc/self/ns/net").st_ino
    pid, path = os.getpid(), None
    while pid:
        with contextlib.suppress(PermissionError):
            ancestor = f"/proc/{pid}/ns/net"
            path = ancestor if os.stat(ancestor).st_ino != own else path
        pid = int(pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="utf-8").rpartition(")")[2].split()[1])
    if path is None:
        raise RuntimeError("no ancestor has another network")
    return path


def make_bare(directory, packages):
    """A bare Debian of the machine's release with `packages` from its mirror; returns its folder. Half a minute."""
    root = directory / "bare"
    with open(_outside_network(), "rb") as network:
        subprocess.run(
            ["bash", "-c", BARE, "bash", root, *packages], check=True, capture_output=True,
            preexec_fn=lambda: _enter_namespace(network.fileno(), CLONE_NEWNET),
        )
    return root


class DebianRoot:
    def __init__(self, directory, below=pathlib.Path("/")):
        place = directory / "system"
        place.mkdir()
        self._holder = subprocess.Popen(
            ["unshare", "--mount", "sh", "-c", SET_UP, "sh", place, below],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
        )
        if self._holder.stdout.readline() != "ready\n":
            raise AssertionError(self._holder.communicate()[1])
        self._mounts = os.open(f"/proc/{self._holder.pid}/ns/mnt", os.O_RDONLY)

    def enter(self):
        """The preexec of a child that is to run in the system."""
        _enter_namespace(self._mounts, sandbox.CLONE_NEWNS)
        os.chroot(f"/proc/{self._holder.pid}/root")
        os.chdir("/")

    def path(self, name):
        """A file of the system as it is seen from outside, links not followed beyond its root."""
        return pathlib.Path(f"/proc/{self._holder.pid}/root", str(name).lstrip("/"))

    def run(self, command, check=True):
        """Runs a line of shell in the system; returns what it prints, errors included."""
        result = subprocess.run(
            ["/bin/sh", "-c", command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            text=True, check=False, preexec_fn=self.enter,
            env={"PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root", "LC_ALL": "C",
                 "DEBIAN_FRONTEND": "noninteractive"},
        )
        assert not check or result.returncode == 0, f"{command}: status {result.returncode}\n{result.stdout}"
        return result.stdout

    def processes(self):
        """What runs in the system, by the names of the programs."""
        own = os.fstat(self._mounts).st_ino
        found = []
        for pid in filter(str.isdigit, os.listdir("/proc")):
            with contextlib.suppress(OSError):  # it has ended meanwhile
                if int(pid) != self._holder.pid and os.stat(f"/proc/{pid}/ns/mnt").st_ino == own:
                    found.append(os.readlink(f"/proc/{pid}/exe"))
        return found

    def state(self, package):
        """What dpkg has of a package: "ii" installed, "rc" only its settings, "" nothing."""
        abbreviated = self.run(f"dpkg-query -f '${{db:Status-Abbrev}}' -W {package} 2>/dev/null || true").strip()
        return "" if abbreviated == "un" else abbreviated

    def write(self, name, text, mode=0o644):
        path = self.path(name)
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")
        path.chmod(mode)

    def close(self):
        os.close(self._mounts)
        self._holder.kill()
        self._holder.communicate()
