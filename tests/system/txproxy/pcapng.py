"""Capture files: frames as an interface sees them, written as pcapng.

Nothing of the machine goes into a file: no names, and addresses only as the frames have them.
"""

import socket
import struct

from . import capture
from .receiver import RECEIVE_BUFFER_BYTES, SO_RCVBUFFORCE

SO_TIMESTAMPNS = 35  # not in the socket module
NANOSECONDS = 10**9
ETHERNET = 1  # the link type
SECTION_HEADER, INTERFACE, PACKET = 0x0A0D0D0A, 1, 6  # blocks
LONGEST = 1 << 16
RESOLUTION_OPTION, NANOSECOND_RESOLUTION = 9, 9


def _block(kind, body):
    padded = body + bytes(-len(body) % 4)
    return struct.pack("<II", kind, len(padded) + 12) + padded + struct.pack("<I", len(padded) + 12)


def write(path, frames):
    """`frames` are (nanoseconds since the epoch, bytes), and a third if the capture kept less: the length on the wire."""
    interface = struct.pack("<HHIHHBxxxHH", ETHERNET, 0, LONGEST, RESOLUTION_OPTION, 1, NANOSECOND_RESOLUTION, 0, 0)
    blocks = [
        _block(SECTION_HEADER, struct.pack("<IHHq", 0x1A2B3C4D, 1, 0, -1)),
        _block(INTERFACE, interface),
    ]
    for time, frame, *length in frames:
        head = struct.pack("<5I", 0, time >> 32, time & 0xFFFFFFFF, len(frame), *(length or [len(frame)]))
        blocks.append(_block(PACKET, head + frame))
    path.write_bytes(b"".join(blocks))


def udp_frame(payload, source, destination):
    """A frame with this UDP datagram from one (address, port) to another, without a UDP checksum."""
    udp = struct.pack("!4H", source[1], destination[1], capture.UDP_BYTES + len(payload), 0) + payload
    addresses = socket.inet_aton(source[0]) + socket.inet_aton(destination[0])
    ip = struct.pack("!BBHHHBBH", 0x45, 0, capture.IP_BYTES + len(udp), 0, 0, 64, socket.IPPROTO_UDP, 0) + addresses
    return bytes(12) + struct.pack("!H", capture.ETHERTYPE_IP) + ip + udp


class Recorder:
    """Records the UDP frames of `device` in a namespace, both ways, with the kernel's times, from now on."""

    def __init__(self, namespace, device):
        def create():
            sock = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(capture.ETHERTYPE_ANY))
            sock.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, RECEIVE_BUFFER_BYTES)
            sock.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
            sock.bind((device, capture.ETHERTYPE_ANY))
            sock.setblocking(False)
            return sock

        self._sock = namespace.call(create)
        self._loopback = device == "lo"
        self._frames = []

    def frames(self):
        """(nanoseconds since the epoch, bytes) of all so far, in order."""
        while True:
            try:
                data, ancillary, _, source = self._sock.recvmsg(1 << 17, 64)
            except BlockingIOError:
                return self._frames
            # On the loopback device a frame is seen as it leaves and as it arrives.
            if capture.parse(data) and not (self._loopback and source[2] == socket.PACKET_OUTGOING):
                seconds, nanoseconds = struct.unpack("qq", ancillary[0][2][:16])
                self._frames.append((seconds * NANOSECONDS + nanoseconds, data))

    def close(self):
        self._sock.close()
