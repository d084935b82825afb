"""Other limits of a process: the size of files, the stack, folders that cannot be written to."""

import ctypes
import errno
import os
import pathlib
import re
import resource
import time

import pytest

from txproxy import control, impairment, rtp
from txproxy.model_receiver import start_media, wait_bound
from txproxy.receiver import pump
from txproxy.waiting import wait_until

CONFIGURED = "127.0.0.2"
LOG_BYTES = 200
POLL_SECONDS = 1.0
STACK_BYTES = 64 * 1024
CLONE_NEWNS = 0x00020000
MS_RDONLY, MS_REMOUNT, MS_BIND, MS_REC, MS_PRIVATE = 0x1, 0x20, 0x1000, 0x4000, 0x40000

_libc = ctypes.CDLL(None, use_errno=True)


def media(count, first=100):
    return [rtp.packet(first + i, b"payload %d" % i) for i in range(count)]


def test_log_file_at_its_size_limit_is_cut_off_there_and_media_and_commands_go_on(
    launch, receive, sender, tmp_path, net
):
    log = tmp_path / "log"

    def write_to_limited_file():
        file = os.open(log, os.O_WRONLY | os.O_CREAT | os.O_APPEND)
        os.dup2(file, 1)
        os.dup2(file, 2)
        resource.setrlimit(resource.RLIMIT_FSIZE, (LOG_BYTES, LOG_BYTES))

    launch(
        "-I", net.instance, "-p", net.destination, "-r", net.request, "-a", CONFIGURED, net.input,
        preexec=write_to_limited_file,
    )  # fmt: skip
    wait_until(lambda: control.request(net.instance, "List") == CONFIGURED, "the control socket")
    receiver = receive(CONFIGURED)
    wait_until(lambda: sender.send(media(1)[0]) or receiver.count() > 0, "media")
    receiver.clear()
    assert control.request(net.instance, "Add no-such-host.invalid") == "OK: Adding: no-such-host.invalid"
    sent = media(50, first=200)
    for data in sent:
        sender.send(data)
    receiver.wait_for(lambda datagram: rtp.seq(datagram.data) == rtp.seq(sent[-1]))
    assert log.stat().st_size == LOG_BYTES


@pytest.mark.release_only
@pytest.mark.parametrize("options", [(), ("-X", 8_000_000)], ids=["unpaced", "paced"])
def test_stack_of_64_kib_is_enough_for_every_thread(start_proxy, receive, learn, sender, net, options):
    def limit_stack():
        resource.setrlimit(resource.RLIMIT_STACK, (STACK_BYTES, STACK_BYTES))

    proxy = start_proxy("-a", CONFIGURED, *options, preexec=limit_stack)
    wait_bound(proxy, net.destination, net.request)
    maps = pathlib.Path(f"/proc/{proxy.pid}/limits").read_text(encoding="ascii")
    assert re.search(rf"^Max stack size +{STACK_BYTES} ", maps, re.MULTILINE)
    receivers = [receive(CONFIGURED), start_media(proxy, learn())]
    pump(sender, receivers, media(50))
    receivers[1].ask([110])
    assert len(receivers[1].answers()) == 1
    assert control.request(net.instance, "Add no-such-host.invalid") == "OK: Adding: no-such-host.invalid"
    assert control.request(net.instance, "List") == f"{CONFIGURED},127.0.0.5"
    impairment.write_settings(net.instance, mode=1)
    impairment.toggle(net.instance)
    proxy.wait_stderr("Impairment ON")


def read_only(folder):
    """For a child: it sees the folder with all that is in it, and cannot change it."""

    def remount():
        for arguments in (
            (b"none", b"/", None, MS_REC | MS_PRIVATE),
            (folder, folder, None, MS_BIND | MS_REC),
            (b"none", folder, None, MS_REMOUNT | MS_BIND | MS_RDONLY),
        ):
            assert _libc.mount(*arguments, None) == 0, os.strerror(ctypes.get_errno())

    def enter():
        assert _libc.unshare(CLONE_NEWNS) == 0
        remount()

    return enter


def test_dev_that_cannot_be_written_to_leaves_media_and_receivers_served_without_control(
    start_proxy, receive, learn, sender, net
):
    proxy = start_proxy("-a", CONFIGURED, preexec=read_only(b"/dev"))
    wait_bound(proxy, net.destination, net.request)
    proxy.wait_stderr(f"binding socket: {os.strerror(errno.EROFS)}")
    proxy.wait_stderr("process_request_thread: exiting")
    receivers = [receive(CONFIGURED), start_media(proxy, learn())]
    pump(sender, receivers, media(50))
    assert not pathlib.Path(control.path(net.instance)).exists()


def test_var_run_that_cannot_be_written_to_makes_a_toggle_file_toggle_once_a_second_and_no_faster(
    start_proxy, receive, sender, net
):
    proxy = start_proxy("-a", CONFIGURED, preexec=read_only(os.fsencode(os.path.realpath("/var/run"))))
    receiver = receive(CONFIGURED)
    pump(sender, [receiver], media(10))
    began = time.monotonic()
    impairment.toggle(net.instance)
    proxy.wait_stderr("Impairment OFF", count=2)
    assert time.monotonic() - began > 3 * POLL_SECONDS - 0.1
    assert impairment.toggle_file(net.instance).exists()
    assert control.request(net.instance, "List") == CONFIGURED
    pump(sender, [receiver], media(10, first=200))
