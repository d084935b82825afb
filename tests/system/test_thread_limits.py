"""Threads of the replicator that the system refuses to create: each is reported, and the proxy runs on."""

import os

import pytest

from txproxy import control, programs, rtp
from txproxy.model_receiver import start_media, wait_bound
from txproxy.receiver import pump
from txproxy.waiting import wait_until

# The order in which a proxy without pacing starts its threads; the listen thread is number 1.
LOG, KEEP_ALIVE, STATUS = 0, 2, 3
REASON = "Resource temporarily unavailable"
LINE = {
    LOG: f"cannot start the log thread: {REASON}",
    KEEP_ALIVE: f"cannot start the keep-alive thread: {REASON}",
    STATUS: f"cannot start the status thread: {REASON}",
}


@pytest.fixture
def start_refused(start_proxy, tmp_path, net):
    """start_refused(*numbers) runs a proxy for which the creation of these threads fails."""

    def start(*numbers):
        library = programs.build_library(tmp_path, "refuse_threads")
        # The address sanitizer's own library does not mind that another one comes first.
        options = ":".join(filter(None, [os.environ.get("ASAN_OPTIONS"), "verify_asan_link_order=0"]))
        env = {
            "LD_PRELOAD": str(library),
            "REFUSED_THREADS": ",".join(map(str, numbers)),
            "ASAN_OPTIONS": options,
        }
        return wait_bound(start_proxy("-a", "127.0.0.2", env=env), net.destination, net.request)

    return start


def media(count):
    return [rtp.packet(100 + i, bytes(988)) for i in range(count)]


@pytest.mark.parametrize("refused", [(LOG,), (KEEP_ALIVE,), (STATUS,), (KEEP_ALIVE, STATUS)])
def test_a_thread_that_cannot_be_created_is_reported_with_the_reason_and_the_proxy_runs_on(
    start_refused, receive, learn, sender, net, refused
):
    proxy = start_refused(*refused)
    for number in refused:
        proxy.wait_stderr(LINE[number])
    receivers = [receive("127.0.0.2"), start_media(proxy, learn())]
    wait_until(lambda: control.request(net.instance, "List") == "127.0.0.2,127.0.0.5", "both receivers")
    pump(sender, receivers, media(100))
    receivers[1].ask([100])
    assert len(receivers[1].answers()) == 1
    for number, line in LINE.items():
        assert len(proxy.stderr.find(line)) == (1 if number in refused else 0)


def test_the_status_thread_works_without_the_keep_alive_thread(start_refused, receive, sender, net):
    start_refused(KEEP_ALIVE)
    pump(sender, [receive("127.0.0.2")], media(200))
    wait_until(lambda: "RECV_BITRATE=0\n" not in control.request(net.instance, "AllStats"), "a bit rate")
