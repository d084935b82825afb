"""Bounded waits. Every time-out is multiplied by TX_PROXY_TIME_SCALE (sanitizer builds are slow)."""

import os
import time

DEFAULT_TIMEOUT = 15.0
POLL_SECONDS = 0.005


def scaled(seconds):
    return seconds * float(os.environ.get("TX_PROXY_TIME_SCALE", "1"))


def wait_until(condition, what, timeout=DEFAULT_TIMEOUT):
    """Returns the first true value of condition(); fails, naming `what`, when the time is over.

    `what` is a text, or a function that makes one when the wait has failed.
    """
    deadline = time.monotonic() + scaled(timeout)
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"gave up waiting for {what() if callable(what) else what}")
        time.sleep(POLL_SECONDS)
