"""Reports of receivers at `arqctl serve`, and whatever else comes to their port."""

import json
import random
import re
import socket
import urllib.parse
import urllib.request

import pytest

from txproxy.arqctl import Arqctl
from txproxy.prometheus import promtool
from txproxy.waiting import DEFAULT_TIMEOUT, scaled, wait_until

CHANNEL = "/dev/no_proxy_here"  # reports need none
MOST = 1000
COUNTS = ("packets_received", "packets_resent", "packets_missing", "packets_recovered", "packets_lost", "packets_waiting",
          "packets_duplicate", "packets_late", "requests", "numbers_asked", "most_asked")  # fmt: skip


def report(name, **fields):
    return json.dumps({"arqrx": 1, "name": name, "run_s": 1.5, **dict.fromkeys(COUNTS, 0), **fields}).encode()


class Server:
    def __init__(self, closing, port):
        self._address = ("127.0.0.1", port)
        self._process = closing(Arqctl("serve", "--listen", f"127.0.0.1:{port}", CHANNEL))
        self._process.wait_stdout(f"http://127.0.0.1:{port}/")
        self._socket = closing(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
        self._socket.bind(("127.0.0.5", 0))

    def tell(self, datagram):
        self._socket.sendto(datagram, self._address)

    def get(self, path):
        host, port = self._address
        with urllib.request.urlopen(f"http://{host}:{port}{path}", timeout=scaled(DEFAULT_TIMEOUT)) as answer:
            return answer.read().decode()

    def reports(self):
        """{name: report} of the channel."""
        channel = json.loads(self.get(f"/api/v1/channels/{urllib.parse.quote(CHANNEL, safe='')}"))
        return {one["name"]: one for one in channel["reports"]}

    def wait_report(self, name, condition):
        return wait_until(lambda: (one := self.reports().get(name)) and condition(one) and one,
                          lambda: f"a report of {name}; there are {self.reports()}")  # fmt: skip

    def receivers(self):
        """(channel, name) of all in the metrics, live or gone."""
        return re.findall(r'^tx_proxy_report_up{channel="(.*)",name="(.*)"} [01]$', self.get("/metrics"), re.MULTILINE)


@pytest.fixture
def server(closing, lease):
    """Its page is there once it has looked at the channel."""
    server = Server(closing, lease.port())
    wait_until(lambda: CHANNEL in server.get("/api/v1/channels"), "the channel")
    return server


def test_a_receiver_shows_with_its_channel_until_it_says_that_it_ends(server):
    server.tell(report("studio-b", channel=CHANNEL, packets_lost=3, most_asked=2, packet_bytes=1328, round_trip_ms=20.5))
    told = server.wait_report("studio-b", lambda one: one["state"] == "live")
    assert (told["address"], told["packets_lost"], told["round_trip_ms"]) == ("127.0.0.5", 3, 20.5)
    assert "buffer_ms" not in told and told["age_s"] < scaled(DEFAULT_TIMEOUT)
    wait_until(lambda: (CHANNEL, "studio-b") in server.receivers(), "the receiver in the metrics")
    server.tell(report("studio-b", channel=CHANNEL, run_s=2, final=True))
    server.wait_report("studio-b", lambda one: one["state"] == "ended" and one["final"])
    wait_until(lambda: server.receivers() == [], "the metrics without the receiver")


def test_whatever_strangers_send_it_answers_and_keeps_a_thousand_receivers(server, tmp_path):
    server.tell(report("studio-b", channel=CHANNEL))
    server.wait_report("studio-b", lambda one: one["state"] == "live")
    chance = random.Random(5)
    good = report("x", channel=CHANNEL)
    bad = [b"", b"{", b"[" * 1400, b'{"a":' * 280, chance.randbytes(1400), bytes(60000), report("y", packets_lost=-1),
           report("y", run_s="1"), good[:-1], good + b"x", report("")]  # fmt: skip
    bad += [bytes(chance.choice((byte, chance.randrange(256))) for byte in good) for _ in range(300)]
    for datagram in bad:
        server.tell(datagram)
    for number in range(MOST + 200):
        server.tell(report(f'n{number} "\\\n\u202e{"é" * 60}'))
        if number % 50 == 0:
            server.reports()  # it has read what came before
    wait_until(lambda: len(server.receivers()) == MOST, lambda: f"{MOST} receivers, not {len(server.receivers())}")
    assert set(server.reports()) == {"studio-b"}
    (tmp_path / "metrics").write_text(server.get("/metrics"), "utf-8")
    with open(tmp_path / "metrics", encoding="utf-8") as page:
        status, text = promtool("check", "metrics", folder=tmp_path, stdin=page)
    assert (status, text) == (0, "")
