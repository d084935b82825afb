"""Deliberate loss: its files and messages, which packets it withholds, and how receivers get them back."""

import itertools
import shutil
import time

import pytest

from txproxy import impairment, instances, model_receiver, reports, rtp, traffic
from txproxy.control import request
from txproxy.receiver import pump
from txproxy.waiting import wait_until

RECEIVER = "127.0.0.2"
SECOND_RECEIVER = "127.0.0.3"
RESENT_TYPE = 122
ON = "Impairment ON"
OFF = "Impairment OFF"
POLL_SECONDS = 1.0
SETTINGS = ("min_drop", "min_dist", "max_drop", "max_dist", "mode")
DEFAULTS = (1, 100, 10, 200, 1)


def media(number, size=200):
    return rtp.packet(number, number.to_bytes(4, "big").ljust(size, b"."))


def switched_on(start_proxy, net, *options, **settings):
    """A proxy whose impairment is on from its first poll, before any packet."""
    if settings:
        impairment.write_settings(net.instance, **settings)
    impairment.toggle(net.instance)
    proxy = start_proxy(*options)
    proxy.wait_stderr(ON)
    net.proxy = proxy
    return proxy


def send_all(sender, net, numbers):
    """Sends packets with these numbers and waits until each has been through the proxy of switched_on()."""
    before = reports.rx_stat(net.instance)[0]
    traffic.send_all(sender, net.input, [media(number) for number in numbers])
    wait_until(lambda: reports.rx_stat(net.instance)[0] == before + len(numbers), "all packets to come in")
    net.proxy.wait_asleep()  # the last one is counted before it is sent


def arrived(receiver, net, others=0):
    """The numbers of all packets that the proxy has sent to this receiver."""
    wanted = reports.all_stats(net.instance)["SEND_PACKETS"] - others
    return [rtp.seq(data) for data in receiver.wait_count(wanted)]


def dumped_mode(proxy, net):
    return reports.debug_dump(proxy, net.instance)["m_impair.m_mode"]


def withheld(numbers, got):
    assert sorted(set(got)) == got, "in order and once each"
    return sorted(set(numbers) - set(got))


def passed_by(pattern):
    return [number for number, is_withheld in enumerate(pattern) if not is_withheld]


def printed_settings(proxy):
    """The settings lines, as tuples of five."""
    lines = [line.split(" = ") for line in proxy.stderr.lines if line.split(" = ")[0] in SETTINGS]
    assert [name for name, _ in lines] == list(itertools.islice(itertools.cycle(SETTINGS), len(lines)))
    values = [int(value) for _, value in lines]
    return [tuple(values[i : i + len(SETTINGS)]) for i in range(0, len(values), len(SETTINGS))]


def test_by_default_99_packets_pass_then_every_hundred_and_first_is_withheld(start_proxy, net, sender, receive):
    proxy = switched_on(start_proxy, net, "-a", RECEIVER)
    receiver = receive(RECEIVER)
    send_all(sender, net, range(500))
    got = arrived(receiver, net)
    assert withheld(range(500), got) == [99, 200, 301, 402]
    assert got == passed_by(impairment.fixed_pattern(500))
    assert printed_settings(proxy) == [], "without a settings file nothing is printed"


@pytest.mark.parametrize("min_dist, min_drop", [(1, 1), (1, 3), (2, 1), (5, 4), (0, 1), (3, 0)])
def test_the_fixed_mode_withholds_min_drop_packets_after_every_min_dist(
    start_proxy, net, sender, receive, min_dist, min_drop
):
    switched_on(start_proxy, net, "-a", RECEIVER, min_dist=min_dist, min_drop=min_drop, max_dist=900, max_drop=800)
    receiver = receive(RECEIVER)
    send_all(sender, net, range(60))
    # The packet that ends a burst passes even when no distance is asked for.
    pattern = impairment.fixed_pattern(60, max(1, min_dist), min_drop)
    assert arrived(receiver, net) == passed_by(pattern)


