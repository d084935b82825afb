"""The reader of the proxy's output goes away; the stream does not."""

from txproxy import reports, rtp
from txproxy.log_pipe import STDERR, STDOUT, LogPipe
from txproxy.model_receiver import PingingReceiver
from txproxy.proxy import LISTENING, RECEIVE_BUFFER_SET
from txproxy.receiver import pump
from txproxy.waiting import wait_until


def media(count, first=100):
    return [rtp.packet(first + i, b"payload %d" % i) for i in range(count)]


def test_the_proxy_survives_the_reader_of_its_standard_error(start_proxy, receive, closing, lease, sender, net):
    pipe = closing(LogPipe(STDERR))
    proxy = start_proxy("-a", "127.0.0.2", ready=False, preexec=pipe.preexec)
    proxy.wait_stdout(LISTENING)
    receivers = [receive("127.0.0.2")]
    pump(sender, receivers, media(20))
    pipe.close_read_end()
    for stream_id in (1, 2, 3):
        # Each new stream is logged before it is in the table.
        learnt = closing(PingingReceiver("127.0.0.5", lease.port(), net, stream_id=stream_id))
        receivers.append(learnt)

        def is_learnt(ping=learnt.ping, count=len(receivers)):
            ping()
            return len(reports.all_stats(net.instance)["CLIENTS"].split(",")) == count

        wait_until(is_learnt, f"stream {stream_id}")
        pump(sender, receivers, media(20, first=200 * stream_id))
    assert proxy.is_alive()


def test_the_proxy_survives_without_a_reader_of_its_standard_output(start_proxy, closing, receive, sender, net):
    pipe = closing(LogPipe(STDOUT))
    pipe.close_read_end()
    proxy = start_proxy("-a", "127.0.0.2", "-X", "10000000", ready=False, preexec=pipe.preexec)
    proxy.wait_stderr(RECEIVE_BUFFER_SET)
    pump(sender, [receive("127.0.0.2")], media(20))
    assert proxy.is_alive()
