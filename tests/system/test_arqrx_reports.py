"""What arqrx tells: lines for people, JSON, metrics, and where they go."""

import json
import re
import struct
import urllib.request

import pytest

from txproxy import arqrx, rtp
from txproxy.arqrx import Arqrx, send_evenly
from txproxy.receiver import Receiver, Sender
from txproxy.traffic import is_bound
from txproxy.waiting import wait_until

PER_SECOND = 200
COUNT = 40


def payload(index):
    return struct.pack("!I", index) + bytes(range(100))


def listening(net, *options):
    return ["--listen", f"{arqrx.LOCAL}:{net.destination}", "--latency", "100ms", *options]


@pytest.fixture
def source(closing, net):
    return closing(Sender(arqrx.LOCAL, net.destination))


def send(source, count=COUNT, first=0):
    send_evenly(source, [rtp.packet(first + i, payload(first + i)) for i in range(count)], PER_SECOND)


def wait_bound(net):
    """Waits until somebody listens where the stream goes."""
    wait_until(lambda: is_bound(net.destination), "arqrx to listen")


def test_each_line_of_json_is_an_object_and_only_the_last_is_final(closing, net, source):
    receiver = closing(Arqrx(*listening(net, "--json", "--interval", "100ms")))
    receiver.wait_ready()
    send(source)
    receiver.wait_played(COUNT)
    assert receiver.end() == arqrx.GOOD
    objects = [json.loads(line) for line in receiver.stdout.text.splitlines()]
    assert [thing.get("final", False) for thing in objects] == [False] * (len(objects) - 1) + [True]
    for thing in objects:
        assert thing["packets_missing"] == thing["packets_recovered"] + thing["packets_lost"] + thing["packets_waiting"]
        assert None not in thing.values()
    assert objects[-1]["packets_received"] == objects[-1]["packets_played"] == COUNT
    assert objects[-1]["bytes_received"] == COUNT * len(rtp.packet(0, payload(0)))
    assert objects[-1]["play_late_p99_ms"] >= objects[-1]["play_late_p50_ms"] >= 0
    assert receiver.stderr.text == ""


def test_people_get_a_head_a_line_an_interval_and_totals(closing, net, source):
    receiver = closing(Arqrx(*listening(net, "--interval", "100ms")))
    wait_bound(net)
    send(source)
    receiver.wait_stdout("    time  Mbit/s  packets  missing recover.    lost waiting  rtt ms  buffer ms")
    line = re.compile(r"\d\d:\d\d:\d\d +\d+\.\d{3} +\d+ +0 +0 +0 +0 +- +\d+\.\d")
    receiver.wait_stdout(line)
    # Until all are played out there is nothing to tell about them.
    receiver.wait_stdout(re.compile(r"\d\d:\d\d:\d\d   0\.000        0 .* 0\.0"))
    assert receiver.end() == arqrx.GOOD
    assert re.search(
        rf"\nEnded by a signal after \d+\.\d s\.\n"
        rf"  received   {COUNT} packets, 0 of them sent again; 0\.\d{{3}} Mbit/s\n"
        rf"  missing    0 = 0 recovered \+ 0 lost \+ 0 waiting\n"
        rf"  played     {COUNT} packets; 0 duplicates, 0 late, 0 reordered, 0 restarts\n$",
        receiver.stdout.text,
    )
    assert max(map(len, receiver.stdout.lines)) < 80


def test_before_the_first_packet_it_says_where_it_looks_for_one(closing, net):
    receiver = closing(Arqrx(f"127.0.0.1:{net.destination}", "--interval", "100ms"))
    receiver.wait_stdout(
        re.compile(rf"\d\d:\d\d:\d\d no media yet; pinging 127\.0\.0\.1:{net.destination}: does the proxy run there\?")
    )
    assert receiver.end() == arqrx.NO_MEDIA
    assert receiver.stdout.text.endswith("  No media ever came.\n")


