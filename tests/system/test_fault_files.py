"""Files of the proxy that are something else: folders, FIFOs, links to nowhere or to themselves, unreadable or huge.
Nothing hangs the control thread or the stream."""

import contextlib
import ctypes
import os
import pathlib
import re
import socket
import time
import types

import pytest

from txproxy import control, impairment, rtp
from txproxy.control import request
from txproxy.ports import instance_files
from txproxy.receiver import pump
from txproxy.waiting import wait_until, within

ON, OFF = "Impairment ON", "Impairment OFF"
DEFAULTS = ["min_drop = 1", "min_dist = 100", "max_drop = 10", "max_dist = 200", "mode = 1"]
SETTING = re.compile("(min|max)_(drop|dist) = -?[0-9]+|mode = -?[0-9]+")
EXITING = "process_request_thread: exiting"
COMMAND_SECONDS = 1.0
POLL_SECONDS = 1.0
SLOW_MACHINE_SECONDS = 1.5
LARGEST_SETTINGS_BYTES = 1024 * 1024
SPARSE_BYTES = 1 << 36  # more than any memory the test may meet
PR_CAPBSET_DROP = 24
CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH = 1, 2

_libc = ctypes.CDLL(None, use_errno=True)


def without_right_to_read():
    """Root without what lets it read everything."""
    for right in (CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH):
        assert _libc.prctl(PR_CAPBSET_DROP, right, 0, 0, 0) == 0


def make_unix_socket(path):
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as listener:
        listener.bind(str(path))


def make_large(size):
    def make(path):
        with path.open("wb") as file:
            file.write(b"mode=2\n")
            file.truncate(size)

    return make


def make_unreadable(path):
    path.write_text("mode=2\n", "ascii")
    path.chmod(0)


# What may stand at a path, and how it gets there.
KINDS = {
    "folder": lambda path: path.mkdir(),
    "fifo": os.mkfifo,
    "socket": make_unix_socket,
    "link to nowhere": lambda path: path.symlink_to("/nowhere/at/all"),
    "link to itself": lambda path: path.symlink_to(path),
    "link to endless zeros": lambda path: path.symlink_to("/dev/zero"),
    "link to a folder": lambda path: path.symlink_to("/proc"),
    "unreadable": make_unreadable,
    "larger than the limit": make_large(LARGEST_SETTINGS_BYTES + 1),
    "larger than the memory": make_large(SPARSE_BYTES),
}
FEW_KINDS = ("folder", "fifo", "link to endless zeros", "unreadable")
# These are taken for files that do not exist.
NOT_THERE = ("link to nowhere", "link to itself")


@pytest.fixture
def paths(lease):
    """The files of the instance; folders among them are removed at the end."""
    files = types.SimpleNamespace(
        **dict(zip(("control", "status", "toggle", "settings", "clear"), instance_files(lease.instance)))
    )
    yield files
    for path in vars(files).values():
        if path.is_dir() and not path.is_symlink():
            path.rmdir()


@pytest.fixture
def start(start_proxy):
    return lambda: start_proxy("-a", "127.0.0.2", preexec=without_right_to_read)


def stream_runs(sender, receiver):
    pump(sender, [receiver], [rtp.packet(i, bytes(1316)) for i in range(100)])


def is_served(instance):
    with within(COMMAND_SECONDS):
        assert request(instance, "List") == "127.0.0.2"


def settings_in(proxy):
    return [line for line in proxy.stderr.lines if SETTING.fullmatch(line)]


@pytest.mark.parametrize("kind", KINDS)
def test_settings_that_are_no_readable_file_give_the_defaults_at_once(start, net, sender, receive, paths, kind):
    KINDS[kind](paths.settings)
    proxy = start()
    receiver = receive()
    stream_runs(sender, receiver)
    with within(POLL_SECONDS + SLOW_MACHINE_SECONDS):
        impairment.toggle(net.instance)
        proxy.wait_stderr(ON)
    assert settings_in(proxy) == ([] if kind in NOT_THERE else DEFAULTS)
    is_served(net.instance)
    impairment.toggle(net.instance)
    proxy.wait_stderr(OFF)
    stream_runs(sender, receiver)
    assert paths.settings.is_symlink() or paths.settings.exists(), "the settings are never removed"


def test_settings_as_large_as_the_limit_are_read(start, net, paths):
    make_large(LARGEST_SETTINGS_BYTES)(paths.settings)
    proxy = start()
    impairment.toggle(net.instance)
    proxy.wait_stderr(ON)
    assert settings_in(proxy) == DEFAULTS[:-1] + ["mode = 2"]


