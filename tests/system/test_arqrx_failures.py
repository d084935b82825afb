"""What goes wrong around arqrx: each is told with what to do next, and none holds up the stream."""

import json
import os
import struct
import subprocess

import pytest

from txproxy import arqrx, rtp
from txproxy.arqrx import Arqrx, joining, send_evenly
from txproxy.receiver import Receiver, Sender, udp_socket
from txproxy.waiting import DEFAULT_TIMEOUT, scaled, wait_until

ADVICE = "Try 'arqrx --help' for options and examples.\n"
PER_SECOND = 200


def payload(index):
    return struct.pack("!I", index) + bytes(range(100))


@pytest.fixture
def start(closing, net):
    """start(*options) starts a receiver that only listens; it is ready when this returns."""

    def make(*options, **keywords):
        receiver = closing(Arqrx("--listen", f"{arqrx.LOCAL}:{net.destination}", "--latency", "100ms", "--json", "--interval",
                                 "100ms", *options, **keywords))  # fmt: skip
        receiver.wait_ready()
        return receiver

    return make


@pytest.fixture
def source(closing, net):
    return closing(Sender(arqrx.LOCAL, net.destination))


def send(source, count=20, first=0):
    send_evenly(source, [rtp.packet(first + i, payload(first + i)) for i in range(count)], PER_SECOND)


WRONG = {
    "--latency 5": "--latency: '5' is not a time; write 600ms, 1s or 250us",
    "--latency 1ms": "--latency goes from 10ms to 60s",
    "--ping-interval 5s": "--ping-interval goes from 100ms to 4.9s: the proxy drops who is silent for 5s",
    "--listen 5000": "--listen is for a stream that is not pinged for; with a PROXY use --bind, perhaps with --no-ping",
    "--output nowhere": "--output: 'nowhere': an output is udp://HOST:PORT, rtp://HOST:PORT, file:PATH or - (standard output)",
    "--output - --output -": "standard output can be one output only",
    "--interface eth0": "--interface is the one on which --group is joined; without a group use --bind ADDRESS",
    "--id 0": "--id: '0' is not a number from 1 to 4294967295 (or 0x1 to 0xFFFFFFFF), auto or none",
    "--max-loss 101%": "--max-loss: '101%' is not a share; write 0.1% or 0.001",
}


@pytest.mark.parametrize("options", WRONG)
def test_a_wrong_option_ends_it_with_status_2_and_says_why(options):
    words = ["127.0.0.1", *options.split()]
    assert arqrx.run(*words) == (arqrx.USAGE, "", f"arqrx: {WRONG[options]}\n{ADVICE}")


def test_an_unknown_option_is_named():
    status, stdout, stderr = arqrx.run("127.0.0.1", "--latencey", "1s")
    assert (status, stdout) == (arqrx.USAGE, "")
    assert "--latencey" in stderr
    assert stderr.endswith(ADVICE)


def test_with_json_an_error_is_an_object_too_and_has_the_same_status():
    status, stdout, stderr = arqrx.run("127.0.0.1", "--json", "--latency", "1ms")
    assert status == arqrx.USAGE
    assert json.loads(stdout) == {"error": WRONG["--latency 1ms"], "final": True, "status": arqrx.USAGE}
    assert stderr == f"arqrx: {WRONG['--latency 1ms']}\n{ADVICE}"


def test_a_host_that_nobody_knows_is_told():
    status, _, stderr = arqrx.run("no-such-host.invalid")
    assert status == arqrx.NO_START
    assert stderr.startswith("arqrx: cannot find the proxy: ")
    assert "no-such-host.invalid" in stderr
    assert stderr.endswith("; give its address, or see what this machine knows with: getent hosts no-such-host.invalid\n")
    assert stderr.count("\n") == 1


def test_a_port_in_use_is_told_with_how_to_find_its_owner(net, closing):
    taken = closing(udp_socket(arqrx.LOCAL, net.destination, reuse=False))
    status, _, stderr = arqrx.run("--listen", f"{arqrx.LOCAL}:{net.destination}")
    assert taken and status == arqrx.NO_START
    assert stderr == (
        f"arqrx: cannot receive on {arqrx.LOCAL}:{net.destination}: {reason_in(stderr)}; "
        "see who has the port with: ss -ulpn\n"
    )
    assert "in use" in stderr


