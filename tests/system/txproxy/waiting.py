"""Bounded waits. Every time-out is multiplied by TX_PROXY_TIME_SCALE (sanitizer builds are slow)."""

import contextlib
import os
import threading
import time

DEFAULT_TIMEOUT = 15.0
POLL_SECONDS = 0.005  # at first
LONGEST_POLL_SECONDS = 0.02  # in long waits: those who look keep those from running whom they wait for
TURN_SECONDS = 0.01  # what within() looks at


def scaled(seconds):
    return seconds * float(os.environ.get("TX_PROXY_TIME_SCALE", "1"))


def wait_until(condition, what, timeout=DEFAULT_TIMEOUT):
    """Returns the first true value of condition(); fails, naming `what`, when the time is over.

    `what` is a text, or a function that makes one when the wait has failed.
    """
    deadline = time.monotonic() + scaled(timeout)
    pause = POLL_SECONDS
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"gave up waiting for {what() if callable(what) else what}")
        time.sleep(pause)
        pause = min(1.1 * pause, LONGEST_POLL_SECONDS)


class Lateness:
    """How late the machine lets sleepers come, added up since the beginning: a thread sleeps in turns and looks."""

    def __init__(self, turn_seconds):
        self.seconds = 0.0
        self._turn_seconds = turn_seconds
        self._running = True
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        while self._running:
            begin = time.monotonic()
            time.sleep(self._turn_seconds)
            self.seconds += time.monotonic() - begin - self._turn_seconds

    def allowed(self):
        """How much later a program may be that sleeps in such turns: chance may treat it worse than this thread."""
        return 3 * self.seconds

    def close(self):
        self._running = False
        self._thread.join()


@contextlib.contextmanager
def within(seconds):
    """The block takes less than `seconds`, scaled; what the machine lets others come late meanwhile is allowed too."""
    lateness = Lateness(TURN_SECONDS)
    began = time.monotonic()
    try:
        yield
        took = time.monotonic() - began
    finally:
        lateness.close()
    limit = scaled(seconds) + lateness.allowed()
    assert took < limit, f"took {took:.3f} s, {limit:.3f} s are allowed"
