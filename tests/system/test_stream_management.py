"""The table of streams: adding, deleting, listing, its limit, and the threads that watch it."""

import re
import threading

import pytest

from txproxy import control, rtp
from txproxy.model_receiver import (
    STOP_MESSAGE,
    PingingReceiver,
    retransmission_of,
    stamped,
    start_media,
    wait_bound,
)
from txproxy.receiver import pump
from txproxy.waiting import wait_until

STREAM_LIMIT = 50
CHURN_PACKETS = 3000


@pytest.fixture
def start(start_proxy, net):
    return lambda *options: wait_bound(start_proxy(*options), net.destination, net.request)


def media(count, first=100):
    return [rtp.packet(first + i, b"payload %d" % i) for i in range(count)]


def clients(net):
    return control.request(net.instance, "AllStats").partition("CLIENTS=")[2]


def test_add_of_an_address_that_is_a_stream_already_adds_nothing(start, net):
    proxy = start("-a", "127.0.0.2")
    assert control.request(net.instance, "Add 127.0.0.2") == "OK: Adding: 127.0.0.2"
    assert control.request(net.instance, "Add 127.0.0.3") == "OK: Adding: 127.0.0.3"
    assert control.request(net.instance, "Add 127.0.0.3") == "OK: Adding: 127.0.0.3"
    assert clients(net) == "127.0.0.2,127.0.0.3"
    control.request(net.instance, "Add 127.0.0.4")
    proxy.wait_stderr(stamped("AddStream: Added 127.0.0.4 stream ID:0x00000000"))
    assert len(proxy.stderr.find(stamped("AddStream: Added 127.0.0.3 stream ID:0x00000000"))) == 1


def test_add_of_an_address_that_has_pinged_without_id_adds_nothing(start, learn, net):
    start_media(start(), learn("127.0.0.5"))
    control.request(net.instance, "Add 127.0.0.5")
    assert clients(net) == "127.0.0.5"


def test_add_of_an_address_that_has_pinged_with_an_id_adds_a_second_stream(start, learn, receive, sender, net):
    learnt = start_media(start(), learn("127.0.0.5", stream_id=1))
    control.request(net.instance, "Add 127.0.0.5")
    assert clients(net) == "127.0.0.5,127.0.0.5"
    pump(sender, [learnt, receive("127.0.0.5")], media(3))


def test_an_added_stream_sends_at_once_and_answers_requests(start, closing, sender, net):
    start()
    receiver = closing(PingingReceiver("127.0.0.5", net.destination, net))
    control.request(net.instance, "Add 127.0.0.5")
    pump(sender, [receiver], media(3))
    receiver.ask([101])
    assert receiver.answers() == [retransmission_of(receiver.payloads[1])]


def test_a_learnt_receiver_without_id_is_deleted_by_address_and_told_on_its_media_port(start, learn, net):
    proxy = start()
    receiver = start_media(proxy, learn("127.0.0.5"))
    control.request(net.instance, "Delete 127.0.0.5")
    assert receiver.wait_count(5) == [STOP_MESSAGE] * 5
    assert {datagram.source[1] for datagram in receiver.datagrams} == {net.destination}
    proxy.wait_stderr(stamped("Stream stopped for 127.0.0.5 ID:0x00000000"))
    wait_until(lambda: clients(net) == "", "the end of the stream")


def test_delete_does_not_find_a_receiver_with_an_id(start, learn, sender, net):
    receiver = start_media(start(), learn("127.0.0.5", stream_id=1))
    assert control.request(net.instance, "Delete 127.0.0.5") == "OK: Deleting: 127.0.0.5"
    assert clients(net) == "127.0.0.5"
    pump(sender, [receiver], media(3))
    assert STOP_MESSAGE not in receiver.payloads


def test_removing_entry_0_of_three_streams_moves_entry_2_into_entry_0(start, receive, sender, net):
    start("-a", "127.0.0.5,127.0.0.6,127.0.0.7")
    assert control.request(net.instance, "List") == "127.0.0.5,127.0.0.6,127.0.0.7"
    control.request(net.instance, "Delete 127.0.0.5")
    assert control.request(net.instance, "List") == "127.0.0.7,127.0.0.6"
    pump(sender, [receive("127.0.0.6"), receive("127.0.0.7")], media(3))


def test_removing_the_last_entry_moves_nothing(start, net):
    start("-a", "127.0.0.5,127.0.0.6,127.0.0.7")
    control.request(net.instance, "Delete 127.0.0.7")
    assert control.request(net.instance, "List") == "127.0.0.5,127.0.0.6"


