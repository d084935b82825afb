"""A proxy with the sample encryption library, and arqrx that decrypts at the other end of a bad line."""

import os
import random

import pytest

from txproxy import arqrx, packages, plugin_builder, rtp, sample_encryption
from txproxy.arqrx import Arqrx, joining, patient, send_evenly, started
from txproxy.link import Link
from txproxy.model_receiver import wait_bound
from txproxy.mpegts import PACKET_BYTES, SYNC_BYTE
from txproxy.plugin_builder import INSTALLED_NAME
from txproxy.receiver import Receiver, pump
from txproxy.sample_encryption import NULL_PACKET, Reference, as_sent, transport_packets

RELEASE = os.environ.get("TX_PROXY_BUILD_KIND") == "release"
PER_SECOND = 150  # what the ring keeps lasts for as long as the receiver's latency
COUNT = 200 if RELEASE else 150
PASSWORD = "correct horse"
WIRE = "127.0.0.2"  # gets what the proxy sends, as anybody on the way does
JOINER = "127.0.0.75"
PLAYER = "127.0.0.60"
FAR_END = "127.0.0.71"  # of a line: the proxy takes it for the receiver
RING = 512
POOL = RING + 1024  # datagrams that leave as they came
LATE = 20  # of these, what a receiver still sees
TRAILER = [NULL_PACKET * 7] * 40  # behind it, what is missing at the end is noticed
DESCRIPTION = "tx_proxy sample encryption {}, AES-256-CTR, {}"


def media(count, first=0):
    return [transport_packets(random.Random(first + i), 7) for i in range(count)]


@pytest.fixture(scope="module")
def reference():
    return Reference(PASSWORD.encode())


@pytest.fixture
def password_file(tmp_path):
    path = tmp_path / "password"
    path.write_text(PASSWORD + "\n", encoding="ascii")
    path.chmod(0o600)
    return path


@pytest.fixture
def encrypting(start_proxy, net, tmp_path, monkeypatch):
    """encrypting(*options) starts a proxy with the sample library and the password."""
    folders = plugin_builder.PrivateFolders(tmp_path, monkeypatch)
    folders.library(INSTALLED_NAME, sample_encryption.path())

    def start(*options, password=("-Z", PASSWORD)):
        return wait_bound(folders.start(start_proxy, *password, *options), net.destination, net.request)

    return start


@pytest.fixture
def player(closing, lease):
    return closing(Receiver(PLAYER, lease.port()))


def url(player, scheme="udp"):
    return f"{scheme}://{player.address[0]}:{player.address[1]}"


def decrypting(password_file):
    return ["--decrypt", sample_encryption.path(), "--password-file", password_file]


# How the proxy takes its input: its options, a datagram of it, and what of the payload is scrambled.
INPUTS = {
    "plain": (["-u"], lambda number, payload: payload, 0),
    "rtp": ([], rtp.packet, PACKET_BYTES),
}


@pytest.mark.parametrize("kind", INPUTS)
def test_over_a_line_that_loses_and_doubles_every_byte_comes_back(
    kind, encrypting, net, closing, sender, receive, player, reference, password_file, tmp_path
):
    options, datagram, clear_bytes = INPUTS[kind]
    proxy = encrypting(*options, "-q", RING, "-a", WIRE)
    proxy.wait_stderr("Loaded " + DESCRIPTION.format(packages.project_version(), "sending"))
    wire = receive(WIRE)
    warm_up = [NULL_PACKET * 7] * (POOL - LATE) + media(LATE)
    pump(sender, [wire], [datagram(i, data) for i, data in enumerate(warm_up[:-LATE])])
    line = closing(Link([("127.0.0.1", net.destination), ("127.0.0.1", net.request)], "--loss", "5%", "--duplicate",
                        "5%", "--delay", "5ms", "--seed", "7", "--source", FAR_END, address="127.0.0.70"))  # fmt: skip
    (host, ping_port), (_, request_port) = line.listen
    receiver = closing(Arqrx(f"{host}:{ping_port}", "--request-port", request_port, "--id", arqrx.ID, "--json",
                             "--interval", "100ms", "--latency", patient(), "--strip-rtp", "--output", url(player),
                             "--output", f"file:{tmp_path}/x.ts", *decrypting(password_file)))  # fmt: skip
    proxy.wait_stderr(started(FAR_END))
    sent = media(COUNT, first=POOL)
    after = warm_up[-LATE:] + sent + TRAILER
    send_evenly(sender, [datagram(POOL - LATE + i, data) for i, data in enumerate(after)], PER_SECOND)
    received = wire.wait_count(POOL + len(sent))
    player.wait_count(LATE + COUNT - 3)
    receiver.wait_figures(lambda figures: figures["packets_decrypted"] > COUNT, "the trailer to be decrypted")
    on_wire = [rtp.payload(data) for data in received]
    assert on_wire[:POOL] == warm_up, "until each buffer has been used once, all leave in clear"
    expected = [data[:clear_bytes] + reference.scramble_all(data[clear_bytes:]) for data in sent]
    assert on_wire[POOL : POOL + len(sent)] == expected
    everything = after[:-40]
    played = player.payloads
    first = everything.index(played[0])
    assert first < 5, "a line may lose the first packets before the receiver knows of the stream"
    count = len(everything) - first
    assert played[:count] == everything[first:]
    assert receiver.end() == arqrx.GOOD
    figures = receiver.figures()
    assert figures["packets_lost"] == 0 and figures["packets_recovered"] > 0 and figures["packets_duplicate"] > 0
    assert figures["packets_undecided"] == 0
    assert figures["packets_clear"] == LATE - first
    assert figures["packets_decrypted"] == figures["packets_played"] - figures["packets_clear"]
    assert f"arqrx: decrypting by {DESCRIPTION.format(packages.project_version(), 'receiving')}\n" in receiver.stderr.text
    assert PASSWORD not in receiver.stdout.text + receiver.stderr.text + " ".join(map(str, receiver.arguments))
    assert (tmp_path / "x.ts").read_bytes().startswith(b"".join(everything[first:]))


