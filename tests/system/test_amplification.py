"""How many bytes a stranger can have sent to somebody else: as much as docs/security.md says, and no more."""

import math
import pathlib
import re
import struct
import time
import types

import pytest

from txproxy import rtp
from txproxy.model_receiver import (
    HOLD_OFF_SECONDS,
    PingingReceiver,
    Window,
    echo_ping,
    feed,
    request,
    stamped,
    start_media,
    tag,
    wait_bound,
)
from txproxy.receiver import pump
from txproxy.traffic import Steady
from txproxy.waiting import scaled, wait_until

PAGE = pathlib.Path(__file__).resolve().parents[2] / "docs" / "security.md"
PACKET_BYTES = 1328
RECEIVERS = 50
LISTENER_BUFFERS = 1024
NUMBERS_A_DATAGRAM = 763
FIRST_WINDOW = Window(2, 200, 0)
WIDEST = Window(1, 5927, 0)  # of those below a minute the first whose budget is the largest in packets
FIRST_SEQ = 1000
VICTIM = "127.0.0.5"


def figures(label):
    """The cells of the row of the page that begins with `label`, numbers as such."""
    row = re.search(rf"^\| {re.escape(label)} \| (.*) \|$", PAGE.read_text(encoding="utf-8"), re.MULTILINE)
    names = ("bytes_in", "bytes_out", "packets_out", "duration")
    cells = [int(cell) if cell.strip().isdigit() else cell for cell in row.group(1).split(" | ")]
    return types.SimpleNamespace(**dict(zip(names, cells)))


def media(count):
    return [rtp.packet(FIRST_SEQ + i, bytes(PACKET_BYTES - rtp.HEADER_BYTES)) for i in range(count)]


@pytest.fixture
def proxy(start_proxy, net):
    return wait_bound(start_proxy(), net.destination, net.request)


@pytest.fixture
def victim(proxy, learn):
    return start_media(proxy, learn(VICTIM))


def answers_to(victim, data):
    """What comes for one datagram on the request port."""
    victim.fence()
    victim.clear()
    victim.ask_raw(data)
    return victim.fence()


def check(label, sent, came):
    row = figures(label)
    assert (len(sent), sum(map(len, came)), len(came)) == (row.bytes_in, row.bytes_out, row.packets_out)


def test_a_request_with_the_first_window_brings_what_the_page_says(victim, sender):
    feed(sender, [victim], media(600))
    # As many numbers as bring the most for each byte: one more would bring nothing.
    asked = request(range(FIRST_SEQ + 300, FIRST_SEQ + 565), FIRST_WINDOW)
    check("a request with the first window", asked, answers_to(victim, asked))


