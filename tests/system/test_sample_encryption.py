"""The sample encryption library by itself: its cipher, the regions it is given, what it refuses and exports."""

import random
import re
import subprocess

import pytest

from txproxy.mpegts import PACKET_BYTES, SYNC_BYTE
from txproxy.page import ROOT
from txproxy.sample_encryption import CLEAR, DONE, NULL_PACKET, RECEIVE, SEND, UNDECIDED, Library, Reference, path

# A library with a sanitizer needs a program with the same: the end-to-end tests see to that.
pytestmark = pytest.mark.release_only

PASSWORD = b"correct horse"
RTP_BYTES = 12
FULL = 7 * PACKET_BYTES


def packets(count, seed=1):
    source = random.Random(seed)
    return b"".join(bytes([SYNC_BYTE]) + source.randbytes(PACKET_BYTES - 1) for _ in range(count))


def split(data):
    return [data[start : start + PACKET_BYTES] for start in range(0, len(data), PACKET_BYTES)]


@pytest.fixture(scope="module")
def library():
    return Library()


@pytest.fixture(scope="module")
def sending(library):
    session = library.open(SEND, PASSWORD)
    assert session
    yield session
    library.close(session)


@pytest.fixture(scope="module")
def receiving(library):
    session = library.open(RECEIVE, PASSWORD)
    assert session
    yield session
    library.close(session)


@pytest.fixture(scope="module")
def reference():
    return Reference(PASSWORD)


def test_the_cipher_is_that_of_the_page(library, sending, reference):
    for seed in range(20):
        clear = packets(7, seed)
        assert library.call(sending, clear) == (DONE, reference.scramble_all(clear))


def test_what_is_scrambled_comes_back_and_never_looks_clear(library, sending, receiving):
    for seed in range(200):
        clear = packets(7, seed)
        _, scrambled = library.call(sending, clear)
        assert all(packet[0] != SYNC_BYTE for packet in split(scrambled))
        assert library.call(receiving, scrambled) == (DONE, clear)


def test_equal_packets_stay_equal_and_one_bit_changes_all(library, sending):
    _, scrambled = library.call(sending, NULL_PACKET * 7)
    assert len(set(split(scrambled))) == 1, "this much is seen from outside"
    plain = packets(1)
    results = []
    for byte in (1, 16, 17, 187):
        changed = plain[:byte] + bytes([plain[byte] ^ 1]) + plain[byte + 1 :]
        results.append(library.call(sending, changed)[1])
    results.append(library.call(sending, plain)[1])
    for i, one in enumerate(results):
        for other in results[:i]:
            same = sum(a == b for a, b in zip(one, other, strict=True))
            assert same < 12, "by chance one of 256 bytes is the same"


# Length of the region, where the first packet is looked for (None: nowhere), and how many are scrambled.
REGIONS = (
    *((count * PACKET_BYTES, 0, count) for count in range(1, 9)),
    *((RTP_BYTES + count * PACKET_BYTES, RTP_BYTES, count) for count in range(8)),
    *((length, None, 0) for length in (1, 11, 13, 100, 187, 189, 199, 201, 1315, 1317, 1500, 1536)),
)


@pytest.mark.parametrize("length, first, count", REGIONS)
def test_only_whole_packets_of_a_region_are_scrambled_and_nothing_else_is_read_or_written(
    library, sending, reference, length, first, count
):
    # Of other lengths it would be a packet wherever it is looked at.
    region = (bytes([SYNC_BYTE]) * (1536 if first is None else first) + packets(9))[:length]
    assert len(region) == length
    result, after = library.call(sending, region)
    begin = first or 0
    end = begin + count * PACKET_BYTES
    assert after == region[:begin] + reference.scramble_all(region[begin:end]) + region[end:]
    assert result == (DONE if count else CLEAR)


def test_what_lies_behind_a_datagram_is_left_from_the_first_packet_on_that_is_not_clear(library, sending, reference):
    stale = reference.scramble_all(packets(3, seed=5)) + packets(1, seed=6)
    fresh = packets(3)
    assert library.call(sending, fresh + stale) == (DONE, reference.scramble_all(fresh) + stale)


def test_a_datagram_that_is_scrambled_in_part_comes_back_whole(library, receiving, reference):
    clear = packets(7)
    for parts in range(8):
        cut = parts * PACKET_BYTES
        head, tail = clear[:cut], clear[cut:]
        for received in (reference.scramble_all(head) + tail, head + reference.scramble_all(tail)):
            assert library.call(receiving, received) == (CLEAR if received == clear else DONE, clear)


def test_a_receiver_leaves_what_is_no_whole_packet(library, receiving, reference):
    clear, rest = packets(2), bytes(PACKET_BYTES - 1)
    for length in (1, 12, 100, 187):
        assert library.call(receiving, reference.scramble_all(clear) + rest[:length]) == (DONE, clear + rest[:length])
        assert library.call(receiving, rest[:length]) == (CLEAR, rest[:length])


def test_another_password_is_found_out(library, reference):
    session = library.open(RECEIVE, b"Correct horse")
    for seed in range(50):
        assert library.call(session, reference.scramble_all(packets(7, seed)))[0] == UNDECIDED
    library.close(session)


def test_a_packet_that_was_changed_on_the_way_is_found_out_but_for_one_of_255(library, receiving, reference):
    scrambled = reference.scramble(packets(1))
    passed = 0
    for bit in range(8, 8 * PACKET_BYTES):
        changed = bytearray(scrambled)
        changed[bit // 8] ^= 1 << bit % 8
        passed += library.call(receiving, bytes(changed))[0] != UNDECIDED
    assert passed <= 20, "6 are expected of 1496"


def test_a_session_needs_a_password_and_a_mode_that_there_is(library):
    without = ((SEND, None, 0), (SEND, b"", 0), (SEND, b"x", -1), (RECEIVE, None, 0))
    for mode, password, length in (*without, (2, b"x", 1), (-1, b"x", 1)):
        assert library.open(mode, password, length) is None


def test_the_password_is_as_long_as_is_said_not_as_a_zero_byte_makes_it(library, receiving, reference):
    longer = library.open(SEND, PASSWORD + b"\0more", len(PASSWORD))
    whole = library.open(SEND, PASSWORD + b"\0more", len(PASSWORD) + 5)
    clear = packets(7)
    assert library.call(longer, clear)[1] == reference.scramble_all(clear)
    assert library.call(receiving, library.call(whole, clear)[1])[0] == UNDECIDED
    library.close(longer)
    library.close(whole)


def test_four_names_are_exported_and_libcrypto_is_needed():
    names = subprocess.run(["nm", "-D", "--defined-only", path()], capture_output=True, text=True, check=True).stdout
    functions = ("close_callback", "data_callback", "open_callback", "print_info")
    assert re.findall(r" (\w) (\w+)", names) == [("T", f"sorvanex_{name}") for name in functions]
    needed = subprocess.run(["objdump", "-p", path()], capture_output=True, text=True, check=True).stdout
    assert "libcrypto.so.3" in re.findall(r"NEEDED +(\S+)", needed)


def test_the_header_is_c_and_c_plus_plus():
    header = ROOT / "samples" / "encryption" / "sorvanex.h"
    for language in ("c", "c++"):
        flags = ["-fsyntax-only", "-Wall", "-Wextra", "-Wpedantic", "-Werror"]
        subprocess.run(["cc", "-x", language, *flags, "-include", header, "/dev/null"], check=True)
