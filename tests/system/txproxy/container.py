"""Containers of a real runtime (crun), with the image that deploy/container/Containerfile describes: its install step
is carried out, and what a Debian base has is taken from this machine.

A container has a file system, a /dev, a /run and processes of its own, and the network of the namespace that it is
started in, as a pod has that of its node.
"""

import json
import pathlib
import re
import shutil
import subprocess

from .page import ROOT
from .proxy import Proxy, binary
from .waiting import DEFAULT_TIMEOUT, scaled

CONTAINERFILE = ROOT / "deploy" / "container" / "Containerfile"
# What the scripts use of a Debian base.
BASE = ("/bin/sh", "/usr/bin/dirname", "/usr/bin/readlink", "/usr/bin/ln", "/usr/bin/sleep", "/usr/bin/wc")
# crun refuses machines that have both kinds of control groups mounted, and needs none of them here.
COVER = 'umount -R /sys/fs/cgroup 2>/dev/null; mount -t tmpfs none /sys/fs/cgroup && exec "$@"'
CRUN = ["--mount", "--propagation", "private", "sh", "-c", COVER, "sh", "crun", "--cgroup-manager=disabled"]


def instructions():
    """[(instruction, its text)] of the Containerfile, continued lines put together."""
    text = re.sub(r"^#.*\n", "", CONTAINERFILE.read_text("utf-8"), flags=re.MULTILINE).replace("\\\n", "")
    return [tuple(line.split(maxsplit=1)) for line in text.splitlines() if line]


def environment():
    return dict(text.split("=", 1) for name, text in instructions() if name == "ENV")


def build_folder():
    return pathlib.Path(binary()).parent


def libraries(program):
    """The files that the loader takes for it."""
    listed = subprocess.run(["ldd", program], capture_output=True, text=True, check=True).stdout
    return re.findall(r"(/\S+)", listed)


def copy(path, folder):
    target = folder / str(path).lstrip("/")
    target.parent.mkdir(parents=True, exist_ok=True)
    if not target.exists():
        shutil.copy(path, target)


class Image:
    """A root file system in `folder`."""

    def __init__(self, folder):
        self.folder = folder
        folder.mkdir()
        self._install()
        self.programs = sorted((folder / "usr" / "bin").iterdir())
        for path in (*BASE, *(library for one in (*self.programs, *BASE) for library in libraries(one))):
            copy(path, folder)
        for name in ("dev", "proc", "run", "etc/default"):
            (folder / name).mkdir(parents=True)
        (folder / "etc" / "hosts").touch()

    def _install(self):
        (step,) = [text for name, text in instructions() if name == "RUN" and "--install" in text]
        step = step.replace("=/image", f"={self.folder}").replace(" /build", f" {build_folder()}")
        run = subprocess.run(["sh", "-c", step], cwd="/", capture_output=True, text=True, check=False)
        assert run.returncode == 0, run.stderr


class Container:
    """A container that runs until it is closed.

    `mounts` are folders and files to be seen read-only, {place in the container: path}; `pids` is the Pod or Container
    whose process namespace it shares, None for one of its own.
    """

    def __init__(self, image, state, name, command, env=None, mounts=None, pids=None, namespace=None, user=0):
        self._state = state
        self._name = name
        self._namespace = namespace
        bundle = state / f"{name}.bundle"
        bundle.mkdir(parents=True)
        configuration = _configuration(image, command, {**environment(), **(env or {})}, mounts or {}, pids, user)
        (bundle / "config.json").write_text(json.dumps(configuration), "utf-8")
        self.process = self._crun("run", "--bundle", bundle, name)

    def _crun(self, *arguments):
        return Proxy(*CRUN, "--root", self._state / "crun", *arguments, program="unshare", namespace=self._namespace)

    @property
    def pid(self):
        """Of its first process."""
        status, text = self._finish("state", self._name)
        assert status == 0, text
        return json.loads(text)["pid"]

    def _finish(self, *arguments):
        process = self._crun(*arguments)
        try:
            return process.wait_exit(DEFAULT_TIMEOUT), process.stdout.text + process.stderr.text
        finally:
            process.kill()

    def execute(self, command):
        """(status, output) of a command in the container."""
        return self._finish("exec", self._name, *command)

    def signal(self, name):
        status, text = self._finish("kill", self._name, name)
        assert status == 0, text

    def wait_exit(self):
        return self.process.wait_exit()

    def close(self):
        self._finish("delete", "--force", self._name)
        self.process.kill()


def _configuration(image, command, env, mounts, pids, user):
    """What a manifest asks for: root (or another user) without any capability, a read-only root, no new privileges."""
    own = [{"type": kind} for kind in ("ipc", "uts", "mount")]
    shared = {"type": "pid", **({"path": f"/proc/{pids.pid}/ns/pid_for_children"} if pids else {})}
    return {
        "ociVersion": "1.0.0",
        "root": {"path": str(image.folder), "readonly": True},
        "process": {
            "user": {"uid": user, "gid": user},
            "args": list(command),
            "env": [f"{name}={value}" for name, value in env.items()],
            "cwd": "/",
            "capabilities": {kind: [] for kind in ("bounding", "effective", "inheritable", "permitted", "ambient")},
            "noNewPrivileges": True,
        },
        "mounts": [
            {"destination": "/proc", "type": "proc", "source": "proc"},
            {"destination": "/dev", "type": "tmpfs", "source": "tmpfs", "options": ["nosuid", "mode=755"]},
            {"destination": "/run", "type": "tmpfs", "source": "tmpfs", "options": ["nosuid", "noexec", "mode=755"]},
            *({"destination": place, "type": "bind", "source": str(path), "options": ["bind", "ro"]}
              for place, path in mounts.items()),
        ],
        "linux": {"namespaces": [*own, shared]},
    }  # fmt: skip


class Pod:
    """The process namespace that the containers of a pod share; its first process only waits."""

    def __init__(self):
        self.process = subprocess.Popen(["unshare", "--pid", "--fork", "--kill-child", "sleep", "infinity"])

    @property
    def pid(self):
        return self.process.pid

    def close(self):
        self.process.kill()
        self.process.wait(scaled(DEFAULT_TIMEOUT))
