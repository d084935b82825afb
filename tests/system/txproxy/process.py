"""What the system says about a running process."""

import os

CLOCK_TICKS_PER_SECOND = os.sysconf("SC_CLK_TCK")


def cpu_seconds(pid):
    """The time that all threads of the process have spent on a processor, in user and in kernel mode."""
    with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
        fields = stat.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / CLOCK_TICKS_PER_SECOND


def descriptors(pid):
    """The numbers of its open descriptors."""
    return sorted(int(name) for name in os.listdir(f"/proc/{pid}/fd"))
