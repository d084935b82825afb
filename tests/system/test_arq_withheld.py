"""Packets that the impairment withholds can be asked for like lost ones."""

import pathlib

import pytest

from txproxy import rtp
from txproxy.model_receiver import RETRANSMIT_PAYLOAD_TYPE, PingingReceiver, is_retransmission, wait_bound

EVERY_OTHER = "mode=1\nmin_drop=1\nmax_drop=1\nmin_dist=1\nmax_dist=1\n"


@pytest.fixture
def start_impaired(start_proxy, closing, net):
    """start_impaired(*options) runs a proxy that withholds every other packet, and returns its receiver."""

    def run(*options):
        proxy = wait_bound(start_proxy("-a", "127.0.0.5", *options), net.destination, net.request)
        receiver = closing(PingingReceiver("127.0.0.5", net.destination, net))
        toggle = pathlib.Path(f"/var/run/tx_proxy{net.instance}.imp")
        toggle.with_suffix(".imp.conf").write_text(EVERY_OTHER, encoding="ascii")
        toggle.touch()
        proxy.wait_stderr("Impairment ON")
        return receiver

    return run


def test_withheld_packets_are_sent_on_request_with_payload_type_122(start_impaired, sender):
    receiver = start_impaired()
    # The last packet passes, so that its arrival shows that all before it are stored.
    sent = [rtp.packet(seq, b"payload %d" % seq, marker=1) for seq in range(100, 121)] + [rtp.packet(121)]
    for data in sent:
        sender.send(data)
    first = receiver.wait_count(11)
    assert [rtp.seq(data) for data in first] == list(range(101, 122, 2))
    assert not any(map(is_retransmission, first))
    receiver.ask(list(range(100, 121, 2)))
    answers = receiver.answers()
    wanted = [rtp.packet(seq, b"payload %d" % seq, marker=1, payload_type=RETRANSMIT_PAYLOAD_TYPE)
              for seq in range(100, 121, 2)]  # fmt: skip
    assert [rtp.without_timestamp(data) for data in answers] == wanted
    # They carry the time at which they would have been sent.
    ticks = [rtp.ticks_since(rtp.timestamp(after), rtp.timestamp(answer)) for answer, after in zip(answers, first)]
    assert all(0 <= late < rtp.TICKS_PER_SECOND for late in ticks)


def test_in_udp_input_mode_withheld_payloads_are_built_stored_and_sent_on_request(start_impaired, sender):
    receiver = start_impaired("-u")
    for i in range(1, 11):
        sender.send(b"payload %d" % i)
    first = receiver.wait_count(5)
    assert [rtp.seq(data) for data in first] == [2, 4, 6, 8, 10]
    receiver.ask([1, 3, 5, 7])
    answers = receiver.answers()
    assert [(rtp.seq(data), rtp.payload(data)) for data in answers] == [(i, b"payload %d" % i) for i in (1, 3, 5, 7)]
    assert {data[1] for data in answers} == {RETRANSMIT_PAYLOAD_TYPE}
    assert {rtp.ssrc_host_order(data) for data in answers} == {rtp.ssrc_host_order(first[0])}
