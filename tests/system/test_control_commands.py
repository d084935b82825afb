"""The commands of the control socket and their exact replies."""

import re

import pytest

from txproxy import raw_control, reports, rtp
from txproxy.control import ControlClient, request
from txproxy.receiver import Sender, pump
from txproxy.waiting import wait_until

NOT_IMPLEMENTED = "command not implemented"
STAMP = r"\w{3} [ \d]\d \d\d:\d\d:\d\d: "
STOP_MESSAGE = bytes.fromhex("DEADBEEFBABEFACE")
MAX_STREAMS = 50
REQUEST_BYTES = 1024


def test_add_names_the_destination_in_its_reply_and_the_stream_gets_the_media(start_proxy, net, sender, receive):
    proxy = start_proxy()
    assert request(net.instance, "Add 127.0.0.2") == "OK: Adding: 127.0.0.2"
    proxy.wait_stderr(re.compile(STAMP + r"AddStream: Added 127\.0\.0\.2 stream ID:0x00000000"))
    receiver = receive("127.0.0.2")
    sent = [rtp.packet(i, bytes(100)) for i in range(10)]
    pump(sender, [receiver], sent)
    assert [rtp.without_timestamp(data) for data in receiver.payloads] == [
        rtp.without_timestamp(data) for data in sent
    ]


def test_adding_a_stream_again_answers_ok_and_adds_nothing(start_proxy, net):
    start_proxy("-a", "127.0.0.2")
    assert request(net.instance, "Add 127.0.0.2") == "OK: Adding: 127.0.0.2"
    assert request(net.instance, "List") == "127.0.0.2"


def test_delete_names_the_destination_says_stop_five_times_and_ends_the_media(start_proxy, net, sender, receive):
    proxy = start_proxy("-a", "127.0.0.2,127.0.0.3")
    leaving, staying = receive("127.0.0.2"), receive("127.0.0.3")
    assert request(net.instance, "Delete 127.0.0.2") == "OK: Deleting: 127.0.0.2"
    assert leaving.wait_count(5) == [STOP_MESSAGE] * 5
    proxy.wait_stderr(re.compile(STAMP + r"Stream stopped for 127\.0\.0\.2 ID:0x00000000"))
    assert request(net.instance, "List") == "127.0.0.3"
    sent = [rtp.packet(i, bytes(100)) for i in range(10)]
    pump(sender, [staying], sent)
    assert leaving.count() == 5
    assert staying.count() == len(sent), "nobody else is told to stop"


def test_deleting_an_unknown_stream_answers_ok_all_the_same(start_proxy, net):
    start_proxy("-a", "127.0.0.2")
    assert request(net.instance, "Delete 127.0.0.9") == "OK: Deleting: 127.0.0.9"
    assert request(net.instance, "List") == "127.0.0.2"


def test_list_gives_the_destinations_in_order_with_commas_and_no_line_end(start_proxy, net):
    start_proxy("-a", "127.0.0.4,127.0.0.2,127.0.0.3")
    assert request(net.instance, "List") == "127.0.0.4,127.0.0.2,127.0.0.3"


def test_the_last_stream_takes_the_place_of_a_deleted_one(start_proxy, net):
    start_proxy("-a", "127.0.0.2,127.0.0.3,127.0.0.4")
    request(net.instance, "Delete 127.0.0.2")
    assert request(net.instance, "List") == "127.0.0.4,127.0.0.3"


def test_list_without_streams_answers_nothing_and_leaves_no_stale_text(start_proxy, net):
    start_proxy()
    with ControlClient(net.instance) as client:
        assert client.request("StatClear") == "OK: Stat Reset"
        client.send("List")
    assert raw_control.converse(net.instance, b"List") == ""


@pytest.mark.parametrize(
    "command, reply",
    [("StatClear", "OK: Stat Reset"), ("RxStatClear", "OK: Rx Stat Reset"), ("TxStatClear", "OK: Tx Stat Reset")],
)
def test_each_reset_has_its_own_reply(start_proxy, net, command, reply):
    start_proxy()
    assert request(net.instance, command) == reply


def test_all_stats_of_a_fresh_proxy_is_all_zeros_and_ends_with_an_empty_list(start_proxy, net):
    start_proxy()
    assert request(net.instance, "AllStats") == (
        "RECV_PACKETS=0\nRECV_BITRATE=0\nRECV_LOSS=0\nSEND_PACKETS=0\nSEND_BITRATE=0\nCLIENTS="
    )


def test_all_stats_ends_with_the_stream_list(start_proxy, net):
    start_proxy("-a", "127.0.0.2,127.0.0.3")
    assert request(net.instance, "AllStats") == (
        "RECV_PACKETS=0\nRECV_BITRATE=0\nRECV_LOSS=0\nSEND_PACKETS=0\nSEND_BITRATE=0\nCLIENTS=127.0.0.2,127.0.0.3"
    )


def test_rx_stat_of_a_fresh_proxy_is_two_lines_of_zero(start_proxy, net):
    start_proxy()
    assert request(net.instance, "RxStat") == "NET_TOTAL_PACKETS=0\nNET_LOSS=0\n"


def test_debug_answers_nothing_and_writes_its_dump_to_standard_error(start_proxy, net):
    proxy = start_proxy("-a", "127.0.0.2")
    proxy.wait_stderr(re.compile(r"SocketListener: sock bound to port \d+"), count=2)
    with ControlClient(net.instance) as client:
        client.send("Debug")
        wait_until(lambda: reports.dumps(proxy), "the dump")
        # Had there been a reply to the dump, it would come first.
        assert client.request("StatClear") == "OK: Stat Reset"
    dump = (
        "\nm_bRunning 1\nm_usSeqNum 0\nm_nNumStreams 1\nm_impair.m_mode 0\nm_impair.m_dist.m_value 99\n"
        "m_impair.m_burst.m_value 1\nm_nDropPacket 0\n"
    )
    assert dump in proxy.stderr.text