def test_with_distance_and_burst_of_1_every_other_packet_is_withheld_from_the_first_on(
    start_proxy, net, sender, receive
):
    switched_on(start_proxy, net, "-u", "-a", RECEIVER, min_dist=1, min_drop=1)
    receiver = receive(RECEIVER)
    send_all(sender, net, range(20))
    # With plain input the proxy numbers the packets itself, from 1 on.
    assert arrived(receiver, net) == list(range(2, 21, 2))


def test_a_packet_is_withheld_from_all_streams_alike(start_proxy, net, sender, receive):
    switched_on(start_proxy, net, "-a", f"{RECEIVER},{SECOND_RECEIVER}", min_dist=3, min_drop=2)
    receivers = [receive(RECEIVER), receive(SECOND_RECEIVER)]
    send_all(sender, net, range(50))
    expected = passed_by(impairment.fixed_pattern(50, 3, 2))
    assert arrived(receivers[0], net, others=len(expected)) == expected
    assert [rtp.seq(data) for data in receivers[1].wait_count(len(expected))] == expected


def runs(numbers, of_withheld):
    """Lengths of the runs of passed and of withheld packets, in order: (first passed run, ...)."""
    missing = set(of_withheld)
    return [(is_missing, len(list(run))) for is_missing, run in itertools.groupby(numbers, missing.__contains__)]


def test_the_random_mode_draws_its_gaps_evenly_and_has_bursts_of_min_drop(start_proxy, net, sender, receive):
    switched_on(start_proxy, net, "-a", RECEIVER, mode=2, min_dist=5, max_dist=8, min_drop=2, max_drop=9)
    receiver = receive(RECEIVER)
    count = 3000
    send_all(sender, net, range(count))
    lengths = runs(range(count), withheld(range(count), arrived(receiver, net)))
    first, *inner, _ = lengths
    assert not first[0] and 5 <= first[1] <= 8, "the first gap is as drawn"
    assert {length for is_missing, length in inner if is_missing} == {2}
    gaps = [length for is_missing, length in inner if not is_missing]
    # The packet that ends a burst passes too.
    assert set(gaps) == {6, 7, 8, 9}
    # About 315 gaps in four sizes: a share of a fifth to a third of them is six deviations wide at least.
    for size in set(gaps):
        assert 0.12 < gaps.count(size) / len(gaps) < 0.40


def test_bursts_of_the_random_mode_are_as_long_when_the_gap_cannot_vary(start_proxy, net, sender, receive):
    switched_on(start_proxy, net, "-a", RECEIVER, mode=2, min_dist=4, max_dist=4, min_drop=3, max_drop=3)
    receiver = receive(RECEIVER)
    send_all(sender, net, range(100))
    # The first distance has no "- 1": four pass, three are withheld, then five pass each time.
    pattern = [False] * 4 + ([True] * 3 + [False] * 5) * 12
    assert arrived(receiver, net) == passed_by(pattern[:100])


@pytest.mark.parametrize("mode", [(), ("-u",)], ids=["rtp", "udp"])
def test_a_withheld_packet_is_sent_when_a_receiver_asks_for_it(start_proxy, net, sender, receive, mode):
    switched_on(start_proxy, net, *mode, "-a", RECEIVER, min_dist=10, min_drop=3)
    receiver = receive(RECEIVER)
    send_all(sender, net, range(40))
    first = 1 if mode else 0
    numbers = range(first, first + 40)
    missing = withheld(numbers, arrived(receiver, net))
    assert missing == [number + first for number, lost in enumerate(impairment.fixed_pattern(40, 10, 3)) if lost]
    before = receiver.count()
    receiver.send(model_receiver.request(missing), ("127.0.0.1", net.request))
    recovered = receiver.wait_count(before + len(missing))[before:]
    assert [rtp.seq(data) for data in recovered] == missing
    for data in recovered:
        assert rtp.payload_type(data) == RESENT_TYPE
        original = media(rtp.seq(data) - first)
        assert rtp.payload(data) == (original if mode else rtp.payload(original))


