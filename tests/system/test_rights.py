"""What docs/security.md says of rights: who may use the control socket, what needs root, who sees a password."""

import os
import pathlib
import re
import stat
import subprocess
import sys

import pytest

from txproxy import control, impairment, netns, rtp
from txproxy.control import request
from txproxy.model_receiver import PingingReceiver, feed, retransmission_of, start_media, wait_bound
from txproxy.proxy import binary
from txproxy.receiver import Sender, pump

PAGE = pathlib.Path(__file__).resolve().parents[2] / "docs" / "security.md"
NOBODY = 65534
GROUP = 4242
MODES = re.findall(r"^\| (\d{3}) \| (\d{4}) \| (.*?) \|$", PAGE.read_text(encoding="utf-8"), re.MULTILINE)
PASSWORD = "correct horse"
LOW_PORT = 999

# Sends "List" and prints the reply, or why it could not.
CLIENT = """
import socket, sys
with socket.socket(socket.AF_UNIX) as sock:
    try:
        sock.connect(sys.argv[1])
    except OSError as error:
        sys.exit(f"{error.strerror}")
    sock.sendall(b"List")
    print(sock.recv(4096).decode())
"""

# Binds a port that is in use, and prints the first datagram that comes there.
THIEF = """
import socket, sys
with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    sock.bind(("0.0.0.0", int(sys.argv[1])))
    sock.settimeout(60)
    print("bound", flush=True)
    print(sock.recv(4096).hex(), flush=True)
"""


def as_user(user, group, *command):
    """The command as it runs with these IDs and no capability."""
    return ["setpriv", f"--reuid={user}", f"--regid={group}", "--clear-groups", "--bounding-set=-all", *command]


def ask_as(user, group, instance):
    """The reply to "List", or the reason why this user gets none."""
    command = as_user(user, group, sys.executable, "-c", CLIENT, control.path(instance))
    run = subprocess.run(command, capture_output=True, text=True, timeout=60, check=False)
    return run.stdout.strip() or run.stderr.strip()


@pytest.fixture
def unprivileged(tmp_path, monkeypatch):
    """Whatever starts a proxy in this test starts it as nobody, without capabilities."""
    script = tmp_path / "tx_proxy_unprivileged"
    command = " ".join(as_user(NOBODY, NOBODY, "/proc/self/fd/9"))
    # The binary is opened first: it may lie in a folder that is not nobody's.
    script.write_text(f"#!/bin/sh\nexec 9<'{binary()}'\nexec {command} \"$@\"\n", encoding="ascii")
    script.chmod(0o755)
    monkeypatch.setenv("TX_PROXY_BIN", str(script))


@pytest.fixture
def writable_folders():
    """/dev and /var/run of this test's own sandbox, open for everybody."""
    folders = [pathlib.Path("/dev"), pathlib.Path("/var/run").resolve()]
    modes = [stat.S_IMODE(folder.stat().st_mode) for folder in folders]
    for folder in folders:
        folder.chmod(0o777)
    yield
    for folder, mode in zip(folders, modes):
        folder.chmod(mode)


def test_the_page_has_a_row_for_each_kind_of_umask():
    assert [(umask, mode) for umask, mode, _ in MODES] == [
        ("022", "0755"), ("077", "0700"), ("007", "0770"), ("000", "0777")
    ]  # fmt: skip


@pytest.mark.parametrize("umask, mode, others", MODES, ids=[umask for umask, _, _ in MODES])
def test_who_can_connect_to_the_control_socket_follows_the_umask(start_proxy, net, umask, mode, others):
    def prepare():
        os.umask(int(umask, 8))
        os.setgid(GROUP)

    start_proxy("-a", "127.0.0.2", preexec=prepare)
    assert request(net.instance, "List") == "127.0.0.2"
    assert stat.S_IMODE(os.stat(control.path(net.instance)).st_mode) == int(mode, 8)
    allowed, refused = "127.0.0.2", "Permission denied"
    assert ask_as(NOBODY, GROUP, net.instance) == (allowed if "group" in others or "everybody" in others else refused)
    assert ask_as(NOBODY, NOBODY, net.instance) == (allowed if "everybody" in others else refused)


