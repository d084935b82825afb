"""A wall clock of one proxy's own, which a test sets as it likes. The machine's clock is never touched."""

import time

from . import preload

HOUR = 3600.0
WRAP = 2**31 / 1000  # 2^31 ms: 24.9 days; half of what a 32-bit count of milliseconds holds


class SteppedClock:
    """What programs/step_clock.c adds to the time; `env` is for the proxy that is to run by it."""

    def __init__(self, directory, name="clock"):
        path = directory / name
        self._words = preload.shared_words(path, 3)
        self.env = preload.environment(directory, "step_clock", STEPPED_CLOCK=str(path))

    def step(self, seconds):
        """Sets the clock forward, or back; it counts from the proxy's next look on."""
        self._words[0] += int(seconds * 1_000_000)

    def drift(self, parts_per_million):
        """Lets it run faster from now on, or slower."""
        self._words[2] = time.monotonic_ns() // 1000
        self._words[1] = parts_per_million

    def now(self):
        """The time that it shows (without a drift)."""
        return time.time() + self._words[0] / 1_000_000