def test_withheld_packets_are_no_loss_of_the_input(start_proxy, net, sender, receive):
    proxy = switched_on(start_proxy, net, "-a", RECEIVER, min_dist=1, min_drop=4)
    receive(RECEIVER)
    send_all(sender, net, range(50))
    assert reports.rx_stat(net.instance) == (50, 0)
    assert reports.debug_dump(proxy, net.instance)["m_nDropPacket"] == 40


def test_the_dump_shows_the_counters_of_the_gate(start_proxy, net, sender, receive):
    proxy = switched_on(start_proxy, net, "-a", RECEIVER, min_dist=2, min_drop=3)
    receive(RECEIVER)

    def state():
        dump = reports.debug_dump(proxy, net.instance)
        names = ("m_impair.m_mode", "m_impair.m_dist.m_value", "m_impair.m_burst.m_value", "m_nDropPacket")
        return tuple(dump[name] for name in names)

    assert state() == (1, 1, 3, 0)
    states = []
    for number in range(6):
        send_all(sender, net, [number])
        states.append(state())
    assert states == [
        (1, 0, 3, 0),
        (1, -1, 2, 1),
        (1, -2, 1, 2),
        (1, -3, 0, 3),
        (1, 1, 3, 3),  # the packet that found the burst spent passed and armed anew
        (1, 0, 3, 3),
    ]


def test_switching_off_lets_all_pass_and_keeps_the_counters(start_proxy, net, sender, receive):
    proxy = switched_on(start_proxy, net, "-a", RECEIVER, min_dist=1, min_drop=1000)
    receiver = receive(RECEIVER)
    send_all(sender, net, range(10))
    during = reports.debug_dump(proxy, net.instance)
    impairment.toggle(net.instance)
    # The line comes first.
    wait_until(lambda: OFF in proxy.stderr.lines and dumped_mode(proxy, net) == 0, "the impairment to be off")
    send_all(sender, net, range(10, 30))
    assert arrived(receiver, net) == list(range(10, 30))
    assert reports.debug_dump(proxy, net.instance) == {**during, "m_impair.m_mode": 0}


def test_the_toggle_file_is_removed_and_switches_on_and_off_in_turn(start_proxy, net):
    proxy = start_proxy()
    for lines in ([ON], [ON, OFF], [ON, OFF, ON]):
        impairment.toggle(net.instance)
        wait_until(lambda: not impairment.toggle_file(net.instance).exists(), "the toggle file to be removed")
        wait_until(lambda: [line for line in proxy.stderr.lines if line in (ON, OFF)] == lines, f"{lines}")
    assert "min_drop" not in proxy.stderr.text


def test_the_content_of_the_toggle_file_does_not_matter(start_proxy, net):
    impairment.toggle_file(net.instance).write_text("mode=0\nmin_dist=1\n")
    proxy = start_proxy("-a", RECEIVER)
    proxy.wait_stderr(ON)
    assert reports.debug_dump(proxy, net.instance)["m_impair.m_dist.m_value"] == 99


def test_of_two_toggle_files_within_a_second_the_second_is_seen_a_second_later(start_proxy, net):
    proxy = start_proxy()
    pauses = []

    def measured():
        impairment.toggle(net.instance)
        proxy.wait_stderr(ON, count=len(pauses) + 1)
        first = time.monotonic()
        impairment.toggle(net.instance)
        proxy.wait_stderr(OFF, count=len(pauses) + 1)
        pauses.append(time.monotonic() - first)
        # This process may have been late to see either line.
        return 0.8 * POLL_SECONDS < pauses[-1] < 1.4 * POLL_SECONDS

    wait_until(measured, lambda: f"a pause of {POLL_SECONDS} s; all pauses: {pauses}")


