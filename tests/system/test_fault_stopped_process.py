"""A process that is stopped (SIGSTOP) and goes on (SIGCONT): the stream goes on within a second, who pinged stays, and
what was missed is neither made up for by a flood nor sent twice.

TX_PROXY_STOPPED_SECONDS   how long it is stopped (default 10)
"""

import os
import re
import socket
import time

import pytest

from txproxy import control, impairment, raw_control, reports, rtp
from txproxy.model_receiver import start_media, wait_bound
from txproxy.process import cpu_seconds, stopped
from txproxy.receiver import pump
from txproxy.traffic import Steady, kernel_drops
from txproxy.waiting import DEFAULT_TIMEOUT, scaled, wait_until, within

STOPPED_SECONDS = float(os.environ.get("TX_PROXY_STOPPED_SECONDS", "10"))
GOES_ON_SECONDS = 1.0
POLL_SECONDS = 1.0  # the proxy's looks at the impairment files
SLOW_MACHINE_SECONDS = 1.0
PACKETS_PER_SECOND = 200
PAYLOAD_BYTES = 100  # so small that the input's buffer holds what comes meanwhile
LONGEST_SILENCE_SECONDS = 10.0
LARGEST_PROCESSOR_SHARE = 0.3
BREATHS_HELD = 8
BREATH_SECONDS = 3.0
STOPS = 200
PACKETS_A_STOP = 20
PACING_BITRATE = 2_000_000
PACING_PERIOD_SECONDS = 0.01


def media(number):
    return rtp.packet(number, b"%0*d" % (PAYLOAD_BYTES, number))


def numbers(receiver):
    """The numbers of what arrived; first sendings only, told from each other beyond 16 bits."""
    return [int(rtp.payload(data)) for data in receiver.payloads if rtp.payload_type(data) == rtp.MEDIA_PAYLOAD_TYPE]


def stand(seconds, receiver):
    """The time of the stop; the receiver pings once a second."""
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        receiver.ping()
        time.sleep(min(1.0, max(0.0, end - time.monotonic())))  # a span to look at, not a wait


