"""The UDP frames that leave by an interface, as a capture there shows them."""

import collections
import contextlib
import socket
import struct

from .receiver import RECEIVE_BUFFER_BYTES, SO_RCVBUFFORCE

ETHERNET_BYTES, IP_BYTES, UDP_BYTES = 14, 20, 8
HEADERS_BYTES = ETHERNET_BYTES + IP_BYTES + UDP_BYTES
ETHERTYPE_ANY = 3
ETHERTYPE_IP = 0x0800

Frame = collections.namedtuple("Frame", "address port payload ttl")


def parse(frame):
    """A Frame to (address, port); None for anything but a UDP datagram without IP options."""
    if len(frame) < HEADERS_BYTES or frame[ETHERNET_BYTES] != 0x45 or frame[ETHERNET_BYTES + 9] != socket.IPPROTO_UDP:
        return None
    address = socket.inet_ntoa(frame[ETHERNET_BYTES + 16 : ETHERNET_BYTES + 20])
    (port,) = struct.unpack_from("!H", frame, ETHERNET_BYTES + IP_BYTES + 2)
    return Frame(address, port, frame[HEADERS_BYTES:], frame[ETHERNET_BYTES + 8])


class Capture:
    """Sees what leaves by `device` of a namespace from now on."""

    def __init__(self, namespace, device):
        def create():
            sock = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETHERTYPE_ANY))
            sock.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, RECEIVE_BUFFER_BYTES)
            sock.bind((device, ETHERTYPE_ANY))
            return sock

        self._sock = namespace.call(create)

    def take(self):
        """The frames since the last look, in order."""
        frames = []
        with contextlib.suppress(BlockingIOError):
            while True:
                data, source = self._sock.recvfrom(1 << 17, socket.MSG_DONTWAIT)
                if source[1] == ETHERTYPE_IP and source[2] == socket.PACKET_OUTGOING:
                    frames.append(parse(data))
        return [frame for frame in frames if frame]

    def close(self):
        self._sock.close()
