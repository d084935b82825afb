"""The loadable encryption library: where it is looked for, how it is opened, and which bytes it is given."""

import re

import pytest

from txproxy import plugin_builder, rtp
from txproxy.plugin_builder import BARE_NAME, DISK_NAME, INSTALLED_NAME, SYMBOLS, transformed
from txproxy.receiver import pump
from txproxy.waiting import wait_until

RECEIVER = "127.0.0.2"
# With the smallest ring a buffer comes back after ring size + 1024 datagrams.
SMALLEST_RING = ("-q", 1)
POOL = 1 + 1024
TS_BYTES = 7 * 188
RTP_BYTES = rtp.HEADER_BYTES + TS_BYTES
LISTENER = re.compile(r"SocketListener: sock bound to port \d+")


@pytest.fixture
def folders(tmp_path, monkeypatch):
    return plugin_builder.PrivateFolders(tmp_path, monkeypatch)


@pytest.fixture(scope="module")
def cipher(tmp_path_factory):
    """cipher(*switches, name=...) builds a variant of the library and returns its path."""
    directory = tmp_path_factory.mktemp("ciphers")

    def make(*switches, name="xor"):
        path = directory / f"{'_'.join((name, *switches))}.so"
        return path if path.exists() else plugin_builder.build(path, *switches, name=name)

    return make


def datagram(number, size):
    """A datagram of `size` bytes that begins like RTP and holds its number in every place."""
    payload = bytes((number + i) & 0xFF for i in range(max(0, size - rtp.HEADER_BYTES)))
    return rtp.packet(number, payload)[:size]


def visible(data):
    return rtp.without_timestamp(data)


def wait_loaded(proxy, description):
    """Waits for the line of a loaded library. It is written in pieces, between which listeners may report."""
    wait_until(
        lambda: f"Loaded {description}\n" in re.sub(LISTENER.pattern + "\n", "", proxy.stderr.text),
        lambda: f"{description} to be loaded; got:\n{proxy.stderr.text}",
    )


def settled_lines(proxy):
    """What a started proxy has written to standard error, in any order of its threads and at any time of day."""
    proxy.wait_stderr(LISTENER, count=2)
    time = re.compile(r"^\w{3} [ \d]\d \d\d:\d\d:\d\d: ")
    return sorted(time.sub("", line) for line in proxy.stderr.lines)


def test_a_library_that_is_missing_is_passed_over_in_silence(folders, start_proxy, sender, receive):
    proxy = folders.start(start_proxy, "-z", "-Z", "secret", "-a", RECEIVER)
    receiver = receive(RECEIVER)
    sent = [datagram(i, RTP_BYTES) for i in range(8)]
    pump(sender, [receiver], sent)
    assert [visible(data) for data in receiver.payloads] == [visible(data) for data in sent]
    lines = settled_lines(proxy)
    proxy.stop()
    assert lines == settled_lines(folders.start(start_proxy, "-a", RECEIVER))


def test_without_password_the_session_is_opened_with_null_and_0(folders, start_proxy, cipher):
    folders.library(INSTALLED_NAME, cipher())
    proxy = folders.start(start_proxy, "-z")
    wait_loaded(proxy, "xor cipher, session 1, 0")
    assert folders.calls() == ["xor open 1 (null) 0"]


def test_the_password_is_handed_over_with_its_length(folders, start_proxy, cipher):
    folders.library(INSTALLED_NAME, cipher())
    proxy = folders.start(start_proxy, "-Z", "a long secret")
    wait_loaded(proxy, "xor cipher, session 1, 0")
    assert folders.calls() == ["xor open 1 a long secret 13"]


def test_an_empty_password_loads_nothing(folders, start_proxy, cipher):
    folders.library(INSTALLED_NAME, cipher())
    proxy = folders.start(start_proxy, "-Z", "")
    assert folders.calls() == []
    assert "Loaded" not in proxy.stderr.text


def test_the_library_is_not_touched_without_the_options(folders, start_proxy, cipher):
    folders.library(INSTALLED_NAME, cipher())
    proxy = folders.start(start_proxy)
    assert folders.calls() == []
    assert "Loaded" not in proxy.stderr.text


