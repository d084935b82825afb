"""One process per instance number: the lock is UDP port 32123 + instance."""

import errno
import socket

import pytest

from txproxy import ports, receiver, refusal, rtp
from txproxy.proxy import run
from txproxy.waiting import wait_until

ALREADY_RUNNING = "Process already running!\n"


@pytest.fixture
def held_lock(closing, lease):
    """The lock port of our instance, held by this process."""
    return closing(receiver.udp_socket("0.0.0.0", ports.lock_port(lease.instance), reuse=False))


def test_instance_n_locks_udp_port_32123_plus_n(start_proxy, net):
    proxy = start_proxy()
    assert not ports.udp_port_is_free(32123 + net.instance)
    proxy.stop()
    assert ports.udp_port_is_free(32123 + net.instance)


def test_a_second_process_of_the_same_instance_is_refused(start_proxy, net):
    start_proxy()
    assert run("-I", net.instance, "5000") == (1, "", ALREADY_RUNNING)


def test_the_lock_is_held_for_all_addresses(lease, closing):
    closing(receiver.udp_socket("127.0.0.9", ports.lock_port(lease.instance), reuse=False))
    assert run("-I", lease.instance, "5000") == (1, "", ALREADY_RUNNING)


def test_the_lock_cannot_be_shared_by_address_reuse(lease, closing):
    closing(receiver.udp_socket("0.0.0.0", ports.lock_port(lease.instance), reuse=True))
    assert run("-I", lease.instance, "5000") == (1, "", ALREADY_RUNNING)


def test_a_process_of_another_instance_starts_and_serves_its_own_stream(
    start_proxy, launch, closing, net, receive, sender
):
    other = closing(ports.Lease())
    other_input, other_destination = other.port(), other.port()
    other_receiver = receive("127.0.0.3", other_destination)
    first_receiver = receive("127.0.0.2")
    start_proxy("-a", "127.0.0.2")
    launch(
        "-I", other.instance, "-p", other_destination, "-r", other.port(), "-a", "127.0.0.3", other_input
    ).wait_ready()  # fmt: skip
    other_sender = closing(receiver.Sender("127.0.0.1", other_input))
    for number in range(10):
        sender.send(rtp.packet(number, b"first"))
        other_sender.send(rtp.packet(number, b"other"))
    assert [rtp.payload(data) for data in first_receiver.wait_count(10)] == [b"first"] * 10
    assert [rtp.payload(data) for data in other_receiver.wait_count(10)] == [b"other"] * 10


def test_the_lock_can_be_taken_again_after_the_end_of_its_holder(start_proxy):
    start_proxy().stop()
    start_proxy()


def test_the_sum_of_lock_port_and_instance_keeps_16_bits(held_lock, lease):
    assert held_lock
    assert run("-I", 65536 + lease.instance, "5000") == (1, "", ALREADY_RUNNING)


@pytest.mark.parametrize("positionals", [[], ["5000", "239.1.1.1", "x"]])
def test_a_held_lock_wins_over_wrong_argument_counts(held_lock, lease, positionals):
    assert held_lock
    assert run("-I", lease.instance, *positionals) == (1, "", ALREADY_RUNNING)


def test_an_option_error_wins_over_a_held_lock(held_lock, lease):
    assert held_lock
    assert run("-I", lease.instance, "-p", "12x", argv0="tx") == (255, "", "tx: invalid udp port: 12x\n")


def test_help_wins_over_a_held_lock(held_lock, lease):
    assert held_lock
    assert run("-I", lease.instance, "-h")[0] == 0


def test_a_lock_socket_that_cannot_be_opened_is_reported_like_a_held_lock(lease):
    no_sockets = refusal.preexec(refusal.refuse("socket", errno.EACCES, arg0=socket.AF_INET))
    assert run("-I", lease.instance, "5000", preexec=no_sockets) == (
        1,
        "",
        "creating socket: Permission denied\n" + ALREADY_RUNNING,
    )


def test_a_refused_process_leaves_the_running_one_alone(start_proxy, net, receive, sender):
    receiver_ = receive()
    start_proxy("-a", "127.0.0.2")
    control = ports.instance_files(net.instance)[0]
    wait_until(control.exists, "the control socket")
    assert run("-I", net.instance, net.input)[0] == 1
    assert control.exists()
    sender.send(rtp.packet(1, b"media"))
    assert rtp.payload(receiver_.wait_count(1)[0]) == b"media"
