"""What the system says about a running process."""

import contextlib
import ctypes
import os
import resource
import signal
import socket

from .waiting import wait_until

CLOCK_TICKS_PER_SECOND = os.sysconf("SC_CLK_TCK")
PIDFD_GETFD = 438  # the number of the call on every machine

_libc = ctypes.CDLL(None, use_errno=True)


def cpu_seconds(pid):
    """The time that all threads of the process have spent on a processor, in user and in kernel mode."""
    with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
        fields = stat.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / CLOCK_TICKS_PER_SECOND


def starved(pid):
    """{thread: seconds for which it has waited for a processor since its start}."""
    waited = {}
    for thread in threads(pid):
        with open(f"/proc/{pid}/task/{thread}/schedstat", encoding="ascii") as schedstat:
            waited[thread] = int(schedstat.read().split()[1]) / 1e9
    return waited


def descriptors(pid):
    """The numbers of its open descriptors."""
    return sorted(int(name) for name in os.listdir(f"/proc/{pid}/fd"))


def peers(pid):
    """{descriptor: address} of its connected IPv4 sockets."""
    found = {}
    handle = os.pidfd_open(pid)
    for number in descriptors(pid):
        copy = _libc.syscall(PIDFD_GETFD, handle, number, 0)
        if copy < 0:
            continue  # it was closed meanwhile
        if not os.readlink(f"/proc/self/fd/{copy}").startswith("socket:"):
            os.close(copy)
            continue
        with socket.socket(fileno=copy) as sock, contextlib.suppress(OSError):
            if sock.family == socket.AF_INET:
                found[number] = sock.getpeername()[0]
    os.close(handle)
    return found


def threads(pid):
    """The numbers that the system gives its threads."""
    return {int(name) for name in os.listdir(f"/proc/{pid}/task")}


def thread_state(pid, thread):
    """A letter: R runs, S waits, T is stopped, ..."""
    with open(f"/proc/{pid}/task/{thread}/stat", encoding="ascii", errors="replace") as stat:
        return stat.read().rpartition(")")[2].split()[0]


@contextlib.contextmanager
def stopped(proxy):
    """All threads of the process stand still meanwhile."""
    proxy.process.send_signal(signal.SIGSTOP)
    wait_until(
        lambda: {thread_state(proxy.pid, thread) for thread in threads(proxy.pid)} == {"T"},
        "all threads to stand still",
    )
    try:
        yield
    finally:
        proxy.process.send_signal(signal.SIGCONT)


def running_nanoseconds(pid):
    """The time that its present threads have spent on a processor, more finely than cpu_seconds."""
    total = 0
    for thread in threads(pid):
        with open(f"/proc/{pid}/task/{thread}/schedstat", encoding="ascii") as schedstat:
            total += int(schedstat.read().split()[0])
    return total


def proportional_kib(pid):
    """Its memory, with what it shares with others counted in parts."""
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as rollup:
        return next(int(line.split()[1]) for line in rollup if line.startswith("Pss:"))


class NoFreeDescriptor:
    """While entered, the process can open nothing: its lowest free number is not allowed."""

    def __init__(self, proxy):
        self._pid = proxy.pid
        self._before = None

    def __enter__(self):
        self._before = resource.prlimit(self._pid, resource.RLIMIT_NOFILE)
        used = descriptors(self._pid)
        lowest_free = next(number for number in range(len(used) + 1) if number not in used)
        resource.prlimit(self._pid, resource.RLIMIT_NOFILE, (lowest_free, self._before[1]))

    def __exit__(self, *_):
        resource.prlimit(self._pid, resource.RLIMIT_NOFILE, self._before)
