"""The system calls of a running process, thread by thread, as strace sees them."""

import collections
import pathlib
import re
import shutil
import signal
import subprocess

from . import process
from .waiting import DEFAULT_TIMEOUT, scaled, wait_until

# result: a text such as "804", "-1 EAGAIN (...)", or "" for a call that was not over when the trace ended.
Call = collections.namedtuple("Call", "time name arguments result")

# A call that another thread's line interrupts is written in two pieces.
LINE = re.compile(
    r"(?P<thread>\d+) +(?P<time>[\d.]+) (?:<\.\.\. (?P<resumed>\w+) resumed>|(?P<name>\w+)\()(?P<rest>.*)"
)
UNFINISHED = re.compile(r"(?P<arguments>.*?) ?<(?:unfinished|detached) \.\.\.>")
FINISHED = re.compile(r"(?P<arguments>.*)\) += (?P<result>.*)")

# What a thread was doing when the trace began: it is seen once more from there, not from its start.
BEGUN_BEFORE = "restart_syscall"
STRING_BYTES = 4  # of a datagram: enough for its sequence number


def parse(text):
    """{thread: its calls in order}"""
    calls = collections.defaultdict(list)
    for line in text.splitlines():
        match = LINE.fullmatch(line)
        assert match, f"not the line of a system call: {line}"
        thread = calls[int(match["thread"])]
        finished = FINISHED.fullmatch(match["rest"])
        piece = finished or UNFINISHED.fullmatch(match["rest"])
        assert piece, f"not the line of a system call: {line}"
        result = finished["result"] if finished else ""
        if match["name"]:
            thread.append(Call(float(match["time"]), match["name"], piece["arguments"], result))
        else:
            assert thread and thread[-1].name == match["resumed"], f"the end of a call that nobody began: {line}"
            begun = thread[-1]
            thread[-1] = begun._replace(arguments=begun.arguments + piece["arguments"], result=result)
    return dict(calls)


class Trace:
    """Follows all threads of a process from now on. Use it as `with`; `calls` has them all at the end."""

    def __init__(self, pid, folder):
        self.pid = pid
        self.calls = {}
        self._file = pathlib.Path(folder) / "calls"
        self._messages = pathlib.Path(folder) / "messages"

    def __enter__(self):
        strace = shutil.which("strace")
        assert strace, "strace is not installed: scripts/install_packages does it"
        command = [strace, "-f", "-v", "-ttt", "-x", "-s", STRING_BYTES, "-e", "signal=none"]
        command += ["-o", self._file, "-p", self.pid]
        with open(self._messages, "wb") as messages:
            self._strace = subprocess.Popen(list(map(str, command)), stdin=subprocess.DEVNULL, stderr=messages)
        try:
            wait_until(self._is_complete, "strace to see all threads")
        except BaseException:
            self._strace.kill()
            self._strace.wait()
            raise
        return self

    def _is_complete(self):
        assert self._strace.poll() is None, (
            f"ptrace must be permitted for this test: {self._messages.read_text(encoding='utf-8').strip()}"
        )
        return self.so_far().keys() == process.threads(self.pid)

    def so_far(self):
        if not self._file.exists():
            return {}
        return parse(self._file.read_text(encoding="ascii").rpartition("\n")[0])

    def __exit__(self, *_):
        self._strace.send_signal(signal.SIGINT)
        try:
            self._strace.wait(scaled(DEFAULT_TIMEOUT))
        finally:
            self._strace.kill()
            self._strace.wait()
        self.calls = parse(self._file.read_text(encoding="ascii"))

    @property
    def seconds(self):
        """From the first call to the last one."""
        times = [call.time for calls in self.calls.values() for call in calls]
        return max(times) - min(times)


def without_begun_before(calls):
    """The calls that were made during the trace."""
    return [call for call in calls if call.name != BEGUN_BEFORE]


def table(calls_of):
    """How often each thread has made each call, a line a thread."""
    rows = []
    for thread, calls in calls_of.items():
        counts = collections.Counter(call.name for call in calls)
        rows.append(f"{thread}: " + ", ".join(f"{count} {name}" for name, count in sorted(counts.items())))
    return "\n".join(rows)