@pytest.mark.parametrize("options", [(), ("-X", str(10 * PACING_BITRATE))])
def test_a_stream_goes_on_within_a_second_after_a_stop_and_who_pinged_meanwhile_stays(
    start_proxy, closing, receive, learn, sender, net, options
):
    proxy = wait_bound(start_proxy("-a", "127.0.0.2", *options), net.destination, net.request)
    fixed, pinging = receive(), start_media(proxy, learn())
    start_media(proxy, learn("127.0.0.6"))  # never pings again
    steady = closing(Steady(sender, media, PACKETS_PER_SECOND))
    fixed.wait_count(PACKETS_PER_SECOND // 2)
    with stopped(proxy):
        stand(STOPPED_SECONDS, pinging)
        during, arrived = steady.sent, fixed.count()
        assert arrived < during
    with within(GOES_ON_SECONDS):
        for receiver in (fixed, pinging):
            wait_until(lambda receiver=receiver: numbers(receiver)[-1] > during, "packets of after the stop")
    assert control.request(net.instance, "List") == "127.0.0.2,127.0.0.5,127.0.0.6"
    last_ping = time.monotonic()

    def silent_one_is_gone():
        nonlocal last_ping
        if time.monotonic() - last_ping >= 1.0:
            pinging.ping()
            last_ping = time.monotonic()
        return re.search(r"Stream suspended for 127\.0\.0\.6$", proxy.stderr.text, re.MULTILINE)

    with within(LONGEST_SILENCE_SECONDS + SLOW_MACHINE_SECONDS):
        wait_until(silent_one_is_gone, "the end of the silent one", 3 * LONGEST_SILENCE_SECONDS)
    assert "Stream suspended for 127.0.0.5" not in proxy.stderr.text
    steady.close()
    wait_until(lambda: numbers(fixed)[-1] == steady.sent - 1, "the last packet")
    got = numbers(fixed)
    assert len(set(got)) == len(got), "each once"
    # What the pacer's queue cannot hold after the stop main sends itself, beside the timer.
    assert options or got == sorted(got)
    # What the input's buffer could not hold is missing, and nothing else.
    dropped = kernel_drops(net.input)
    assert len(got) == steady.sent - dropped
    # Two threads that send at the same moment may count one packet less, and what one overtakes as lost.
    assert options or reports.rx_stat(net.instance) == (len(got), dropped)
    assert set(numbers(pinging)) <= set(got)


def test_the_time_of_a_stop_is_no_silence_of_those_who_pinged_before_and_after_it(start_proxy, learn, net):
    proxy = wait_bound(start_proxy("-a", "127.0.0.2"), net.destination, net.request)
    members = [start_media(proxy, learn(f"127.0.0.{10 + number}")) for number in range(BREATHS_HELD)]
    for member in members:
        member.ping()
    members[0].settle()
    with stopped(proxy):
        time.sleep(STOPPED_SECONDS)  # the stop itself
    time.sleep(BREATH_SECONDS)  # less than the silence that a stream outlives, and time to look at most of them
    for member in members:
        member.ping()
    members[0].settle()
    listed = control.request(net.instance, "List").split(",")
    assert set(listed) == {"127.0.0.2", *(member.address[0] for member in members)}
    assert "Stream suspended" not in proxy.stderr.text


def test_pings_requests_commands_and_toggles_that_came_during_a_stop_are_answered_after_it(
    start_proxy, closing, receive, learn, sender, net
):
    proxy = wait_bound(start_proxy("-a", "127.0.0.2"), net.destination, net.request)
    asking, joining = start_media(proxy, learn()), learn("127.0.0.6")
    pump(sender, [receive(), asking], [media(number) for number in range(10)])
    impairment.write_settings(net.instance, mode=9)
    with raw_control.connected(net.instance) as client:
        assert raw_control.ask(client, "RxStat") == "NET_TOTAL_PACKETS=10\nNET_LOSS=0\n"
        with stopped(proxy):
            client.sendall(b"StatClear")
            asking.ask([5])
            joining.ping()
            impairment.toggle(net.instance)
            time.sleep(scaled(1.0))  # the stop itself
        with within(POLL_SECONDS + SLOW_MACHINE_SECONDS):
            with within(GOES_ON_SECONDS):
                assert client.recv(100) == b"OK: Stat Reset"
                assert [rtp.seq(data) for data in asking.answers()] == [5]
            proxy.wait_stderr("Impairment ON")
    wait_until(lambda: "127.0.0.6" in control.request(net.instance, "List"), "the one who pinged")


def test_timers_do_not_make_up_for_a_stop_with_a_flood_of_work(start_proxy, receive, net):
    proxy = wait_bound(start_proxy("-a", "127.0.0.2", "-X", str(PACING_BITRATE)), net.destination, net.request)
    with stopped(proxy):
        time.sleep(scaled(3.0))  # the stop itself
    receive()
    used, began = cpu_seconds(proxy.pid), time.monotonic()
    time.sleep(scaled(GOES_ON_SECONDS))  # a span to look at, not a wait
    assert cpu_seconds(proxy.pid) - used < LARGEST_PROCESSOR_SHARE * (time.monotonic() - began)


def test_two_hundred_short_stops_lose_and_double_nothing(start_proxy, receive, learn, sender, net):
    proxy = wait_bound(start_proxy("-a", "127.0.0.2"), net.destination, net.request)
    receivers = [receive(), start_media(proxy, learn())]
    for receiver in receivers:
        receiver.clear()
    for turn in range(STOPS):
        with stopped(proxy):
            for number in range(PACKETS_A_STOP):
                sender.send(media(PACKETS_A_STOP * turn + number))
        for receiver in receivers:
            receiver.wait_count(PACKETS_A_STOP * (turn + 1))
    for receiver in receivers:
        assert numbers(receiver) == list(range(STOPS * PACKETS_A_STOP))
    receivers[1].ask([7])
    assert [rtp.seq(data) for data in receivers[1].answers()] == [7]


def test_a_reply_that_waits_for_its_client_is_not_lost_to_a_stop(start_proxy, net):
    proxy = start_proxy("-a", "127.0.0.2")
    with raw_control.connected(net.instance) as client:
        # The proxy stands in the write of a reply; with its time-out the write is one that a stop interrupts.
        client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1)
        sent = raw_control.flood(client, b"x" * 1024)
        with stopped(proxy):
            pass
        client.settimeout(scaled(DEFAULT_TIMEOUT))
        client.shutdown(socket.SHUT_WR)
        replies = raw_control.receive_all(client)
    assert replies == b"command not implemented" * (len(replies) // 23)
    assert 0 < len(replies) // 23 <= sent // 1024 + 1
    assert control.request(net.instance, "List") == "127.0.0.2"
