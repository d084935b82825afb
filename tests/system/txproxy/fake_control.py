"""A control socket behind which there is no proxy, but what a test puts there."""

import os
import socket
import threading

from . import control
from .waiting import DEFAULT_TIMEOUT, scaled

ANSWER = b"RECV_PACKETS=1\nRECV_BITRATE=2\nRECV_LOSS=3\nSEND_PACKETS=4\nSEND_BITRATE=5\nCLIENTS=127.0.0.2"


class FakeControl:
    """Listens as instance `instance`; every connection is given to behave(connection) on a thread of its own."""

    def __init__(self, instance, behave, backlog=5):
        self.path = control.path(instance)
        self._behave = behave
        self._ended = threading.Event()
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._listener.bind(self.path)
        self._listener.listen(backlog)
        self._threads = []
        if behave:
            self._accepting = threading.Thread(target=self._run, daemon=True)
            self._accepting.start()
            self._threads.append(self._accepting)

    def _run(self):
        while not self._ended.is_set():
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            connection.settimeout(scaled(DEFAULT_TIMEOUT))
            thread = threading.Thread(target=self._serve, args=(connection,), daemon=True)
            thread.start()
            self._threads.append(thread)

    def _serve(self, connection):
        with connection:
            try:
                self._behave(connection)
            except OSError:
                pass  # the client has left

    def wait_ended(self, connection):
        """For a behaviour that does nothing: until the client has left."""
        while connection.recv(4096):
            pass
        self._ended.wait(scaled(DEFAULT_TIMEOUT))

    def close(self):
        self._ended.set()
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        for thread in self._threads:
            thread.join(scaled(DEFAULT_TIMEOUT))
        os.unlink(self.path)
