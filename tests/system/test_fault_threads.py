"""Threads that the system refuses to create, each in turn: what is refused is reported, and the rest runs on."""

import pathlib
import resource
import time

import pytest

from txproxy import control, preload, rtp
from txproxy.model_receiver import start_media, wait_bound
from txproxy.process import cpu_seconds
from txproxy.receiver import pump
from txproxy.traffic import send_all, wait_until_read
from txproxy.waiting import wait_until

CONFIGURED = "127.0.0.2"
# The threads of a start, in their order; a paced one adds its timer.
LOG, LISTEN, KEEP_ALIVE, STATUS = "log", "listen", "keep-alive", "status"
INPUT, CONTROL, TIMER = "input", "control", "timer"
ORDER = (LOG, LISTEN, KEEP_ALIVE, STATUS, INPUT, CONTROL)
PACER_QUEUE = 1024  # packets
PACED = ("-X", 8_000_000)
REASON = "Resource temporarily unavailable"
LINE = {name: f"cannot start the {name} thread: {REASON}" for name in (LOG, KEEP_ALIVE, STATUS, INPUT, CONTROL)}
NOT_LISTENING = "ArqSendReplicator::Start: SocketGroup::Start() failed"
OBSERVED_SECONDS = 1.0
IDLE_SHARE = 0.1  # of one processor
LARGEST_STACK_BYTES = 64 << 30
ADDRESS_SPACE_BYTES = 4 << 30


@pytest.fixture
def start_refused(start_proxy, launch, tmp_path, net):
    """start_refused(*names, options=()) runs a proxy for which the creation of these threads fails."""
    counted = tmp_path / "threads"

    def environment(numbers=()):
        return preload.environment(
            tmp_path, "refuse_threads", REFUSED_THREADS=",".join(map(str, numbers)), COUNTED_THREADS=str(counted)
        )

    def count_all(options):
        """How many threads a start makes with which nothing goes wrong."""
        counted.touch()
        proxy = start_proxy(*options, env=environment())
        wait_bound(proxy, net.destination, net.request)
        wait_until(pathlib.Path(control.path(net.instance)).exists, "the control socket")
        if options:
            proxy.wait_stdout("PeriodicTimer::Start 10")
        number = wait_until(lambda: counted.stat().st_size, "the threads")
        proxy.stop()
        pathlib.Path(control.path(net.instance)).unlink()
        return number

    def start(*names, options=()):
        total = count_all(options)
        order = [*ORDER, TIMER] if options else list(ORDER)
        assert total >= len(order)
        numbers = [total - len(order) + 1 + order.index(name) for name in names]
        arguments = ["-I", net.instance, "-p", net.destination, "-r", net.request, "-a", CONFIGURED, *options]
        return launch(*arguments, net.input, env=environment(numbers))

    return start


def media(count, first=100):
    return [rtp.packet(first + i, bytes(988)) for i in range(count)]


def assert_reported(proxy, *names):
    for name in names:
        proxy.wait_stderr(LINE[name])
    assert [name for name, line in LINE.items() if proxy.stderr.find(line)] == list(names)


def assert_idle(proxy):
    used = cpu_seconds(proxy.pid)
    time.sleep(OBSERVED_SECONDS)  # a span to look at, not a wait
    assert cpu_seconds(proxy.pid) - used < OBSERVED_SECONDS * IDLE_SHARE


@pytest.mark.parametrize("refused", [(LOG,), (KEEP_ALIVE,), (STATUS,), (KEEP_ALIVE, STATUS)], ids="+".join)
def test_thread_that_is_no_part_of_the_packet_path_refused_is_reported_with_the_reason_and_the_proxy_runs_on(
    start_refused, receive, learn, sender, net, refused
):
    proxy = wait_bound(start_refused(*refused).wait_ready(), net.destination, net.request)
    assert_reported(proxy, *refused)
    receivers = [receive(CONFIGURED), start_media(proxy, learn())]
    wait_until(lambda: control.request(net.instance, "List") == f"{CONFIGURED},127.0.0.5", "both receivers")
    pump(sender, receivers, media(100))
    receivers[1].ask([100])
    assert len(receivers[1].answers()) == 1