# The proxy's input with -u, datagrams of any size: what whoever reaches the input port may send.
SIZES = [PACKET_BYTES * n for n in range(1, 4)] + [12 + PACKET_BYTES * n for n in range(4)] + [100, 189, 576, 700]


def of_size(source, size):
    """MPEG-TS packets, behind 12 bytes or not; of other sizes something that is none."""
    count, rest = divmod(size, PACKET_BYTES)
    if rest == 0:
        return transport_packets(source, count)
    head = source.randbytes(rest).replace(bytes([SYNC_BYTE]), b"\0")
    return head + (transport_packets(source, count) if rest == 12 else bytes(size - rest))


def test_whatever_sizes_come_the_wire_is_as_the_page_says_and_nothing_is_garbled(
    encrypting, net, closing, sender, receive, player, reference, password_file
):
    proxy = encrypting("-u", "-q", 1, "-a", WIRE)
    wire = receive(WIRE)
    pool = 1 + 1024
    source = random.Random(3)
    before = [of_size(source, source.choice(SIZES)) for _ in range(pool)]
    sent = [of_size(source, source.choice(SIZES)) for _ in range(COUNT)]
    pump(sender, [wire], before)
    receiver = closing(Arqrx(*joining(net, "--bind", JOINER, "--latency", "100ms", "--strip-rtp", "--output",
                                      url(player), *decrypting(password_file))))  # fmt: skip
    proxy.wait_stderr(started(JOINER))
    pump(sender, [wire], sent)
    expected = [as_sent(data, len(previous), reference) for data, previous in zip(sent, before, strict=False)]
    assert sum(data != clear for data, clear in zip(expected, sent, strict=True)) > COUNT // 8, "not all stay in clear"
    assert [rtp.payload(data) for data in wire.payloads[pool:]] == expected
    player.wait_count(len(sent))
    assert player.payloads == sent
    assert receiver.end() == arqrx.GOOD
    figures = receiver.figures()
    assert figures["packets_undecided"] == 0
    assert figures["packets_decrypted"] == sum(data != clear for data, clear in zip(expected, sent, strict=True))
    assert figures["packets_clear"] + figures["packets_decrypted"] == figures["packets_played"]


def test_with_another_password_nothing_is_played_and_it_is_said(
    encrypting, net, closing, sender, receive, player, tmp_path
):
    proxy = encrypting("-u", "-q", 1, "-a", WIRE)
    wire = receive(WIRE)
    pump(sender, [wire], [NULL_PACKET * 7] * 1025)
    path = tmp_path / "other"
    path.write_text("Correct horse", encoding="ascii")
    receiver = closing(Arqrx(*joining(net, "--bind", JOINER, "--latency", "100ms", "--output", url(player),
                                      *decrypting(path))))  # fmt: skip
    proxy.wait_stderr(started(JOINER))
    pump(sender, [wire], media(30))
    receiver.wait_figures(lambda figures: figures["packets_undecided"] == 30, "all to be found out")
    text = "arqrx: packets that cannot be decrypted come, and are not played: is the password that of the proxy's -Z?"
    receiver.wait_stderr(text)
    assert receiver.stderr.text.count(text) == 1
    assert f"arqrx: others can read the password; chmod 600 {path}\n" in receiver.stderr.text
    assert receiver.end() == arqrx.GOOD
    assert player.count() == 0
    figures = receiver.figures()
    assert (figures["packets_clear"], figures["packets_decrypted"], figures["packets_played"]) == (0, 0, 30)
    assert figures["outputs"][0]["packets"] == 0


