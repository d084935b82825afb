"""What arqrx plays out behind a lossy line, decoded by ffmpeg: every frame is the one that the source sent.

ffmpeg and GStreamer send a known clip in real time. A tap in front of the proxy notes what they send, and puts null
packets before and behind it: what is lost at the very beginning or end of a stream nobody can miss.
"""

import subprocess
import time

import pytest

from txproxy import arqrx, impairment, link, mpegts, plugin_builder, receiver, rtp
from txproxy.plugin_builder import INSTALLED_NAME
from txproxy.waiting import scaled, wait_until

# What counts is the picture, and encoders and decoders take most of the time: once is enough.
pytestmark = pytest.mark.release_only

LOSS = ("--loss", "5%", "--seed", "11")
SSRC = 0x51C0DE
FIRST_SEQ = 65500  # the numbers come round while the clip is sent
NULL_PACKETS = (b"\x47\x1f\xff\x10".ljust(mpegts.PACKET_BYTES, b"\xff")) * mpegts.PACKETS_PER_DATAGRAM
# Both programs keep back what does not fill the last datagram, and GStreamer the first frame of the sound.
KEPT_BACK_FRAMES = 5


class Tap:
    """Takes what a source sends, notes it and hands it on to the proxy; sends null packets under the next number."""

    def __init__(self, closing, lease, sender):
        self._sender = sender
        self._seq = FIRST_SEQ
        self.port = lease.port()
        self._receiver = closing(
            receiver.Receiver("127.0.0.1", self.port, on_datagram=lambda datagram: sender.send(datagram.data))
        )

    @property
    def next_seq(self):
        return self._seq & 0xFFFF

    @property
    def stream(self):
        """The payloads that the source has sent so far."""
        return b"".join(map(rtp.payload, self._receiver.payloads))

    def send_nulls_until(self, condition, what):
        def sent():
            self._sender.send(rtp.packet(self._seq, NULL_PACKETS, ssrc=SSRC))
            self._seq += 1
            time.sleep(0.01)
            return condition()

        wait_until(sent, what)

    def finish(self):
        """The source has ended: everything on its way has come, in the order of its numbers."""
        self._receiver.send(b"end", ("127.0.0.1", self.port))
        self._receiver.wait_for(lambda datagram: datagram.data == b"end")
        self._receiver.forget(b"end")
        numbers = [rtp.seq(data) for data in self._receiver.payloads]
        assert numbers == [(self._seq + i) & 0xFFFF for i in range(len(numbers))]
        self._seq += len(numbers)


def from_ffmpeg(clip, tap):
    return mpegts.ffmpeg(
        "-re", "-i", clip, "-map", "0", "-c", "copy", "-f", "rtp_mpegts",
        "-rtp_muxer_options", f"seq={tap.next_seq}:ssrc={SSRC}", f"rtp://127.0.0.1:{tap.port}?pkt_size=1328",
    )  # fmt: skip


def from_gstreamer(clip, tap):
    pipeline = (
        f"filesrc location={clip} ! tsdemux name=parts mpegtsmux name=whole alignment=7 "
        f"! rtpmp2tpay seqnum-offset={tap.next_seq} ssrc={SSRC} ! udpsink host=127.0.0.1 port={tap.port} "
        "parts. ! queue ! mpegvideoparse ! whole. parts. ! queue ! mpegaudioparse ! whole."
    )
    return ["gst-launch-1.0", "-q", *pipeline.split()]


def checksums(path, kind, *options):
    """(size, checksum) of each frame of the video ("v") or the sound ("a")."""
    command = mpegts.ffmpeg("-i", path, "-map", f"0:{kind}", *options, "-f", "framemd5", "-")
    listing = subprocess.run(command, capture_output=True, text=True, check=True, timeout=scaled(30)).stdout
    lines = [line.split(",") for line in listing.splitlines() if not line.startswith("#")]
    return [(int(line[4]), line[5].strip()) for line in lines]


def assert_same_frames(played, sent):
    for kind in "va":
        assert checksums(played, kind) == checksums(sent, kind)


