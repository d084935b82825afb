"""Clients of the control socket that come in numbers, leave early, or behave badly: none may stop the stream,
the look at the impairment files, or the next client."""

import concurrent.futures
import socket

from txproxy import impairment, raw_control, reports, rtp
from txproxy.control import request
from txproxy.receiver import pump
from txproxy.waiting import scaled, wait_until

NOT_IMPLEMENTED = "command not implemented"
REQUEST_BYTES = 1024
BACKLOG = 5
QUIET_SECONDS = 0.7


def stream_runs(sender, receiver, first_seq=0):
    pump(sender, [receiver], [rtp.packet(first_seq + i, bytes(1316)) for i in range(100)])


def impairment_is_polled(proxy, net):
    """The toggle file is seen though a client is there. Mode 9 withholds nothing."""
    impairment.write_settings(net.instance, mode=9)
    seen = len(proxy.stderr.find("Impairment ON")) + len(proxy.stderr.find("Impairment OFF"))
    impairment.toggle(net.instance)
    wait_until(
        lambda: len(proxy.stderr.find("Impairment ON")) + len(proxy.stderr.find("Impairment OFF")) > seen,
        "the toggle to be seen",
    )


def test_a_hundred_clients_one_after_another_are_served(start_proxy, net):
    start_proxy("-a", "127.0.0.2")
    for _ in range(100):
        assert request(net.instance, "List") == "127.0.0.2"


def test_more_clients_than_the_backlog_holds_are_all_served(start_proxy, net):
    start_proxy("-a", "127.0.0.2")
    clients = 4 * BACKLOG
    with concurrent.futures.ThreadPoolExecutor(clients) as pool:
        # The first client keeps the proxy busy until all others stand in the queue or wait for a place there.
        with raw_control.connected(net.instance) as first:
            assert raw_control.ask(first, "List") == "127.0.0.2"
            replies = [pool.submit(raw_control.converse, net.instance, b"List") for _ in range(clients)]
            assert not any(reply.done() for reply in replies)
        assert [reply.result() for reply in replies] == ["127.0.0.2"] * clients


def test_one_client_is_served_at_a_time_and_the_next_when_it_has_left(start_proxy, net):
    start_proxy("-a", "127.0.0.2")
    with raw_control.connected(net.instance) as first, raw_control.connected(net.instance) as second:
        assert raw_control.ask(first, "List") == "127.0.0.2"
        second.sendall(b"List")
        assert raw_control.is_silent(second, QUIET_SECONDS)
        assert raw_control.ask(first, "StatClear") == "OK: Stat Reset"
        first.close()
        assert second.recv(65536) == b"127.0.0.2"


def test_one_connection_carries_many_requests(start_proxy, net):
    start_proxy("-a", "127.0.0.2")
    with raw_control.connected(net.instance) as client:
        for _ in range(200):
            assert raw_control.ask(client, "List") == "127.0.0.2"
            assert raw_control.ask(client, "nonsense") == NOT_IMPLEMENTED


def test_a_pause_of_more_than_half_a_second_repeats_no_command(start_proxy, net):
    start_proxy("-a", "127.0.0.2")
    with raw_control.connected(net.instance) as client:
        assert raw_control.ask(client, "List") == "127.0.0.2"
        assert raw_control.is_silent(client, 2 * QUIET_SECONDS)
        assert raw_control.ask(client, "TxStatClear") == "OK: Tx Stat Reset"


def test_a_half_closed_client_gets_its_reply_and_then_the_end(start_proxy, net):
    start_proxy("-a", "127.0.0.2")
    with raw_control.connected(net.instance) as client:
        client.sendall(b"List")
        client.shutdown(socket.SHUT_WR)
        assert raw_control.receive_all(client) == b"127.0.0.2"


def test_a_client_that_no_longer_reads_does_not_end_the_proxy(start_proxy, net):
    start_proxy("-a", "127.0.0.2")
    for _ in range(20):
        with raw_control.connected(net.instance) as client:
            client.shutdown(socket.SHUT_RD)
            client.sendall(b"List")
    assert request(net.instance, "List") == "127.0.0.2"


def test_clients_that_leave_before_their_reply_do_not_end_the_proxy(start_proxy, net, sender, receive):
    start_proxy("-a", "127.0.0.2")
    receiver = receive("127.0.0.2")
    for _ in range(100):
        with raw_control.connected(net.instance) as client:
            client.sendall(b"AllStats")
    stream_runs(sender, receiver)
    assert request(net.instance, "List") == "127.0.0.2"


def test_clients_that_leave_without_a_word_are_passed_over(start_proxy, net):
    start_proxy("-a", "127.0.0.2")
    for _ in range(100):
        with raw_control.connected(net.instance):
            pass
    assert request(net.instance, "List") == "127.0.0.2"


def test_clients_that_leave_while_they_wait_are_passed_over(start_proxy, net):
    start_proxy("-a", "127.0.0.2")
    with raw_control.connected(net.instance) as first:
        assert raw_control.ask(first, "List") == "127.0.0.2"
        for _ in range(BACKLOG - 1):
            with raw_control.connected(net.instance) as impatient:
                impatient.sendall(b"List")
    assert request(net.instance, "List") == "127.0.0.2"


