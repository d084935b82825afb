"""Allocations of one proxy that fail as a test likes."""

from . import preload


class RefusedMemory:
    """What programs/refuse_memory.c refuses; `env` is for the proxy. Not for builds with a sanitizer, whose allocator
    is their own."""

    def __init__(self, directory, name="memory"):
        path = directory / name
        self._words = preload.shared_words(path, 3)
        self.env = preload.environment(directory, "refuse_memory", REFUSED_MEMORY=str(path))

    @property
    def calls(self):
        """How many allocations there have been."""
        return self._words[0]

    def refuse_call(self, number):
        """The allocation with this number fails, counted from 1 at the start of the process."""
        self._words[0] = 0
        self._words[1] = number

    def refuse_from(self, size):
        """From now on all allocations of at least that many bytes fail."""
        self._words[2] = size

    def refuse_nothing(self):
        self._words[1] = 0
        self._words[2] = 0
