"""A running `arqctl serve` and its clients: plain HTTP as programs speak it, and bytes as strangers send them."""

import contextlib
import http.client
import json
import re
import socket

from .arqctl import Arqctl
from .waiting import DEFAULT_TIMEOUT, scaled, wait_until

URL = re.compile(r"http://127\.0\.0\.1:(\d+)/")
TOKEN = "a-token-for-tests-0123456789"


class Reply:
    def __init__(self, status, fields, body):
        self.status = status
        self.fields = fields  # http.client.HTTPMessage
        self.body = body

    @property
    def json(self):
        return json.loads(self.body)


class Server(Arqctl):
    """Serves on a free port of 127.0.0.1. `port` is known once the object is made."""

    def __init__(self, *arguments, **keywords):
        super().__init__("serve", "--listen", "127.0.0.1:0", *arguments, **keywords)
        self.port = int(URL.fullmatch(self.wait_stdout(URL)).group(1))

    def connect(self, receive_buffer=None):
        """A plain connection with a time-out."""
        sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        if receive_buffer:
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        sock.settimeout(scaled(DEFAULT_TIMEOUT))
        sock.connect(("127.0.0.1", self.port))
        return sock

    def request(self, method, path, fields=None, body=None):
        """One request on a connection of its own. `fields` may replace Host."""
        client = http.client.HTTPConnection("127.0.0.1", self.port, timeout=scaled(DEFAULT_TIMEOUT))
        with contextlib.closing(client):
            client.request(method, path, body, {"Host": f"127.0.0.1:{self.port}", **(fields or {})})
            reply = client.getresponse()
            return Reply(reply.status, reply.headers, reply.read().decode())

    def get(self, path, **fields):
        return self.request("GET", path, fields)

    def order(self, method, path, body=None, **fields):
        """A request that may change something: with the token and the type of JSON."""
        usual = {"X-Arqctl-Token": TOKEN, "Content-Type": "application/json"}
        return self.request(method, path, {**usual, **fields}, json.dumps(body) if body is not None else None)

    def channel(self, name):
        found = [one for one in self.get("/api/v1/channels").json["channels"] if one["id"] == str(name)]
        return found[0] if found else None

    def wait_channel(self, name, condition, what):
        """Waits until condition(channel) is true of the channel's object; returns the object."""

        def look():
            channel = self.channel(name)
            return channel if channel and condition(channel) else None

        return wait_until(look, f"channel {name} to be {what}")

    def metric(self, name):
        """The value of a metric without labels."""
        return float(re.search(rf"^{name} (\S+)$", self.get("/metrics").body, re.MULTILINE).group(1))

    def events(self, **keywords):
        return EventStream(self, **keywords)


class EventStream:
    """A client of /api/v1/events."""

    def __init__(self, server, **keywords):
        self.sock = server.connect(**keywords)
        self.sock.sendall(f"GET /api/v1/events HTTP/1.1\r\nHost: 127.0.0.1:{server.port}\r\n\r\n".encode())
        self._reply = http.client.HTTPResponse(self.sock)

    def begin(self):
        """Reads the head of the reply."""
        self._reply.begin()
        return self

    @property
    def status(self):
        return self._reply.status

    @property
    def fields(self):
        return self._reply.headers

    def next(self):
        """The next event as {field: text}, "data" as an object."""
        event = {}
        while (line := self._reply.readline().decode().rstrip("\n")) or not event:
            name, _, value = line.partition(": ")
            event[name] = json.loads(value) if name == "data" else value
        return event

    def close(self):
        self._reply.close()
        self.sock.close()
