"""What bash would offer for a command line: bash-completion finds our files where they are installed."""

import os
import pathlib
import re
import shlex
import subprocess

from .proxy import binary

BUILD = pathlib.Path(binary()).parent
LIBRARY = "/usr/share/bash-completion/bash_completion"
# Beside a terminal there is no completion under way whose options could be set.
PRELUDE = f"""
. {LIBRARY}
compopt() {{ :; }}
ask() {{
    COMP_LINE=$1 COMP_POINT=${{#1}}
    shift
    COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)) COMPREPLY=()
    _completion_loader "$1"
    local rule=$(complete -p "$1")
    [[ $rule =~ -F\\ ([^ ]+) ]] && "${{BASH_REMATCH[1]}}" "$1" "${{@: -1}}" "${{@: -2:1}}"
    printf '%s\\n' "${{COMPREPLY[@]}}"
    printf '\\f'
}}
"""


def install(component, folder):
    """As a package or `cmake --install` does."""
    subprocess.run(["cmake", f"-DCMAKE_INSTALL_PREFIX={folder}", f"-DCMAKE_INSTALL_COMPONENT={component}", "-P",
                    BUILD / "completions" / "cmake_install.cmake"], check=True, stdout=subprocess.DEVNULL)  # fmt: skip


def words_of(line):
    """The line as bash hands it over: parted at blanks, and = and : are words of their own."""
    parts = [part for word in re.split(r" +", line) for part in (re.findall(r"[=:]+|[^=:]+", word) or [""])]
    return [*parts, ""] if re.search(r"[^ ][=:]$", line) else parts


class Completion:
    """`folder` is a prefix with the installed files; it also serves as home, with a machine called edge1."""

    def __init__(self, folder):
        self.folder = folder
        for component in ("proxy", "tools"):
            install(component, folder)
        (folder / ".ssh").mkdir()
        (folder / ".ssh" / "config").write_text("Host edge1\n", "utf-8")
        (folder / "here").mkdir()
        (folder / "here" / "a_file").touch()
        (folder / "hosts").write_text("10.0.0.1 proxy.example.net\n", "utf-8")

    @property
    def environment(self):
        return {"PATH": f"{BUILD}:{os.environ['PATH']}", "HOME": str(self.folder), "HOSTFILE": str(self.folder / "hosts"),
                "XDG_DATA_DIRS": str(self.folder / "share"), "LC_ALL": "C.UTF-8"}  # fmt: skip

    def offers(self, *lines):
        """[[what is offered for the last word]] of each line, which ends with what is typed of that word."""
        calls = "\n".join(f"ask {shlex.join([line, *words_of(line)])}" for line in lines)
        done = subprocess.run(["bash", "--norc", "-c", PRELUDE + calls], capture_output=True, text=True, check=False,
                              env=self.environment, cwd=self.folder / "here")  # fmt: skip
        assert done.stderr == ""
        answers = done.stdout.split("\f")[:-1]
        assert len(answers) == len(lines)
        return [[word.strip() for word in answer.splitlines() if word.strip()] for answer in answers]

    def offer(self, line):
        return self.offers(line)[0]