def test_with_both_options_the_session_with_the_password_replaces_the_first_which_is_not_closed(
    folders, start_proxy, sender, receive, cipher
):
    folders.library(INSTALLED_NAME, cipher())
    proxy = folders.start(start_proxy, "-Z", "secret", "-z", "-u", *SMALLEST_RING, "-a", RECEIVER)
    receiver = receive(RECEIVER)
    wait_loaded(proxy, "xor cipher, session 1, 0")
    wait_loaded(proxy, "xor cipher, session 2, 0")
    pump(sender, [receiver], [datagram(i, 188) for i in range(POOL + 1)])
    assert folders.calls() == ["xor open 1 (null) 0", "xor open 1 secret 6", "xor data 2 188"]


def test_a_null_session_is_reported_by_nothing_and_leaves_the_data_alone(
    folders, start_proxy, sender, receive, cipher
):
    folders.library(INSTALLED_NAME, cipher(plugin_builder.NO_SESSION))
    proxy = folders.start(start_proxy, "-z", *SMALLEST_RING, "-a", RECEIVER)
    receiver = receive(RECEIVER)
    sent = [datagram(i, RTP_BYTES) for i in range(POOL + 8)]
    pump(sender, [receiver], sent)
    assert [visible(data) for data in receiver.payloads] == [visible(data) for data in sent]
    assert folders.calls() == ["xor open 1 (null) 0"]
    assert "Loaded" not in proxy.stderr.text


@pytest.mark.parametrize("symbol", SYMBOLS)
def test_a_library_without_one_of_the_symbols_is_refused_by_name_and_unloaded(
    folders, start_proxy, sender, receive, cipher, symbol
):
    folders.library(INSTALLED_NAME, cipher(plugin_builder.without(symbol)))
    proxy = folders.start(start_proxy, "-z", *SMALLEST_RING, "-a", RECEIVER)
    receiver = receive(RECEIVER)
    proxy.wait_stderr(f"/usr/local/bin/{INSTALLED_NAME}: undefined symbol: sorvanex_{symbol}")
    assert folders.calls() == ["xor unloaded"]
    assert "Loaded" not in proxy.stderr.text
    sent = [datagram(i, RTP_BYTES) for i in range(POOL + 2)]
    pump(sender, [receiver], sent)
    assert [visible(data) for data in receiver.payloads] == [visible(data) for data in sent]


def test_a_file_that_is_no_library_is_reported_and_the_stream_runs(folders, start_proxy, sender, receive):
    (folders.installed / INSTALLED_NAME).write_bytes(b"no library" * 1000)
    proxy = folders.start(start_proxy, "-z", "-a", RECEIVER)
    receiver = receive(RECEIVER)
    proxy.wait_stderr(re.compile(rf"/usr/local/bin/{re.escape(INSTALLED_NAME)}: .+"))
    assert "Loaded" not in proxy.stderr.text
    pump(sender, [receiver], [datagram(0, RTP_BYTES)])


def test_with_the_second_path_only_the_bare_name_is_loaded_not_the_file_looked_at(
    folders, start_proxy, cipher, tmp_path
):
    folders.library(folders.disk / DISK_NAME, cipher(name="looked-at"))
    folders.library(tmp_path / "searched" / BARE_NAME, cipher(name="searched"))
    proxy = folders.start(
        start_proxy, "-z", environment=plugin_builder.search_path(tmp_path / "searched")
    )
    wait_loaded(proxy, "searched cipher, session 1, 0")
    assert folders.calls() == ["searched open 1 (null) 0"]


def test_with_the_second_path_only_an_unreachable_bare_name_is_reported(folders, start_proxy, cipher):
    folders.library(folders.disk / DISK_NAME, cipher())
    proxy = folders.start(start_proxy, "-z")
    proxy.wait_stderr(f"{BARE_NAME}: cannot open shared object file: No such file or directory")
    assert folders.calls() == []


def test_a_reachable_bare_name_without_either_path_loads_nothing(folders, start_proxy, cipher, tmp_path):
    folders.library(tmp_path / "searched" / BARE_NAME, cipher())
    proxy = folders.start(
        start_proxy, "-z", environment=plugin_builder.search_path(tmp_path / "searched")
    )
    assert folders.calls() == []
    assert "Loaded" not in proxy.stderr.text


