"""The dissector's page agrees with the dissector: its commands, read from the page, its tables, how it is installed."""

import os
import pathlib
import re
import shutil
import subprocess

import pytest

from txproxy import netns, pcapng, rtp, sample_captures, tshark
from txproxy.model_receiver import Window, request
from txproxy.page import ROOT, Page, quoted
from txproxy.proxy import Output, binary
from txproxy.receiver import Sender

pytestmark = pytest.mark.release_only

PAGE = Page("dissector.md")
PROXY, RECEIVER = ("10.0.0.1", 10000), ("10.0.0.2", 45000)
EPOCH = 1_700_000_000 * 10**9
SEVERITIES = {"ERROR": "Error", "WARN": "Warning", "NOTE": "Note", "CHAT": "Chat"}


def blocks(heading, kind="sh"):
    found = re.findall(r"^```(\w*)\n(.*?)^```$", PAGE.section(heading), re.MULTILINE | re.DOTALL)
    return [text for its_kind, text in found if its_kind == kind]


@pytest.fixture(scope="module")
def user(tmp_path_factory):
    """The home of a user who has installed the dissector as the page says. The sources' folder is in it by its name."""
    home = tmp_path_factory.mktemp("home")
    (home / "dissector").symlink_to(ROOT / "dissector")
    install = blocks("Installing it")[0]
    assert install.startswith("mkdir -p ~/")
    tshark.run(shell=install, home=home)
    return home


def as_user(user, text):
    return tshark.run(shell=text, home=user)


def source(name):
    return (ROOT / "dissector" / "tx_proxy" / f"{name}.lua").read_text(encoding="utf-8")


def made(path, *datagrams):
    """A capture with a datagram (payload, source, destination) each millisecond."""
    pcapng.write(path, [(EPOCH + i * 10**6, pcapng.udp_frame(*datagram)) for i, datagram in enumerate(datagrams)])
    return path


# ---- installing


def test_what_a_user_installs_is_found(user):
    (check,) = blocks("Installing it")[1:]
    assert as_user(user, check).split("\t")[-1] == "txproxy\n"


def test_what_is_installed_for_all_is_found_in_the_folder_of_debians_wireshark(tmp_path):
    build = pathlib.Path(binary()).parent
    subprocess.run(["cmake", "--install", build / "dissector", "--prefix", "/usr"], check=True, capture_output=True,
                   env={**os.environ, "DESTDIR": str(tmp_path)})  # fmt: skip
    plugins = tmp_path / tshark.global_plugins().lstrip("/")
    assert sorted(str(path.relative_to(plugins)) for path in plugins.rglob("*.lua")) == sorted(
        str(path.relative_to(ROOT / "dissector")) for path in (ROOT / "dissector").rglob("*.lua"))  # fmt: skip
    shown = tshark.run("-r", tshark.CAPTURES / "receiver.pcapng", script=None, plugins=plugins)
    assert "Media 12, 1 missing before it" in shown


def test_installed_twice_the_first_one_serves(user):
    shown = tshark.run("-r", tshark.CAPTURES / "receiver.pcapng", home=user)
    assert "Media 12, 1 missing before it" in shown


# ---- commands


def test_the_first_command_shows_what_the_page_says(user):
    (command,), (listed,) = blocks("In one minute"), blocks("In one minute", "")
    shown = as_user(user, command)
    for line in listed.splitlines():
        assert re.search(rf"  ?\d+ {re.escape(line)}$", shown, re.MULTILINE), line


def test_the_capture_command_takes_both_ports_and_no_other(closing, user):
    (command,) = blocks("Where to capture")
    lan = closing(netns.Lan())
    process = subprocess.Popen(["ip", "netns", "exec", lan.peer.name, "bash", "-c", f"exec {command.strip()} -c 3"],
                               stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, cwd=user)  # fmt: skip
    try:
        told = Output("standard error", process.stderr)
        told.wait(re.compile("File: .*"), tshark.LONGEST_SECONDS, alive=lambda: process.poll() is None)
        for port in (10000, 7020, 10001, 10000):
            sender = Sender(netns.peer_address(0), port, lan.proxy)
            sender.send(b"x")
            sender.close()
        assert process.wait(tshark.LONGEST_SECONDS) == 0
    finally:
        process.kill()
    shown = tshark.run("-r", user / "capture.pcapng", "-T", "fields", "-e", "udp.dstport", script=None)
    assert shown.split() == ["10000", "7020", "10000"]


