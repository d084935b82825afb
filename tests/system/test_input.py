"""The input socket: its messages, its receive buffer, datagrams of every size, what it does not forward."""

import errno
import random
import re
import socket
import subprocess

import pytest

from txproxy import control, receiver, refusal, rtp
from txproxy.process import threads
from txproxy.receiver import pump

SLICE_BYTES = 1536
LARGEST_DATAGRAM = 65507
ALL_SIZES = [*range(0, 1601), 2048, 9000, 32768, LARGEST_DATAGRAM]


def granted_receive_buffer():
    """What this kernel reads at first, and what it grants of four times that, at most 524288."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        before = probe.getsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF)
        probe.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, min(4 * before, 524288))
        return before, probe.getsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF)


def kernel_receive_buffer(port):
    """The receive buffer of the socket bound to `port`, as the kernel shows it."""
    command = ["ss", "--udp", "--all", "--numeric", "--memory", "--no-header", f"sport = :{port}"]
    listing = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    return int(re.search(r"\brb(\d+)", listing).group(1))


def test_listening_is_announced_with_the_port(start_proxy, net):
    proxy = start_proxy()
    assert proxy.stdout.lines[-1] == f"Listening on port {net.input} for incoming stream"


def test_the_receive_buffer_is_quadrupled_up_to_524288_and_reported(start_proxy, net):
    before, after = granted_receive_buffer()
    proxy = start_proxy()
    lines = proxy.stderr.find(re.compile(r".*Rx bufferSize.*"))
    assert lines == [f"Rx bufferSize = {before}", f"New Rx bufferSize = {after}"]
    assert kernel_receive_buffer(net.input) == after


def test_a_receive_buffer_that_cannot_be_read_is_reported_and_media_flow(start_proxy, net, receive, sender):
    receiver_ = receive()
    unreadable = refusal.refuse("getsockopt", errno.EPERM, arg1=socket.SOL_SOCKET, arg2=socket.SO_RCVBUF)
    proxy = start_proxy("-a", "127.0.0.2", ready=False, preexec=refusal.preexec(unreadable))
    proxy.wait_stderr("getsockopt failed:: Operation not permitted")
    sender.send(rtp.packet(1, b"media"))
    assert rtp.payload(receiver_.wait_count(1)[0]) == b"media"
    assert "Rx bufferSize" not in proxy.stderr.text


def test_a_receive_buffer_that_cannot_be_set_is_reported_with_errno_and_media_flow(start_proxy, receive, sender):
    receiver_ = receive()
    fixed = refusal.refuse("setsockopt", errno.ENOBUFS, arg1=socket.SOL_SOCKET, arg2=socket.SO_RCVBUF)
    proxy = start_proxy("-a", "127.0.0.2", ready=False, preexec=refusal.preexec(fixed))
    proxy.wait_stderr(f"setsockopt() SO_RCVBUF: error {errno.ENOBUFS}")
    sender.send(rtp.packet(1, b"media"))
    assert rtp.payload(receiver_.wait_count(1)[0]) == b"media"
    assert "New Rx bufferSize" not in proxy.stderr.text
    assert proxy.stderr.find(f"Rx bufferSize = {granted_receive_buffer()[0]}")


def test_an_input_port_in_use_is_reported_and_the_process_lives(start_proxy, net, closing):
    closing(receiver.udp_socket("0.0.0.0", net.input, reuse=False))
    proxy = start_proxy("-a", "127.0.0.2", ready=False)
    proxy.wait_stderr(f"cannot bind port number {net.input} ")
    assert control.request(net.instance, "List") == "127.0.0.2"
    assert proxy.stdout.lines == ["Number of ARQ Buffers = 4096"]
    assert proxy.is_alive()


def test_an_input_port_that_another_socket_shares_is_bound(start_proxy, net, closing):
    closing(receiver.udp_socket("0.0.0.0", net.input, reuse=True))
    start_proxy()


def test_rtp_datagrams_of_all_sizes_arrive_cut_at_1536(start_proxy, receive, sender):
    generator = random.Random(1)
    sent = [generator.randbytes(size) for size in ALL_SIZES]
    receiver_ = receive()
    start_proxy("-a", "127.0.0.2")
    expected = [data[:SLICE_BYTES] for data in sent if data]
    # An empty datagram is not forwarded, so it goes before the counted ones.
    sender.send(b"")
    pump(sender, [receiver_], [data for data in sent if data])
    assert [len(data) for data in receiver_.payloads] == [len(data) for data in expected]
    assert [rtp.without_timestamp(data) for data in receiver_.payloads] == [
        rtp.without_timestamp(data) for data in expected
    ]


def test_raw_datagrams_of_all_sizes_arrive_cut_at_1536_behind_a_header(start_proxy, receive, sender):
    generator = random.Random(2)
    sent = [generator.randbytes(size) for size in ALL_SIZES if size]
    receiver_ = receive()
    start_proxy("-u", "-a", "127.0.0.2")
    sender.send(b"")
    pump(sender, [receiver_], sent)
    assert [rtp.payload(data) for data in receiver_.payloads] == [data[:SLICE_BYTES] for data in sent]
    assert [rtp.seq(data) for data in receiver_.payloads] == list(range(1, len(sent) + 1))


@pytest.mark.parametrize("size", range(1, rtp.HEADER_BYTES))
def test_an_input_shorter_than_an_rtp_header_is_forwarded_with_its_length(start_proxy, receive, sender, size):
    receiver_ = receive()
    start_proxy("-a", "127.0.0.2")
    data = bytes(range(0xA0, 0xA0 + size))
    sender.send(data)
    assert [rtp.without_timestamp(got) for got in receiver_.wait_count(1)] == [rtp.without_timestamp(data)]


def test_a_bare_rtp_header_is_forwarded_with_a_new_timestamp(start_proxy, receive, sender):
    receiver_ = receive()
    start_proxy("-a", "127.0.0.2")
    sender.send(rtp.packet(77, timestamp=5))
    (data,) = receiver_.wait_count(1)
    assert rtp.without_timestamp(data) == rtp.without_timestamp(rtp.packet(77))
    assert rtp.timestamp(data) != 5


def test_short_datagrams_between_long_ones_carry_nothing_of_them(start_proxy, receive, sender):
    receiver_ = receive()
    start_proxy("-q", "1", "-a", "127.0.0.2")
    # More datagrams than the pool has buffers (1 + 1024), so that each buffer has held a long one before.
    long = [rtp.packet(i, bytes([i & 0xFF]) * 1400) for i in range(1100)]
    short = [rtp.packet(1100 + i, b"s") for i in range(1100)]
    pump(sender, [receiver_], long + short)
    assert [rtp.payload(data) for data in receiver_.payloads[1100:]] == [b"s"] * 1100


def test_any_sender_is_accepted_on_a_unicast_input(start_proxy, receive, net, closing):
    receiver_ = receive()
    start_proxy("-a", "127.0.0.2")
    for number in range(5, 10):
        closing(receiver.Sender("127.0.0.1", net.input, source=f"127.0.0.{number}")).send(rtp.packet(number))
    assert sorted(rtp.seq(data) for data in receiver_.wait_count(5)) == [5, 6, 7, 8, 9]


def test_messages_reach_a_pipe_while_the_process_runs(start_proxy, net):
    proxy = start_proxy()
    assert proxy.is_alive()
    assert proxy.stdout.text == (
        f"Number of ARQ Buffers = 4096\nListening on port {net.input} for incoming stream\n"
    )


def test_the_input_thread_starts_after_the_replicator_has_started(start_proxy, net):
    proxy = start_proxy("-a", "127.0.0.2")
    lines = proxy.stderr.lines
    started = lines.index("ArqSendReplicator::Start: started listener thread")
    assert lines[0] == "Maximum output streams = 50"
    assert started < next(i for i, line in enumerate(lines) if line.startswith("Rx bufferSize"))


@pytest.mark.release_only
def test_resident_memory_with_50_streams_and_a_full_ring_stays_within_14_mib(
    start_proxy, net, receive, closing, sender
):
    addresses = [f"127.0.0.{i}" for i in range(2, 52)]
    # Only the last stream's datagrams are read; the kernel discards what the other sockets cannot hold.
    for address in addresses[:-1]:
        sink = closing(receiver.udp_socket(address, net.destination))
        sink.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    last = receive(addresses[-1])
    proxy = start_proxy("-a", ",".join(addresses))
    pump(sender, [last], [rtp.packet(i, bytes(1316)) for i in range(4096 + 1024 + 200)])
    assert proxy.resident_kib() <= 14 * 1024
    assert len(threads(proxy.pid)) == 7
