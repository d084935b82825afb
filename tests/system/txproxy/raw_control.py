"""Plain connections to the control socket, for clients that behave badly."""

import contextlib
import select
import socket
import struct
import time

from . import control
from .waiting import DEFAULT_TIMEOUT, POLL_SECONDS, scaled, wait_until

STALLED_SECONDS = 0.3  # less than the proxy waits with a write


def _connect(instance):
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    # A blocking connect waits for a place in the backlog; its bound is the send time-out.
    bound = struct.pack("ll", int(scaled(DEFAULT_TIMEOUT)), 0)
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO, bound)
    try:
        sock.connect(control.path(instance))
    except (FileNotFoundError, ConnectionRefusedError):
        sock.close()
        return None
    sock.settimeout(scaled(DEFAULT_TIMEOUT))
    return sock


@contextlib.contextmanager
def connected(instance):
    """One connection as a socket with a time-out; waits for the proxy's socket and for a place in its backlog."""
    with wait_until(lambda: _connect(instance), f"a listener on {control.path(instance)}") as sock:
        yield sock


def receive_all(sock):
    """Everything until the proxy closes the connection."""
    chunks = []
    while chunk := sock.recv(65536):
        chunks.append(chunk)
    return b"".join(chunks)


def receive_bytes(sock, size):
    """Exactly so many bytes."""
    data = b""
    while len(data) < size:
        chunk = sock.recv(size - len(data))
        assert chunk, f"closed after {data}"
        data += chunk
    return data


def ask(sock, text):
    """One request and its reply on an open connection."""
    sock.sendall(text if isinstance(text, bytes) else text.encode())
    return sock.recv(65536).decode()


def converse(instance, data):
    """Sends `data`, ends the sending direction, and returns all replies."""
    with connected(instance) as sock:
        sock.sendall(data)
        sock.shutdown(socket.SHUT_WR)
        return receive_all(sock).decode()


def is_silent(sock, seconds):
    """True when nothing can be read for so long."""
    return not select.select([sock], [], [], seconds)[0]


def flood(sock, data):
    """Sends `data` again and again without ever reading, until nothing more is taken for a while."""
    sock.setblocking(False)
    last_taken = time.monotonic()
    sent = 0
    while time.monotonic() - last_taken < STALLED_SECONDS:
        try:
            sent += sock.send(data)
            last_taken = time.monotonic()
        except BlockingIOError:
            time.sleep(POLL_SECONDS)
    return sent
