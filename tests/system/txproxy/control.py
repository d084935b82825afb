"""Client of the control socket: one request, one reply, neither with a line end."""

import select
import socket

from .waiting import DEFAULT_TIMEOUT, scaled, wait_until


def path(instance):
    return f"/dev/arq_tx_ctrl{instance}"


class ControlClient:
    """One connection. The proxy serves one client at a time, so close it when done (or use `with`)."""

    def __init__(self, instance):
        self._socket = wait_until(lambda: self._connect(instance), f"a listener on {path(instance)}")
        self._socket.settimeout(scaled(DEFAULT_TIMEOUT))

    @staticmethod
    def _connect(instance):
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        try:
            sock.connect(path(instance))
        except (FileNotFoundError, ConnectionRefusedError):
            sock.close()
            return None
        return sock

    def send(self, request):
        self._socket.sendall(request if isinstance(request, bytes) else request.encode())

    def receive(self):
        return self._socket.recv(65536).decode()

    def has_reply(self):
        return bool(select.select([self._socket], [], [], 0)[0])

    def request(self, text):
        self.send(text)
        return self.receive()

    def close(self):
        self._socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


def request(instance, text):
    with ControlClient(instance) as client:
        return client.request(text)
