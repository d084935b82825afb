"""A real MPEG transport stream: ffmpeg's test picture and tone, made once and cut into datagrams."""

import fcntl
import subprocess

from . import rtp

PACKET_BYTES = 188
PACKETS_PER_DATAGRAM = 7
SYNC_BYTE = 0x47
NULL_PID = 0x1FFF
SOURCE = (
    "-f lavfi -i testsrc=size=320x240:rate=25 -f lavfi -i sine=frequency=440 "
    "-c:v mpeg2video -b:v 2M -g 12 -c:a mp2 -b:a 128k"
).split()


def ffmpeg(*arguments):
    return ["ffmpeg", "-hide_banner", "-loglevel", "error", "-nostdin", *map(str, arguments)]


def make(directory, seconds=3):
    """The bytes of the stream. Test processes that share `directory` make it once."""
    path = directory / f"test_{seconds}s.ts"
    with open(directory / "mpegts.lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not path.exists():
            part = path.with_suffix(".part")
            subprocess.run(
                ffmpeg(*SOURCE, "-t", seconds, "-f", "mpegts", "-y", part), check=True, stdin=subprocess.DEVNULL
            )
            part.rename(path)
    return path.read_bytes()


def live_rtp(destination_port, seconds=3):
    """The command that sends the stream as RTP to loopback in real time, frame by frame, that is in bursts."""
    return ffmpeg(*SOURCE[:2], "-re", *SOURCE[2:], "-t", seconds, "-f", "rtp_mpegts",
                  f"rtp://127.0.0.1:{destination_port}?pkt_size=1328")  # fmt: skip


def datagrams(stream):
    """The stream in pieces of 7 transport packets, as it is sent over UDP."""
    step = PACKET_BYTES * PACKETS_PER_DATAGRAM
    return [stream[start : start + step] for start in range(0, len(stream), step)]


def rtp_datagrams(stream, first_seq=0):
    return [
        rtp.packet(first_seq + i, payload, timestamp=0xABCD0000 + i) for i, payload in enumerate(datagrams(stream))
    ]


def packets(stream):
    """The transport packets of a stream that begins with one; what is left over at the end is not one."""
    whole = [stream[start : start + PACKET_BYTES] for start in range(0, len(stream) - PACKET_BYTES + 1, PACKET_BYTES)]
    assert all(packet[0] == SYNC_BYTE for packet in whole), "a packet without its sync byte"
    return whole


def pid(packet):
    return int.from_bytes(packet[1:3], "big") & 0x1FFF


def continuity_errors(stream):
    """How often the counter of a PID does not go on by one. Packets without payload do not count up."""
    last = {}
    errors = 0
    for packet in packets(stream):
        if pid(packet) == NULL_PID or not packet[3] & 0x10:
            continue
        counter = packet[3] & 0x0F
        errors += last.get(pid(packet), counter - 1) & 0x0F != (counter - 1) & 0x0F
        last[pid(packet)] = counter
    return errors


def without_nulls(stream):
    return b"".join(packet for packet in packets(stream) if pid(packet) != NULL_PID)
