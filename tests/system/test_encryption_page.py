"""docs/encryption.md: its commands are run, its tables and figures held against proxy, sample and receiver."""

import json
import os
import pathlib
import random
import re
import shlex
import subprocess

import pytest

from txproxy import arqrx, plugin_builder, rtp, sample_encryption
from txproxy.arqrx import Arqrx, started
from txproxy.model_receiver import wait_bound
from txproxy.mpegts import PACKET_BYTES
from txproxy.page import ROOT, Page, quoted
from txproxy.plugin_builder import INSTALLED_FOLDER, INSTALLED_NAME
from txproxy.proxy import binary
from txproxy.receiver import Receiver, pump
from txproxy.sample_encryption import (
    DONE,
    SALT,
    SCRYPT,
    SEND,
    Library,
    Reference,
    as_sent,
    region,
    transport_packets,
)
from txproxy.waiting import wait_until

# What depends on the build is in test_decryption.py.
pytestmark = pytest.mark.release_only

PAGE = Page("encryption.md")
DATAGRAM = 7 * PACKET_BYTES
WIRE = "127.0.0.2"
PLAIN_ID = 0x52  # of the receiver without the library
LIBRARY = INSTALLED_FOLDER / INSTALLED_NAME


def commands(heading):
    """The lines of a section's shell blocks."""
    blocks = re.findall(r"^```sh\n(.*?)^```", PAGE.section(heading), re.MULTILINE | re.DOTALL)
    return [line for block in blocks for line in block.splitlines()]


def command(heading, beginning):
    return next(line for line in commands(heading) if line.startswith(beginning))


@pytest.fixture(scope="module")
def password(tmp_path_factory):
    """The file that the page's command makes."""
    folder = tmp_path_factory.mktemp("secret")
    subprocess.run(["sh", "-c", command("In a minute", "(umask")], cwd=folder, check=True)
    path = folder / "channel.password"
    assert path.stat().st_mode & 0o777 == 0o600
    assert len(path.read_text(encoding="ascii").strip()) == 32
    return path


@pytest.fixture(scope="module")
def reference(password):
    return Reference(password.read_bytes().strip())


def test_the_links_of_the_page_lead_somewhere():
    headings = {}
    for file in (ROOT / "docs").glob("*.md"):
        titles = re.findall(r"^#+ (.+)$", file.read_text(encoding="utf-8"), re.MULTILINE)
        headings[file.name] = {re.sub(r"[^\w -]", "", title.lower()).replace(" ", "-") for title in titles}
    for target in re.findall(r"\]\(([^)]+)\)", PAGE.text):
        file, _, anchor = target.partition("#")
        assert anchor in headings[file or "encryption.md"] or not anchor, target


def test_the_sample_is_off_unless_asked_for_and_installed_where_the_proxy_looks_for_it(tmp_path):
    configure, build, install = commands("In a minute")[:3]
    option = re.search(r"-D(\w+)=ON", configure).group(1)
    text = (ROOT / "CMakeLists.txt").read_text(encoding="utf-8")
    assert re.findall(rf"^option\({option} .* (\w+)\)$", text, re.MULTILINE) == ["OFF"]
    tree = pathlib.Path(binary()).parent
    target = shlex.split(build)[-1]
    known = subprocess.run(["cmake", "--build", tree, "--target", "help"], capture_output=True, text=True, check=True)
    assert f"{target}:" in known.stdout
    words = [str(tree) if word == "build" else word for word in shlex.split(install.removeprefix("sudo "))]
    environment = {**os.environ, "DESTDIR": str(tmp_path)}
    subprocess.run([*words, "--prefix", "/usr/local"], env=environment, check=True, stdout=subprocess.DEVNULL)
    installed = sorted(str(path.relative_to(tmp_path)) for path in tmp_path.rglob("*") if path.is_file())
    assert installed == [str(LIBRARY)[1:], "usr/local/include/tx_proxy/sorvanex.h"]


def test_the_seconds_in_clear_are_those_of_the_formula():
    rows = PAGE.rows("The first seconds are in clear")
    rates = (2e6, 5e6, 10e6, 50e6)
    assert [int(cells[0].split()[0]) for cells in rows] == [1024, 4096, 65536]
    for cells in rows:
        buffers = int(cells[0].split()[0]) + 1024
        assert int(cells[1]) == buffers
        assert cells[2:] == [f"{buffers * DATAGRAM * 8 / rate:.1f} s" for rate in rates]


def test_the_regions_are_those_of_the_loader_and_the_sample_makes_of_them_what_is_said(reference):
    rows = PAGE.rows("What the library is shown")
    assert len(rows) == 14
    source = random.Random(4)
    for cells in rows:
        size, previous = int(cells[0]), int(cells[1])
        start, length = region(size, previous) or (0, 0)
        assert cells[2] == (f"{length} bytes from {start}" if length else "none"), cells
        packets, rest = divmod(size, PACKET_BYTES)
        data = bytes(rest) + transport_packets(source, packets)
        sent = as_sent(data, previous, reference)
        changed = sum(sent[at] != data[at] for at in range(rest, size, PACKET_BYTES))
        assert cells[3] == (f"{changed} of {packets} packets" if rest in (0, 12) else "nothing"), cells


def test_the_ciphers_figures_are_those_that_another_library_needs_for_the_same():
    text = PAGE.section("The sample's cipher")
    assert f"N = {SCRYPT['n']}, r = {SCRYPT['r']}, p = {SCRYPT['p']}, salt `{SALT.decode()}`" in text


