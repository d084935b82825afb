"""A program that sends datagrams at a rate, or as fast as a core can (programs/flood.c)."""

import re
import struct
import subprocess
import time

from . import programs
from .waiting import DEFAULT_TIMEOUT, scaled

LONGEST_SECONDS = 120  # it ends by itself, whatever becomes of the test


def build(directory):
    return programs.build(directory, "flood")


class Flood:
    """Runs from its making until end(), which returns how many datagrams it sent; .per_second is known then.

    `rate` is in datagrams a second and thread, 0 for as many as it can.
    """

    def __init__(self, program, target, source, datagrams, threads=1, numbered=False, rate=0, namespace=None):
        command = [program, *target, *source, LONGEST_SECONDS, threads, int(numbered), rate]
        if namespace:
            command = ["ip", "netns", "exec", namespace.name, *command]
        self._process = subprocess.Popen(
            list(map(str, command)), stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=False
        )
        for data in datagrams:
            self._process.stdin.write(struct.pack("<H", len(data)) + data)
        self._process.stdin.close()
        self._began = time.monotonic()
        self.sent = 0
        self.per_second = 0.0

    def end(self):
        seconds = time.monotonic() - self._began
        self._process.terminate()
        output = self._process.stdout.read().decode("ascii")
        self._process.stdout.close()
        status = self._process.wait(scaled(DEFAULT_TIMEOUT))
        assert status == 0, f"the flood ended with {status}: {output}"
        self.sent = int(re.fullmatch(r"SENT=(\d+)\n", output).group(1))
        self.per_second = self.sent / seconds
        return self.sent

    def close(self):
        if self._process.returncode is None:
            self.end()
