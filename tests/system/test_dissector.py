"""The dissector for Wireshark, run by tshark: sample captures, fresh ones, datagrams made by hand, broken ones."""

import random
import re
import struct

import pytest

from txproxy import model_receiver, pcapng, rtp, sample_captures, tshark
from txproxy.capture import HEADERS_BYTES, UDP_BYTES
from txproxy.model_receiver import DEFAULT_WINDOW, STOP_MESSAGE, Window, echo_ping, request, retransmission_of, tag
from txproxy.page import Page
from txproxy.sample_captures import LOST, MORE_PACKETS, PACKETS, PING_PORT, REQUEST_PORT

pytestmark = pytest.mark.release_only

PROXY = "10.0.0.1"
RECEIVER = ("10.0.0.2", 45000)
PING, ASK = (PROXY, PING_PORT), (PROXY, REQUEST_PORT)
GROUP = ("239.1.1.1", 10000)
SECOND = 10**9
TRUE = "1"
MS = 10**6
EPOCH = 1_700_000_000 * SECOND
LINKS = [f"txproxy.{name}" for name in (
    "kind", "media.seq", "media.timestamp", "media.again", "media.first_frame", "media.again_frame", "media.request_frame",
    "media.since_request_ms", "media.missing", "media.first_missing", "media.gap_frame", "media.filled_frame",
    "media.never_came", "request.seq", "request.outcome", "request.again_frame", "request.first_frame", "echo.ping_frame",
    "echo.back_frame", "echo.round_trip_ms",
)]  # fmt: skip


def sample(name):
    return tshark.CAPTURES / f"{name}.pcapng"


class Script:
    """A capture made by hand. Each step adds a datagram, at milliseconds since the start; returns its frame's number."""

    def __init__(self):
        self.frames = []

    def add(self, ms, payload, source, destination):
        self.frames.append((EPOCH + round(ms * MS), pcapng.udp_frame(payload, source, destination)))
        return len(self.frames)

    def media(self, ms, seq, again=False, to=RECEIVER, sent=None, **keywords):
        """`sent` is when it was sent first, by a clock that agrees."""
        stamp = rtp.ticks((EPOCH / MS + (ms if sent is None else sent)) / 1000)
        first = rtp.packet(seq, b"payload", timestamp=stamp, **keywords)
        return self.add(ms, retransmission_of(first) if again else first, PING, to)

    def ask(self, ms, seqs, window=DEFAULT_WINDOW, source=RECEIVER, stream_id=None, **keywords):
        prefix = b"" if stream_id is None else tag(stream_id)
        return self.add(ms, prefix + request(seqs, window, **keywords), source, ASK)

    def trip(self, ms, round_trip_ms, data):
        """An echo ping and its echo."""
        return self.add(ms, echo_ping(data), RECEIVER, ASK), self.add(ms + round_trip_ms, echo_ping(data), PING, RECEIVER)

    def write(self, path):
        pcapng.write(path, self.frames)
        return path


@pytest.fixture
def shown(tmp_path):
    """shown(script, *fields) is {frame: {field without txproxy.: values}}; field "note" is the texts of all notes."""

    def show(script, *names, options=()):
        path = script.write(tmp_path / "made.pcapng")
        full = ["_ws.expert.message" if name == "note" else f"txproxy.{name}" for name in names]
        rows = tshark.fields(path, *full, options=options)
        return {int(row["frame.number"][0]): {name: row[long] for name, long in zip(names, full)} for row in rows}

    return show


# ---- the samples


@pytest.mark.parametrize("name", sample_captures.NAMES)
def test_a_sample_is_shown_as_expected(name):
    expected = (tshark.EXPECTED / f"{name}.txt").read_text(encoding="utf-8")
    assert tshark.text(sample(name)) == expected


def number(row, name):
    return int(row[f"txproxy.{name}"][0]) if row[f"txproxy.{name}"] else None


def numbers(row, name):
    return [int(value) for value in row[f"txproxy.{name}"]]