def test_the_first_path_wins_over_the_second(folders, start_proxy, cipher, tmp_path):
    folders.library(INSTALLED_NAME, cipher(name="installed"))
    folders.library(folders.disk / DISK_NAME, cipher(name="looked-at"))
    folders.library(tmp_path / "searched" / BARE_NAME, cipher(name="searched"))
    proxy = folders.start(
        start_proxy, "-z", environment=plugin_builder.search_path(tmp_path / "searched")
    )
    wait_loaded(proxy, "installed cipher, session 1, 0")


def test_datagrams_of_1316_bytes_are_passed_whole_once_their_buffers_have_been_used_for_1316(
    folders, start_proxy, sender, receive, cipher
):
    folders.library(INSTALLED_NAME, cipher())
    folders.start(start_proxy, "-z", "-u", *SMALLEST_RING, "-a", RECEIVER)
    receiver = receive(RECEIVER)
    sent = [datagram(i, TS_BYTES) for i in range(POOL + 20)]
    pump(sender, [receiver], sent)
    received = [rtp.payload(data) for data in receiver.payloads]
    assert received[:POOL] == sent[:POOL], "nothing is passed while the buffers are fresh"
    assert received[POOL:] == [transformed(data, 0, TS_BYTES) for data in sent[POOL:]]
    assert folders.calls()[1:] == ["xor data 1 1316"] * 20


def test_datagrams_of_1328_bytes_are_passed_from_byte_188_with_the_previous_length_less_188(
    folders, start_proxy, sender, receive, cipher
):
    folders.library(INSTALLED_NAME, cipher())
    folders.start(start_proxy, "-Z", "secret", *SMALLEST_RING, "-a", RECEIVER)
    receiver = receive(RECEIVER)
    sent = [datagram(i, RTP_BYTES) for i in range(POOL + 20)]
    pump(sender, [receiver], sent)
    received = [visible(data) for data in receiver.payloads]
    assert received[:POOL] == [visible(data) for data in sent[:POOL]]
    assert received[POOL:] == [visible(transformed(data, 188, 1328 - 188)) for data in sent[POOL:]]
    assert folders.calls()[1:] == ["xor data 1 1140"] * 20


# Length of the buffer's previous datagram, length of this one, and the region that is passed (None: no call).
REGIONS = (
    (376, 1316, (0, 376)),
    (1316, 376, (0, 1316)),
    (1328, 1316, (0, 1328)),
    (1316, 1328, (188, 1128)),
    (1328, 200, (188, 1140)),
    (200, 1328, (188, 12)),
    (189, 1328, (188, 1)),
    (188, 1328, None),
    (20, 1328, None),
    (20, 1316, (0, 20)),
    (1316, 1315, None),
    (1316, 1317, None),
    (1316, 1327, None),
    (1316, 1329, None),
    (1500, 188, (0, 1500)),
    (1316, 13, None),
    (1316, 12, (188, 1128)),
)


def test_the_region_follows_the_size_of_the_datagram_and_the_previous_length_of_its_buffer(
    folders, start_proxy, sender, receive, cipher
):
    folders.library(INSTALLED_NAME, cipher())
    folders.start(start_proxy, "-z", "-u", *SMALLEST_RING, "-a", RECEIVER)
    receiver = receive(RECEIVER)
    previous = [datagram(i, size) for i, (size, _, _) in enumerate(REGIONS)]
    filling = [datagram(i, 100) for i in range(POOL - len(REGIONS))]
    sent = [datagram(i + 50, size) for i, (_, size, _) in enumerate(REGIONS)]
    pump(sender, [receiver], previous + filling + sent)
    received = [rtp.payload(data) for data in receiver.payloads]
    assert received[:POOL] == previous + filling
    regions = [region for _, _, region in REGIONS]
    expected = [transformed(data, *region) if region else data for data, region in zip(sent, regions)]
    assert received[POOL:] == expected
    assert folders.calls()[1:] == [f"xor data 1 {region[1]}" for region in regions if region]
