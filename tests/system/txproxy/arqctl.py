"""The client of running proxies beside them: its command line, its answers, its end."""

import json
import pathlib

from .proxy import Proxy, binary

LONGEST_RUN = 60  # seconds; its own limits are far below, but ssh has much to compute on a busy machine

# Exit statuses.
GOOD, NOT_DONE, USAGE, NO_PROXY, BAD_ANSWER, NO_START, ALREADY_SO = range(7)


def program():
    return str(pathlib.Path(binary()).parent / "arqctl")


class Arqctl(Proxy):
    """A running arqctl, with exactly these arguments: for what goes on until it is ended (top, serve, --watch)."""

    def __init__(self, *arguments, **keywords):
        super().__init__(*arguments, program=program(), **keywords)

    @property
    def objects(self):
        """The JSON objects that it has printed so far, one a line."""
        return [json.loads(line) for line in self.stdout.lines]

    def close(self):
        self.kill()
        if not self.ended:
            self._finish_output()


class Result(tuple):
    """(status, standard output, standard error) of a run that has ended."""

    status = property(lambda self: self[0])
    stdout = property(lambda self: self[1])
    stderr = property(lambda self: self[2])

    @property
    def json(self):
        """The one object on standard output."""
        lines = self.stdout.splitlines()
        assert len(lines) == 1, f"not one line of JSON: {self.stdout!r}\n{self.stderr}"
        return json.loads(lines[0])

    @property
    def problem(self):
        """What is wrong, and what to do: the two lines of every failure, without the program's name."""
        lines = self.stderr.splitlines()
        assert len(lines) == 2 and lines[0].startswith("arqctl: "), f"not two lines of a failure: {self.stderr!r}"
        return lines[0].removeprefix("arqctl: "), lines[1]


def run(*arguments, **keywords):
    """Runs it to its own end: run("-I", 3, "list").status; `keywords` are those of txproxy.proxy.Proxy."""
    arqctl = Arqctl(*arguments, **keywords)
    try:
        status = arqctl.wait_exit(LONGEST_RUN)
    finally:
        arqctl.kill()
    return Result((status, arqctl.stdout.text, arqctl.stderr.text))