def test_two_files_become_one(user):
    (command,) = re.findall(r"`(mergecap [^`]*)`", PAGE.section("Where to capture"))
    for name, sample in (("one", "receiver"), ("other", "kinds")):
        shutil.copy(tshark.CAPTURES / f"{sample}.pcapng", user / f"{name}.pcapng")
    as_user(user, command)
    kinds = [row["txproxy.kind"][0] for row in tshark.fields(user / "both.pcapng", "txproxy.kind")]
    assert {"stop", "leave", "media"} <= set(kinds)


def lost(shown):
    """The figures in the column Lost of the only stream."""
    (line,) = [line for line in shown.splitlines() if "0x" in line]
    return re.search(r"(-?\d+ \(-?[\d.]+%\))", line).group(1)


def largest_jitter(shown):
    """What stands in the last column of figures."""
    assert re.search(r"Max Jitter\(ms\) Problems\?$", shown, re.MULTILINE)
    return float(re.findall(r"\d+\.\d{3}", next(line for line in shown.splitlines() if "0x" in line))[-1])


def test_the_analysis_of_the_stream_gives_what_the_page_says(user):
    whole, line = blocks("Analysing the RTP stream")
    shown = as_user(user, whole)
    first = as_user(user, line)
    assert [lost(shown), lost(first)] == re.findall(r"`Lost` is \*\*(.*?)\*\*", PAGE.section("Analysing the RTP stream"))
    assert "MPEG-II streams, txproxy_again" in shown and "txproxy_again" not in first
    assert largest_jitter(shown) > largest_jitter(first)
    at_proxy = as_user(user, whole.replace("receiver.pcapng", "proxy.pcapng"))
    assert lost(at_proxy).split()[0] == re.search(r"negative there: (-\d+) in", PAGE.text).group(1)


def test_each_recipe_finds_what_the_page_says(user):
    seconds, stays, repair, vain, trip, one, notes = blocks("Recipes")
    assert re.search(r"\|\s+5 \|\s+6 \|\s+5 \|", as_user(user, seconds))
    assert as_user(user, stays) == ""
    lines = [line.split("\t") for line in as_user(user, repair).splitlines()]
    assert [int(line[0]) for line in lines] == sample_captures.LOST
    assert all(20 < float(line[2]) < float(line[1]) for line in lines)
    assert {line.split("\t")[2].split(":")[0] for line in as_user(user, vain).splitlines()} == {
        "too soon", "too old", "no answer in this capture"}  # fmt: skip
    smallest, mean, largest = map(float, re.findall(r"\d+\.\d{6}", as_user(user, trip)))
    assert 20 < smallest <= mean <= largest < 30
    shown = as_user(user, one)
    assert re.search(r"Media \d+ sent again", shown) and not re.search(r"Media \d+$", shown, re.MULTILINE)
    assert "10.77.0.3" not in shown
    shown = as_user(user, notes)
    assert "Wrong checksum" in shown and "The proxy has deleted this receiver's stream" in shown


def test_a_gap_that_stays_is_found_by_its_recipe(user):
    made(user / "gap.pcapng", *[(rtp.packet(seq, b"x"), PROXY, RECEIVER) for seq in (1, 4)])
    command = blocks("Recipes")[1].replace("dissector/captures/receiver.pcapng", "gap.pcapng")
    assert "Media 4, 2 missing before it" in as_user(user, command)


def test_another_protocol_on_the_receivers_port_can_be_switched_off(user):
    (option,) = re.findall(r"`(--disable-protocol \w+)`", PAGE.section("When something does not work"))
    made(user / "port.pcapng", (request([], Window(3, 250, 40)), ("10.0.0.2", 5000), ("10.0.0.1", 7020)))
    assert "Request without numbers" not in as_user(user, "tshark -r port.pcapng")
    assert "Request without numbers" in as_user(user, f"tshark -r port.pcapng {option}")


# ---- media go on


def payload_rows(*options):
    shown = tshark.run("-r", tshark.CAPTURES / "receiver.pcapng", "-Y", "txproxy.media.seq", "-T", "fields", "-e",
                       "txproxy.media.again", "-e", "rtp.seq", "-e", "mp2t.pid", *options)  # fmt: skip
    return {tuple(bool(cell) and cell != "0" for cell in line.split("\t")) for line in shown.splitlines()}