def test_an_address_of_another_machine_is_told_with_how_to_see_ones_own():
    status, _, stderr = arqrx.run("127.0.0.1", "--bind", "192.0.2.1:5000")
    assert (status, stderr) == (
        arqrx.NO_START,
        f"arqrx: cannot receive on 192.0.2.1:5000: {reason_in(stderr)}; "
        "see this machine's addresses with: ip -brief addr\n",
    )


def reason_in(line):
    """What the system said, between the place and the advice."""
    return line.split(": ", 2)[2].split(";")[0]


def test_metrics_on_a_port_in_use_are_told(net, closing, lease, tmp_path):
    port = lease.port()
    first = closing(Arqrx("--listen", f"{arqrx.LOCAL}:{net.destination}", "--metrics", port, "--json", "--interval", "100ms"))
    first.wait_ready()
    recording = tmp_path / "evening.ts"
    recording.write_bytes(b"recorded")
    status, _, stderr = arqrx.run("--listen", f"127.0.0.3:{net.destination}", "--metrics", port, "--output", f"file:{recording}")
    assert status == arqrx.NO_START
    assert recording.read_bytes() == b"recorded", "a start that fails spoils no recording"
    assert stderr == (
        f"arqrx: cannot serve metrics on 127.0.0.1:{port}; take another port with --metrics ADDRESS:PORT\n"
    )


@pytest.mark.parametrize(
    ("settings", "why"),
    [
        ("239.1.1.1:5?interface=eth99", "there is no interface 'eth99': No such device; see the interfaces with: ip -brief addr"),
        (
            "239.1.1.1:5?source=192.0.2.1",
            "cannot use 192.0.2.1:0: Cannot assign requested address; see this machine's addresses with: ip -brief addr",
        ),
        ("127.0.0.1:5?ttl=3", "ttl= and interface= are for a group, 224.0.0.0 to 239.255.255.255; leave them out"),
        ("127.0.0.1:5?interface=lo", "ttl= and interface= are for a group, 224.0.0.0 to 239.255.255.255; leave them out"),
    ],
)
def test_an_output_to_where_nothing_can_go_is_told(settings, why):
    status, _, stderr = arqrx.run("127.0.0.1", "--output", f"udp://{settings}")
    assert (status, stderr) == (arqrx.NO_START, f"arqrx: output udp://{settings}: {why}\n")


def test_a_file_that_cannot_be_made_is_told_before_anything_is_received(tmp_path):
    status, _, stderr = arqrx.run("127.0.0.1", "--output", f"file:{tmp_path}")
    assert (status, stderr) == (arqrx.NO_START, f"arqrx: output file:{tmp_path}: Is a directory; name a file in it\n")
    status, _, stderr = arqrx.run("127.0.0.1", "--output", f"file:{tmp_path}/none/x.ts")
    assert (status, stderr) == (
        arqrx.NO_START,
        f"arqrx: output file:{tmp_path}/none/x.ts: No such file or directory; make the folder first\n",
    )


def test_a_file_that_may_not_be_written_is_told(tmp_path):
    folder = tmp_path / "read_only"
    folder.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "-o", "ro", "none", folder], check=True)
    try:
        status, _, stderr = arqrx.run("127.0.0.1", "--output", f"file:{folder}/x.ts")
    finally:
        subprocess.run(["umount", folder], check=True)
    assert (status, stderr) == (
        arqrx.NO_START,
        f"arqrx: output file:{folder}/x.ts: Read-only file system; name a file that this user may write\n",
    )


def test_a_full_disk_ends_its_output_and_the_others_go_on(start, source, closing, lease):
    player = closing(Receiver("127.0.0.60", lease.port()))
    receiver = start("--output", "file:/dev/full", "--output", f"udp://127.0.0.60:{player.address[1]}")
    send(source)
    player.wait_count(20)
    receiver.wait_stderr("arqrx: output file:/dev/full: No space left on device; it gets nothing any more")
    assert receiver.end() == arqrx.OUTPUT_FAILED
    full, udp = receiver.figures()["outputs"]
    assert full["error"] == "No space left on device"
    assert udp == {"name": f"udp://127.0.0.60:{player.address[1]}", "packets": 20, "dropped": 0}


