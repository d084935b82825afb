"""`arqctl impair` beside real proxies: it switches only what has to be switched, and says what it cannot know."""

import contextlib
import fcntl
import os
import socket
import threading

import pytest

from txproxy import arqctl, arqrx, control, impairment, ports, reports, rtp
from txproxy.receiver import pump
from txproxy.ssh_server import SshServer
from txproxy.traffic import Steady
from txproxy.waiting import wait_until

pytestmark = pytest.mark.release_only

RECEIVER = "127.0.0.2"
PER_SECOND = 500
QUICK = ("--drop", "1", "--dist", "10")  # a burst every 22 ms


def media(number):
    return rtp.packet(number % 65536, bytes(100))


def impair(net, *words):
    return arqctl.run("-I", net.instance, "impair", *words)


def switched(proxy):
    """What the proxy has said about switching, in its order."""
    return [line.removeprefix("Impairment ") for line in proxy.stderr.lines if line.startswith("Impairment ")]


@pytest.fixture
def running(commanded_proxy, net, sender, receive, closing):
    """A proxy with a receiver that asks for nothing, and a stream."""
    impairment.write_settings(net.instance, min_dist=10)
    proxy = commanded_proxy("-a", RECEIVER)
    receive(RECEIVER)
    closing(Steady(sender, media, PER_SECOND))
    return proxy


def test_on_and_off_are_switched_once_and_confirmed(running, net):
    status, text, _ = impair(net, "on", "--drop", "2", "--dist", "20")
    assert (status, switched(running)) == (arqctl.GOOD, ["ON"])
    assert text.startswith("it is on: ")
    assert text.splitlines()[1] == "settings: 2 packets withheld, 20 pass (9.09 %)"
    assert impair(net, "on", "--drop", "2", "--dist", "20").status == arqctl.ALREADY_SO
    assert impair(net, "on").status == arqctl.ALREADY_SO
    assert switched(running) == ["ON"]
    result = impair(net, "off")
    assert (result.status, switched(running)) == (arqctl.GOOD, ["ON", "OFF"])
    assert result.stdout.startswith("it is off: none of ")
    assert impair(net, "off").status == arqctl.ALREADY_SO
    assert switched(running) == ["ON", "OFF"]
    assert not impairment.toggle_file(net.instance).exists()


def test_other_settings_are_taken_over_by_switching_off_and_on(running, net):
    assert impair(net, "on", *QUICK).status == arqctl.GOOD
    assert impair(net, "on", "--dist", "8-12").status == arqctl.GOOD
    assert switched(running) == ["ON", "OFF", "ON"]
    assert reports.debug_dump(running, net.instance)["m_impair.m_mode"] == 2


def test_what_else_the_settings_file_holds_stays(running, net):
    path = impairment.settings_file(net.instance)
    path.write_text("# of the test bed\nmode = 2\nowner = lab\nmin_drop=7\nmode=1", "ascii")
    path.chmod(0o640)
    assert impair(net, "on", *QUICK).status == arqctl.GOOD
    assert path.read_text("ascii") == (
        "# of the test bed\nowner = lab\nmode=1\nmin_drop=1\nmax_drop=1\nmin_dist=10\nmax_dist=10\n"
    )
    assert path.stat().st_mode & 0o777 == 0o640
    assert [one.name for one in path.parent.glob(f"{path.name}*")] == [path.name]


def test_status_says_what_is_so_in_both_forms(running, net):
    status, text, _ = impair(net, "status")
    assert status == arqctl.GOOD
    assert text.startswith("off: none of ")
    impairment.toggle(net.instance)
    wait_until(lambda: switched(running) == ["ON"], "the switch")
    found = arqctl.run("-I", net.instance, "--json", "impair", "status").json
    assert found["impairment"] == "on" and 0 < found["withheld"] < found["packets"]
    assert found["settings"] == {"mode": 1, "min_drop": 1, "max_drop": 10, "min_dist": 10, "max_dist": 200}


