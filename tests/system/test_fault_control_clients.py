"""Clients of the control socket of every bad kind. While one is there the stream and the look at the impairment files
go on; when it has gone the next client is served at once."""

import contextlib
import random
import socket
import threading
import time

import pytest

from txproxy import control, impairment, raw_control, rtp
from txproxy.control import request
from txproxy.model_receiver import wait_bound
from txproxy.process import cpu_seconds, descriptors
from txproxy.receiver import pump
from txproxy.waiting import DEFAULT_TIMEOUT, scaled, wait_until, within

REQUEST_BYTES = 1024
NOT_IMPLEMENTED = b"command not implemented"
BACKLOG = 5
NEXT_CLIENT_SECONDS = 1.0
TOGGLE_SECONDS = 3.0  # a look a second, made between two waits of half a second each
CONNECTS = 2000
BINARY_BYTES = 64 * 1024
LONG_BYTES = 512 * 1024
BYTE_SECONDS = 1.0
LARGEST_PROCESSOR_SHARE = 0.3
IDLE_SECONDS = 1.0


@contextlib.contextmanager
def silent(instance):
    with raw_control.connected(instance):
        yield


@contextlib.contextmanager
def talking(instance, talk):
    """`talk(client, is_over)` runs beside the test until the test has seen enough."""
    is_over = threading.Event()
    with raw_control.connected(instance) as client:
        thread = threading.Thread(target=talk, args=(client, is_over))
        thread.start()
        try:
            yield
        finally:
            is_over.set()
            thread.join(scaled(DEFAULT_TIMEOUT))


def one_byte_a_second(instance):
    def talk(client, is_over):
        for byte in b"List" * 100:
            client.send(bytes([byte]))
            if is_over.wait(BYTE_SECONDS):
                return

    return talking(instance, talk)


@contextlib.contextmanager
def never_reading(instance):
    with raw_control.connected(instance) as client:
        assert raw_control.flood(client, b"AllStats" * (REQUEST_BYTES // 8)) > 50 * REQUEST_BYTES
        yield


def asks_and_hangs_up(instance):
    """Again and again; a reply that lies unread resets the connection."""

    def talk(client, is_over):
        client.close()
        while not is_over.is_set():
            with raw_control.connected(instance) as other:
                other.sendall(b"AllStats")

    return talking(instance, talk)


@contextlib.contextmanager
def deaf(instance):
    with raw_control.connected(instance) as client:
        client.shutdown(socket.SHUT_RD)
        for _ in range(20):
            client.sendall(b"List")
        yield


def sending_without_end(instance, data):
    def talk(client, is_over):
        client.settimeout(0.1)
        while not is_over.is_set():
            with contextlib.suppress(TimeoutError):
                client.send(data)
            with contextlib.suppress(TimeoutError):
                client.recv(65536)

    return talking(instance, talk)


def binary(instance):
    return sending_without_end(instance, random.Random(1).randbytes(BINARY_BYTES))


def long_request(instance):
    return sending_without_end(instance, b"A" * LONG_BYTES)


def many_commands(instance):
    return sending_without_end(instance, b"AllStats List Debug RxStat " * 40)


@contextlib.contextmanager
def full_backlog(instance):
    with contextlib.ExitStack() as clients:
        with contextlib.suppress(BlockingIOError):
            for _ in range(4 * BACKLOG):
                client = clients.enter_context(socket.socket(socket.AF_UNIX, socket.SOCK_STREAM))
                client.setblocking(False)
                client.connect(control.path(instance))
            raise AssertionError("the backlog takes more than it should")
        yield


KINDS = {
    "silent": silent,
    "one byte a second": one_byte_a_second,
    "never reading": never_reading,
    "asking and hanging up": asks_and_hangs_up,
    "closed for reading": deaf,
    "binary": binary,
    "long request": long_request,
    "many commands in one write": many_commands,
    "full backlog": full_backlog,
}


def descriptors_without_clients(proxy, instance):
    """How many the proxy has but for that of the one client that it serves; a look at a route has one for a moment."""
    with raw_control.connected(instance) as client:
        assert raw_control.ask(client, "List") == "127.0.0.2"
        return len(descriptors(proxy.pid)) - 1


def stream_runs(sender, receiver):
    pump(sender, [receiver], [rtp.packet(i, bytes(1316)) for i in range(200)])


def switches(proxy):
    return len(proxy.stderr.find("Impairment ON")) + len(proxy.stderr.find("Impairment OFF"))


def expect_service_as_before(proxy, instance, usual):
    """The next client is served in time, and of the others no descriptor is left beside the usual ones."""
    with within(NEXT_CLIENT_SECONDS):
        assert request(instance, "List") == "127.0.0.2"
    wait_until(lambda: descriptors_without_clients(proxy, instance) == usual, "the clients' descriptors to be closed")


@pytest.mark.parametrize("kind", KINDS)
def test_a_bad_client_stops_neither_stream_nor_toggles_and_the_next_one_is_served_within_a_second(
    start_proxy, net, sender, receive, kind
):
    proxy = start_proxy("-a", "127.0.0.2")
    wait_bound(proxy, net.destination, net.request)  # every thread has its descriptors
    receiver = receive()
    impairment.write_settings(net.instance, mode=9)  # withholds nothing
    usual = min(descriptors_without_clients(proxy, net.instance) for _ in range(3))
    with KINDS[kind](net.instance):
        for turn in (1, 2):
            stream_runs(sender, receiver)
            with within(TOGGLE_SECONDS):
                impairment.toggle(net.instance)
                wait_until(lambda turn=turn: switches(proxy) == turn, "the toggle to be seen")
        stream_runs(sender, receiver)
    expect_service_as_before(proxy, net.instance, usual)
    used, began = cpu_seconds(proxy.pid), time.monotonic()
    time.sleep(scaled(IDLE_SECONDS))  # a span to look at, not a wait
    assert cpu_seconds(proxy.pid) - used < LARGEST_PROCESSOR_SHARE * (time.monotonic() - began)


def test_two_thousand_connects_in_a_row_leave_nothing_behind_and_every_later_client_is_served(
    start_proxy, net, sender, receive
):
    proxy = start_proxy("-a", "127.0.0.2")
    receiver = receive()
    usual = min(descriptors_without_clients(proxy, net.instance) for _ in range(3))
    for number in range(CONNECTS):
        with raw_control.connected(net.instance) as client:
            if number % 3 == 1:
                client.sendall(b"List")
            elif number % 3 == 2:
                client.shutdown(socket.SHUT_WR)
        if number % 500 == 0:
            stream_runs(sender, receiver)
    expect_service_as_before(proxy, net.instance, usual)
    stream_runs(sender, receiver)


@pytest.mark.parametrize(
    "data, reply",
    [
        (b"List\0 nothing of this", b"127.0.0.2"),
        (b"\0List", NOT_IMPLEMENTED),
        (bytes(REQUEST_BYTES), NOT_IMPLEMENTED),
        (b"\xff" * REQUEST_BYTES, NOT_IMPLEMENTED),
        (b"Delete \xff\xfe%s%n%x", b"OK: Deleting: \xff\xfe%s%n%x"),
        (b"Add %n%n%n%n", b"OK: Adding: %n%n%n%n"),
    ],
)
def test_zeros_and_bytes_that_are_no_text_are_a_request_like_any_other(start_proxy, net, data, reply):
    start_proxy("-a", "127.0.0.2")
    with raw_control.connected(net.instance) as client:
        client.sendall(data)
        assert client.recv(65536) == reply
        assert raw_control.ask(client, "List") == "127.0.0.2"