def hold_links(rows):
    """What has to be true of any capture with requests and answers, whatever its times."""
    frames = {int(row["frame.number"][0]): row for row in rows}
    resends = {frame: row for frame, row in frames.items() if row["txproxy.media.again"] == [TRUE]}
    asked = {frame: row for frame, row in frames.items() if row["txproxy.kind"] == ["request"]}
    for frame, row in resends.items():
        seq, source = number(row, "media.seq"), asked[number(row, "media.request_frame")]
        assert seq in numbers(source, "request.seq") and frame in numbers(source, "request.again_frame")
        apart_ms = (float(row["frame.time_epoch"][0]) - float(source["frame.time_epoch"][0])) * 1000
        assert float(row["txproxy.media.since_request_ms"][0]) == pytest.approx(apart_ms, abs=0.01) and apart_ms > 0
        if (first := number(row, "media.first_frame")) is not None:
            assert number(frames[first], "media.seq") == seq and first < frame
            assert frames[first]["txproxy.media.timestamp"] == row["txproxy.media.timestamp"]
            assert frame in numbers(frames[first], "media.again_frame")
        if (gap := number(row, "media.gap_frame")) is not None:
            missing = number(frames[gap], "media.missing")
            assert (seq - number(frames[gap], "media.first_missing")) % 65536 < missing
            assert frame in numbers(frames[gap], "media.filled_frame")
    for frame, row in asked.items():
        for answer in numbers(row, "request.again_frame"):
            assert number(frames[answer], "media.request_frame") == frame
    for frame, row in frames.items():
        if (back := number(row, "echo.back_frame")) is not None:
            assert number(frames[back], "echo.ping_frame") == frame
            assert row["txproxy.echo.round_trip_ms"] == frames[back]["txproxy.echo.round_trip_ms"]
    return resends


def hold_capture(name, path):
    rows = tshark.fields(path, "frame.time_epoch", "udp.length", *LINKS)
    assert path.stat().st_size < 25_000
    single = UDP_BYTES + rtp.HEADER_BYTES + sample_captures.TS_PACKET_BYTES
    assert max(int(row["udp.length"][0]) for row in rows) == single  # a train would be longer
    resends = hold_links(rows)
    kinds = {row["txproxy.kind"][0] for row in rows}
    sent_again = sorted(number(row, "media.seq") for row in resends.values())
    firsts = {number(row, "media.first_frame") for row in resends.values()}
    if name == "receiver":
        assert sent_again == LOST and firsts == {None}
        gaps = [(number(row, "media.first_missing"), number(row, "media.missing"), number(row, "media.never_came"))
                for row in rows if row["txproxy.media.missing"]]  # fmt: skip
        assert gaps == [(11, 1, None), (21, 3, None), (31, 1, None)]
        assert kinds == {"ping", "echo ping", "echo", "media", "request", "leave"}
        assert any("no answer in this capture" in row["txproxy.request.outcome"] for row in rows)
    elif name == "proxy":
        assert sent_again == sorted([*LOST, 31]) and None not in firsts
        assert {number(row, "media.seq") for row in rows} - {None} == set(range(1, PACKETS + MORE_PACKETS + 1))
        assert kinds == {"ping", "echo ping", "echo", "media", "request", "leave"}
    else:
        assert kinds == {"ping", "echo ping", "echo", "media", "request", "leave", "stop", "wrong ping", "unknown"}
        assert sum(row["txproxy.kind"] == ["stop"] for row in rows) == 5
        assert any(outcome.startswith("too old: ") for row in rows for outcome in row["txproxy.request.outcome"])


def test_captures_that_are_made_now_are_linked_both_ways(closing, launch, lease, tmp_path):
    sample_captures.make(tmp_path, closing, launch, lease.instance)
    for name in sample_captures.NAMES:
        hold_capture(name, tmp_path / f"{name}.pcapng")


# ---- datagrams made by hand


def test_each_vector_of_the_protocols_page_is_known(shown):
    text = Page("protocol.md").section("Test vectors")
    vectors = {name: bytes.fromhex(data) for name, data in re.findall(r"^([a-z-]+): ([0-9A-F ]+)$", text, re.MULTILINE)}
    kinds = {"media": "media", "request": "request", "echo": "echo ping", "tag": "ping", "leave": "leave", "stop": "stop"}
    script, expected = Script(), []
    for name, data in vectors.items():
        kind = "wrong ping" if name == "echo-wrong" else kinds[name.split("-")[0]]
        to_request = name.split("-")[0] in ("request", "echo")
        if kind in ("media", "stop"):
            script.add(len(expected), data, PING, RECEIVER)
        else:
            script.add(len(expected), data, RECEIVER, ASK if to_request else PING)
        expected.append((name, kind))
    found = shown(script, "kind", "request.checksum.status", "tag.stream_id", "request.max_age_ms", "media.marker")
    assert [(name, found[i]["kind"][0]) for i, (name, _) in enumerate(expected, 1)] == expected
    by_name = {name: found[i] for i, (name, _) in enumerate(expected, 1)}
    for name, row in by_name.items():
        status = "0" if name == "request-wrong" else "1"
        assert row["request.checksum.status"] == ([status] if "request" in name else [])
        tagged = name in ("request-tagged", "tag", "tag-swapped", "leave-tagged")
        assert row["tag.stream_id"] == (["0x01020304"] if tagged else [])
    assert by_name["request-window"]["request.max_age_ms"] == ["1040"]
    assert by_name["media-first"]["media.marker"] == [TRUE]