def test_the_last_output_that_fails_ends_it(start, source):
    receiver = start("--output", "file:/dev/full")
    send(source)
    assert receiver.wait_exit() == arqrx.OUTPUT_FAILED
    assert receiver.figures()["reason"] == "outputs"


def test_a_reader_of_standard_output_that_goes_away_ends_it(net, source):
    command = [arqrx.program(), "--listen", f"{arqrx.LOCAL}:{net.destination}", "--latency", "100ms", "--json", "--interval",
               "100ms", "--output", "-"]  # fmt: skip
    with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE) as process:
        process.stderr.readline()  # it runs
        send(source)
        assert process.stdout.read(len(payload(0))) == payload(0)
        process.stdout.close()
        send(source, first=20)
        try:
            errors = process.communicate(timeout=scaled(DEFAULT_TIMEOUT))[1].decode()
        finally:
            process.kill()
    assert process.returncode == arqrx.OUTPUT_FAILED
    assert "arqrx: output -: its reader has gone; it gets nothing any more\n" in errors


def test_a_pipe_that_nobody_empties_costs_its_own_packets_only(start, source, closing, lease, tmp_path):
    fifo = tmp_path / "slow"
    os.mkfifo(fifo)
    reader = os.open(fifo, os.O_RDONLY | os.O_NONBLOCK)
    player = closing(Receiver("127.0.0.60", lease.port()))
    receiver = start("--write-buffer", "64k", "--output", f"file:{fifo}", "--output", f"udp://127.0.0.60:{player.address[1]}")
    large = [rtp.packet(i, bytes(1300)) for i in range(250)]
    send_evenly(source, large, PER_SECOND)
    player.wait_count(len(large))
    slow, fast = receiver.wait_played(len(large))["outputs"]
    assert slow["packets"] + slow["dropped"] == fast["packets"] == len(large)
    assert slow["dropped"] > 0
    assert "error" not in slow
    assert receiver.end() == arqrx.OUTPUT_FAILED, "what waited for the reader could not be given up in silence"
    os.close(reader)


def test_a_reader_of_figures_that_does_not_read_stops_nothing(closing, net, source, lease):
    player = closing(Receiver("127.0.0.60", lease.port()))
    command = [arqrx.program(), "--listen", f"{arqrx.LOCAL}:{net.destination}", "--latency", "100ms", "--json", "--interval",
               "100ms", "--output", f"udp://127.0.0.60:{player.address[1]}"]  # fmt: skip
    reader, writer = os.pipe()
    os.set_blocking(writer, False)
    while True:  # the pipe is full before the first figures
        try:
            os.write(writer, bytes(4096))
        except BlockingIOError:
            break
    os.set_blocking(writer, True)
    with subprocess.Popen(command, stdout=writer, stderr=subprocess.DEVNULL) as process:
        os.close(writer)

        def is_through():
            source.send(rtp.packet(is_through.number, b"x"))
            is_through.number += 1
            return player.count() > 50

        is_through.number = 0
        try:
            wait_until(is_through, "packets to be played out")
            process.terminate()
            assert process.wait(scaled(DEFAULT_TIMEOUT)) == arqrx.GOOD
        finally:
            process.kill()
    os.close(reader)


def test_without_any_media_the_status_says_so(net):
    status, stdout, _ = arqrx.run(*joining(net, "--duration", "500ms"))
    assert status == arqrx.NO_MEDIA
    last = json.loads(stdout.splitlines()[-1])
    assert (last["final"], last["reason"], last["status"], last["packets_received"]) == (True, "duration", 3, 0)


@pytest.mark.parametrize("allowed, status", [([], arqrx.GOOD), (["--fail-on-loss"], arqrx.LOSS), (["--max-loss", "5%"], arqrx.LOSS),
                                             (["--max-loss", "20%"], arqrx.GOOD)])  # fmt: skip
def test_loss_is_a_status_where_that_is_asked_for(start, source, allowed, status):
    receiver = start(*allowed)
    send_evenly(source, [rtp.packet(i, payload(i)) for i in range(50) if i not in range(20, 25)], PER_SECOND)
    receiver.wait_played(45)
    assert receiver.end() == status
    assert receiver.figures()["packets_lost"] == 5
    assert receiver.figures()["status"] == status
