"""How many bytes one request may bring back."""

import pytest

from txproxy import rtp
from txproxy.model_receiver import PingingReceiver, Window, feed, wait_bound
from txproxy.receiver import pump
from txproxy.waiting import wait_until

# 100 ms of the bit rate; the interval only lets packets live for a minute.
WINDOW_100_MS = Window(0, 60000, 100)
BITRATE_FOR_10_000_BYTES = 800_000
BUILT_HEADER_BYTES = 12


@pytest.fixture
def start(start_proxy, closing, net):
    """start(*options) runs a proxy with one configured receiver and returns the receiver."""

    def run(*options):
        wait_bound(start_proxy("-a", "127.0.0.5", *options), net.destination, net.request)
        return closing(PingingReceiver("127.0.0.5", net.destination, net))

    return run


@pytest.fixture
def limited(start):
    """A receiver whose requests may bring 10,000 bytes each."""
    receiver = start("-G", BITRATE_FOR_10_000_BYTES)
    assert WINDOW_100_MS.budget_bytes(BITRATE_FOR_10_000_BYTES) == 10_000
    return receiver


def packet(seq, size):
    return rtp.packet(seq, bytes(size - rtp.HEADER_BYTES))


def answered(receiver):
    return [rtp.seq(data) for data in receiver.answers()]


@pytest.mark.parametrize("size, count", [(1000, 10), (1001, 9), (999, 10), (1536, 6), (12, 60)])
def test_a_request_brings_as_many_whole_packets_as_fit_with_their_headers(limited, sender, size, count):
    feed(sender, [limited], [packet(seq, size) for seq in range(60)])
    limited.ask(list(range(60)), WINDOW_100_MS)
    assert answered(limited) == list(range(count))


@pytest.mark.parametrize("size, count", [(988, 10), (989, 9)])
def test_the_header_that_the_proxy_builds_counts_too(start, sender, size, count):
    receiver = start("-u", "-G", BITRATE_FOR_10_000_BYTES)
    feed(sender, [receiver], [bytes(size)] * 20, last=b"last")
    assert {len(data) for data in receiver.payloads[:20]} == {BUILT_HEADER_BYTES + size}
    receiver.ask(list(range(1, 21)), WINDOW_100_MS)
    assert answered(receiver) == list(range(1, count + 1))


def test_each_request_has_a_budget_of_its_own(limited, sender):
    feed(sender, [limited], [packet(seq, 1000) for seq in range(30)])
    limited.ask(list(range(30)), WINDOW_100_MS)
    limited.ask(list(range(10, 30)), WINDOW_100_MS)
    assert answered(limited) == list(range(20))


def test_the_first_packet_beyond_the_budget_ends_the_list_though_a_smaller_one_would_fit(limited, sender):
    feed(sender, [limited], [packet(seq, 1000) for seq in range(9)] + [packet(9, 1001), packet(10, 50)])
    limited.ask(list(range(11)), WINDOW_100_MS)
    assert answered(limited) == list(range(9))
    limited.ask([9, 10], WINDOW_100_MS)
    assert answered(limited) == [*range(9), 9, 10]


def test_nothing_behind_the_first_packet_beyond_the_budget_is_looked_at(start, sender):
    # Whatever is looked at when it has expired is forgotten; behind the end of the budget the old one is not.
    window = Window(0, 750, 750)
    bitrate = 8000 * 10_000 // window.extra_ms + 1
    assert window.age_seconds() == 1.5 and window.budget_bytes(bitrate) == 10_000
    receiver = start("-G", bitrate)
    feed(sender, [receiver], [packet(100, 500), packet(101, 500)])
    wait_until(lambda: rtp.age_seconds(receiver.payloads[1]) > 1.5, "two packets to expire")
    feed(sender, [receiver], [packet(seq, 1000) for seq in range(11)])
    receiver.ask([101, *range(11), 100], window)
    assert answered(receiver) == list(range(10))
    receiver.ask([100, 101], Window(0, 60000, 750))
    assert answered(receiver) == [*range(10), 100]


def test_packets_that_the_hold_off_keeps_back_cost_nothing(limited, sender):
    feed(sender, [limited], [packet(seq, 1000) for seq in range(12)])
    limited.ask([0, 1, 2, 3, 4] * 3 + list(range(5, 12)), WINDOW_100_MS)
    assert answered(limited) == list(range(10))


def test_packets_that_are_not_there_cost_nothing(limited, sender):
    feed(sender, [limited], [packet(seq, 1000) for seq in range(12)])
    limited.ask(list(range(100, 200)) + list(range(12)), WINDOW_100_MS)
    assert answered(limited) == list(range(10))


def test_a_request_with_a_budget_of_0_brings_nothing_and_forgets_nothing(limited, sender):
    feed(sender, [limited], [packet(0, 12)])
    limited.ask([0], Window(0, 60000, 0))
    assert answered(limited) == []
    limited.ask([0], WINDOW_100_MS)
    assert answered(limited) == [0]


def test_the_budget_is_rounded_down_to_whole_bytes(start, sender):
    # 100 ms of 79,999 bit/s are 999.9875 bytes.
    receiver = start("-G", 79_999)
    feed(sender, [receiver], [packet(0, 1000), packet(1, 999)])
    receiver.ask([0], WINDOW_100_MS)
    assert answered(receiver) == []
    receiver.ask([1], WINDOW_100_MS)
    assert answered(receiver) == [1]


def test_retries_times_interval_plus_extra_times_the_bit_rate_make_the_budget(start, sender):
    receiver = start("-G", 8_000)
    window = Window(3, 1500, 500)
    assert window.budget_bytes(8_000) == 5_000
    feed(sender, [receiver], [packet(seq, 500) for seq in range(12)])
    receiver.ask(list(range(12)), window)
    assert answered(receiver) == list(range(10))


def test_400_ms_of_the_default_bit_rate_wrap_to_352516_bytes(start, sender):
    receiver = start()
    # The same 400 ms as in the default window of 2 x 200 ms, but the packets live for a minute.
    window = Window(0, 60000, 400)
    assert window.budget_bytes() == Window(2, 200, 0).budget_bytes() == 352_516
    size = 1328
    feed(sender, [receiver], [packet(seq, size) for seq in range(300)])
    receiver.ask(list(range(300)), window)
    assert answered(receiver) == list(range(352_516 // size)) == list(range(265))


def test_a_product_that_wraps_to_0_brings_nothing(start, sender):
    # 65536 ms x 65536 bit/s are 2^32.
    receiver = start("-G", 65536)
    feed(sender, [receiver], [packet(0, 100)])
    receiver.ask([0], Window(2, 32768, 0))
    assert answered(receiver) == []
    receiver.ask([0], Window(2, 32768, 1000))
    assert answered(receiver) == [0]


def test_the_first_sending_has_no_budget(limited, sender):
    pump(sender, [limited], [packet(seq, 1500) for seq in range(100)])
    assert limited.count() == 100
