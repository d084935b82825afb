"""Standard error, and standard output, that is slow, full or gone: media, pings and commands wait for no log."""

import contextlib
import fcntl
import os
import re
import resource
import struct
import termios
import time

import pytest

from txproxy import control, raw_control, rtp
from txproxy.log_pipe import STDERR, STDOUT, LogPipe
from txproxy.process import cpu_seconds
from txproxy.proxy import LISTENING, RECEIVE_BUFFER_SET
from txproxy.receiver import pump
from txproxy.traffic import is_bound
from txproxy.waiting import scaled, wait_until, within

# In a network without a route to them every packet has a line for each.
UNREACHABLE = [f"10.0.0.{i}" for i in range(1, 21)]
FAILED = "SendData failed: Network is unreachable"
LOST = re.compile(r"(\d+) log lines lost: their reader is too slow")
FILLING = re.compile("#+")
LOG_BYTES = 2 * 512 * 1024  # what the proxy keeps
PACKETS = LOG_BYTES // len(UNREACHABLE) // len(FAILED) * 5 // 4
COMMAND_SECONDS = 1.0
PATIENCE_SECONDS = 1.0
EXIT_SECONDS = 2.0
TIOCSPTLCK, TIOCGPTPEER = 0x40045431, 0x5441  # not in the termios module
FILE_BYTES = 100
LARGEST_PROCESSOR_SHARE = 0.3
LOOK_SECONDS = 1.0


def media(count, first=0):
    return [rtp.packet(first + i, b"payload %d" % (first + i)) for i in range(count)]


@pytest.fixture
def start_unread(start_proxy, net):
    """start_unread(preexec, ...) runs a proxy whose lines nobody may have seen yet, and waits until it is ready."""

    def start(preexec, *options, destinations=("127.0.0.2", *UNREACHABLE)):
        proxy = start_proxy("-a", ",".join(destinations), *options, ready=False, preexec=preexec)
        for port in (net.input, net.destination, net.request):
            wait_until(lambda port=port: is_bound(port), f"port {port} to be bound")
        return proxy

    return start


def open_terminal():
    """(master, slave) of a new terminal. By its own folder: /dev/ptmx finds no terminals in a /dev put together."""
    master = os.open("/dev/pts/ptmx", os.O_RDWR | os.O_NOCTTY)
    fcntl.ioctl(master, TIOCSPTLCK, struct.pack("i", 0))
    return master, fcntl.ioctl(master, TIOCGPTPEER, os.O_RDWR | os.O_NOCTTY)


def is_whole_line(line):
    """A line of this proxy, from its first to its last character, whoever printed it."""
    return re.fullmatch(
        rf"{FAILED}|{LOST.pattern}|{FILLING.pattern}(Max.*)?|m_\S+ -?\d+|"
        r"|.*(OutputStream|AddStream|DeleteStream|SocketListener|ArqSend|Replicator|Rx buffer|Listening| = ).*",
        line,
    )


def test_media_commands_and_joins_go_on_while_the_log_reader_has_stopped_and_the_loss_is_told_in_its_place(
    start_unread, closing, receive, learn, sender, net
):
    pipe = closing(LogPipe(STDOUT, STDERR)).fill()
    proxy = start_unread(pipe.preexec)
    receiver, newcomer = receive(), learn()
    sent = media(PACKETS)
    pump(sender, [receiver], sent)
    assert [rtp.without_timestamp(data) for data in receiver.payloads] == sent
    for text, reply in (
        ("Add 127.0.0.3", "OK: Adding: 127.0.0.3"),
        ("Debug", ""),
        ("Delete 127.0.0.3", "OK: Deleting: 127.0.0.3"),
        ("List", ",".join(["127.0.0.2", *UNREACHABLE])),
    ):
        with within(COMMAND_SECONDS):
            assert raw_control.converse(net.instance, text.encode()) == reply
    newcomer.ping()
    wait_until(lambda: "127.0.0.5" in control.request(net.instance, "List"), "the newcomer")
    # Each of them had a line that was lost: none of them waited.
    log = pipe.read()
    lost = int(LOST.fullmatch(log.wait(LOST, alive=proxy.is_alive)).group(1))
    kept = len(log.find(FAILED))
    assert lost > 0
    assert kept + lost >= PACKETS * len(UNREACHABLE)
    assert raw_control.converse(net.instance, b"Debug") == ""
    log.wait(re.compile(r"m_nDropPacket 0"))
    assert len(log.find(LOST)) == 1
    assert [line for line in log.lines if not is_whole_line(line)] == []
    assert log.lines.index(log.find(LOST)[0]) < log.lines.index("m_nDropPacket 0")


