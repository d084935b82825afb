"""The random gaps of deliberate loss are drawn anew in each run."""

from txproxy import impairment, reports, rtp, traffic
from txproxy.receiver import Receiver
from txproxy.waiting import wait_until

COUNT = 400


def passed_numbers(start_proxy, net, sender):
    """Which of the packets 0 to COUNT - 1 pass a new proxy whose gaps are 1 to 40 packets."""
    impairment.write_settings(net.instance, mode=2, min_dist=1, max_dist=40, min_drop=1, max_drop=1)
    impairment.toggle(net.instance)
    proxy = start_proxy("-a", "127.0.0.2")
    proxy.wait_stderr("Impairment ON")
    receiver = Receiver("127.0.0.2", net.destination)
    try:
        traffic.send_all(sender, net.input, [rtp.packet(number) for number in range(COUNT)])
        wait_until(lambda: reports.rx_stat(net.instance)[0] == COUNT, "all packets to come in")
        proxy.wait_asleep()  # the last one is counted before it is sent
        got = receiver.wait_count(reports.all_stats(net.instance)["SEND_PACKETS"])
    finally:
        receiver.close()
        proxy.stop()
    assert len(got) < COUNT
    return [rtp.seq(data) for data in got]


def test_two_runs_withhold_different_packets(start_proxy, net, sender):
    first, second = (passed_numbers(start_proxy, net, sender) for _ in range(2))
    assert first != second