def test_gaps_come_round_and_what_never_comes_is_told(shown):
    script = Script()
    script.media(0, 65533)
    gap = script.media(10, 2)  # 65534, 65535, 0 and 1 are missing
    late = script.media(11, 65535)  # overtaken only
    ask = script.ask(12, [0])
    again = script.media(40, 0, again=True, sent=5)
    double = script.media(41, 2, sent=10)
    jump = script.media(50, 30000)
    after = script.media(60, 30001)
    found = shown(script, "media.missing", "media.first_missing", "media.filled_frame", "media.never_came",
                  "media.gap_frame", "request.gap_frame", "media.since_gap_ms", "note")  # fmt: skip
    assert found[gap]["media.missing"] == ["4"] and found[gap]["media.first_missing"] == ["65534"]
    assert found[gap]["media.filled_frame"] == [str(late), str(again)]
    assert found[gap]["media.never_came"] == ["2"]
    assert "Numbers 65534 to 1 are missing" in found[gap]["note"]
    assert "Missing numbers that do not come in this capture" in found[gap]["note"]
    assert found[late]["media.gap_frame"] == [str(gap)]
    assert found[late]["note"] == ["First sending that came after a later packet"]
    assert found[ask]["request.gap_frame"] == [str(gap)]
    assert found[again]["media.gap_frame"] == [str(gap)] and found[again]["media.since_gap_ms"] == ["30"]
    assert found[double]["note"] == ["First sending that came twice"]
    assert found[jump]["note"] == ["Sequence numbers jump"] and found[jump]["media.missing"] == []
    assert found[after]["note"] == []


def test_the_answer_belongs_to_the_request_that_is_a_round_trip_away(shown):
    script = Script()
    script.trip(0, 300, b"1")
    script.media(310, 1)
    first = script.media(320, 2)
    asks = [script.ask(ms, [2]) for ms in (400, 510, 620)]
    answers = [script.media(ms, 2, again=True, sent=320) for ms in (700, 921)]
    found = shown(script, "request.again_frame", "media.request_frame", "media.first_frame", "media.again_frame",
                  "media.since_request_ms", "media.since_first_ms")  # fmt: skip
    assert found[asks[0]]["request.again_frame"] == [str(answers[0])]
    assert found[asks[1]]["request.again_frame"] == []
    assert found[asks[2]]["request.again_frame"] == [str(answers[1])]
    assert [found[answer]["media.since_request_ms"] for answer in answers] == [["300"], ["301"]]
    assert found[answers[1]]["media.since_first_ms"] == ["601"]
    assert found[first]["media.again_frame"] == [str(frame) for frame in answers]
    assert all(found[answer]["media.first_frame"] == [str(first)] for answer in answers)


def test_what_will_not_be_answered_is_told_with_its_limit(shown):
    script = Script()
    for seq in range(5):
        script.media(seq, seq)
    script.media(5, 6)
    too_old, in_time = script.ask(600, [0]), script.ask(602.9, [3])
    script.ask(610, [4])
    script.media(611, 4, again=True, sent=4)
    too_soon, again = script.ask(710.9, [4], Window(4, 200, 0)), script.ask(711, [4], Window(4, 200, 0))
    unknown = script.ask(712, [9999], Window(4, 200, 0))
    small = script.ask(713, [1, 2, 3], Window(1, 1000, 0))
    found = shown(script, "request.outcome", "request.age_ms", "note", options=("-o", "txproxy.bit_rate:320"))
    assert found[too_old]["request.outcome"] == ["too old: first sent 600.0 ms before, and the window ends at 600 ms"]
    assert found[too_old]["note"] == ["1 of 1 numbers without an answer in this capture"]
    assert found[in_time]["request.outcome"][0].startswith("above the budget of 16 bytes")  # 400 ms of 320 bit/s
    assert found[too_soon]["request.outcome"] == ["too soon: sent again 99.9 ms before, and the hold-off is 100 ms"]
    assert found[again]["request.outcome"] == ["no answer in this capture"]  # 800 ms bring 32 bytes
    assert found[unknown]["request.outcome"] == ["no answer in this capture"] and found[unknown]["request.age_ms"] == []
    assert found[small]["request.outcome"] == ["no answer in this capture"] * 2 + ["above the budget of 40 bytes"]


