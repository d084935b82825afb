"""Whatever is behind a control socket, arqctl ends in time with a clear message and a status that tells it apart."""

import contextlib
import os
import re
import signal
import socket
import struct
import subprocess
import threading

import pytest

from txproxy import arqctl, control, process, raw_control
from txproxy.fake_control import ANSWER, FakeControl
from txproxy.receiver import Sender
from txproxy.waiting import scaled, wait_until, within

IMPATIENT = ("--timeout", "300ms")
PATIENT = ("--timeout", "60s")
COMMANDS = [("list",), ("add", "127.0.0.3"), ("del", "127.0.0.2"), ("reset", "all"), ("debug",), ("drain",)]


def ask(net, *arguments):
    with within(10):
        return arqctl.run("-I", net.instance, *arguments)


def read_request(connection):
    return b"".join(iter(lambda: connection.recv(4096), b""))


def no_answer(connection):
    read_request(connection)
    connection.recv(1)
    threading.Event().wait(scaled(1))


def half_an_answer(connection):
    read_request(connection)
    connection.sendall(ANSWER[:50])


def half_and_silence(connection):
    half_an_answer(connection)
    threading.Event().wait(scaled(1))


def closes_at_once(connection):
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


def says_nothing_and_closes(connection):
    read_request(connection)


def another_greeting(connection):
    connection.sendall(b"220 mail.example.net ready\r\n")
    read_request(connection)


def never_ends(connection):
    while True:
        connection.sendall(b"RECV_PACKETS=" * 1000)


def binary_bytes(connection):
    read_request(connection)
    connection.sendall(bytes(range(256)) * 10)


FAULTS = {
    no_answer: "no answer in time on {path}",
    half_and_silence: "no answer in time on {path}",
    half_an_answer: "what answers on {path} is no tx_proxy, or its answer broke off",
    says_nothing_and_closes: "what answers on {path} is no tx_proxy, or its answer broke off",
    another_greeting: "what answers on {path} is no tx_proxy, or its answer broke off",
    binary_bytes: "what answers on {path} is no tx_proxy, or its answer broke off",
    never_ends: "what answers on {path} is no tx_proxy: its answer does not end",
}


@pytest.mark.parametrize("fault", FAULTS, ids=lambda fault: fault.__name__)
def test_what_is_no_answer_of_a_proxy_is_told_by_every_command(net, closing, fault):
    fake = closing(FakeControl(net.instance, fault))
    problem = FAULTS[fault].format(path=fake.path)
    patience = IMPATIENT if fault in (no_answer, half_and_silence) else PATIENT
    for command in COMMANDS:
        result = ask(net, *patience, *command)
        assert result.status == arqctl.BAD_ANSWER, command
        assert result.problem[0] == problem, command
        assert result.problem[1]
        assert result.stdout == ""
    as_object = ask(net, *patience, "--json", "list")
    assert (as_object.json["error"], as_object.json["status"]) == (problem, arqctl.BAD_ANSWER)


def test_a_connection_that_breaks_is_told(net, closing):
    closing(FakeControl(net.instance, closes_at_once))
    result = ask(net, "list")
    assert result.status == arqctl.BAD_ANSWER
    assert re.match(r"(the connection to .* broke in the middle of the answer|what answers on)", result.problem[0])


def test_other_programs_and_silent_ones_are_told_apart_from_proxies_by_instances(net, closing):
    closing(FakeControl(net.instance, another_greeting))
    found = ask(net, *IMPATIENT, "instances", "--json")
    mine = [each for each in found.json["instances"] if each.get("instance") == net.instance]
    assert [(each["state"], each["pid"]) for each in mine] == [("foreign", os.getpid())]


def test_a_proxy_that_stands_still_does_not_answer_and_is_known_all_the_same(commanded_proxy, net):
    proxy = commanded_proxy()
    with process.stopped(proxy):
        result = ask(net, *IMPATIENT, "list")
        found = ask(net, *IMPATIENT, "instances", "--json")
    assert result.status == arqctl.BAD_ANSWER
    assert result.problem[0] == f"no answer in time on {control.path(net.instance)}"
    mine = [each for each in found.json["instances"] if each.get("instance") == net.instance]
    assert [(each["state"], each["pid"], each["media_port"]) for each in mine] == [("silent", proxy.pid, net.destination)]


