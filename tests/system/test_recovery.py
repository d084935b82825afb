"""Receivers behind bad networks: what the first sending loses, requests bring back.

One proxy and one stream serve all receivers at once, each behind a relay of its own, so that the stream has to
be sent only once. The figures are printed and stand in the test report.
"""

import os
import struct
import time

from txproxy import rtp
from txproxy.lossy_relay import Fault, LossyRelay
from txproxy.model_receiver import DEFAULT_WINDOW, ModelReceiver, Window, drive, raw_port, stamped, wait_bound
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
REORDERED = 0.05

# So long that none may be left missing, however busy the machine is: at 20 % loss each way three tries bring most.
LONG_WINDOW = Window(2, 5000, 0)

FILLER = bytes(range(256)) * (PAYLOAD_BYTES // 256) + bytes(PAYLOAD_BYTES % 256 - 4)


def payload(index):
    return struct.pack("!I", index) + FILLER


def is_packet(index, data):
    return data[rtp.HEADER_BYTES :] == payload(index)


class Path:
    """A receiver with its relay and its figures."""

    def __init__(self, number, name, loss, net, closing, **receiver_options):
        self.name = name
        self.loss = loss
        self.far_address = f"127.0.0.{20 + number}"
        self.relay = closing(
            LossyRelay(SEED + number, Fault(loss, REORDERED), self.far_address, f"127.0.0.{30 + number}", net)
        )
        self.stream_id = receiver_options.get("stream_id") or 0
        self.receiver = ModelReceiver(
            closing(udp_socket(f"127.0.0.{40 + number}", 0, reuse=False)),
            self.relay.ping_address,
            self.relay.request_address,
            FIRST_SEQ,
            TOTAL,
            is_packet,
            **receiver_options,
        )

    def media_started(self):
        """The line that the proxy prints when it has taken the first ping."""
        port = raw_port(self.relay.far_port)
        return stamped(f"Media started on port {port} for {self.far_address} ID:0x{self.stream_id:08x}")

    def residual(self):
        return len(self.receiver.absent()) / TOTAL

    def report(self, record_property):
        receiver, relay = self.receiver, self.relay
        print(
            f"{self.name}: {TOTAL} packets, on the way down {relay.dropped['down']} lost of "
            f"{relay.dropped['down'] + relay.passed['down']}, up {relay.dropped['up']} of "
            f"{relay.dropped['up'] + relay.passed['up']}, {relay.swapped} delayed; "
            f"{receiver.first_time} at the first sending, {receiver.recovered} recovered, "
            f"{len(receiver.absent())} missing, residual loss {100 * self.residual():.4f} %"
        )
        record_property(f"residual loss, {self.name}", f"{100 * self.residual():.4f} %")
        record_property(f"recovered, {self.name}", receiver.recovered)


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
    started = [path.media_started() for path in paths]
    parts = [part for path in paths for part in (path.relay, path.receiver)]
    drive(parts, lambda: all(proxy.stderr.find(line) for line in started), "the media start of every receiver")

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

    for path in paths:
        path.report(record_property)
    for path in paths:
        assert path.receiver.faults == [], path.name
    for name in ("1 % loss", "5 % loss", "20 % loss"):
        path = path_of[name]
        assert path.receiver.absent() == [], f"{name}: residual loss {100 * path.residual():.4f} %"
        # The relay has really lost what the requests brought back.
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