def test_the_known_answer_is_that_of_the_library():
    text = PAGE.section("The sample's cipher")
    library = Library()
    session = library.open(SEND, re.search(r"With the password `([^`]+)`", text).group(1).encode())
    known = bytes.fromhex("".join(re.findall(r"^    ([0-9a-f]{56,96})$", text, re.MULTILINE)))
    assert library.call(session, sample_encryption.NULL_PACKET) == (DONE, known)
    library.close(session)


def test_a_datagram_costs_microseconds():
    said = int(re.search(r"costs about (\d+) microseconds", PAGE.text).group(1))
    library = Library()
    session = library.open(SEND, b"x")
    data = transport_packets(random.Random(5), 7)
    cost = []
    for _ in range(200):
        cost.append(library.timed_call(session, data))
    library.close(session)
    assert sorted(cost)[100] < 5 * said * 1e-6


def test_the_messages_of_the_table_are_those_of_the_programs():
    sources = "".join(
        (ROOT / name).read_text(encoding="utf-8")
        for name in (
            "samples/encryption/library.cpp",
            "src/main/encryption_plugin.cpp",
            "tools/arqrx/program/fields.h",
            "tools/arqrx/program/text_report.cpp",
        )
    )
    said = [quoted(cells[0]) for cells in PAGE.rows("When something does not work")]
    for text in (words for cell in said for words in cell if words not in ("arqrx", "Loaded ...")):
        for part in text.replace("sorvanex_...", "").replace("undefined symbol: ", "").split(": "):
            assert part in sources, text


INPUTS = {"plain": (0, 0, lambda number, data: data), "rtp": (1, PACKET_BYTES, rtp.packet)}


@pytest.mark.parametrize("kind", INPUTS)
def test_the_page_alone_leads_to_a_channel_that_is_scrambled_from_its_first_media_on(
    kind, start_proxy, net, closing, sender, receive, lease, tmp_path, monkeypatch, password, reference
):
    which, clear_bytes, datagram = INPUTS[kind]
    folders = plugin_builder.PrivateFolders(tmp_path, monkeypatch)
    folders.library(INSTALLED_NAME, sample_encryption.path())
    secret = password.read_text(encoding="ascii").strip()
    line = command("In a minute", "tx_proxy ").replace("$(cat channel.password)", secret)
    options = [word for word in shlex.split(line)[1:-1] if not (kind == "rtp" and word == "-u")]
    proxy = wait_bound(folders.start(start_proxy, *options, "-a", WIRE), net.destination, net.request)
    proxy.wait_stderr(re.search(r"^    (Loaded .*)$", PAGE.text, re.MULTILINE).group(1))
    wire = receive(WIRE)
    warm_up = [line for line in commands("The first seconds are in clear") if line.startswith("perl")][which]
    assert "/5000" in warm_up
    subprocess.run(["bash", "-c", warm_up.replace("/5000", f"/{net.input}")], check=True)
    source = random.Random(6)
    first = transport_packets(source, 7)
    pump(sender, [], [datagram(10241, first)])
    scrambled = as_on_wire(first, clear_bytes, reference)
    wait_until(lambda: rtp.payload((wire.payloads or [b""])[-1]) == scrambled, "the first media, scrambled")
    assert wire.count() > 5120, "not all buffers have been used"
    wire.clear()
    sent = [transport_packets(source, 7) for _ in range(50)]
    pump(sender, [wire], [datagram(10242 + i, data) for i, data in enumerate(sent)])
    expected = [as_on_wire(data, clear_bytes, reference) for data in sent]
    assert [rtp.payload(data) for data in wire.payloads] == expected

    player = closing(Receiver("127.0.0.1", lease.port()))
    receiver = closing(decrypting(net, player, password))
    plain = closing(plain_receiver(net))
    for address, stream_id in (("127.0.0.81", arqrx.ID), ("127.0.0.82", PLAIN_ID)):
        proxy.wait_stderr(started(address, stream_id))
    pump(sender, [wire], [datagram(10292 + i, data) for i, data in enumerate(sent)])
    player.wait_count(len(sent))
    assert [rtp.payload(data) for data in player.payloads] == sent
    assert receiver.end() == arqrx.GOOD
    assert plain.wait_exit() == arqrx.GOOD
    figures = json.loads(plain.stdout.text)
    assert figures["packets_played"] == len(sent)
    name = command("The receiving side", "arqrx").rsplit(".", 1)[1]
    assert name == "transport_packets" and figures.get(name) is None


def as_on_wire(data, clear_bytes, reference):
    return data[:clear_bytes] + reference.scramble_all(data[clear_bytes:])


def joining(net, address, stream_id):
    return ["--request-port", net.request, "--bind", address, "--id", stream_id, "--latency", "100ms"]


def decrypting(net, player, password):
    """The page's receiver, here."""
    words = shlex.split(command("In a minute", "arqrx "))[1:]
    here = {
        "10.0.0.1": f"127.0.0.1:{net.destination}",
        str(LIBRARY): str(sample_encryption.path()),
        "channel.password": str(password),
        "udp://127.0.0.1:5001": f"udp://127.0.0.1:{player.address[1]}",
    }
    assert set(here) <= set(words)
    return Arqrx(*(here.get(word, word) for word in words), *joining(net, "127.0.0.81", arqrx.ID))


def plain_receiver(net):
    """The page's look at whether a channel is encrypted, here."""
    words = shlex.split(command("The receiving side", "arqrx ").split(" | ")[0])[1:]
    assert words[0] == "10.0.0.1"
    return Arqrx(f"127.0.0.1:{net.destination}", *words[1:], *joining(net, "127.0.0.82", PLAIN_ID))