def test_a_toggle_file_that_cannot_be_removed_toggles_again_and_again(start_proxy, net):
    folder = impairment.toggle_file(net.instance)
    folder.mkdir()
    try:
        (folder / "entry").touch()
        proxy = start_proxy()
        proxy.wait_stderr(ON, count=2)
        assert [line for line in proxy.stderr.lines if line in (ON, OFF)][:3] == [ON, OFF, ON]
    finally:
        shutil.rmtree(folder)


# Settings files and what is printed for them, in the order min_drop, min_dist, max_drop, max_dist, mode.
SETTINGS_FILES = {
    "all given": ("min_drop=2\nmin_dist=3\nmax_drop=4\nmax_dist=5\nmode=2\n", (2, 3, 4, 5, 2)),
    "in any order and only some": ("mode=2\nmin_dist=30\n", (1, 30, 10, 200, 2)),
    "empty": ("", DEFAULTS),
    "blank lines only": ("\n\n   \n\t\n", DEFAULTS),
    "a comment behind blanks": ("  # min_drop=5\nmin_drop=6\n#min_dist=7\n", (6, 100, 10, 200, 1)),
    "a remark behind a value": ("min_drop=5 # five\n", (5, 100, 10, 200, 1)),
    "blanks around the sign": ("min_drop = 7\n  max_drop\t=\t8\n", (7, 100, 8, 200, 1)),
    "a key behind a digit": (" 2mode=2\n--min_dist=4\n", (1, 4, 10, 200, 2)),
    "a sign is dropped": ("max_dist=-20\nmin_dist=+3\n", (1, 3, 10, 20, 1)),
    "quotes": ('mode="2"\nmin_drop="3"  \n', (3, 100, 10, 200, 2)),
    "a quote left open": ('mode="2\nmin_drop="3 \n', (3, 100, 10, 200, 2)),
    "a minus in quotes": ('max_dist="-20"\n', (1, 100, 10, -20, 1)),
    "an empty quoted value": ('min_drop=""\n', DEFAULTS),
    "a second equals sign": ("min_drop=6=7\nmode==2\n", (6, 100, 10, 200, 1)),
    "no value": ("min_drop=\nmin_dist\nmode=2\n", (1, 100, 10, 200, 2)),
    "nothing but signs as value": ("min_drop=--\n", DEFAULTS),
    "text behind a number": ("max_drop=12abc\n", (1, 100, 12, 200, 1)),
    "no number": ("max_dist=none\n", (1, 100, 10, 0, 1)),
    "given twice": ("min_drop=2\nmin_drop=3\n", (3, 100, 10, 200, 1)),
    "case counts": ("Min_drop=2\nMODE=2\n", DEFAULTS),
    "no last line end": ("mode=2", (1, 100, 10, 200, 2)),
    "line ends of another system": ("mode=2\r\nmin_drop=4\r\n", (4, 100, 10, 200, 2)),
    "a zero ends the file": ("min_drop=4\n\0mode=2\n", (4, 100, 10, 200, 1)),
    "any bytes": (bytes(range(1, 256)) * 20, DEFAULTS),
    "a folder": (None, DEFAULTS),
}


def make_settings_file(instance, content):
    path = impairment.settings_file(instance)
    if content is None:
        path.mkdir()
    elif isinstance(content, bytes):
        path.write_bytes(content)
    else:
        path.write_text(content)


def test_a_settings_file_is_read_line_by_line_and_printed_back(launch, closing):
    started = {}
    try:
        for name, (content, _) in SETTINGS_FILES.items():
            place = instances.reserve(closing)
            make_settings_file(place.instance, content)
            impairment.toggle(place.instance)
            started[name] = place, instances.start(launch, place)
        for name, (_, proxy) in started.items():
            proxy.wait_stderr(ON)
        printed = {name: printed_settings(proxy) for name, (_, proxy) in started.items()}
        assert printed == {name: [values] for name, (_, values) in SETTINGS_FILES.items()}
        for place, _ in started.values():
            assert impairment.settings_file(place.instance).exists(), "it is never removed"
    finally:
        for place, _ in started.values():
            path = impairment.settings_file(place.instance)
            if path.is_dir():
                path.rmdir()


