"""An ssh server on loopback with its own keys and port, and the words that make arqctl find it. Needs openssh-server."""

import contextlib
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import tempfile

from .proxy import Output
from .waiting import DEFAULT_TIMEOUT, scaled, wait_until

PROGRAM = "/usr/sbin/sshd"


def _accepts(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


class SshServer:
    """Logs in who holds `key`; `settings` are further lines of its configuration. HOST is what to name behind ssh:."""

    HOST = "root@127.0.0.1"

    def __init__(self, port, *settings):
        self.port = port
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="tx_proxy_ssh_"))
        for name in ("host", "key", "other"):
            self._make_key(name)
        shutil.copy(self.folder / "key.pub", self.folder / "authorized")
        self.known_hosts = self.folder / "known_hosts"
        self.known_hosts.write_text(self._known("host"), encoding="ascii")
        pathlib.Path("/run/sshd").mkdir(mode=0o755, exist_ok=True)
        self._start(settings)

    def _make_key(self, name):
        subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", self.folder / name], check=True)

    def _known(self, key):
        kind, value = (self.folder / f"{key}.pub").read_text(encoding="ascii").split()[:2]
        return f"[127.0.0.1]:{self.port} {kind} {value}\n"

    def _start(self, settings):
        config = self.folder / "config"
        config.write_text("\n".join([
            f"Port {self.port}", "ListenAddress 127.0.0.1", f"HostKey {self.folder}/host", "UsePAM no",
            f"AuthorizedKeysFile {self.folder}/authorized", "StrictModes no", "PasswordAuthentication no",
            "PermitRootLogin yes", "PidFile none", "MaxStartups 100", *settings, ""]), encoding="ascii")  # fmt: skip
        self.process = subprocess.Popen([PROGRAM, "-D", "-e", "-f", config], stdin=subprocess.DEVNULL,
                                        stderr=subprocess.PIPE, bufsize=0)  # fmt: skip
        self.log = Output("the ssh server's log", self.process.stderr)
        wait_until(lambda: _accepts(self.port), lambda: f"the ssh server:\n{self.log.text}")

    def environment(self, key="key", known_hosts=None, port=None):
        """For arqctl's `env`: how to log in here."""
        words = ["ssh", "-F", "none", "-p", port or self.port, "-i", self.folder / key, "-o", "IdentitiesOnly=yes",
                 "-o", f"UserKnownHostsFile={known_hosts or self.known_hosts}"]  # fmt: skip
        return {"ARQCTL_SSH": " ".join(map(str, words)), "SSH_AUTH_SOCK": "", "TMPDIR": os.fspath(self.folder)}

    def change_known_key(self):
        """As if the server's key had changed since it was seen first; returns the file to know it from."""
        changed = self.folder / "changed_hosts"
        changed.write_text(self._known("other"), encoding="ascii")
        return changed

    def close(self):
        # Who is logged in has a process of its own, which would outlive the server.
        logged_in = pathlib.Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children").read_text(encoding="ascii")
        self.process.terminate()
        for pid in map(int, logged_in.split()):
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGTERM)
        self.process.wait(scaled(DEFAULT_TIMEOUT))
        self.log.finish()
        shutil.rmtree(self.folder)