def test_without_a_password_the_proxy_says_why_it_stays_in_clear(encrypting, sender, receive):
    proxy = encrypting("-u", "-q", 1, "-a", WIRE, password=["-z"])
    wire = receive(WIRE)
    proxy.wait_stderr("sample encryption library: it needs a password: -Z PASSWORD of the proxy, --password-file FILE "
                      "of arqrx; no session")  # fmt: skip
    sent = [NULL_PACKET * 7] * 1025 + media(5)
    pump(sender, [wire], sent)
    assert [rtp.payload(data) for data in wire.payloads] == sent


def refusal(*options):
    status, stdout, stderr = arqrx.run("127.0.0.1", *options)
    assert (status, stdout) == (arqrx.NO_START, "")
    return stderr


def test_what_is_no_library_is_told_with_what_to_do(tmp_path, password_file):
    missing = tmp_path / "missing.so"
    assert refusal("--decrypt", missing) == (
        f"arqrx: cannot decrypt: {missing}: cannot open shared object file: No such file or directory\n"
    )
    for symbol in plugin_builder.SYMBOLS:
        library = plugin_builder.build(tmp_path / f"{symbol}.so", plugin_builder.without(symbol))
        assert refusal("--decrypt", library) == (
            f"arqrx: cannot decrypt: {library}: undefined symbol: sorvanex_{symbol}; it is no library for -z and -Z "
            "of the proxy\n"
        )
    refusing = plugin_builder.build(tmp_path / "refusing.so", plugin_builder.NO_SESSION)
    assert refusal("--decrypt", refusing) == (
        "arqrx: cannot decrypt: the library gives no session without a password; name a file that holds it with "
        "--password-file\n"
    )
    assert refusal("--decrypt", refusing, "--password-file", password_file) == (
        "arqrx: cannot decrypt: the library gives no session with this password, or none for receivers\n"
    )


def test_a_password_file_that_is_none_is_told_with_what_to_do(tmp_path):
    library = ["--decrypt", sample_encryption.path(), "--password-file", tmp_path / "file"]
    assert refusal(*library) == f"arqrx: password file {tmp_path}/file: No such file or directory\n"
    for content, why in (
        (b"", "its first line is empty; write the password of the proxy's -Z there"),
        (b"\r\nsecond", "its first line is empty; write the password of the proxy's -Z there"),
        (b"x" * 1025, "its first line is longer than 1024 bytes: is it the right file?"),
        (b"a\0b", "it has a zero byte, which no -Z can have: is it the right file?"),
    ):
        (tmp_path / "file").write_bytes(content)
        assert refusal(*library) == f"arqrx: password file {tmp_path}/file: {why}\n"


def test_the_library_is_given_what_the_header_says_and_closed_at_the_end(
    tmp_path, net, closing, monkeypatch, password_file
):
    record = tmp_path / "record"
    monkeypatch.setenv("SORVANEX_RECORD", str(record))
    library = plugin_builder.build(tmp_path / "xor.so")
    receiver = closing(Arqrx("--listen", f"{arqrx.LOCAL}:{net.destination}", "--latency", "100ms", "--json",
                             "--interval", "100ms", "--decrypt", library, "--password-file",
                             password_file))  # fmt: skip
    receiver.wait_ready()
    source = closing(Receiver(arqrx.LOCAL))
    sizes = [1316, 1328, 188, 200, 12, 0, 100, 1317]
    for number, size in enumerate(sizes):
        source.send(rtp.packet(number, bytes(size)), (arqrx.LOCAL, net.destination))
    receiver.wait_played(len(sizes))
    assert receiver.end() == arqrx.GOOD
    assert record.read_text(encoding="ascii").splitlines() == [
        f"xor open 0 {PASSWORD} {len(PASSWORD)}",
        *(f"xor data 1 {length}" for length in (1316, 1316, 188, 188)),
        "xor close 1",
        "xor unloaded",
    ]
