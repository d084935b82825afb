"""The sample captures of the dissector: a proxy, a bad line and a receiver, recorded on both sides of the line.

  receiver.pcapng  what a receiver sees behind a line that loses exact packets: gaps, requests, packets sent again
  proxy.pcapng     the same run before the line: every first sending, too
  kinds.pcapng     one of each: tags in either order, requests that are dropped or in vain, echoes, leaving, stopping

The proxy has its usual ports. Datagrams are small, and leave one by one.
"""

import re
import subprocess
import time

from . import control, link, netns, pcapng, rtp
from .arqrx import Arqrx, send_evenly
from .model_receiver import (
    STOP_MAGIC, STOP_MESSAGE, PingingReceiver, Window, echo_ping, start_media, wait_bound,
)  # fmt: skip
from .proxy import Proxy
from .receiver import Sender
from .waiting import wait_until

NAMES = ("receiver", "proxy", "kinds")
PING_PORT, REQUEST_PORT = 10000, 7020
INPUT_PORT = 9000
LINE = "192.0.2.1"  # where the receiver finds the line; documentation addresses (RFC 5737)
RECEIVER = ("192.0.2.2", 5000)
STREAM_ID = 0x51
LOST = [11, 21, 22, 23, 31]  # 31 is lost again when it is sent again
DROPPED = "11,21-23,31x2"
PACKETS = 45
MORE_PACKETS = 5  # when all is repaired: Wireshark counts losses up to the last packet
PER_SECOND = 100
DELAY = "10ms"
TS_PID = 0x100
TS_PACKET_BYTES = 188

TAGGED = ("10.77.0.2", 5001, 0x01020304)
PLAIN = ("10.77.0.3", 5002)
SHORT_WINDOW = Window(0, 1, 0)  # 1 ms: everything is too old
USUAL_WINDOW = Window(2, 200, 0)


def media(number):
    """A datagram for the proxy's input: one MPEG-TS packet, its continuity counter running."""
    return bytes([0x47, TS_PID >> 8, TS_PID & 0xFF, 0x10 | number & 15]) + bytes([number & 0xFF]) * (TS_PACKET_BYTES - 4)


class Stage:
    """Proxy and network of the captures."""

    def __init__(self, closing, launch, instance):
        self.closing = closing
        self.instance = instance
        self.lan = closing(netns.Lan())
        for side in (self.lan.proxy, self.lan.peer):
            # Headers as on a wire: no datagrams in trains, no checksum left to the network card.
            settings = ["ethtool", "-K", "eth0", "tx", "off", "tx-udp-segmentation", "off"]
            subprocess.run(["ip", "netns", "exec", side.name, *settings], check=True, capture_output=True)
        for i, side in enumerate((self.lan.proxy, self.lan.peer), 1):
            side.ip("link", "set", "eth0", "address", f"02:00:00:00:00:0{i}")
        for address in (LINE, RECEIVER[0]):
            self.lan.peer.ip("addr", "add", f"{address}/32", "dev", "lo")
        self.lan.peer.ip("addr", "add", f"{PLAIN[0]}/24", "dev", "eth0")
        self.proxy = launch("-I", instance, "-u", INPUT_PORT, namespace=self.lan.proxy).wait_ready()
        wait_bound(self.proxy, PING_PORT, REQUEST_PORT)
        self._feed = closing(Sender("127.0.0.1", INPUT_PORT, self.lan.proxy))
        self._next = 1

    def send(self, count):
        """Returns the numbers that the proxy gives them."""
        numbers = range(self._next, self._next + count)
        self._next += count
        send_evenly(self._feed, list(map(media, numbers)), PER_SECOND)
        return numbers