def test_quiet_prints_nothing(closing, net, source):
    receiver = closing(Arqrx(*listening(net, "--quiet", "--interval", "100ms", "--exit-after-silence", "1s")))
    wait_bound(net)
    send(source)
    assert receiver.wait_exit() == arqrx.GOOD
    assert (receiver.stdout.text, receiver.stderr.text) == ("", "")


@pytest.mark.parametrize("form", [[], ["--json"]])
def test_the_stream_on_standard_output_has_it_to_itself(closing, net, source, form):
    receiver = closing(Raw(*listening(net, "--output", "-", "--interval", "100ms", *form)))
    wait_bound(net)
    send(source)
    expected = b"".join(payload(i) for i in range(COUNT))
    wait_until(lambda: len(receiver.bytes) >= len(expected), "the stream on standard output")
    assert receiver.end() == arqrx.GOOD
    assert receiver.bytes == expected
    if form:
        assert all(json.loads(line) for line in receiver.stderr.text.splitlines())
    else:
        assert "  played     40 packets" in receiver.stderr.text


class Raw(Arqrx):
    """Its standard output is bytes."""

    @property
    def bytes(self):
        with self.stdout._lock:  # pylint: disable=protected-access
            return bytes(self.stdout._bytes)  # pylint: disable=protected-access


def scrape(port):
    with urllib.request.urlopen(f"http://127.0.0.1:{port}/metrics", timeout=15) as page:
        return page.read().decode()


SAMPLE = re.compile(r'([a-z0-9_]+)\{([^}]*)\} (-?[0-9.e+-]+)')


def metrics_of(page):
    """{name: value} of ours, those of outputs with their label; and the types."""
    values, types = {}, {}
    for line in page.splitlines():
        if line.startswith("# TYPE "):
            _, _, name, kind = line.split()
            types[name] = kind
        elif line.startswith("arqrx_"):
            name, labels, value = SAMPLE.fullmatch(line).groups()
            assert 'stream="' in labels
            output = re.search(r'output="([^"]*)"', labels)
            values[name + (" " + output.group(1) if output else "")] = float(value)
    return values, types


def test_metrics_are_of_the_moment_and_follow_the_rules(closing, net, source, lease, tmp_path):
    port = lease.port()
    path = tmp_path / "x"
    receiver = closing(Arqrx(*listening(net, "--json", "--interval", "10s", "--metrics", port, "--output", f"file:{path}")))
    wait_bound(net)
    wait_until(lambda: listens_on_tcp(port), "the metrics' port")
    send(source, 20)
    wait_until(lambda: metrics_of(scrape(port))[0]["arqrx_packets_played_total"] == 20, "fresh metrics")
    send(source, 20, first=21)
    wait_until(lambda: metrics_of(scrape(port))[0]["arqrx_packets_played_total"] == 40, "fresher metrics")
    values, types = metrics_of(scrape(port))
    assert values["arqrx_packets_lost_total"] == 1
    assert values[f"arqrx_output_packets_total file:{path}"] == 40
    assert values[f"arqrx_output_failed file:{path}"] == 0
    ours = {name: kind for name, kind in types.items() if name.startswith("arqrx_")}
    assert len(ours) > 30
    for name, kind in ours.items():
        assert kind == ("counter" if name.endswith("_total") else "gauge"), name
    assert receiver.end() == arqrx.GOOD
    final = receiver.figures()
    assert final["packets_played"] == values["arqrx_packets_played_total"]


def listens_on_tcp(port):
    with open("/proc/net/tcp", encoding="ascii") as table:
        return f":{port:04X} 00000000:0000 0A" in table.read()


def test_metrics_listen_on_this_host_only(closing, net, lease):
    port = lease.port()
    receiver = closing(Arqrx(*listening(net, "--json", "--interval", "100ms", "--metrics", port)))
    receiver.wait_ready()
    with open("/proc/net/tcp", encoding="ascii") as table:
        listeners = re.findall(rf"(\w+):{port:04X} 00000000:0000 0A", table.read())
    assert listeners == ["0100007F"]


