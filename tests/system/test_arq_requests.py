"""Requests on the request port: whose they are, which are refused, and what comes back."""

import contextlib
import socket
import struct
import threading

import pytest

from txproxy import rtp
from txproxy.model_receiver import (
    DEFAULT_WINDOW,
    HOLD_OFF_SECONDS,
    ID_MAGIC,
    STOP_MAGIC,
    WIDE_WINDOW,
    PingingReceiver,
    Window,
    echo_ping,
    feed,
    is_retransmission,
    list_sum,
    raw_port,
    request,
    retransmission_of,
    stamped,
    start_media,
    tag,
    wait_bound,
)
from txproxy.receiver import pump, udp_socket
from txproxy.waiting import wait_until

LONGEST_DATAGRAM = 1536
NOTHING_ALLOWED = Window(0, 0, 0)
ALL_ONES = Window(65535, 65535, 65535)
SO_TIMESTAMPNS = 35  # the kernel's own time of arrival comes with each datagram


@pytest.fixture
def proxy(start_proxy, net):
    return wait_bound(start_proxy(), net.destination, net.request)


@pytest.fixture
def receiver(proxy, learn):
    """A receiver without ID whose media has started."""
    return start_media(proxy, learn())


def media(numbers, size=100, **header):
    return [rtp.packet(seq, b"%06d" % seq + bytes(size - rtp.HEADER_BYTES - 6), **header) for seq in numbers]


def numbers(payloads):
    return [rtp.seq(data) for data in payloads]


@pytest.mark.parametrize("marker", [0, 1])
@pytest.mark.parametrize("payload_type", [33, 96])
def test_an_answer_differs_from_the_first_sending_only_in_its_payload_type_and_keeps_the_marker(
    receiver, sender, marker, payload_type
):
    feed(sender, [receiver], media(range(100, 105), marker=marker, payload_type=payload_type))
    first_sending = receiver.payloads[2]
    assert first_sending[1] == payload_type | marker << 7
    receiver.ask([102])
    assert receiver.answers() == [retransmission_of(first_sending)]
    assert receiver.answers()[0][1] == 0x7A | marker << 7


def test_in_udp_input_mode_an_answer_is_the_built_datagram_with_payload_type_122(
    start_proxy, learn, sender, net
):
    proxy = wait_bound(start_proxy("-u"), net.destination, net.request)
    receiver = start_media(proxy, learn())
    feed(sender, [receiver], [b"payload %d" % i * 20 for i in range(5)], last=b"last")
    first = receiver.payloads
    receiver.ask([2, 4])
    assert receiver.answers() == [retransmission_of(first[1]), retransmission_of(first[3])]


def test_answers_leave_from_the_ping_port(receiver, sender, net):
    feed(sender, [receiver], media([100]))
    receiver.ask([100])
    receiver.fence()
    assert {datagram.source for datagram in receiver.datagrams} == {("127.0.0.1", net.destination)}


def test_a_first_sending_never_carries_the_payload_type_of_an_answer(proxy, learn, closing, sender):
    asking = start_media(proxy, learn("127.0.0.5"))
    # Receivers that nobody reads make the way through the table long; the silent one is the last.
    crowd = closing(udp_socket("127.0.0.6", 0, reuse=False))
    for stream_id in range(1, 41):
        crowd.sendto(tag(stream_id), asking.ping_address)
    silent = start_media(proxy, learn("127.0.0.7"))
    # All receivers share the stored packet, whose payload type the first answer changes: the asking one asks for
    # every packet all the time, long before it was sent.
    wanted = list(range(600))
    flow = threading.Thread(target=pump, args=(sender, [silent], media(wanted)), kwargs={"window": 8})
    flow.start()
    while flow.is_alive():
        asking.ask(wanted)
        for receiver in (asking, silent):
            receiver.ping()  # without pings a slow run would lose them after 5 s
    flow.join()
    assert numbers(silent.payloads) == wanted
    assert {data[1] for data in silent.payloads} == {rtp.MEDIA_PAYLOAD_TYPE}
    assert any(map(is_retransmission, asking.payloads))