def test_media_go_on_to_rtp_and_to_mpeg_ts_as_set():
    assert payload_rows() == {(False, True, True), (True, True, False)}
    assert payload_rows("-o", "txproxy.again_to_mp2t:TRUE") == {(False, True, True), (True, True, True)}
    assert payload_rows("-o", "txproxy.to_rtp:FALSE") == {(False, False, False), (True, False, False)}


def test_type_122_of_other_streams_is_left_alone(tmp_path):
    packet = rtp.packet(1, b"\x47" + bytes(187), payload_type=122)
    path = made(tmp_path / "other.pcapng", (packet, ("10.0.0.9", 6000), RECEIVER))
    shown = tshark.run("-r", path, "-d", "udp.port==6000,rtp", "-o", "txproxy.again_to_mp2t:TRUE", "-T", "fields", "-e",
                       "rtp.p_type", "-e", "rtp.payload", "-e", "mp2t.pid")  # fmt: skip
    assert re.fullmatch(r"122\t47(00){187}\t\n", shown)


# ---- tables


def test_every_field_and_note_is_on_the_page_and_no_other(user):
    known = set(re.findall(r"\t(txproxy\.[\w.]+)\t", as_user(user, "tshark -G fields | grep -P '\\ttxproxy\\.'")))
    made_with = re.findall(r'^warning\("(\w+)", "\w+", "(\w+)"', source("fields"), re.MULTILINE)
    notes = {f"txproxy.{name}": SEVERITIES[severity] for name, severity in made_with}
    assert set(notes) <= known
    assert {quoted(cells[0])[0]: cells[1] for cells in PAGE.rows("Notes")} == notes
    on_page = [f"txproxy.{quoted(cells[0])[0]}" for cells in PAGE.rows("Fields")]
    assert sorted(on_page) == sorted(known - set(notes))


def test_every_setting_is_on_the_page_with_its_default(user):
    settings = as_user(user, "tshark -G defaultprefs | grep txproxy")
    assert re.findall(r"^#(txproxy\.\w+): (\S+)$", settings, re.MULTILINE) == [
        (quoted(cells[0])[0], cells[1]) for cells in PAGE.rows("Settings")]  # fmt: skip


def test_every_kind_is_on_the_page():
    kinds = re.search(r"local show_kind = \{(.*?)\}", source("show"), re.DOTALL).group(1)
    on_page = [quoted(cells[0])[0] for cells in PAGE.rows("What is a datagram?")]
    assert sorted(on_page) == sorted(re.findall(r'\["([\w ]+)"\]', kinds))


def test_every_outcome_is_on_the_page(user):
    texts = [(tshark.EXPECTED / f"{name}.txt").read_text(encoding="utf-8") for name in sample_captures.NAMES]
    seen = set(re.findall(r"\[Outcome: (.*)\]", "".join(texts)))
    asks = [(request([1], window), RECEIVER, ("10.0.0.1", 7020)) for window in (Window(0, 86, 0), Window(2, 200, 0))]
    made(user / "asks.pcapng", (rtp.packet(1, b"x"), PROXY, RECEIVER), *asks)
    shown = as_user(user, "tshark -r asks.pcapng -Y txproxy.request.seq -T fields -e txproxy.request.outcome")
    seen |= set(shown.splitlines())
    patterns = [re.escape(quoted(cells[0])[0]).replace(r"\.\.\.", ".*") for cells in PAGE.rows("What a request says")]
    matched = {value: [pattern for pattern in patterns if re.fullmatch(pattern, value)] for value in seen}
    assert all(len(found) == 1 for found in matched.values()), matched
    assert {found[0] for found in matched.values()} == set(patterns)


def test_the_request_on_the_page_is_that_of_the_sample():
    (shown,) = blocks("What a request says", "")
    expected = (tshark.EXPECTED / "receiver.txt").read_text(encoding="utf-8")
    lines = "\n".join(f"    {line}" for line in shown.splitlines())
    assert lines in expected


def test_the_samples_are_those_of_the_page():
    assert [quoted(cells[0])[0] for cells in PAGE.rows("Samples")] == [f"{name}.pcapng" for name in sample_captures.NAMES]
    assert (ROOT / "dissector" / "make_captures").stat().st_mode & 0o111
    for name in sample_captures.NAMES:
        assert (tshark.EXPECTED / f"{name}.txt").exists()