def test_thread_for_keep_alive_refused_leaves_the_status_thread_at_work(start_refused, receive, sender, net):
    assert_reported(start_refused(KEEP_ALIVE).wait_ready(), KEEP_ALIVE)
    pump(sender, [receive(CONFIGURED)], media(200))
    wait_until(lambda: "RECV_BITRATE=0\n" not in control.request(net.instance, "AllStats"), "a bit rate")


def test_thread_that_listens_refused_leaves_a_proxy_that_says_so_answers_commands_and_sends_nothing(
    start_refused, receive, sender, net
):
    proxy = start_refused(LISTEN)
    proxy.wait_stdout(f"Listening on port {net.input} for incoming stream")
    wait_until(lambda: NOT_LISTENING in proxy.stderr.text, "the report")
    receiver = receive(CONFIGURED)
    send_all(sender, net.input, media(50))
    assert control.request(net.instance, "List") == CONFIGURED
    assert control.request(net.instance, "RxStat") == "NET_TOTAL_PACKETS=0\nNET_LOSS=0\n"
    assert receiver.count() == 0
    assert_idle(proxy)


def test_thread_for_the_input_refused_leaves_receivers_and_commands_served(start_refused, learn, net):
    proxy = wait_bound(start_refused(INPUT), net.destination, net.request)
    assert_reported(proxy, INPUT)
    start_media(proxy, learn())
    assert control.request(net.instance, "List") == f"{CONFIGURED},127.0.0.5"
    assert_idle(proxy)


def test_thread_for_control_refused_leaves_media_and_requests_served(start_refused, receive, learn, sender, net):
    proxy = wait_bound(start_refused(CONTROL).wait_ready(), net.destination, net.request)
    assert_reported(proxy, CONTROL)
    receivers = [receive(CONFIGURED), start_media(proxy, learn())]
    pump(sender, receivers, media(100))
    receivers[1].ask([100])
    assert len(receivers[1].answers()) == 1
    assert not pathlib.Path(control.path(net.instance)).exists()


def test_thread_for_the_timer_refused_lets_media_leave_late_and_unpaced_through_the_full_queue(
    start_refused, receive, sender, net
):
    proxy = start_refused(TIMER, options=PACED).wait_ready()
    proxy.wait_stdout("PeriodicTimer::Start 10")
    assert_reported(proxy)
    receiver = receive(CONFIGURED)
    passed = 60
    send_all(sender, net.input, media(PACER_QUEUE + passed))
    receiver.wait_count(passed)
    wait_until_read(net.input)
    assert control.request(net.instance, "RxStat") == f"NET_TOTAL_PACKETS={passed}\nNET_LOSS=0\n"
    assert [rtp.seq(data) for data in receiver.payloads] == list(range(100, 100 + passed))
    assert_idle(proxy)


def refuse_all_threads():
    """Stacks of threads are as large as this limit; one is larger than all that the process may have."""
    resource.setrlimit(resource.RLIMIT_STACK, (LARGEST_STACK_BYTES, resource.RLIM_INFINITY))
    resource.setrlimit(resource.RLIMIT_AS, (ADDRESS_SPACE_BYTES, ADDRESS_SPACE_BYTES))


@pytest.mark.release_only
def test_threads_all_refused_by_a_limit_of_the_system_leave_a_process_that_says_so_and_waits(launch, net):
    proxy = launch("-I", net.instance, "-a", CONFIGURED, *PACED, net.input, preexec=refuse_all_threads)
    proxy.wait_stdout("PeriodicTimer::Start 10")
    for name in (INPUT, CONTROL):
        wait_until(lambda line=LINE[name]: line in proxy.stderr.text, LINE[name])
    assert NOT_LISTENING in proxy.stderr.text
    assert_idle(proxy)