def test_the_settings_are_printed_before_the_switch_is_reported(start_proxy, net):
    proxy = switched_on(start_proxy, net, min_drop=2, min_dist=3, max_drop=4, max_dist=5, mode=2)
    wanted = ["min_drop = 2", "min_dist = 3", "max_drop = 4", "max_dist = 5", "mode = 2", "Impairment ON"]
    # Lines of other threads may come between.
    assert [line for line in proxy.stderr.lines if line in wanted] == wanted


def test_mode_0_withholds_nothing_and_is_read_anew_by_the_next_toggle(start_proxy, net, sender, receive):
    proxy = switched_on(start_proxy, net, "-a", RECEIVER, mode=0, min_dist=1, min_drop=1)
    receiver = receive(RECEIVER)
    pump(sender, [receiver], [media(i) for i in range(20)])
    impairment.write_settings(net.instance, mode=1, min_dist=1, min_drop=1)
    impairment.toggle(net.instance)
    proxy.wait_stderr(ON, count=2)
    assert OFF not in proxy.stderr.text
    assert printed_settings(proxy) == [(1, 1, 10, 200, 0), (1, 1, 10, 200, 1)]
    receiver.clear()
    assert request(net.instance, "TxStatClear") == "OK: Tx Stat Reset"
    send_all(sender, net, range(20, 30))
    assert arrived(receiver, net) == [21, 23, 25, 27, 29]


def test_an_unknown_mode_withholds_nothing_and_counts_as_on(start_proxy, net, sender, receive):
    proxy = switched_on(start_proxy, net, "-a", RECEIVER, mode=3, min_dist=1, min_drop=1)
    receiver = receive(RECEIVER)
    pump(sender, [receiver], [media(i) for i in range(20)])
    assert dumped_mode(proxy, net) == 3
    impairment.toggle(net.instance)
    proxy.wait_stderr(OFF)


def test_bounds_the_wrong_way_round_do_no_harm(start_proxy, net, sender, receive):
    proxy = switched_on(start_proxy, net, "-a", RECEIVER, mode=2, min_drop=2, max_drop=0, min_dist=9, max_dist=4)
    receiver = receive(RECEIVER)
    send_all(sender, net, range(300))
    assert 0 < len(withheld(range(300), arrived(receiver, net))) < 300
    assert reports.debug_dump(proxy, net.instance)["m_nDropPacket"] == 300 - receiver.count()


def test_a_clear_file_is_never_removed(start_proxy, net):
    proxy = start_proxy("-a", RECEIVER)
    clear = impairment.clear_file(net.instance)
    clear.touch()
    # Two toggles seen are two looks at the files.
    impairment.write_settings(net.instance, mode=9)
    for line in (ON, OFF):
        impairment.toggle(net.instance)
        proxy.wait_stderr(line)
    assert clear.exists()


def test_the_files_of_another_instance_are_not_touched(launch, closing):
    places = [instances.reserve(closing) for _ in range(2)]
    proxies = [instances.start(launch, place) for place in places]
    impairment.toggle(places[1].instance)
    proxies[1].wait_stderr(ON)
    impairment.toggle(places[1].instance)
    proxies[1].wait_stderr(OFF)
    assert "Impairment" not in proxies[0].stderr.text


def test_with_pacing_the_gate_decides_when_packets_are_released(start_proxy, net, sender, receive):
    switched_on(start_proxy, net, "-X", 20_000_000, "-a", RECEIVER, min_dist=4, min_drop=2)
    receiver = receive(RECEIVER)
    send_all(sender, net, range(200))
    assert arrived(receiver, net) == passed_by(impairment.fixed_pattern(200, 4, 2))