def test_a_request_with_the_widest_budget_brings_what_the_page_says(victim, sender):
    budgets = {delay: Window(1, delay, 0).budget_bytes() // PACKET_BYTES for delay in range(1, 60000)}
    assert budgets[WIDEST.interval_ms] == max(budgets.values())
    feed(sender, [victim], media(600))
    asked = request(range(FIRST_SEQ, FIRST_SEQ + 404), WIDEST)
    check("a request with the widest budget", asked, answers_to(victim, asked))


def answers_after_the_first(victim, asked):
    """What the second of two equal requests brings; None when it may have come after the hold-off."""
    victim.fence()
    victim.clear()
    begin = time.monotonic()
    victim.ask_raw(asked)
    victim.ask_raw(asked)
    came = victim.fence()
    return came[len(set(came)) :] if time.monotonic() - begin < HOLD_OFF_SECONDS else None


def test_the_same_request_again_brings_nothing_within_the_hold_off(victim, sender):
    label = "the same request again within 100 ms"
    assert f"{HOLD_OFF_SECONDS * 1000:.0f} ms" in label

    def repeat():
        # New packets each time: nobody has asked for them yet.
        feed(sender, [victim], media(404))
        asked = request(range(FIRST_SEQ, FIRST_SEQ + 404), WIDEST)
        came = answers_after_the_first(victim, asked)
        if came is not None:
            check(label, asked, came)
        return came is not None

    wait_until(repeat, "two requests within the hold-off", timeout=60)


def test_a_request_of_ten_bytes_behind_old_lists_brings_what_the_page_says(victim, sender):
    feed(sender, [victim], media(600))
    numbers = [FIRST_SEQ + i % 600 for i in range(NUMBERS_A_DATAGRAM)]
    lists = request(numbers, WIDEST, count=0)  # asks for nothing yet, but stays where it was received
    for _ in range(LISTENER_BUFFERS // 32):
        for _ in range(32):
            victim.ask_raw(lists)
        victim.settle()
    asked = struct.pack("<5H", 65535, 0, *WIDEST)
    check("a request of 10 bytes", asked, answers_to(victim, asked))


def test_an_echo_comes_back_as_long_as_it_was(victim):
    asked = echo_ping(b"12345")
    check("an echo ping", asked, answers_to(victim, asked))


def test_who_has_not_pinged_gets_nothing_for_a_request_or_an_echo_ping(proxy, victim, learn, sender):
    feed(sender, [victim], media(600))
    stranger = learn("127.0.0.6")
    asked = request(range(FIRST_SEQ, FIRST_SEQ + 404), WIDEST)
    stranger.ask_raw(asked)
    stranger.ask_raw(echo_ping(b"12345"))
    victim.fence()
    check("a request or an echo ping without a ping before", asked, stranger.payloads)
    assert proxy.is_alive()


def test_one_empty_ping_brings_the_stream_once_for_as_long_as_the_page_says(start_proxy, closing, net, sender, learn):
    proxy = wait_bound(start_proxy("-a", "127.0.0.2"), net.destination, net.request)
    configured = closing(PingingReceiver("127.0.0.2", net.destination, net))
    row = figures("an empty ping")
    shortest, longest = map(int, re.fullmatch(r"(\d+) to (\d+) s", row.duration).groups())
    victim = learn(VICTIM)
    stream = closing(Steady(sender, lambda i: rtp.packet(i, bytes(100)), 200))
    configured.wait_count(1)
    victim.ping()
    assert row.bytes_in == 0
    proxy.wait_stderr(stamped(f"Stream suspended for {VICTIM}"), timeout=60)
    configured.wait_count(configured.count() + 100)
    stream.close()
    configured.fence()
    numbers = [rtp.seq(data) for data in victim.payloads]
    # Each packet of that time once.
    assert numbers == list(range(numbers[0], numbers[0] + len(numbers)))
    # By the proxy's stamps: the first packet may be read late here.
    seconds = rtp.ticks_since(rtp.timestamp(victim.payloads[-1]), rtp.timestamp(victim.payloads[0])) / rtp.TICKS_PER_SECOND
    assert shortest - 0.2 <= seconds <= longest + scaled(1)


def test_fifty_pings_with_ids_bring_one_victim_fifty_streams_and_keep_others_out(proxy, sender, learn):
    victim = learn(VICTIM)
    row = figures("pings with 50 IDs")
    pings = [tag(0x100 + i) for i in range(RECEIVERS)]
    for data in pings:
        victim.send(data, victim.ping_address)
    victim.send(b"one too many", ("127.0.0.1", victim.ping_address[1]))
    proxy.wait_stderr(re.compile(".*Stream not added, no more available streams, ID:0x00000000"))
    assert sum(map(len, pings)) == row.bytes_in
    assert [int(number) for number in re.findall(r"\d+", f"{row.bytes_out} {row.packets_out}")] == [RECEIVERS] * 2
    pump(sender, [victim], media(1))
    victim.wait_count(RECEIVERS)
    victim.send(tag(0x100) + echo_ping(), victim.request_address)
    victim.wait_count(RECEIVERS + 1)
    assert len([data for data in victim.payloads if len(data) == PACKET_BYTES]) == RECEIVERS


def test_the_bounds_that_the_page_gives_are_those_of_the_formula():
    text = PAGE.read_text(encoding="utf-8")
    assert f"({FIRST_WINDOW.budget_bytes()} bytes with the first window, {0xFFFFFFFF // 8000} with any)" in text
    ring_a_second = 4096 * PACKET_BYTES * 10 * 8 / 1e6
    assert f"packets of {PACKET_BYTES} bytes make {math.floor(ring_a_second)} Mbit/s" in text
