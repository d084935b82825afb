"""What the system says about a running process."""

import os
import resource

CLOCK_TICKS_PER_SECOND = os.sysconf("SC_CLK_TCK")


def cpu_seconds(pid):
    """The time that all threads of the process have spent on a processor, in user and in kernel mode."""
    with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
        fields = stat.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / CLOCK_TICKS_PER_SECOND


def descriptors(pid):
    """The numbers of its open descriptors."""
    return sorted(int(name) for name in os.listdir(f"/proc/{pid}/fd"))


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
