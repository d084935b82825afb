"""ICMP messages as a router or a receiver sends them about a datagram that it could not deliver."""

import socket
import struct

DESTINATION_UNREACHABLE = 3
FORGED_MTU = 1300  # in a message that asks for fragments


def _checksum(data):
    total = sum(struct.unpack(f"!{len(data) // 2}H", data))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def unreachable(code, source, destination):
    """What is said about a UDP datagram from `source` to `destination`, (address, port) each."""
    addresses = socket.inet_aton(source[0]) + socket.inet_aton(destination[0])
    quoted_ip = struct.pack("!BBHHHBBH", 0x45, 0, 1000, 0, 0x4000, 64, socket.IPPROTO_UDP, 0) + addresses
    quoted_udp = struct.pack("!HHHH", source[1], destination[1], 980, 0)
    body = quoted_ip + quoted_udp
    header = struct.pack("!BBHHH", DESTINATION_UNREACHABLE, code, 0, 0, FORGED_MTU)
    return header[:2] + struct.pack("!H", _checksum(header + body)) + header[4:] + body


class Router:
    """Sends such messages out of a namespace."""

    def __init__(self, namespace):
        self._sock = namespace.call(lambda: socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP))

    def complain(self, code, source, destination):
        self._sock.sendto(unreachable(code, source, destination), (source[0], 0))

    def close(self):
        self._sock.close()