def test_a_fifo_that_is_written_to_without_end_is_read_like_an_empty_file(start, net, sender, receive, paths):
    os.mkfifo(paths.settings)
    with os.fdopen(os.open(paths.settings, os.O_RDWR | os.O_NONBLOCK), "wb", 0) as writer:
        with contextlib.suppress(BlockingIOError):
            while writer.write(b"mode=2\n" * 512):
                pass
        proxy = start()
        impairment.toggle(net.instance)
        proxy.wait_stderr(ON)
        assert settings_in(proxy) == DEFAULTS
        is_served(net.instance)


@pytest.mark.parametrize("kind", [kind for kind in KINDS if kind not in (*NOT_THERE, "folder")])
def test_a_toggle_of_any_kind_is_removed_and_switches_once(start, net, sender, receive, paths, kind):
    proxy = start()
    KINDS[kind](paths.toggle)
    proxy.wait_stderr(ON)
    assert not paths.toggle.exists() and not paths.toggle.is_symlink()
    assert pathlib.Path("/dev/zero").exists() and pathlib.Path("/proc").exists(), "the link went, not what is behind it"
    is_served(net.instance)
    impairment.toggle(net.instance)
    proxy.wait_stderr(OFF)
    assert len(proxy.stderr.find(ON)) == 1
    stream_runs(sender, receive())


@pytest.mark.parametrize("kind", NOT_THERE)
def test_a_toggle_that_is_a_link_without_an_end_is_no_toggle(start, net, sender, receive, paths, kind):
    proxy = start()
    KINDS[kind](paths.toggle)
    receiver = receive()
    began = time.monotonic()
    while time.monotonic() - began < 2 * POLL_SECONDS:
        stream_runs(sender, receiver)
        is_served(net.instance)
    assert paths.toggle.is_symlink()
    assert "Impairment" not in proxy.stderr.text


def test_a_toggle_that_is_a_folder_switches_once_a_second_and_holds_nobody_up(start, net, sender, receive, paths):
    proxy = start()
    receiver = receive()
    began = time.monotonic()
    paths.toggle.mkdir()
    proxy.wait_stderr(OFF, count=2)
    switched = len(proxy.stderr.find(ON)) + len(proxy.stderr.find(OFF))
    assert switched <= (time.monotonic() - began) / POLL_SECONDS + 2
    is_served(net.instance)
    paths.toggle.rmdir()
    if len(proxy.stderr.find(ON)) > len(proxy.stderr.find(OFF)):
        impairment.toggle(net.instance)
    wait_until(lambda: len(proxy.stderr.find(ON)) == len(proxy.stderr.find(OFF)), "the switch to be off")
    stream_runs(sender, receiver)


@pytest.mark.parametrize("kind", FEW_KINDS)
def test_a_clear_request_of_any_kind_is_not_looked_at(start, net, sender, receive, paths, kind):
    KINDS[kind](paths.clear)
    proxy = start()
    impairment.write_settings(net.instance, mode=9)
    impairment.toggle(net.instance)
    proxy.wait_stderr(ON)
    is_served(net.instance)
    stream_runs(sender, receive())
    assert paths.clear.is_symlink() or paths.clear.exists()


@pytest.mark.parametrize("kind", ["fifo", "socket", "unreadable", "larger than the memory"])
def test_what_stands_in_the_way_of_the_control_socket_is_replaced(start, net, sender, receive, paths, kind):
    KINDS[kind](paths.control)
    start()
    is_served(net.instance)
    stream_runs(sender, receive())


@pytest.mark.parametrize("kind", ["folder", "link to itself", "link to nowhere", "link to a folder"])
def test_what_cannot_be_replaced_costs_the_control_socket_and_nothing_else(start, sender, receive, paths, kind):
    KINDS[kind](paths.control)
    proxy = start()
    proxy.wait_stderr("binding socket: Address already in use")
    proxy.wait_stderr(EXITING)
    assert pathlib.Path("/proc/self").exists()
    stream_runs(sender, receive())


@pytest.mark.parametrize("kind", FEW_KINDS)
def test_whatever_stands_in_the_place_of_the_status_socket_is_left_alone(
    start, net, sender, receive, paths, kind
):
    KINDS[kind](paths.status)

    def state():
        status = paths.status.lstat()
        return status.st_ino, status.st_mtime_ns, status.st_ctime_ns

    before = state()
    start()
    is_served(net.instance)
    stream_runs(sender, receive())
    assert state() == before


def test_a_control_socket_that_is_taken_away_holds_up_neither_stream_nor_toggles(start, net, sender, receive, paths):
    proxy = start()
    is_served(net.instance)
    paths.control.unlink()
    paths.control.mkdir()
    with pytest.raises(ConnectionRefusedError):
        socket.socket(socket.AF_UNIX, socket.SOCK_STREAM).connect(control.path(net.instance))
    impairment.toggle(net.instance)
    proxy.wait_stderr(ON)
    impairment.toggle(net.instance)
    proxy.wait_stderr(OFF)
    stream_runs(sender, receive())