def test_the_window_is_computed_as_the_proxy_does(shown):
    windows = [Window(2, 200, 0), Window(3, 250, 40), Window(65535, 65535, 65535), Window(0, 86, 0), Window(1, 86, 0)]
    script = Script()
    for ms, window in enumerate(windows):
        script.ask(ms, [], window)
    found = shown(script, "request.budget_bytes", "request.budget_ms", "request.max_age_ms", "request.checksum.status")
    for frame, window in enumerate(windows, 1):
        ticks = (window.retries + 1) * window.interval_ms + window.extra_ms
        assert found[frame]["request.budget_bytes"] == [str(window.budget_bytes())]
        assert found[frame]["request.max_age_ms"] == [str((ticks * 90 & 0xFFFFFFFF) // 90)]
        assert found[frame]["request.checksum.status"] == ["1"]


def test_a_count_or_checksum_that_is_wrong_is_told(shown):
    script = Script()
    script.media(0, 1)
    more = script.ask(1, [1], count=3)
    fewer = script.ask(2, [1, 2, 3], count=1)
    wrong = script.ask(3, [1], checksum=1)
    answer = script.media(4, 1, again=True, sent=0)
    found = shown(script, "note", "request.outcome", "request.seq", "request.checksum.right", "media.request_frame")
    assert "The count says 3, the datagram has 1: the proxy reads on behind its end" in found[more]["note"]
    assert "The count says 1, the datagram has 3: the rest is covered by the checksum only" in found[fewer]["note"]
    assert found[fewer]["request.seq"] == ["1"]
    assert found[wrong]["note"] == ["Wrong checksum: the proxy drops the request, its window too"]
    assert found[wrong]["request.checksum.right"] == ["0xffff"]
    assert found[wrong]["request.outcome"] == ["dropped with the request"]
    assert found[answer]["media.request_frame"] == [str(fewer)]


def test_pings_that_are_too_far_apart_are_told(shown):
    script = Script()
    frames = [script.add(ms, tag(7), RECEIVER, PING) for ms in (0, 4900, 9801)]
    found = shown(script, "ping.since_last_ms", "note", "tag.stream_id")
    assert [found[frame]["ping.since_last_ms"] for frame in frames] == [[], ["4900"], ["4901"]]
    assert [bool(found[frame]["note"]) for frame in frames] == [False, False, True]
    assert found[frames[2]]["tag.stream_id"] == ["0x00000007"]


def test_receivers_behind_one_address_are_told_apart_by_their_ids(shown):
    script = Script()
    ports = {1: (RECEIVER[0], 5001), 2: (RECEIVER[0], 5002)}
    for stream_id, place in ports.items():
        script.add(stream_id, tag(stream_id), place, PING)
    firsts = {stream_id: script.media(10 + stream_id, 7, to=place) for stream_id, place in ports.items()}
    other_port = (RECEIVER[0], 6000)
    asks = {stream_id: script.ask(20 + stream_id, [7], source=other_port, stream_id=stream_id) for stream_id in ports}
    answers = {stream_id: script.media(30 - stream_id, 7, again=True, to=place, sent=10 + stream_id)
               for stream_id, place in reversed(ports.items())}  # fmt: skip
    found = shown(script, "media.request_frame", "media.first_frame", "request.again_frame")
    for stream_id, answer in answers.items():
        assert found[answer]["media.request_frame"] == [str(asks[stream_id])]
        assert found[answer]["media.first_frame"] == [str(firsts[stream_id])]


def test_with_a_group_first_sendings_and_gaps_are_those_of_the_group(shown):
    script = Script()
    script.media(0, 1, to=GROUP)
    gap = script.media(20, 3, to=GROUP)
    ask = script.ask(25, [2, 1])
    missing = script.media(30, 2, again=True, sent=10)
    there = script.media(31, 1, again=True, sent=0.01, ssrc=5)  # the stream's own header is a tick apart
    found = shown(script, "media.first_frame", "media.gap_frame", "media.request_frame", "request.gap_frame",
                  "request.first_frame")  # fmt: skip
    assert found[missing]["media.gap_frame"] == [str(gap)] and found[missing]["media.first_frame"] == []
    assert found[there]["media.first_frame"] == ["1"]
    assert found[missing]["media.request_frame"] == found[there]["media.request_frame"] == [str(ask)]
    assert found[ask]["request.gap_frame"] == [str(gap)] and found[ask]["request.first_frame"] == ["1"]


def test_a_configured_receivers_echo_is_no_ping_though_it_comes_to_the_port_of_pings(shown):
    script = Script()
    source, receiver = (PROXY, 40000), (RECEIVER[0], PING_PORT)
    media = script.add(0, rtp.packet(1, b"x"), source, receiver)
    ping = script.add(1, echo_ping(b"1"), receiver, ASK)
    echo = script.add(3, echo_ping(b"1"), source, receiver)
    stop = script.add(4, STOP_MESSAGE, source, receiver)
    other = script.add(5, echo_ping(b"2"), RECEIVER, PING)
    found = shown(script, "kind", "echo.round_trip_ms")
    kinds = [found[frame]["kind"][0] for frame in (media, ping, echo, stop, other)]
    assert kinds == ["media", "echo ping", "echo", "stop", "ping"]
    assert found[ping]["echo.round_trip_ms"] == found[echo]["echo.round_trip_ms"] == ["2"]


def test_a_datagram_that_the_network_quotes_in_an_error_is_not_sent_once_more(shown):
    script = Script()
    script.media(0, 1)
    script.media(1, 2)
    _, quoted_frame = script.frames[1]
    ip = quoted_frame[14:]
    icmp = bytes([3, 3, 0, 0, 0, 0, 0, 0]) + ip
    outer = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(icmp), 0, 0, 64, 1, 0, ip[16:20], ip[12:16])
    script.frames.append((EPOCH + 2 * MS, quoted_frame[:14] + outer + icmp))
    found = shown(script, "kind", "media.seq", "note")
    assert found[3]["media.seq"] == ["2"] and "First sending that came twice" not in found[3]["note"]


def test_a_train_is_told_and_its_first_packet_shown(shown):
    packets = [rtp.packet(seq, bytes(1316)) for seq in (1, 2, 3)]
    script = Script()
    script.add(0, packets[0], PING, RECEIVER)
    script.add(1, b"".join(packets[1:]), PING, RECEIVER)
    script.add(2, rtp.packet(4, bytes(1536)), PING, RECEIVER)  # the longest that the proxy sends
    found = shown(script, "media.seq", "note")
    assert [row["media.seq"] for row in found.values()] == [["1"], ["2"], ["4"]]
    told = [any("a train of the sending side" in note for note in row["note"]) for row in found.values()]
    assert told == [False, True, False]


def test_a_long_list_of_numbers_is_cut_in_its_line(tmp_path):
    script = Script()
    script.ask(0, range(0, 24, 2))
    script.ask(1, range(0, 26, 2))
    lines = tshark.run("-r", script.write(tmp_path / "long.pcapng")).splitlines()
    assert lines[0].endswith("Request for 0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22")
    assert lines[1].endswith(" 20, 22, ... (13 in all)")


def test_times_are_those_of_the_proxys_clock(shown):
    script = Script()
    frame = script.media(100, 1, sent=80.5)
    early = script.media(101, 2, sent=103)
    found = shown(script, "media.age_ms", "media.sent", "media.made", "media.ssrc")
    assert float(found[frame]["media.age_ms"][0]) == pytest.approx(19.5, abs=0.03)
    assert float(found[early]["media.age_ms"][0]) == pytest.approx(-2, abs=0.03)
    assert "22:13:20.0805" in found[frame]["media.sent"][0]
    assert found[frame]["media.ssrc"] == ["0x44332211"]


# ---- settings, other ports, broken datagrams


def test_a_receivers_port_may_be_one_of_another_protocol(shown):
    script = Script()
    receiver = (RECEIVER[0], 5000)  # Wireshark has a protocol for it, which takes such requests for its own
    script.ask(0, [], Window(3, 250, 40), source=receiver)
    script.add(1, echo_ping(b"1"), receiver, ASK)
    script.ask(2, [], Window(3, 250, 40), source=receiver)
    script.media(3, 1, to=receiver)
    found = shown(script, "kind")
    assert [found[frame]["kind"] for frame in (2, 3, 4)] == [["echo ping"], ["request"], ["media"]]


def test_other_ports_are_set_or_decoded_as(tmp_path):
    script = Script()
    script.add(0, tag(9), RECEIVER, (PROXY, 21000))
    script.add(1, rtp.packet(1, b"x"), (PROXY, 21000), RECEIVER)
    script.add(2, tag(9) + request([1], DEFAULT_WINDOW), RECEIVER, (PROXY, 21001))
    script.add(3, tag(9) + echo_ping(b"12"), RECEIVER, (PROXY, 21001))
    path = script.write(tmp_path / "ports.pcapng")
    assert tshark.fields(path, "txproxy.kind") == []
    settings = ("-o", "txproxy.ping_ports:10000,21000", "-o", "txproxy.request_ports:7020,21001-21002")
    kinds = [row["txproxy.kind"][0] for row in tshark.fields(path, "txproxy.kind", options=settings)]
    assert kinds == ["ping", "media", "request", "echo ping"]
    as_ours = ("-d", "udp.port==21000,txproxy", "-d", "udp.port==21001,txproxy")
    kinds = [row["txproxy.kind"][0] for row in tshark.fields(path, "txproxy.kind", options=as_ours)]
    assert kinds[:3] == ["ping", "media", "request"]


def broken_datagrams(draw):
    """Whole, cut and random datagrams of every kind, to and from every port."""
    whole = [rtp.packet(5, b"\x47" * 188), rtp.packet(5, b"", payload_type=122), rtp.packet(5, b"x", flags=0xBF),
             STOP_MESSAGE, tag(7), tag(0), tag(7, model_receiver.STOP_MAGIC), echo_ping(b"12345"), request([1, 2, 3], DEFAULT_WINDOW),
             tag(7) + request([5], DEFAULT_WINDOW, count=65535), tag(7, swapped=True) + echo_ping(), bytes(1600),
             tag(7) + request(range(763), DEFAULT_WINDOW), retransmission_of(rtp.packet(6, b"y"))]  # fmt: skip
    configured = (PROXY, 40000), (RECEIVER[0], PING_PORT)
    places = [(RECEIVER, PING), (RECEIVER, ASK), (PING, RECEIVER), (ASK, RECEIVER), configured]
    for source, destination in places:
        for data in whole:
            for length in {*range(min(len(data), 24) + 1), len(data)}:
                yield data[:length], source, destination
        for _ in range(150):
            yield draw.randbytes(draw.randrange(1, 60)), source, destination
            start = draw.choice(whole)
            yield start[: draw.randrange(14)] + draw.randbytes(draw.randrange(40)), source, destination


def test_no_broken_or_cut_datagram_ends_in_an_error(tmp_path):
    draw = random.Random(1)
    frames = []
    for i, datagram in enumerate(broken_datagrams(draw)):
        frame = pcapng.udp_frame(*datagram)
        kept = draw.choice((len(frame), len(frame), HEADERS_BYTES + 1, HEADERS_BYTES + 5, HEADERS_BYTES + 18))
        frames.append((EPOCH + i * MS, frame[:kept], len(frame)))
    path = tmp_path / "broken.pcapng"
    pcapng.write(path, frames)
    shown = tshark.run("-2", "-r", path, "-O", "txproxy", "-o", "txproxy.again_to_mp2t:TRUE")
    assert "Lua Error" not in shown and "_ws.lua" not in shown
    not_empty = sum(len(frame) > HEADERS_BYTES for _, frame, _ in frames)  # empty ones Wireshark keeps for itself
    assert len(re.findall(r"^tx_proxy, ", shown, re.MULTILINE)) == not_empty
    assert "[Malformed Packet: txproxy" not in shown
    for note in ("Error/Malformed): Neither media nor anything", "Note/Undecoded): Cut off by the capture",
                 "Warning/Protocol): The proxy reads 1536 bytes"):  # fmt: skip
        assert f"[Expert Info ({note}" in shown