def lossy_run(stage):
    """A receiver behind the line joins, misses LOST, gets all again and leaves. Returns (its frames, the proxy's)."""
    peer, recorders = stage.lan.peer, []
    for device in ("lo", "eth0"):
        recorders.append(stage.closing(pcapng.Recorder(peer, device)))
    address = netns.proxy_address(0)
    line = Proxy("--delay", DELAY, "--down-drop-seq", DROPPED, f"{LINE}:{PING_PORT}={address}:{PING_PORT}",
                 f"{LINE}:{REQUEST_PORT}={address}:{REQUEST_PORT}", namespace=peer, program=link.program())  # fmt: skip
    receiver = None
    try:
        line.wait_stdout(re.compile("The line: .*"))
        receiver = Arqrx(LINE, "--bind", f"{RECEIVER[0]}:{RECEIVER[1]}", "--id", hex(STREAM_ID), "--json", "--interval",
                         "100ms", "--latency", "2s", namespace=peer)  # fmt: skip
        stage.proxy.wait_stderr(re.compile(rf".*Media started on port \d+ for .* ID:0x{STREAM_ID:08x}"))
        receiver.wait_figures(lambda figures: figures.get("round_trip_ms"), "a round trip")
        stage.send(PACKETS)
        receiver.wait_figures(lambda figures: figures["packets_recovered"] == len(LOST), "all that was lost")
        before = receiver.figures()["packets_received"]
        stage.send(MORE_PACKETS)
        receiver.wait_figures(lambda figures: figures["packets_received"] >= before + MORE_PACKETS, "the last packets")
        receiver.end()
        stage.proxy.wait_stderr(re.compile(r".*Stream stopped for .*"))
    finally:
        for process in filter(None, (receiver, line)):
            process.kill()
    return [recorder.frames() for recorder in recorders]


def one_of_each(stage):
    """What the other run does not have, at the receivers. Returns the frames."""
    recorder = stage.closing(pcapng.Recorder(stage.lan.peer, "eth0"))
    ports = type("Ports", (), {"destination": PING_PORT, "request": REQUEST_PORT})

    def joined(address, port, **keywords):
        return start_media(stage.proxy, stage.closing(PingingReceiver(
            address, port, ports, proxy_address=netns.proxy_address(0), namespace=stage.lan.peer, **keywords
        )))  # fmt: skip

    tagged = joined(*TAGGED[:2], stream_id=TAGGED[2], swapped=True)
    plain = joined(*PLAIN)
    sent = stage.send(6)
    first = sent[1]
    for receiver in (tagged, plain):
        receiver.wait_for(lambda datagram: len(datagram.data) > 100 and rtp.seq(datagram.data) == sent[-1])
    tagged.ask([first, first + 2], USUAL_WINDOW)
    tagged.fence()
    tagged.ask([first], USUAL_WINDOW)  # less than the hold-off ago
    tagged.ask([40000], USUAL_WINDOW)  # never sent
    tagged.ask([], Window(3, 250, 40))
    tagged.ask([first + 1], USUAL_WINDOW, checksum=0x1234)
    tagged.ask([first + 1], USUAL_WINDOW, trailer=b"\x80")
    tagged.fence()
    tagged.send(bytes.fromhex("babeface00000000") + echo_ping(b"zero"), tagged.request_address)
    plain.ask_raw(bytes.fromhex("0000e2ad01020304"))
    plain.ask_raw(b"\x01\x02\x03")
    time.sleep(0.002)  # one tick more than the window
    plain.ask([first + 1], SHORT_WINDOW)
    plain.fence()
    control.request(stage.instance, f"Delete {PLAIN[0]}")
    wait_until(lambda: plain.payloads.count(STOP_MESSAGE) == 5, "the stop messages")
    tagged.send(STOP_MAGIC[::-1] + TAGGED[2].to_bytes(4, "little"), tagged.ping_address)
    stage.proxy.wait_stderr(re.compile(rf".*Stream stopped for {TAGGED[0]} .*"))
    return recorder.frames()


def make(folder, closing, launch, instance):
    """Runs all and writes the files into `folder`."""
    stage = Stage(closing, launch, instance)
    receiver, proxy = lossy_run(stage)
    for name, frames in zip(NAMES, (receiver, proxy, one_of_each(stage))):
        pcapng.write(folder / f"{name}.pcapng", frames)