def test_both_receivers_that_miss_the_same_packet_get_it(proxy, learn, sender):
    receivers = [start_media(proxy, learn(f"127.0.0.{i}")) for i in (5, 6)]
    feed(sender, receivers, media(range(100, 110)))
    for one in receivers:
        one.ask([103])
        assert one.answers() == [retransmission_of(one.payloads[3])]


def test_answers_come_in_the_order_of_the_list(receiver, sender):
    feed(sender, [receiver], media(range(100, 110)))
    receiver.ask([107, 101, 109, 100])
    assert numbers(receiver.answers()) == [107, 101, 109, 100]


def test_a_full_datagram_of_763_numbers_is_answered_whole(receiver, sender):
    wanted = list(range(1000, 1000 + (LONGEST_DATAGRAM - 10) // 2))
    feed(sender, [receiver], media(wanted, size=20))
    receiver.ask(wanted)
    assert numbers(receiver.answers()) == wanted


def test_a_request_longer_than_1536_bytes_is_cut_there_and_answered_when_the_rest_adds_up(receiver, sender):
    wanted = list(range(1000, 1000 + (LONGEST_DATAGRAM - 10) // 2))
    feed(sender, [receiver], media(wanted, size=20))
    receiver.ask_raw(request(wanted) + b"never read" * 20)
    assert numbers(receiver.answers()) == wanted


def test_a_number_that_was_never_sent_is_passed_over(receiver, sender):
    feed(sender, [receiver], media(range(100, 105)))
    receiver.ask([99, 101, 20000, 103, 105])
    assert numbers(receiver.answers()) == [101, 103]


def test_numbers_on_both_sides_of_the_wrap_are_answered(receiver, sender):
    feed(sender, [receiver], media(range(65533, 65540)))
    receiver.ask([65534, 65535, 0, 1])
    assert numbers(receiver.answers()) == [65534, 65535, 0, 1]


def test_a_ring_of_4_packets_answers_for_the_last_4_only(start_proxy, learn, sender, net):
    proxy = wait_bound(start_proxy("-q", "4"), net.destination, net.request)
    receiver = start_media(proxy, learn())
    feed(sender, [receiver], media(range(1, 7)), last=media([7])[0])
    receiver.ask([1, 2, 3, 4, 5, 6])
    assert numbers(receiver.answers()) == [4, 5, 6]


def test_a_reused_slot_is_not_emptied_by_a_request_for_its_old_number(start_proxy, learn, sender, net):
    proxy = wait_bound(start_proxy("-q", "4"), net.destination, net.request)
    receiver = start_media(proxy, learn())
    feed(sender, [receiver], media(range(1, 7)), last=media([7])[0])
    receiver.ask([1], NOTHING_ALLOWED)
    receiver.ask([5])
    assert numbers(receiver.answers()) == [5]


# Tags and routing


@pytest.mark.parametrize("swapped", [False, True], ids=["as_is", "swapped"])
@pytest.mark.parametrize("magic", [ID_MAGIC, STOP_MAGIC], ids=["BABEFACE", "DEADBEEF"])
def test_all_four_forms_of_the_tag_are_taken_off_a_request(proxy, learn, sender, magic, swapped):
    receiver = start_media(proxy, learn(stream_id=0x01020304))
    feed(sender, [receiver], media(range(100, 103)))
    receiver.send(tag(0x01020304, magic, swapped) + request([101]), receiver.request_address)
    assert numbers(receiver.answers()) == [101]


def test_a_tagged_request_is_answered_to_the_stream_with_that_id_whoever_sends_it(proxy, learn, sender):
    receiver = start_media(proxy, learn("127.0.0.5", stream_id=5))
    stranger = learn("127.0.0.6")
    feed(sender, [receiver], media(range(100, 103)))
    stranger.send(tag(5) + request([101]), stranger.request_address)
    receiver.wait_for(lambda datagram: is_retransmission(datagram.data))
    assert numbers(receiver.answers()) == [101]
    assert stranger.count() == 0


def test_a_request_from_another_port_is_answered_to_the_media_port(receiver, learn, sender):
    feed(sender, [receiver], media(range(100, 103)))
    other_port = learn()
    other_port.ask([102])
    assert numbers(receiver.answers()) == [102]
    assert other_port.count() == 0


def test_an_untagged_request_of_a_receiver_with_an_id_is_not_answered(proxy, learn, sender):
    receiver = start_media(proxy, learn(stream_id=5))
    feed(sender, [receiver], media(range(100, 103)))
    receiver.send(request([101]), receiver.request_address)
    assert receiver.answers() == []


def test_a_request_with_an_unknown_id_and_address_is_ignored(proxy, learn, sender):
    receiver = start_media(proxy, learn("127.0.0.5"))
    feed(sender, [receiver], media(range(100, 103)))
    stranger = learn("127.0.0.6", stream_id=123)
    stranger.ask([101])
    assert receiver.answers() == []
    assert stranger.count() == 0


def test_an_unknown_id_finds_the_configured_stream_of_its_address_and_the_tag_is_taken_off(
    start_proxy, closing, sender, net
):
    proxy = wait_bound(start_proxy("-a", "127.0.0.5"), net.destination, net.request)
    assert proxy.stderr.find(stamped("AddStream: Added 127.0.0.5 stream ID:0x00000000"))
    receiver = closing(PingingReceiver("127.0.0.5", net.destination, net, stream_id=0xABCD))
    feed(sender, [receiver], media(range(100, 103)))
    receiver.ask([101])
    assert numbers(receiver.answers()) == [101]


def test_a_configured_receiver_is_answered_without_any_ping(start_proxy, closing, sender, net):
    wait_bound(start_proxy("-a", "127.0.0.5"), net.destination, net.request)
    receiver = closing(PingingReceiver("127.0.0.5", net.destination, net))
    feed(sender, [receiver], media(range(100, 103)))
    receiver.ask([100, 102])
    assert receiver.answers() == [retransmission_of(receiver.payloads[0]), retransmission_of(receiver.payloads[2])]


@pytest.mark.parametrize("swapped", [False, True], ids=["BABEFACE", "CEFABEBA"])
def test_a_tag_with_id_0_is_not_taken_off_so_the_request_behind_it_is_lost(receiver, sender, swapped):
    feed(sender, [receiver], media(range(100, 103)))
    receiver.send(tag(0, swapped=swapped) + request([101]), receiver.request_address)
    receiver.send(tag(0, swapped=swapped) + echo_ping(b"1234"), receiver.request_address)
    assert receiver.answers() == []
    assert not any(data.endswith(b"1234") for data in receiver.payloads)


def test_a_tag_with_id_0_is_itself_read_as_the_head_of_a_request(receiver, sender):
    # BE BA is the count and FA CE the checksum, the ID gives retries and interval; the rest of the window and
    # a list whose sum fits the checksum make it a good request, one that over-states its count by far.
    feed(sender, [receiver], media(range(100, 103)))
    checksum = struct.unpack("<H", ID_MAGIC[2:])[0]
    filler = (-checksum - 101) & 0xFFFF
    assert not 100 <= filler < 103
    receiver.send(tag(0) + struct.pack("<3H", 60000, 101, filler), receiver.request_address)
    assert numbers(receiver.answers()) == [101]


# The checksum


@pytest.mark.parametrize(
    "wrong", [1, -1, 0x0100, 0x8000], ids=["one_more", "one_less", "high_byte", "top_bit"]
)
def test_a_request_with_a_wrong_checksum_is_dropped(receiver, sender, wrong):
    feed(sender, [receiver], media(range(100, 103)))
    right = -list_sum(struct.pack("<2H", 100, 101))
    receiver.ask([100, 101], checksum=(right + wrong) & 0xFFFF)
    assert receiver.answers() == []
    receiver.ask([100, 101], checksum=right & 0xFFFF)
    assert numbers(receiver.answers()) == [100, 101]


def test_the_sum_has_no_end_around_carry(receiver, sender):
    feed(sender, [receiver], media(range(65530, 65540)))
    seqs = [65535, 65534, 3]
    total = sum(seqs)
    with_carry = (total & 0xFFFF) + (total >> 16)
    receiver.ask(seqs, checksum=-with_carry & 0xFFFF)
    assert receiver.answers() == []
    receiver.ask(seqs, checksum=-total & 0xFFFF)
    assert numbers(receiver.answers()) == seqs


def test_the_numbers_are_summed_as_little_endian_words(receiver, sender):
    feed(sender, [receiver], media(range(0x0102, 0x0105)))
    receiver.ask([0x0103], checksum=-0x0301 & 0xFFFF)
    assert receiver.answers() == []
    receiver.ask([0x0103], checksum=-0x0103 & 0xFFFF)
    assert numbers(receiver.answers()) == [0x0103]


def test_an_odd_last_byte_counts_as_its_own_value(receiver, sender):
    feed(sender, [receiver], media(range(100, 103)))
    receiver.ask([101], trailer=b"\x81", checksum=-(101 + 0x8100) & 0xFFFF)
    assert receiver.answers() == []
    receiver.ask([101], trailer=b"\x81", checksum=-(101 + 0x81) & 0xFFFF)
    assert numbers(receiver.answers()) == [101]


def test_count_and_window_are_not_covered_by_the_checksum(receiver, sender):
    feed(sender, [receiver], media(range(100, 103)))
    checksum = -(100 + 101) & 0xFFFF
    receiver.ask([100, 101], WIDE_WINDOW, count=1, checksum=checksum)
    receiver.ask([100, 101], Window(3, 7000, 9), count=2, checksum=checksum)
    assert numbers(receiver.answers()) == [100, 101]


# The count


def test_only_as_many_numbers_are_answered_as_the_count_says(receiver, sender):
    feed(sender, [receiver], media(range(100, 105)))
    receiver.ask([100, 101, 102, 103], count=2)
    assert numbers(receiver.answers()) == [100, 101]


def test_a_list_without_a_count_is_not_answered(receiver, sender):
    feed(sender, [receiver], media(range(100, 105)))
    receiver.ask([100, 101], count=0)
    assert receiver.answers() == []


@pytest.mark.parametrize("count", [2, 764, 65535])
def test_an_over_stated_count_is_read_as_given_and_the_listed_numbers_are_answered(receiver, sender, count):
    # What is read behind the list is the unused rest of the proxy's own buffers: zeros, and 0 was never sent.
    feed(sender, [receiver], media(range(100, 105)))
    receiver.ask([103], count=count)
    assert numbers(receiver.answers()) == [103]


def test_a_10_byte_request_that_asks_for_nothing_is_taken(receiver, sender):
    feed(sender, [receiver], media(range(100, 103)))
    empty = request([])
    assert empty[:4] == bytes(4) and len(empty) == 10
    receiver.ask_raw(empty)
    receiver.ask([101])
    assert numbers(receiver.answers()) == [101]


# The window: age and hold-off


def test_a_packet_sent_700_ms_ago_has_expired_in_the_default_window_and_is_forgotten(proxy, learn, sender):
    asking, waiting = start_media(proxy, learn("127.0.0.5")), start_media(proxy, learn("127.0.0.6"))
    feed(sender, [asking, waiting], media([100]))
    wait_until(lambda: rtp.age_seconds(asking.payloads[0]) >= 0.7, "the packet to become 700 ms old")
    asking.ask([100], DEFAULT_WINDOW)
    asking.ask([100], WIDE_WINDOW)
    assert asking.answers() == []
    # In another receiver's engine it lives on.
    waiting.ask([100], WIDE_WINDOW)
    assert numbers(waiting.answers()) == [100]


def test_the_window_of_a_request_applies_to_that_request(receiver, sender):
    feed(sender, [receiver], media([100, 101]))
    wait_until(lambda: rtp.age_seconds(receiver.payloads[1]) >= 0.7, "the packets to become 700 ms old")
    receiver.ask([100], WIDE_WINDOW)
    receiver.ask([101], DEFAULT_WINDOW)
    assert numbers(receiver.answers()) == [100]


@pytest.mark.parametrize("window", [NOTHING_ALLOWED, ALL_ONES], ids=["zeros", "ones_that_wrap_to_less_than_0"])
def test_a_window_without_any_age_expires_every_packet(receiver, sender, window):
    feed(sender, [receiver], media([100, 101]))
    receiver.ask([100], window)
    receiver.ask([100, 101], WIDE_WINDOW)
    assert numbers(receiver.answers()) == [101]


def test_a_request_with_a_wrong_checksum_does_not_expire_anything(receiver, sender):
    feed(sender, [receiver], media([100]))
    receiver.ask([100], NOTHING_ALLOWED, checksum=0)
    receiver.ask([100])
    assert numbers(receiver.answers()) == [100]


def test_the_age_allows_one_interval_more_than_the_budget(receiver, sender):
    # No retries: nothing may be sent, but nothing has expired either.
    feed(sender, [receiver], media([100]))
    receiver.ask([100], Window(0, 30000, 0))
    assert receiver.answers() == []
    receiver.ask([100], Window(1, 30000, 0))
    assert numbers(receiver.answers()) == [100]


def test_the_extra_delay_alone_makes_a_window(receiver, sender):
    feed(sender, [receiver], media([100]))
    receiver.ask([100], Window(0, 0, 30000))
    assert numbers(receiver.answers()) == [100]


def test_a_number_listed_twice_is_sent_once(receiver, sender):
    feed(sender, [receiver], media(range(100, 103)))
    receiver.ask([101, 101, 102, 101])
    assert numbers(receiver.answers()) == [101, 102]


def arrivals(sock, count, keep_asking):
    """The kernel's times of arrival of `count` datagrams, while keep_asking() is called every few ms."""
    times = []
    sock.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
    sock.settimeout(0.005)

    def collect():
        with contextlib.suppress(TimeoutError):
            while True:
                _, ancillary, _, _ = sock.recvmsg(2048, 64)
                seconds, nanoseconds = struct.unpack("qq", ancillary[0][2])
                times.append(seconds + nanoseconds / 1e9)
        keep_asking()
        return len(times) >= count

    wait_until(collect, f"{count} answers")
    return times[:count]


@pytest.mark.parametrize(
    "window", [Window(2, 5000, 0), Window(500, 20, 0)], ids=["interval_5000_ms", "interval_20_ms"]
)
def test_a_packet_is_sent_again_after_100_ms_whatever_interval_the_receiver_names(
    proxy, learn, closing, lease, sender, net, window
):
    asking = start_media(proxy, learn("127.0.0.5", stream_id=5))
    feed(sender, [asking], media([100]))
    # The media moves to a plain socket, which tells the time of arrival to the microsecond.
    port = lease.port()
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
        sock.bind(("127.0.0.5", port))
        sock.sendto(tag(5), asking.ping_address)
        proxy.wait_stderr(stamped(f"Media started on port {raw_port(port)} for 127.0.0.5 ID:0x00000005"))
        wanted = tag(5) + request([100], window)
        # The kernel begins to stamp some time after it is asked to: until then a datagram has the time of its reading.
        times = arrivals(sock, 6, lambda: sock.sendto(wanted, asking.request_address))[1:]
    gaps = [later - earlier for earlier, later in zip(times, times[1:])]
    assert min(gaps) >= HOLD_OFF_SECONDS - 0.002, gaps
    # A busy machine makes gaps longer, but not all four of them; half of the interval of 5000 ms would.
    assert min(gaps) < 1, gaps