def test_a_slow_log_reader_slows_nobody_and_gets_whole_lines(start_unread, closing, receive, sender):
    pipe = closing(LogPipe(STDOUT, STDERR)).fill()
    start_unread(pipe.preexec)
    receiver = receive()
    text = bytearray()
    for turn in range(20):
        text += os.read(pipe.read_end, 2000)
        pump(sender, [receiver], media(PACKETS // 20, first=turn * (PACKETS // 20)))
    log = pipe.read()
    log.wait(LOST)
    wait_until(lambda: log.text.endswith("\n"), "the end of a line")
    lines = (text.decode() + log.text).split("\n")[:-1]
    assert [line for line in lines if not is_whole_line(line)] == []


def test_a_log_reader_that_goes_while_the_log_is_full_ends_nothing_and_burns_no_processor(
    start_unread, closing, receive, sender
):
    pipe = closing(LogPipe(STDOUT, STDERR)).fill()
    proxy = start_unread(pipe.preexec)
    receiver = receive()
    pump(sender, [receiver], media(PACKETS))
    pipe.close_read_end()
    pump(sender, [receiver], media(1000))
    used, began = cpu_seconds(proxy.pid), time.monotonic()
    time.sleep(scaled(LOOK_SECONDS))  # a span to look at, not a wait
    assert cpu_seconds(proxy.pid) - used < LARGEST_PROCESSOR_SHARE * (time.monotonic() - began)
    pump(sender, [receiver], media(1000))


def test_a_log_on_a_full_disk_ends_nothing(start_unread, closing, receive, sender, net):
    with open("/dev/full", "wb", 0) as disk:

        def onto_disk():
            os.dup2(disk.fileno(), STDOUT)
            os.dup2(disk.fileno(), STDERR)

        start_unread(onto_disk)
    pump(sender, [receive()], media(2000))
    assert control.request(net.instance, "RxStat") == "NET_TOTAL_PACKETS=2000\nNET_LOSS=0\n"


def test_a_log_file_that_reaches_its_limit_ends_nothing(start_unread, receive, sender, tmp_path):
    path = tmp_path / "log"
    with path.open("wb", 0) as file:

        def into_limited_file():
            os.dup2(file.fileno(), STDOUT)
            os.dup2(file.fileno(), STDERR)
            resource.setrlimit(resource.RLIMIT_FSIZE, (FILE_BYTES, FILE_BYTES))

        start_unread(into_limited_file)
    pump(sender, [receive()], media(2000))
    assert path.stat().st_size == FILE_BYTES


def test_a_terminal_that_is_stopped_stops_no_stream_and_shows_its_lines_when_it_goes_on(
    start_unread, receive, sender
):
    master, slave = open_terminal()
    with os.fdopen(master, "rb", 0), os.fdopen(slave, "wb", 0):

        def onto_terminal():
            os.dup2(slave, STDOUT)
            os.dup2(slave, STDERR)

        # What the key for it does.
        termios.tcflow(slave, termios.TCOOFF)
        start_unread(onto_terminal)
        pump(sender, [receive()], media(200))
        os.set_blocking(master, False)
        with pytest.raises(BlockingIOError):
            os.read(master, 1)
        termios.tcflow(slave, termios.TCOON)
        shown = bytearray()

        def shows_every_line():
            with contextlib.suppress(BlockingIOError):
                while True:
                    shown.extend(os.read(master, 65536))
            return shown.count(FAILED.encode() + b"\r\n") == 200 * len(UNREACHABLE)

        wait_until(shows_every_line, "a line for every packet and destination")
        assert b"log lines lost" not in shown


def test_both_outputs_in_one_pipe_keep_their_order(start_unread, closing):
    pipe = closing(LogPipe(STDOUT, STDERR))
    start_unread(pipe.preexec, "-G", "1000000", "-X", "10000000", destinations=["127.0.0.2"])
    log = pipe.read()
    log.wait(RECEIVE_BUFFER_SET)
    log.wait("PeriodicTimer::Start 10")
    order = [
        log.lines.index(line)
        for line in (
            "GrossMediaBitrate is 1000000",  # standard output
            "Maximum output streams = 50",
            "Pacing bit rate 10000000",
            "PeriodicTimer::Start 10",  # standard output
        )
    ]
    assert order == sorted(order)
    assert log.lines.index(log.find(LISTENING)[0]) < log.lines.index(log.find(RECEIVE_BUFFER_SET)[0])


def test_the_log_of_a_proxy_without_standard_error_goes_to_no_control_client(start_unread, closing, net):
    def close_outputs():
        os.close(STDOUT)
        os.close(STDERR)

    proxy = start_unread(close_outputs, destinations=["127.0.0.2"])
    # Their numbers are taken from the start on: no socket and no client can get them.
    for number in (STDOUT, STDERR):
        assert os.readlink(f"/proc/{proxy.pid}/fd/{number}") == os.devnull
    assert raw_control.converse(net.instance, b"Debug") == ""


@pytest.mark.parametrize("arguments, status", [(["-h"], 0), (["-p", "x", "1"], 255), (["-?"], 255), ([], 255)])
def test_a_process_that_ends_by_itself_waits_a_second_for_a_log_reader_that_has_stopped(
    launch, closing, lease, arguments, status
):
    pipe = closing(LogPipe(STDOUT, STDERR)).fill()
    began = time.monotonic()
    with within(PATIENCE_SECONDS + EXIT_SECONDS):
        process = launch("-I", lease.instance, *arguments, preexec=pipe.preexec)
        assert process.wait_exit() == status
    assert time.monotonic() - began > PATIENCE_SECONDS / 2


def test_a_second_process_ends_with_its_status_though_nobody_reads_why(start_proxy, launch, closing, net):
    start_proxy("-a", "127.0.0.2")
    pipe = closing(LogPipe(STDOUT, STDERR)).fill()
    process = launch("-I", net.instance, net.input, preexec=pipe.preexec)
    assert process.wait_exit() == 1


def test_a_process_that_ends_by_itself_leaves_no_line_behind(launch, closing, lease):
    pipe = closing(LogPipe(STDOUT, STDERR)).fill()
    process = launch("-I", lease.instance, "-h", argv0="tx", preexec=pipe.preexec)
    log = pipe.read()
    assert process.wait_exit() == 0
    log.finish()
    assert FILLING.sub("", log.text).startswith("Usage: tx [Net Tx Options] ListenUdpPort [ListenMulticastAddr]\n")
    assert log.text.endswith("  -Z\t\tEncryption Password\n")
