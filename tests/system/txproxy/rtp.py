"""RTP datagrams as the proxy takes and sends them (12-byte header, no extension)."""

import struct
import time

HEADER_BYTES = 12
TICKS_PER_SECOND = 90000
MEDIA_PAYLOAD_TYPE = 33
TIMESTAMP = slice(4, 8)


def packet(seq, payload=b"", timestamp=0, ssrc=0x11223344, payload_type=MEDIA_PAYLOAD_TYPE, flags=0x80, marker=0):
    header = struct.pack(
        "!BBHII", flags, payload_type | marker << 7, seq & 0xFFFF, timestamp & 0xFFFFFFFF, ssrc & 0xFFFFFFFF
    )
    return header + payload


def seq(data):
    return struct.unpack_from("!H", data, 2)[0]


def timestamp(data):
    return struct.unpack_from("!I", data, 4)[0]


def payload_type(data):
    return data[1] & 0x7F


def ssrc_host_order(data):
    """The SSRC as the proxy writes it: a little-endian word."""
    return struct.unpack_from("<I", data, 8)[0]


def payload(data):
    return data[HEADER_BYTES:]


def without_timestamp(data):
    """The datagram, however short, with the only bytes that the proxy may change set to zero."""
    return data[: TIMESTAMP.start] + bytes(len(data[TIMESTAMP])) + data[TIMESTAMP.stop :]


def ticks(seconds):
    """A wall-clock time as the 90 kHz media clock shows it."""
    return int(seconds * TICKS_PER_SECOND) & 0xFFFFFFFF


def ticks_since(now, then):
    """now - then as a signed 32-bit difference."""
    difference = (now - then) & 0xFFFFFFFF
    return difference - (1 << 32) if difference & 0x80000000 else difference


def age_seconds(data, now=None):
    """How old the timestamp of a datagram is."""
    return ticks_since(ticks(time.time() if now is None else now), timestamp(data)) / TICKS_PER_SECOND
