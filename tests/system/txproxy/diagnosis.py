"""What `arqctl doctor` finds, and what becomes of what it proposes."""

import shlex
import subprocess

from . import arqctl
from .waiting import scaled


class Diagnosis:
    """One proxy's findings by their names, and the exit status."""

    def __init__(self, result):
        self.status = result.status
        self.object = result.json
        self._findings = {finding["name"]: finding for finding in self.object["findings"]}

    def verdict(self, name):
        return self._findings[name]["verdict"]

    def text(self, name):
        return self._findings[name]["text"]

    def command(self, name):
        return self._findings[name]["command"]

    def advice(self, name):
        return self._findings[name]["advice"]

    @property
    def names(self):
        return list(self._findings)

    def wrong(self):
        """{name: verdict} of all that is not as it should be."""
        return {name: finding["verdict"] for name, finding in self._findings.items()
                if finding["verdict"] in ("warning", "fault")}  # fmt: skip


def doctor(*arguments, **keywords):
    return Diagnosis(arqctl.run("doctor", "--json", *arguments, **keywords))


def apply(command, namespace=None):
    """Does what a finding proposes, as an operator who pastes it."""
    words = shlex.split(command)
    if words[0] == "arqctl":
        words[0] = arqctl.program()
    inside = ["ip", "netns", "exec", namespace.name] if namespace else []
    done = subprocess.run([*inside, *words], capture_output=True, text=True, timeout=scaled(15), check=False)
    assert done.returncode == 0, f"{command}: {done.stderr}"