def test_a_proxy_that_dies_while_it_is_asked_is_told_at_once(launch, commanded_proxy, net, closing):
    proxy = commanded_proxy()
    with process.stopped(proxy):
        waiting = closing(arqctl.Arqctl("-I", net.instance, "--timeout", "60s", "list"))
        wait_until(lambda: process.thread_state(waiting.pid, waiting.pid) == "S", "arqctl to wait")
        os.kill(proxy.pid, signal.SIGKILL)
        proxy.wait_exit()
        assert waiting.wait_exit() in (arqctl.BAD_ANSWER, arqctl.NO_PROXY)
    assert waiting.stderr.text.count("\n") == 2


def test_no_socket_a_stale_one_and_a_plain_file_are_told_apart(commanded_proxy, net):
    path = control.path(net.instance)
    missing = ask(net, "list")
    assert (missing.status, missing.problem[0]) == (arqctl.NO_PROXY, f"there is no control socket {path}")
    commanded_proxy().stop()
    stale = ask(net, "list")
    assert (stale.status, stale.problem[0]) == (arqctl.NO_PROXY, f"nobody listens on {path}: its proxy has ended")
    os.unlink(path)
    with open(path, "w", encoding="ascii"):
        assert ask(net, "list").status == arqctl.NO_PROXY
    too_long = arqctl.run("--socket", "/tmp/" + "x" * 200, "list")
    assert too_long.status == arqctl.NO_PROXY


def test_no_right_to_the_socket_is_told_as_that(commanded_proxy, net):
    commanded_proxy()
    os.chmod(control.path(net.instance), 0o600)

    def become_nobody():
        os.setgid(65534)
        os.setuid(65534)

    program = closing_copy()
    try:
        done = subprocess.run([program, "-I", str(net.instance), "list"], capture_output=True, text=True, check=False,
                              preexec_fn=become_nobody, timeout=scaled(10))  # fmt: skip
    finally:
        os.unlink(program)
    assert done.returncode == arqctl.NO_PROXY
    assert done.stderr.startswith(f"arqctl: no right to use {control.path(net.instance)}\n")


def closing_copy():
    """The program where anybody may run it."""
    path = f"/tmp/arqctl_{os.getpid()}"
    with open(arqctl.program(), "rb") as source, open(path, "wb") as copy:
        copy.write(source.read())
    os.chmod(path, 0o755)
    return path


def test_a_held_connection_ends_in_a_message_and_others_are_served_once_it_is_let_go(commanded_proxy, net):
    commanded_proxy("-a", "127.0.0.2")
    with raw_control.connected(net.instance) as held:
        assert raw_control.ask(held, "List") == "127.0.0.2"
        assert ask(net, *IMPATIENT, "list").status == arqctl.BAD_ANSWER
    assert ask(net, "list").stdout == "127.0.0.2\n"


def test_a_full_backlog_is_waited_for_and_bounded(net, closing):
    with contextlib.ExitStack() as clients:
        fake = closing(FakeControl(net.instance, None, backlog=0))
        client = clients.enter_context(socket.socket(socket.AF_UNIX, socket.SOCK_STREAM))
        client.connect(fake.path)  # takes the only place
        result = ask(net, *IMPATIENT, "list")
        assert (result.status, result.problem[0]) == (arqctl.BAD_ANSWER, f"no answer in time on {fake.path}")


def test_ten_clients_at_once_are_all_answered_while_a_stream_runs(commanded_proxy, net, receive, closing):
    receive("127.0.0.2")  # else the stream comes back as pings
    commanded_proxy("-a", "127.0.0.2", "-u")
    sender = closing(Sender("127.0.0.1", net.input))
    running = [closing(arqctl.Arqctl("-I", net.instance, "--timeout", "30s", "--json", "list")) for _ in range(10)]
    while any(each.is_alive() for each in running):
        sender.send(b"x" * 1316)
    for each in running:
        assert each.wait_exit() == arqctl.GOOD
        assert each.objects == [{"receivers": ["127.0.0.2"]}]
