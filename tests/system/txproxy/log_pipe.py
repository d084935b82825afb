"""A log reader of the test's own, in the place of one output of the proxy or of both."""

import fcntl
import os

from .proxy import Output

STDOUT, STDERR = 1, 2
F_SETPIPE_SZ = 1031  # not in the fcntl module of every Python
SMALLEST_PIPE_BYTES = 4096
FILLING = b"#"  # no line of the proxy's begins with it


class LogPipe:
    """A pipe. A short log fits in without a reader."""

    def __init__(self, *outputs):
        self._outputs = outputs
        self.read_end, self._write_end = os.pipe()

    def preexec(self):
        for output in self._outputs:
            os.dup2(self._write_end, output)

    def fill(self):
        """Leaves no room for a single byte: the next write waits for a reader."""
        fcntl.fcntl(self._write_end, F_SETPIPE_SZ, SMALLEST_PIPE_BYTES)
        os.set_blocking(self._write_end, False)
        try:
            while True:
                os.write(self._write_end, FILLING)
        except BlockingIOError:
            os.set_blocking(self._write_end, True)
        return self

    def read(self):
        """Reads everything from now on, as an Output; the filling counts as a line of its own."""
        # Not the proxy's end: without it the Output would wait for the test's copy.
        self.close()
        return Output("the log pipe", os.fdopen(self.read_end, "rb", 0))

    def close_read_end(self):
        os.close(self.read_end)

    def close(self):
        if self._write_end is not None:
            os.close(self._write_end)
        self._write_end = None