def test_the_dump_follows_the_output_sequence_number_and_the_streams(start_proxy, net, sender, receive):
    proxy = start_proxy("-u", "-a", "127.0.0.2,127.0.0.3")
    receivers = [receive("127.0.0.2"), receive("127.0.0.3")]
    pump(sender, receivers, [bytes(100)] * 25)
    dump = reports.debug_dump(proxy, net.instance)
    assert (dump["m_usSeqNum"], dump["m_nNumStreams"]) == (25, 2)


@pytest.mark.parametrize(
    "text",
    [
        b"list",
        b"LIST",
        b"Lis",
        b"Lists",
        b"List\n",
        b"List\r\n",
        b"List\t",
        b"Add\n127.0.0.2",
        b"OK:",
        b" ",
        b"          ",
        b"\n",
        b"\0",
        b"\0List",
        b"%s%s%s%n%n",
        b"\xff\xfe\x80",
        b"x" * REQUEST_BYTES,
        b" " * REQUEST_BYTES,
    ],
    ids=lambda text: repr(text[:12]),
)
def test_anything_but_a_whole_command_is_not_implemented(start_proxy, net, text):
    start_proxy("-a", "127.0.0.2")
    assert raw_control.converse(net.instance, text) == NOT_IMPLEMENTED


@pytest.mark.parametrize(
    "text, reply",
    [
        (b"List extra", "127.0.0.2"),
        (b"   List", "127.0.0.2"),
        (b"List   ", "127.0.0.2"),
        (b"List\0behind a zero", "127.0.0.2"),
        (b"Add   127.0.0.2", "OK: Adding: 127.0.0.2"),
        (b"Add 127.0.0.2 127.0.0.3", "OK: Adding: 127.0.0.2"),
        (b"Add 127.0.0.2" + b" a" * 300, "OK: Adding: 127.0.0.2"),
        (b"  Delete    127.0.0.8  ", "OK: Deleting: 127.0.0.8"),
        (b"List" + b" " * (REQUEST_BYTES - 4), "127.0.0.2"),
    ],
    ids=lambda text: repr(text[:24]),
)
def test_words_are_split_at_blanks_of_any_number(start_proxy, net, text, reply):
    start_proxy("-a", "127.0.0.2")
    assert raw_control.converse(net.instance, text) == reply
    assert request(net.instance, "List") == "127.0.0.2"


@pytest.mark.parametrize("name", ["10.0.0.1:5000", "a", "%s%n%d%x", "0.0.0.0", "256.1.1.1", "192.168.100.1001"])
def test_an_unknown_host_gets_the_same_reply_and_a_message(start_proxy, net, island, name):
    proxy = start_proxy(namespace=island)
    assert request(net.instance, f"Add {name}") == f"OK: Adding: {name}"
    assert request(net.instance, f"Delete   {name}") == f"OK: Deleting: {name}"
    wait_until(lambda: proxy.stderr.text.count(f"unknown host '{name}'\n") == 2, "both messages")
    assert request(net.instance, "AllStats").endswith("CLIENTS=")


@pytest.mark.parametrize("text", ["Add", "Add    ", "Delete", " Delete "])
def test_a_missing_argument_is_an_empty_name(start_proxy, net, island, text):
    proxy = start_proxy(namespace=island)
    reply = "OK: Adding: " if "Add" in text else "OK: Deleting: "
    assert request(net.instance, text) == reply
    proxy.wait_stderr("unknown host ''")
    assert request(net.instance, "AllStats").endswith("CLIENTS=")


def test_the_longest_argument_comes_back_whole(start_proxy, net, island):
    proxy = start_proxy(namespace=island)
    name = "n" * (REQUEST_BYTES - len("Delete "))
    assert request(net.instance, f"Delete {name}") == f"OK: Deleting: {name}"
    proxy.wait_stderr(f"unknown host '{name}'")


@pytest.mark.parametrize(
    "text, address",
    [
        ("127.0.0.010", "127.0.0.10"),  # decimal, whatever the zero in front
        ("127.0.0.2\n", "127.0.0.2"),
        ("127.0.0.0000012", "127.0.0.12"),
        ("127.0.0.00000012", "127.0.0.10"),  # 16 characters are a name; the look-up takes the zeros for octal
        ("127.3", "127.0.0.3"),  # a short form is a name too
    ],
)
def test_a_dotted_text_is_an_address_up_to_15_characters_and_with_four_fields(
    start_proxy, net, island, text, address
):
    start_proxy(namespace=island)
    assert request(net.instance, f"Add {text}") == f"OK: Adding: {text}"
    assert request(net.instance, "List") == address


def test_unknown_names_do_not_hold_up_the_stream(start_proxy, net, island, closing, receive):
    start_proxy("-a", "127.0.0.2", namespace=island)
    receiver = receive("127.0.0.2", namespace=island)
    sender = closing(Sender("127.0.0.1", net.input, namespace=island))
    for i in range(20):
        request(net.instance, f"Add no-such-host-{i}.invalid")
        pump(sender, [receiver], [rtp.packet(i, bytes(100))])


def test_fifty_addresses_of_the_longest_form_fit_into_both_reports(start_proxy, net):
    start_proxy()
    names = [f"127.100.200.{100 + i}" for i in range(MAX_STREAMS)]
    for name in names:
        assert request(net.instance, f"Add {name}") == f"OK: Adding: {name}"
    assert request(net.instance, "List") == ",".join(names)
    assert reports.all_stats(net.instance)["CLIENTS"] == ",".join(names)