def test_the_51st_stream_is_refused_and_a_place_that_becomes_free_is_given_away_again(start, learn, sender, net):
    proxy = start()
    crowd = learn("127.0.0.5")

    def ping(stream_id):
        crowd.stream_id = stream_id
        crowd.ping()

    def refused(stream_id):
        return stamped(f"Stream not added, no more available streams, ID:0x{stream_id:08x}")

    assert proxy.stderr.find("Maximum output streams = 50")
    for stream_id in range(1, STREAM_LIMIT + 2):
        ping(stream_id)
    proxy.wait_stderr(refused(STREAM_LIMIT + 1))
    assert len(re.findall("Process Ping: Added 127.0.0.5", proxy.stderr.text)) == STREAM_LIMIT
    control.request(net.instance, "Add 127.0.0.6")
    proxy.wait_stderr(refused(0))
    assert clients(net) == ",".join(["127.0.0.5"] * STREAM_LIMIT)

    sender.send(rtp.packet(1, b"to all"))
    assert len(crowd.wait_count(STREAM_LIMIT)) == STREAM_LIMIT

    crowd.stream_id = 7
    crowd.stop()
    proxy.wait_stderr(stamped("Stream stopped for 127.0.0.5 ID:0x00000007"))
    ping(STREAM_LIMIT + 1)
    proxy.wait_stderr(stamped(f"Process Ping: Added 127.0.0.5 stream ID:0x{STREAM_LIMIT + 1:08x}"))
    crowd.settle()
    crowd.clear()
    sender.send(rtp.packet(2, b"to all"))
    sender.send(rtp.packet(3, b"when this is here, 2 is stored"))
    crowd.wait_count(2 * STREAM_LIMIT)
    # The number 51 is answered like the first.
    crowd.ask([2])
    assert len(crowd.answers()) == 1


def test_streams_come_go_and_move_while_media_flows_and_none_that_stays_misses_a_packet(
    start, learn, closing, sender, net
):
    proxy = start("-a", "127.0.0.2")
    staying = [start_media(proxy, learn(f"127.0.0.{i}", stream_id=i)) for i in (5, 6, 7)]
    guest, other_port = learn("127.0.0.8", stream_id=8), learn("127.0.0.8", stream_id=8)
    sent = media(CHURN_PACKETS, first=65000)
    flow = threading.Thread(target=pump, args=(sender, staying, sent), kwargs={"window": 16})
    flow.start()
    rounds = 0
    with control.ControlClient(net.instance) as client:
        while flow.is_alive():
            rounds += 1
            for receiver in staying:
                receiver.ping()  # without pings a slow run would lose them after 5 s
            # A stop in each round moves the last entry of the table into another place.
            guest.ping()
            other_port.ping()
            guest.ask([65000 + rounds % CHURN_PACKETS])
            client.request("Add 127.0.0.9")
            guest.ping()
            client.request("List")
            guest.stop()
            if rounds % 4 == 0:
                client.request("Delete 127.0.0.9")
    flow.join()
    assert rounds > 4
    for receiver in staying:
        assert [rtp.seq(data) for data in receiver.payloads] == [rtp.seq(data) for data in sent]
        assert {datagram.source[1] for datagram in receiver.datagrams} == {net.destination}
    assert "SendData failed" not in proxy.stderr.text


def test_the_threads_are_announced_in_the_order_in_which_they_start(start):
    proxy = start()
    proxy.wait_stderr("ArqSendReplicator::Start: started listener thread")
    wanted = [
        "ArqSendReplicator::Start: Create KeepAlive Thread",
        "ArqSendReplicator::Start: Create Status Thread",
        "ArqSendReplicator::Start: started listener thread",
    ]
    assert proxy.stderr.find(re.compile(r"ArqSendReplicator::Start: .*")) == wanted


def test_the_stop_message_of_the_proxy_stops_the_stream_of_a_receiver_that_sends_it_back(start, learn, net):
    proxy = start()
    receiver = start_media(proxy, learn("127.0.0.5"))
    # Bytes 4 to 7 are an unknown ID here, so the stream without ID of this address is meant.
    receiver.send(STOP_MESSAGE, receiver.ping_address)
    proxy.wait_stderr(stamped("Stream stopped for 127.0.0.5 ID:0x00000000"))
    wait_until(lambda: clients(net) == "", "the end of the stream")
