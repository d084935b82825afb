"""A real MPEG transport stream: ffmpeg's test picture and tone, made once and cut into datagrams."""

import fcntl
import subprocess

from . import rtp

PACKET_BYTES = 188
PACKETS_PER_DATAGRAM = 7
SYNC_BYTE = 0x47
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