def assert_part_of_the_clip(sent, clip):
    """A decoder of sound remembers what was before, so that of a part the encoded frames are compared."""
    for kind, options in (("v", ()), ("a", ("-c", "copy"))):
        wanted, got = checksums(clip, kind, *options), checksums(sent, kind, *options)
        whole = len(wanted) - KEPT_BACK_FRAMES
        first = wanted.index(got[0])
        assert first < KEPT_BACK_FRAMES and got[: whole - first] == wanted[first:whole]


@pytest.fixture
def clip(tmp_path, transport_stream):
    path = tmp_path / "clip.ts"
    path.write_bytes(transport_stream)
    return path


@pytest.fixture
def folders(tmp_path, monkeypatch):
    return plugin_builder.PrivateFolders(tmp_path, monkeypatch)


@pytest.fixture
def check_frames(closing, lease, net, sender, clip, tmp_path):
    """check_frames(source) sends the clip through the running proxy; returns arqrx's last figures."""

    def check(source):
        line = closing(
            link.Link([("127.0.0.1", net.destination), ("127.0.0.1", net.request)], "--source", "127.0.0.2", *LOSS)
        )
        (_, ping), (_, request) = line.listen
        output = tmp_path / "out.ts"
        player = closing(
            arqrx.Arqrx(f"127.0.0.1:{ping}", "--request-port", request, "--latency", arqrx.seconds(1.5), "--json",
                        "--interval", "100ms", "--fail-on-loss", "--output", f"file:{output}")  # fmt: skip
        )
        tap = Tap(closing, lease, sender)
        tap.send_nulls_until(lambda: player.figures().get("packets_received"), "the first packet to arrive")
        subprocess.run(source(clip, tap), check=True, stdin=subprocess.DEVNULL, timeout=scaled(30))
        tap.finish()
        sent = tmp_path / "sent.ts"
        sent.write_bytes(tap.stream)
        tap.send_nulls_until(lambda: tap.stream in output.read_bytes(), "all of the clip to be played out")
        assert_same_frames(output, sent)
        assert_part_of_the_clip(sent, clip)
        assert player.end() == arqrx.GOOD
        return player.figures()

    return check


def assert_repaired(figures):
    assert figures["packets_recovered"] > 0 and figures["packets_lost"] == 0, figures
    assert figures["continuity_errors"] == 0, figures


@pytest.mark.parametrize("source", [from_ffmpeg, from_gstreamer])
def test_every_frame_is_decoded_as_it_was_sent(start_proxy, check_frames, source):
    start_proxy()
    assert_repaired(check_frames(source))


@pytest.mark.parametrize("source", [from_ffmpeg, from_gstreamer])
def test_every_frame_comes_through_the_impairment_of_the_proxy(start_proxy, net, check_frames, source):
    impairment.write_settings(net.instance, min_dist=12, min_drop=3)
    impairment.toggle(net.instance)
    start_proxy().wait_stderr("Impairment ON")
    figures = check_frames(source)
    assert_repaired(figures)
    # Three of fifteen are never sent first, for all receivers; the line takes five of a hundred.
    assert figures["packets_recovered"] > 0.15 * figures["packets_played"]


def test_every_frame_is_the_same_when_the_encryption_library_is_absent(folders, start_proxy, check_frames):
    folders.start(start_proxy, "-z")
    assert_repaired(check_frames(from_gstreamer))


def test_every_frame_is_the_same_when_the_encryption_library_is_loaded_and_off(
    folders, start_proxy, check_frames, tmp_path
):
    library = plugin_builder.build(tmp_path / "off.so", plugin_builder.NO_SESSION)
    folders.library(INSTALLED_NAME, library)
    folders.start(start_proxy, "-z")
    assert_repaired(check_frames(from_ffmpeg))
    assert folders.calls() == ["xor open 1 (null) 0"]


def test_a_single_wrong_byte_is_seen(clip, tmp_path):
    damaged = bytearray(clip.read_bytes())
    damaged[len(damaged) // 2] ^= 0x10
    other = tmp_path / "other.ts"
    other.write_bytes(damaged)
    for compare in (assert_same_frames, assert_part_of_the_clip):
        with pytest.raises(AssertionError):
            compare(other, clip)