def test_a_failed_read_carries_out_the_old_request_once_more_and_ends_the_connection(start_proxy, net):
    proxy = start_proxy()
    with raw_control.connected(net.instance) as client:
        client.sendall(b"RxStat")
        assert not raw_control.is_silent(client, scaled(5)), "a reply is there, and stays unread"
        client.sendall(b"Debug")
        wait_until(lambda: len(reports.dumps(proxy)) == 1, "the dump that was asked for")
        # Closing with the unread reply resets the connection: the proxy's next read fails.
    wait_until(lambda: len(reports.dumps(proxy)) == 2, "the repeated dump")
    assert request(net.instance, "StatClear") == "OK: Stat Reset"
    assert len(reports.dumps(proxy)) == 2


def test_a_client_that_never_reads_stops_neither_stream_nor_poll_nor_the_next_client(
    start_proxy, net, sender, receive
):
    proxy = start_proxy("-a", "127.0.0.2")
    receiver = receive("127.0.0.2")
    with raw_control.connected(net.instance) as client:
        assert raw_control.flood(client, b"AllStats" * 128) > 100 * REQUEST_BYTES, "the replies have piled up"
        stream_runs(sender, receiver)
        impairment_is_polled(proxy, net)
    assert request(net.instance, "List") == "127.0.0.2"


def test_a_silent_client_stops_neither_stream_nor_poll(start_proxy, net, sender, receive):
    proxy = start_proxy("-a", "127.0.0.2")
    receiver = receive("127.0.0.2")
    with raw_control.connected(net.instance):
        stream_runs(sender, receiver)
        impairment_is_polled(proxy, net)
        impairment_is_polled(proxy, net)
    assert request(net.instance, "List") == "127.0.0.2"


def test_a_request_sent_byte_by_byte_is_a_request_for_every_byte(start_proxy, net):
    start_proxy("-a", "127.0.0.2")
    with raw_control.connected(net.instance) as client:
        for byte in "List":
            assert raw_control.ask(client, byte) == NOT_IMPLEMENTED
        assert raw_control.ask(client, "List") == "127.0.0.2"


def test_bytes_that_arrive_one_by_one_without_a_pause_do_no_harm(start_proxy, net, sender, receive):
    start_proxy("-a", "127.0.0.2")
    receiver = receive("127.0.0.2")
    receive("127.0.0.3")
    with raw_control.connected(net.instance) as client:
        for byte in b"Add 127.0.0.3 " * 20:
            client.send(bytes([byte]))
        client.shutdown(socket.SHUT_WR)
        assert raw_control.receive_all(client)
    stream_runs(sender, receiver)
    assert "127.0.0.2" in request(net.instance, "List")


def test_a_request_of_1024_bytes_is_one_request_and_the_byte_behind_it_the_next(start_proxy, net):
    start_proxy("-a", "127.0.0.2")
    padded = b"List".ljust(REQUEST_BYTES)
    assert raw_control.converse(net.instance, padded + b"List") == "127.0.0.2" * 2
    assert raw_control.converse(net.instance, padded + b" List") == "127.0.0.2" * 2
    assert raw_control.converse(net.instance, b"x" + padded) == NOT_IMPLEMENTED * 2
    assert raw_control.converse(net.instance, b" " + padded) == "127.0.0.2" + NOT_IMPLEMENTED


def test_a_request_of_many_thousand_bytes_is_cut_into_requests_of_1024(start_proxy, net, sender, receive):
    start_proxy("-a", "127.0.0.2")
    receiver = receive("127.0.0.2")
    with raw_control.connected(net.instance) as client:
        client.sendall(b"y" * (20 * REQUEST_BYTES))
        assert raw_control.receive_bytes(client, 20 * len(NOT_IMPLEMENTED)).decode() == NOT_IMPLEMENTED * 20
        assert raw_control.ask(client, "List") == "127.0.0.2"
    stream_runs(sender, receiver)


def test_two_commands_sent_at_once_are_the_words_of_one_request(start_proxy, net):
    start_proxy("-a", "127.0.0.2")
    assert raw_control.converse(net.instance, b"RxStat List") == "NET_TOTAL_PACKETS=0\nNET_LOSS=0\n"
    assert raw_control.converse(net.instance, b"RxStat\nList") == NOT_IMPLEMENTED


def test_requests_while_the_stream_runs_lose_no_packet(start_proxy, net, sender, receive):
    start_proxy("-a", "127.0.0.2")
    receiver = receive("127.0.0.2")
    receive("127.0.0.4")
    with concurrent.futures.ThreadPoolExecutor(1) as pool:
        asking = pool.submit(
            lambda: [request(net.instance, text) for text in ("AllStats", "Add 127.0.0.4", "Delete 127.0.0.4") * 10]
        )
        rounds = 0
        while not asking.done() or rounds == 0:
            stream_runs(sender, receiver, first_seq=100 * rounds)
            rounds += 1
        asking.result()
    assert [rtp.seq(data) for data in receiver.payloads] == [i & 0xFFFF for i in range(100 * rounds)]
    assert reports.rx_stat(net.instance) == (100 * rounds, 0)
