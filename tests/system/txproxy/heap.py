"""What a running proxy holds on its heap, counted by a preloaded library (programs/heap_meter.c).

Not with sanitizers: they have a heap of their own.
"""

import collections

from . import preload

Heap = collections.namedtuple("Heap", "blocks bytes")


class HeapMeter:
    """Give `env` to the process that is to be counted. `directory` takes the library and the counts."""

    def __init__(self, directory):
        path = directory / "heap_meter.words"
        self._words = preload.shared_words(path, len(Heap._fields))
        self.env = preload.environment(directory, "heap_meter", TX_PROXY_HEAP_METER=str(path))

    def read(self):
        return Heap(*self._words)
