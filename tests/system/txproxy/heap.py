"""What a running proxy holds on its heap, counted by a preloaded library (programs/heap_meter.c).

Not with sanitizers: they have a heap of their own.
"""

import collections
import struct

from . import programs

Heap = collections.namedtuple("Heap", "blocks bytes")

WORDS = struct.Struct("<qq")


class HeapMeter:
    """Give `env` to the process that is to be counted. `directory` takes the library and the counts."""

    def __init__(self, directory):
        self._path = directory / "heap_meter.words"
        self._path.write_bytes(bytes(WORDS.size))
        library = programs.build_library(directory, "heap_meter")
        self.env = {"LD_PRELOAD": str(library), "TX_PROXY_HEAP_METER": str(self._path)}

    def read(self):
        return Heap(*WORDS.unpack(self._path.read_bytes()))
