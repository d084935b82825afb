"""The receiver's page agrees with the program: options, exit statuses, fields of JSON and metrics."""

import json
import re
import urllib.request

from txproxy import arqrx, rtp
from txproxy.arqrx import Arqrx, send_evenly
from txproxy.page import Page, quoted
from txproxy.receiver import Receiver, Sender

PAGE = Page("receiver.md")
OPTION = re.compile(r"^  (?:-h,)?(--[a-z-]+)", re.MULTILINE)
# Fields that a run without loss, proxy and failure does not have.
NOT_IN_EVERY_RUN = {"proxy", "round_trip_ms", "recover_p50_ms", "recover_p99_ms", "error", "transport_packets",
                    "continuity_errors", "packets_decrypted", "packets_clear", "packets_undecided"}  # fmt: skip


def help_text():
    status, stdout, _ = arqrx.run("--help")
    assert status == arqrx.GOOD
    return stdout


def test_the_page_has_every_option_of_the_program_and_no_other():
    on_page = [quoted(cells[0])[0].split()[0] for cells in PAGE.rows("Options")]
    assert on_page[0] == "PROXY[:PING_PORT]"
    assert sorted(on_page[1:]) == sorted(OPTION.findall(help_text()))


def options_of_help():
    """{option with its argument: default, or None}."""
    blocks = re.split(r"\n(?=  (?:-h,)?--)", help_text().split("\nExamples:")[0])[1:]
    found = {}
    for block in blocks:
        text = re.sub(r"\s+", " ", re.split(r"\n\n", block)[0].strip().removeprefix("-h,"))
        name = re.match(r"--[a-z-]+(?: \[?[A-Z][A-Za-z|:/\[\]]*(?:\|[a-z|]+)?(?= ))?", text).group()
        default = re.search(r" \[([^\]]+)\]$", text)
        found[name] = default.group(1) if default else None
    return found


def test_the_page_has_the_arguments_and_defaults_of_the_help():
    on_page = {}
    for cells in PAGE.rows("Options")[1:]:
        has_default = re.fullmatch(r"\d+[a-zA-Z]*|auto", cells[1])
        on_page[quoted(cells[0])[0].replace("\\|", "|")] = cells[1] if has_default else None
    assert on_page == options_of_help()


def test_the_usage_of_the_page_is_that_of_the_help():
    shown = [line.strip() for line in PAGE.text.splitlines() if line.startswith("    arqrx [options]")]
    assert len(shown) == 3
    for line in shown:
        assert line in help_text()


def test_every_exit_status_is_on_the_page():
    assert [int(cells[0]) for cells in PAGE.rows("Exit statuses")] == [
        arqrx.GOOD, arqrx.LOSS, arqrx.USAGE, arqrx.NO_MEDIA, arqrx.NO_START, arqrx.OUTPUT_FAILED]  # fmt: skip


def test_every_field_and_metric_of_a_run_is_on_the_page_and_no_other(closing, net, lease, tmp_path):
    port = lease.port()
    receiver = closing(Arqrx("--listen", f"{arqrx.LOCAL}:{net.destination}", "--latency", "100ms", "--json", "--interval",
                             "100ms", "--metrics", port, "--output", f"file:{tmp_path}/x"))  # fmt: skip
    receiver.wait_ready()
    source = closing(Sender(arqrx.LOCAL, net.destination))
    send_evenly(source, [rtp.packet(i, b"x") for i in range(20)], 200)
    receiver.wait_played(20)
    receiver.wait_figures(lambda figures: "play_late_p99_ms" in figures, "figures of play-out")
    with urllib.request.urlopen(f"http://127.0.0.1:{port}/metrics", timeout=15) as answer:
        page = answer.read().decode()
    assert receiver.end() == arqrx.GOOD
    fields = {name for line in receiver.stdout.lines for name in json.loads(line)}
    on_page = {quoted(cells[0])[0] for cells in PAGE.rows("JSON")}
    assert fields - on_page == set()
    assert on_page - fields == NOT_IN_EVERY_RUN
    for metric in re.findall(r"^# TYPE (arqrx_\w+) ", page, re.MULTILINE):
        assert metric in PAGE.section("Metrics") or field_of(metric) in on_page, metric


def field_of(metric):
    name = metric.removeprefix("arqrx_")
    if name == "silent_seconds":
        return "silent_s"
    if name.endswith("_seconds"):
        return name.removesuffix("_seconds") + "_ms"
    return name.removesuffix("_total")


def test_every_field_of_a_report_is_on_the_page_and_no_other(closing, net):
    server = closing(Receiver("127.0.0.1"))
    receiver = closing(Arqrx("--listen", f"{arqrx.LOCAL}:{net.destination}", "--latency", "100ms", "--json", "--proxy-request",
                             "127.0.0.1:1", "--interval", "100ms", "--report", f"127.0.0.1:{server.address[1]}/1"))  # fmt: skip
    receiver.wait_ready()
    closing(Sender(arqrx.LOCAL, net.destination)).send(rtp.packet(1, b"x"))
    receiver.wait_played(1)
    server.wait_count(2)
    assert receiver.end() == arqrx.GOOD
    server.wait_for(lambda datagram: b'"final":true' in datagram.data)
    fields = {"round_trip_ms"}.union(*map(json.loads, server.payloads))
    own = {quoted(cells[0])[0] for cells in PAGE.rows("Reports")}
    shared = {quoted(cells[0])[0] for cells in PAGE.rows("JSON")} & set(quoted(PAGE.section("Reports")))
    assert fields == own | shared


def test_the_lines_for_people_have_the_columns_of_the_page():
    head = "    time  Mbit/s  packets  missing recover.    lost waiting  rtt ms  buffer ms"
    assert head in PAGE.section("In one minute")
    columns = [quoted(cells[0])[0] for cells in PAGE.rows("Lines for people")]
    assert re.split(r"\s+(?!ms)", head.strip()) == columns