def test_media_pings_and_requests_need_no_privilege(unprivileged, start_proxy, net, sender, closing, lease):
    proxy = wait_bound(start_proxy("-a", "127.0.0.2"), net.destination, net.request)
    configured = closing(PingingReceiver("127.0.0.2", net.destination, net))
    learnt = start_media(proxy, closing(PingingReceiver("127.0.0.5", lease.port(), net)))
    feed(sender, [configured, learnt], [rtp.packet(i, bytes(1316)) for i in range(100)])
    first = learnt.payloads[7]
    learnt.ask([7])
    assert learnt.answers() == [retransmission_of(first)]
    proxy.wait_stderr("binding socket: Permission denied")


def test_with_writable_folders_an_unprivileged_proxy_takes_commands_and_switches_deliberate_loss(
    unprivileged, writable_folders, start_proxy, net
):
    proxy = start_proxy("-a", "127.0.0.2")
    assert request(net.instance, "List") == "127.0.0.2"
    assert os.stat(control.path(net.instance)).st_uid == NOBODY
    impairment.toggle(net.instance)
    proxy.wait_stderr("Impairment ON")
    assert not impairment.toggle_file(net.instance).exists()


def test_ports_below_1024_need_a_privilege(unprivileged, launch, lease):
    proxy = launch("-I", lease.instance, "-p", LOW_PORT, "-r", lease.port(), LOW_PORT)
    proxy.wait_stderr(f"cannot bind port number {LOW_PORT} ")
    proxy.wait_stderr(f"SocketListener: bind failed on port {LOW_PORT}")


def test_binding_streams_to_interfaces_needs_a_privilege_only_before_linux_5_7(unprivileged, make_lan, start_proxy):
    lan = make_lan(2)
    release = tuple(map(int, re.match(r"(\d+)\.(\d+)", os.uname().release).groups()))
    proxy = start_proxy("-n", 2, "-a", netns.peer_address(0), namespace=lan.proxy)
    assert ("SO_BINDTODEVICE failed" in proxy.stderr.text) == (release < (5, 7))


@pytest.mark.parametrize("port", ["input", "destination", "request"])
def test_any_local_user_can_take_what_comes_for_a_port(start_proxy, net, closing, port):
    wait_bound(start_proxy("-a", "127.0.0.2"), net.destination, net.request)
    number = getattr(net, port)
    command = as_user(NOBODY, NOBODY, sys.executable, "-c", THIEF, str(number))
    with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as thief:
        try:
            assert thief.stdout.readline() == "bound\n"
            closing(Sender("127.0.0.1", number)).send(b"for the proxy")
            assert bytes.fromhex(thief.stdout.readline()) == b"for the proxy"
        finally:
            thief.kill()


def test_a_password_is_in_the_command_line_and_in_no_message(start_proxy, net, sender, receive):
    receiver = receive("127.0.0.2")
    proxy = start_proxy("-a", "127.0.0.2", "-Z", PASSWORD)
    pump(sender, [receiver], [rtp.packet(i, bytes(1316)) for i in range(100)])
    for command in ("AllStats", "List", "RxStat"):
        assert PASSWORD not in request(net.instance, command)
    control_client = control.ControlClient(net.instance)
    control_client.send("Debug")
    proxy.wait_stderr(re.compile(r"m_nDropPacket \d+"))
    control_client.close()
    assert PASSWORD not in proxy.stdout.text + proxy.stderr.text
    shown = subprocess.run(
        as_user(NOBODY, NOBODY, "cat", f"/proc/{proxy.pid}/cmdline"), capture_output=True, check=True
    ).stdout
    assert PASSWORD.encode() in shown.split(b"\0")