def test_options_can_stand_in_a_file_and_the_command_line_wins(closing, net, source, tmp_path):
    config = tmp_path / "arqrx.conf"
    first, second = tmp_path / "first.ts", tmp_path / "second.ts"
    config.write_text(
        f"listen={arqrx.LOCAL}:{net.destination}\nlatency=100ms\njson=true\ninterval=9s\n"
        f'output=["file:{first}", "file:{second}"]\n',
        encoding="ascii",
    )
    receiver = closing(Arqrx("--config", config, "--interval", "100ms"))
    receiver.wait_ready()
    send(source)
    receiver.wait_played(COUNT)
    assert receiver.end() == arqrx.GOOD
    assert first.read_bytes() == second.read_bytes() == b"".join(payload(i) for i in range(COUNT))


def test_a_config_file_that_is_not_there_or_wrong_is_told(tmp_path):
    status, _, stderr = arqrx.run("127.0.0.1", "--config", tmp_path / "none.conf")
    assert status == arqrx.USAGE
    assert "none.conf" in stderr
    config = tmp_path / "wrong.conf"
    config.write_text("latncy=1s\n", encoding="ascii")
    status, _, stderr = arqrx.run("127.0.0.1", "--config", config)
    assert status == arqrx.USAGE
    assert "latncy" in stderr


def test_help_and_version_go_to_standard_output():
    status, stdout, stderr = arqrx.run("--help")
    assert (status, stderr) == (arqrx.GOOD, "")
    assert "Examples:\n" in stdout
    status, stdout, stderr = arqrx.run("--version")
    assert (status, stderr) == (arqrx.GOOD, "")
    assert re.fullmatch(r"arqrx \d+\.\d+\.\d+\n", stdout)


def test_a_server_is_told_once_a_second_from_where_the_stream_comes_to_and_at_the_end(closing, net, source):
    server = closing(Receiver("127.0.0.1"))
    port = server.address[1]
    receiver = closing(Arqrx(*listening(net, "--json", "--report", f"localhost:{port}", "--report-name", "studio-b")))
    wait_bound(net)
    send(source)
    server.wait_count(3)
    assert receiver.end() == arqrx.GOOD
    last = server.wait_for(lambda datagram: b'"final":true' in datagram.data)
    assert {datagram.source[0] for datagram in server.datagrams} == {arqrx.LOCAL}
    # By its own clock: a report that comes late brings the next one sooner, and either may be read late here.
    assert all(json.loads(data)["run_s"] > 0.9 * number for number, data in enumerate(server.payloads[:3], 1))
    assert all(len(data) <= 1400 for data in server.payloads)
    told, printed = json.loads(last.data), receiver.figures()
    assert told["name"] == "studio-b"
    assert told["packets_received"] == COUNT
    shared = told.keys() & printed.keys()
    assert len(shared) > 15
    assert {name: told[name] for name in shared} == {name: printed[name] for name in shared}


def test_a_server_that_is_not_there_is_told_once_and_gets_reports_when_it_comes(closing, net, source, lease):
    port = lease.port()
    receiver = closing(Arqrx(*listening(net, "--json", "--interval", "100ms", "--report", f"127.0.0.1:{port}")))
    wait_bound(net)
    send(source)
    receiver.wait_played(COUNT)
    told = f"arqrx: reports do not arrive: cannot reach 127.0.0.1:{port}: Connection refused; the stream goes on\n"
    receiver.wait_figures(lambda figures: figures["run_s"] > 3.2, "several reports to be refused")
    server = closing(Receiver("127.0.0.1", port))
    server.wait_count(1)
    assert receiver.end() == arqrx.GOOD
    assert receiver.stderr.text == told
    assert receiver.figures()["packets_played"] == COUNT


def test_a_server_that_nobody_knows_ends_the_start():
    status, stdout, stderr = arqrx.run("--listen", "127.0.0.2:1", "--json", "--report", "no-such-host.invalid:1")
    assert status == arqrx.NO_START
    assert stderr.startswith("arqrx: cannot find the server of --report: host 'no-such-host.invalid' is unknown: ")
    assert json.loads(stdout)["status"] == arqrx.NO_START
