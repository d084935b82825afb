"""Receivers behind bad networks: what the first sending loses, requests bring back.

One proxy and one stream serve all receivers at once, each behind an arqlink of its own, so that the stream has to
be sent only once. The figures are printed and stand in the test report.
"""

import os
import struct
import time

from txproxy import rtp
from txproxy.link import Link, started_media
from txproxy.model_receiver import DEFAULT_WINDOW, ModelReceiver, Window, drive, wait_bound
from txproxy.receiver import udp_socket
from txproxy.traffic import Paced

RELEASE = os.environ.get("TX_PROXY_BUILD_KIND") == "release"
STREAM_SECONDS = 8 if RELEASE else 5
STREAM_BITS_PER_SECOND = 8_000_000 if RELEASE else 2_000_000
PAYLOAD_BYTES = 1316
DATAGRAM_BITS = 8 * (rtp.HEADER_BYTES + PAYLOAD_BYTES)
TOTAL = STREAM_SECONDS * STREAM_BITS_PER_SECOND // DATAGRAM_BITS
FIRST_SEQ = 65536 - TOTAL // 2  # the numbers wrap in the middle of the stream
SEED = 20240607
LINE = ["--jitter", "15ms", "--reorder", "5%"]

# So long that none may be left missing, however busy the machine is: at 20 % loss each way three tries bring most.
LONG_WINDOW = Window(2, 5000, 0)

FILLER = bytes(range(256)) * (PAYLOAD_BYTES // 256) + bytes(PAYLOAD_BYTES % 256 - 4)


def payload(index):
    return struct.pack("!I", index) + FILLER


def is_packet(index, data):
    return data[rtp.HEADER_BYTES :] == payload(index)


class Path:
    """A receiver with its line and its figures."""

    def __init__(self, number, name, loss, net, closing, **receiver_options):
        self.name = name
        self.loss = loss
        self.line = closing(
            Link(
                [("127.0.0.1", net.destination), ("127.0.0.1", net.request)],
                *["--seed", SEED + number, "--loss", loss, *LINE, "--source", f"127.0.0.{20 + number}"],
                address=f"127.0.0.{30 + number}",
            )
        )
        self.stream_id = receiver_options.get("stream_id") or 0
        self.receiver = ModelReceiver(
            closing(udp_socket(f"127.0.0.{40 + number}", 0, reuse=False)),
            *self.line.listen,
            FIRST_SEQ,
            TOTAL,
            is_packet,
            **receiver_options,
        )

    def media_started(self, proxy):
        return started_media(proxy, self.line, self.stream_id)

    def residual(self):
        return len(self.receiver.absent()) / TOTAL

    def report(self, record_property):
        """Ends the line, prints and returns what it did."""
        receiver, figures = self.receiver, self.line.stop()
        down, up = figures["down"], figures["up"]
        print(
            f"{self.name}: {TOTAL} packets, on the way down {down['lost']} lost of {down['came']}, "
            f"up {up['lost']} of {up['came']}, {down['reordered']} overtaken; "
            f"{receiver.first_time} at the first sending, {receiver.recovered} recovered, "
            f"{len(receiver.absent())} missing, residual loss {100 * self.residual():.4f} %"
        )
        record_property(f"residual loss, {self.name}", f"{100 * self.residual():.4f} %")
        record_property(f"recovered, {self.name}", receiver.recovered)
        return figures


def assert_was_bad(figures, loss):
    """The line has lost its part and nothing else, and has changed the order."""
    down, up = figures["down"], figures["up"]
    assert down["lost"] == down["lost_by"]["random"]
    assert up["lost"] == up["lost_by"]["random"]
    assert 0.5 * loss < down["lost"] / down["came"] < 2 * loss
    assert down["reordered"] > TOTAL / 300
    assert (figures["clients_seen"], figures["overrun"], figures["strangers"]) == (1, 0, 0)


def test_receivers_behind_1_5_and_20_percent_loss_end_with_every_packet_of_the_stream(
    net, start_proxy, sender, closing, record_property
):
    proxy = wait_bound(start_proxy(), net.destination, net.request)
    path_of = {
        "1 % loss": Path(0, "1 % loss", 0.01, net, closing, window=LONG_WINDOW),
        "5 % loss": Path(1, "5 % loss", 0.05, net, closing, window=LONG_WINDOW, stream_id=0x51),
        "20 % loss": Path(2, "20 % loss", 0.20, net, closing, window=LONG_WINDOW, stream_id=0x52),
        "default": Path(3, "20 % loss, 600 ms window", 0.20, net, closing, window=DEFAULT_WINDOW),
        "no requests": Path(4, "20 % loss, no requests", 0.20, net, closing, asks=False),
    }
    paths = list(path_of.values())
    parts = [path.receiver for path in paths]
    drive(parts, lambda: all(path.media_started(proxy) for path in paths), "the media start of every receiver")

    stream = Paced(
        sender,
        lambda index: rtp.packet(FIRST_SEQ + index, payload(index)),
        STREAM_BITS_PER_SECOND / DATAGRAM_BITS,
        TOTAL,
    )
    sending = [*parts, stream]
    drive(sending, lambda: stream.sent == TOTAL, "the end of the stream", timeout=2 * STREAM_SECONDS + 15)
    # The last packets may still be on their way: the end of the stream is known only a little later.
    ending = time.monotonic() + 0.25
    drive(parts, lambda: time.monotonic() > ending, "the last first sendings")
    for path in paths:
        path.receiver.end_of_stream(time.monotonic())
    drive(parts, lambda: all(path.receiver.is_settled for path in paths), "the last recoveries", timeout=20)

    figures_of = {path.name: path.report(record_property) for path in paths}
    for path in paths:
        assert path.receiver.faults == [], path.name
        assert_was_bad(figures_of[path.name], path.loss)
    for name in ("1 % loss", "5 % loss", "20 % loss"):
        path = path_of[name]
        assert path.receiver.absent() == [], f"{name}: residual loss {100 * path.residual():.4f} %"
        # The line has really lost what the requests brought back.
        assert path.receiver.recovered > TOTAL * path.loss / 10, name
    # A packet that needs more tries than fit into 600 ms stays lost. Four tries leave 2 % of what the first sending
    # lost; how many tries there are is a matter of the machine, so only what has had them counts.
    short = path_of["default"].receiver
    assert set(short.absent()) == short.given_up
    assert short.recovered > TOTAL * path_of["default"].loss / 10
    tried = [index for index in short.given_up if short.times_asked(index) >= 4]
    assert len(tried) < (short.recovered + len(short.given_up)) / 10
    unprotected = path_of["no requests"]
    assert unprotected.receiver.recovered == 0
    assert 0.1 < unprotected.residual() < 0.3