def test_it_is_seen_while_a_receiver_fetches_all_that_is_withheld(commanded_proxy, net, sender, closing):
    proxy = commanded_proxy()
    receiver = closing(arqrx.Arqrx(*arqrx.joining(net))).wait_ready()
    closing(Steady(sender, media, PER_SECOND))
    receiver.wait_played(10)
    assert impair(net, "on", *QUICK).status == arqctl.GOOD
    receiver.wait_figures(lambda figures: figures["packets_recovered"] > 20, "recovered packets")
    assert impair(net, "status").stdout.startswith("on: ")
    assert impair(net, "off").status == arqctl.GOOD
    assert switched(proxy) == ["ON", "OFF"]


def test_two_at_once_switch_once(running, net):
    results = []
    threads = [threading.Thread(target=lambda: results.append(impair(net, "on", *QUICK))) for _ in range(2)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert switched(running) == ["ON"]
    # The second waits for the first for a second at most.
    statuses = sorted(result.status for result in results)
    assert statuses in ([arqctl.GOOD, arqctl.NO_START], [arqctl.GOOD, arqctl.ALREADY_SO])


def test_a_lock_that_is_held_is_told(running, net):
    with open(f"/var/run/tx_proxy{net.instance}.imp.lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        result = impair(net, "on")
    assert result.status == arqctl.NO_START
    assert result.problem[0] == "another arqctl is switching the deliberate loss of this proxy"
    assert switched(running) == []


def test_without_a_receiver_nothing_is_switched_unless_blindly(commanded_proxy, net, sender, closing):
    proxy = commanded_proxy()
    closing(Steady(sender, media, PER_SECOND))
    result = impair(net, "on")
    assert result.status == arqctl.NOT_DONE
    assert result.problem[0] == "nothing was switched, whether it is on is not known: the proxy has no receiver"
    assert switched(proxy) == [] and not impairment.toggle_file(net.instance).exists()
    blind = arqctl.run("-I", net.instance, "--json", "impair", "on", "--blind")
    assert (blind.status, blind.json["result"], blind.json["impairment"]) == (arqctl.NOT_DONE, "unconfirmed", "unknown")
    assert switched(proxy) == ["ON"]


def test_without_input_the_state_is_not_known(commanded_proxy, net):
    commanded_proxy("-a", RECEIVER)
    result = impair(net, "status")
    assert result.status == arqctl.NOT_DONE
    assert result.problem[0] == "not known: there is no input"


def test_too_few_packets_are_told(commanded_proxy, net, sender, receive):
    commanded_proxy("-a", RECEIVER)
    pump(sender, [receive(RECEIVER)], [media(number) for number in range(20)])
    result = impair(net, "status", "--look", "300ms")
    assert result.problem[0].startswith("not known: only 0 packets came")


def test_a_proxy_that_was_on_and_withheld_nothing_is_switched_on_all_the_same(running, net):
    impairment.write_settings(net.instance, mode=3)
    impairment.toggle(net.instance)
    wait_until(lambda: switched(running) == ["ON"], "the switch")
    assert impair(net, "on", *QUICK, "--mode", "1").status == arqctl.GOOD
    assert switched(running) == ["ON", "OFF", "ON"]


def test_of_a_group_each_packet_is_due_once(commanded_proxy, net, sender, closing, lease):
    impairment.write_settings(net.instance, min_dist=10)
    proxy = commanded_proxy("-a", "239.1.2.3", "-b", lease.port())  # no way there: failed sendings count
    for receiver in (RECEIVER, "127.0.0.3"):
        control.request(net.instance, f"Add {receiver}")
    closing(Steady(sender, media, PER_SECOND))
    assert impair(net, "status").stdout.startswith("off: ")
    assert impair(net, "on", *QUICK).status == arqctl.GOOD
    assert switched(proxy) == ["ON"]


class StubbornProxy(threading.Thread):
    """Answers as a proxy with one receiver and a steady stream, and never looks at its files."""

    def __init__(self, instance):
        super().__init__(daemon=True)
        self._path = control.path(instance)
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._listener.bind(self._path)
        self._listener.listen()
        self._running = True
        self._answers = 0
        self.start()

    def run(self):
        while self._running:
            client = self._listener.accept()[0]
            with client, contextlib.suppress(OSError):  # a client may have gone
                client.recv(1024)
                self._answers += 1
                count = self._answers // 10 * 5  # at rest now and then
                client.sendall(b"RECV_PACKETS=%d\nRECV_BITRATE=0\nRECV_LOSS=0\nSEND_PACKETS=%d\nSEND_BITRATE=0\n"
                               b"CLIENTS=10.0.0.1" % (count, count))  # fmt: skip

    def close(self):
        self._running = False
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as last:
            last.connect(self._path)
        self.join()
        self._listener.close()
        os.unlink(self._path)


def test_a_toggle_that_nobody_takes_is_removed_again(net, closing):
    impairment.write_settings(net.instance, min_dist=3)
    closing(StubbornProxy(net.instance))
    result = impair(net, "on", "--timeout", "1s")
    assert result.status == arqctl.NOT_DONE
    assert result.problem[0] == f"the proxy did not take {impairment.toggle_file(net.instance)}, which is removed again"
    assert not impairment.toggle_file(net.instance).exists()


def test_a_toggle_that_is_there_already_is_waited_for(net, closing):
    closing(StubbornProxy(net.instance))
    impairment.toggle(net.instance)
    result = impair(net, "on", "--timeout", "300ms")
    assert result.problem[0] == f"{impairment.toggle_file(net.instance)} is there and no proxy removes it"
    assert impairment.toggle_file(net.instance).exists(), "somebody else's"


def test_settings_that_are_no_file_are_left_alone(running, net):
    path = impairment.settings_file(net.instance)
    path.unlink()
    path.mkdir()
    try:
        result = impair(net, "on", *QUICK)
    finally:
        path.rmdir()
    assert (result.status, result.problem[0]) == (arqctl.NO_START, f"{path} is no file")
    assert switched(running) == []


@pytest.fixture(scope="module")
def server():
    lease = ports.Lease()
    opened = SshServer(lease.port(), "SetEnv HOME=/nonexistent")  # a login there reads nobody's start files
    yield opened
    opened.close()
    lease.close()


def test_through_ssh_it_is_switched_with_the_files_over_there(commanded_proxy, net, server):
    proxy = commanded_proxy("-a", RECEIVER)  # without input it has to be told to switch blindly

    def through(*words):
        return arqctl.run("--via", f"ssh:{server.HOST}", "-I", net.instance, "impair", *words, "--look", "100ms",
                          env=server.environment())  # fmt: skip

    settings = impairment.settings_file(net.instance)
    settings.write_text("owner=lab\n", "ascii")
    assert through("on", *QUICK).problem[0].startswith("nothing was switched, whether it is on is not known: ")
    assert switched(proxy) == [] and settings.read_text("ascii") == "owner=lab\n"
    assert through("on", *QUICK, "--blind").problem[0].startswith("it was switched, whether it is on is not known: ")
    assert switched(proxy) == ["ON"]
    assert settings.read_text("ascii") == "owner=lab\nmode=1\nmin_drop=1\nmax_drop=1\nmin_dist=10\nmax_dist=10\n"
    with open(f"/var/run/tx_proxy{net.instance}.imp.lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        held = through("off", "--blind")
    assert held.status == arqctl.NO_START
    assert held.problem[0] == "another arqctl is switching the deliberate loss of this proxy"
    assert switched(proxy) == ["ON"]


@pytest.mark.parametrize(
    "words, problem",
    [
        (["on", "--mode", "3"], "mode is 1 (fixed gaps) or 2 (random gaps)"),
        (["on", "--mode", "1", "--dist", "5-9"], "--mode 1 has gaps of one length: --dist is one number there"),
        (["on", "--dist", "9-5"], "the longest gap is no shorter than the shortest, and 1000000 packets at most"),
        (["on", "--dist", "0"], "--dist '0' is neither a number of packets nor two with a dash, as 100-200"),
        (["on", "--drop", "0"], "1 to 1000000 packets are withheld in a row"),
        (["status", "--look", "long"], "--look: 'long' is not a time; write 10s or 1min"),
    ],
)
def test_settings_that_do_not_go_are_refused(words, problem):
    result = arqctl.run("impair", *words)
    assert result.status == arqctl.USAGE
    assert result.problem[0] == problem
