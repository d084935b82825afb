"""The sample encryption library: called from here, and its cipher made once more from other parts."""

import ctypes
import mmap
import pathlib
import time

from cryptography.hazmat.primitives.ciphers import Cipher, algorithms, modes
from cryptography.hazmat.primitives.cmac import CMAC
from cryptography.hazmat.primitives.kdf.scrypt import Scrypt

from .mpegts import PACKET_BYTES, SYNC_BYTE
from .proxy import binary

RECEIVE, SEND = 0, 1
UNDECIDED, CLEAR, DONE = -1, 0, 1
KEY_BYTES = 32
RTP_BYTES = 12
SCRYPT = {"n": 32768, "r": 8, "p": 1}
SALT = b"tx_proxy sample encryption 1"
NULL_PACKET = b"\x47\x1f\xff\x10" + b"\xff" * 184


def path():
    """It is built beside the proxy."""
    return pathlib.Path(binary()).parent / "samples" / "libsorvanex.so.1.0"


def bytes_between_guards(size):
    """Two places in memory of `size` bytes: behind one is a page that may not be read, and before the other."""
    libc = ctypes.CDLL(None, use_errno=True)
    room = -size % mmap.PAGESIZE + size
    area = mmap.mmap(-1, room + 2 * mmap.PAGESIZE)
    base = ctypes.addressof(ctypes.c_char.from_buffer(area))
    for guard in (base, base + mmap.PAGESIZE + room):
        assert libc.mprotect(ctypes.c_void_p(guard), mmap.PAGESIZE, 0) == 0
    starts = base + mmap.PAGESIZE, base + mmap.PAGESIZE + room - size
    return area, [(ctypes.c_uint8 * size).from_address(start) for start in starts]


class Library:
    """The library in this process: only where it is built without sanitizers."""

    def __init__(self):
        self._library = ctypes.CDLL(str(path()))
        self._library.sorvanex_open_callback.restype = ctypes.c_void_p
        self._library.sorvanex_open_callback.argtypes = [ctypes.c_int32, ctypes.c_char_p, ctypes.c_int32]
        self._library.sorvanex_data_callback.argtypes = [ctypes.c_void_p, ctypes.c_void_p, ctypes.c_int32]
        self._library.sorvanex_close_callback.argtypes = [ctypes.c_void_p]

    def open(self, mode, password, length=None):
        return self._library.sorvanex_open_callback(mode, password, len(password or b"") if length is None else length)

    def close(self, session):
        self._library.sorvanex_close_callback(session)

    def timed_call(self, session, data):
        """Seconds of this thread."""
        place = (ctypes.c_uint8 * len(data)).from_buffer_copy(data)
        began = time.thread_time()
        assert self._library.sorvanex_data_callback(session, place, len(data)) == DONE
        return time.thread_time() - began

    def call(self, session, data):
        """(result, the bytes afterwards); any access outside of it ends the process."""
        area, places = bytes_between_guards(len(data))
        results = []
        for place in places:
            place[:] = data
            results.append((self._library.sorvanex_data_callback(session, place, len(data)), bytes(place)))
        assert results[0] == results[1]
        assert area
        return results[0]


def xor(left, right):
    return bytes(a ^ b for a, b in zip(left, right, strict=True))


class Reference:
    """What docs/encryption.md says of the cipher, over another library's parts."""

    def __init__(self, password):
        keys = Scrypt(salt=SALT, length=4 * KEY_BYTES, **SCRYPT).derive(password)
        self._first, self._start, self._stream, self._last = (
            algorithms.AES(keys[i : i + KEY_BYTES]) for i in range(0, len(keys), KEY_BYTES)
        )

    @staticmethod
    def _code(key, text):
        code = CMAC(key)
        code.update(text)
        return code.finalize()

    def scramble(self, packet):
        head, tail = packet[1:17], packet[17:]
        head = xor(head, self._code(self._first, tail))
        counter = modes.CTR(self._code(self._start, head))
        stream = Cipher(self._stream, counter).encryptor().update(bytes(16 + len(tail)))
        mark = 1 + int.from_bytes(stream[:4], "big") % 255
        tail = xor(tail, stream[16:])
        return bytes([SYNC_BYTE ^ mark]) + xor(head, self._code(self._last, tail)) + tail

    def scramble_all(self, packets):
        """MPEG-TS packets one behind the other."""
        starts = range(0, len(packets), PACKET_BYTES)
        return b"".join(self.scramble(packets[start : start + PACKET_BYTES]) for start in starts)


def transport_packets(source, count):
    """MPEG-TS packets, made by a random.Random, with a sync byte where it belongs and nowhere else."""
    return b"".join(
        bytes([SYNC_BYTE]) + source.randbytes(PACKET_BYTES - 1).replace(bytes([SYNC_BYTE]), b"\0")
        for _ in range(count)
    )


def region(size, previous):
    """(start, length) of what the proxy shows of a datagram whose buffer had `previous` bytes before, or None."""
    if size % PACKET_BYTES == 0:
        start, length = 0, previous
    elif (size - RTP_BYTES) % PACKET_BYTES == 0:
        start, length = PACKET_BYTES, previous - PACKET_BYTES
    else:
        return None
    return (start, length) if length > 0 else None


def as_sent(data, previous, reference):
    """What becomes of such a datagram with the sample."""
    start, length = region(len(data), previous) or (0, 0)
    if length % PACKET_BYTES not in (0, RTP_BYTES):
        return data
    at = start + length % PACKET_BYTES
    while at + PACKET_BYTES <= min(start + length, len(data)) and data[at] == SYNC_BYTE:
        data = data[:at] + reference.scramble(data[at : at + PACKET_BYTES]) + data[at + PACKET_BYTES :]
        at += PACKET_BYTES
    return data
