"""What is really wrong is found, and gone once what the finding proposes was done."""

import contextlib
import json
import os
import pathlib
import re
import subprocess
import sys
import threading
import time

import pytest

from txproxy import arqctl, control, netns, plugin_builder, rtp, sandbox
from txproxy.arqctl import ALREADY_SO, GOOD, NOT_DONE, NO_PROXY, USAGE
from txproxy.diagnosis import apply, doctor
from txproxy.page import Page, quoted
from txproxy.process import stopped
from txproxy.receiver import Sender, udp_socket
from txproxy.ssh_server import SshServer
from txproxy.traffic import Steady
from txproxy.waiting import scaled, wait_until

pytestmark = pytest.mark.release_only

GROUP = "239.1.1.1"
NOBODY = 65534
PACKETS_A_SECOND = 500
# Binds a port and keeps it until it is ended.
HOLDER = """
import socket, sys, time
sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
sock.bind(("0.0.0.0", int(sys.argv[1])))
print("bound", flush=True)
time.sleep(60)
"""


@contextlib.contextmanager
def streaming(sender):
    """A stream of PACKETS_A_SECOND that goes on meanwhile."""
    ended = threading.Event()

    def run():
        began, index = time.monotonic(), 0
        while not ended.is_set():
            for _ in range(int((time.monotonic() - began) * PACKETS_A_SECOND) - index):
                sender.send(rtp.packet(index & 0xFFFF, bytes(1316)))
                index += 1
            ended.wait(0.01)

    thread = threading.Thread(target=run)
    thread.start()
    try:
        yield
    finally:
        ended.set()
        thread.join()


def wait_received(instance, least):
    def received():
        return int(re.search(r"RECV_PACKETS=(\d+)", control.request(instance, "AllStats")).group(1))

    wait_until(lambda: received() >= least, f"{least} input packets")


def look_at_stream(instance):
    """What the doctor finds in a look to which the stream came about evenly: a busy machine may hold up who sends it."""
    seen = []

    def look():
        found = doctor("-I", instance)
        seen.append(found.text("input"))
        rate = re.match(r"\d+", seen[-1])
        return found if rate and 0.5 < int(rate.group()) / PACKETS_A_SECOND < 1.5 else None

    return wait_until(look, lambda: f"an even stream, not {seen}")


def has_lost(instance, sender):
    """Whether the proxy misses what came while it stood still; it learns of it by what comes next."""
    sender.send(rtp.packet(9999, bytes(1316)))
    return "NET_LOSS=0" not in control.request(instance, "RxStat")


@pytest.fixture
def start_options(net):
    """The options of a proxy on the ports of `net`, as --start takes them."""
    return lambda *more, group="": " ".join(map(str, (
        "-I", net.instance, "-p", net.destination, "-r", net.request, *more, net.input, group)))  # fmt: skip


def test_a_proxy_in_good_health_has_nothing_that_is_wrong(commanded_proxy, net, sender):
    proxy = commanded_proxy("-a", "127.0.0.2", argv0="media")  # what it was told its name is does not count
    with streaming(sender):
        wait_received(net.instance, 1)
        found = look_at_stream(net.instance)
        here = arqctl.run("doctor", "--json").json  # no other one has this network or this /dev
    assert found.wrong() == {}
    assert found.status == GOOD
    assert found.object["pid"] == here["pid"] == proxy.pid
    assert found.object["instance"] == here["instance"] == net.instance
    assert found.text("receive-buffer") == "the input's socket holds 1,048,576 bytes"
    assert 4 < float(re.search(r"holds ([\d.]+) s", found.text("ring-time")).group(1)) < 17


def test_every_option_that_does_not_suit_the_stream_is_found_in_one_look(commanded_proxy, net, sender):
    commanded_proxy("-a", "127.0.0.2,no.such.invalid", "-q", 32, "-G", 10737419, "-z")
    with streaming(sender):
        wait_received(net.instance, 1)
        found = look_at_stream(net.instance)
    assert found.status == NOT_DONE
    assert found.wrong() == {"ring-time": "fault", "request-budget": "fault", "encryption": "fault",
                             "destinations": "fault"}  # fmt: skip
    assert "unencrypted" in found.text("encryption")
    assert "no.such.invalid" in found.text("destinations")
    better = f"{found.advice('ring-time').split('with ')[1]} -G 10700000"
    assert better in ("-q 512 -G 10700000", "-q 1024 -G 10700000")  # 1.2 s of what the sender gets away
    checked = doctor("--start", f"-I {net.instance + 1000} {better} {net.input + 20}", "--rate", "5.3M")
    assert checked.verdict("ring-time") == checked.verdict("request-budget") == "good"


def test_a_pacer_that_is_slower_than_the_input_is_a_fault(start_options):
    for rate, verdict in ((1_000_000, "fault"), (5_100_000, "warning"), (8_000_000, "good"), (500_000_000, "good")):
        found = doctor("--start", start_options("-X", rate), "--rate", "5M")
        assert found.verdict("pacing-rate") == verdict, rate
        assert found.verdict("pacing-quota") == ("fault" if rate > 429_496_729 else "good")


def test_a_destination_that_was_deleted_is_missed_and_comes_back_with_the_command(commanded_proxy, net):
    commanded_proxy("-a", "127.0.0.2,127.0.0.3")
    control.request(net.instance, "Delete 127.0.0.3")
    found = doctor("-I", net.instance)
    assert "'127.0.0.3' of -a is not in the list" in found.text("destinations")
    assert found.verdict("input") == "fault"  # nobody has sent anything
    apply(found.command("destinations"))
    assert doctor("-I", net.instance).verdict("destinations") == "good"


def test_a_port_that_another_program_has_is_named_with_it_and_free_once_that_ends(net, start_options):
    holder = subprocess.Popen([sys.executable, "-c", HOLDER, str(net.request)], stdout=subprocess.PIPE)
    try:
        assert holder.stdout.readline() == b"bound\n"
        found = doctor("--start", start_options())
        assert found.wrong() == {"request-port": "fault"}
        assert f"(process {holder.pid})" in found.text("request-port")
        apply(found.command("request-port"))
        assert holder.wait(scaled(15)) != 0
    finally:
        holder.kill()
        holder.wait()
        holder.stdout.close()
    assert doctor("--start", start_options()).status == GOOD


def test_a_proxy_that_did_not_get_its_port_is_told_who_has_it(start_proxy, net, closing):
    thief = closing(udp_socket("0.0.0.0", net.destination, reuse=False))
    proxy = start_proxy("-a", "127.0.0.2", ready=False)
    proxy.wait_stderr(f"SocketListener: bind failed on port {net.destination}")
    assert control.request(net.instance, "List") == "127.0.0.2"
    found = doctor("-I", net.instance)
    assert f"(process {os.getpid()})" in found.text("ping-port")
    assert found.verdict("request-port") == "good"
    thief.close()
    found = doctor("-I", net.instance)
    assert "the proxy does not hold" in found.text("ping-port")


def test_one_that_runs_already_is_named_by_its_lock_and_its_socket(commanded_proxy, net, start_options):
    proxy = commanded_proxy()
    found = doctor("--start", start_options())
    assert f"tx_proxy (process {proxy.pid})" in found.text("lock-port")
    assert found.verdict("control-socket") == "fault"


def test_a_stopped_proxy_is_found_by_its_state_its_queue_and_its_drops_and_goes_on_by_the_command(commanded_proxy, net, sender):
    proxy = commanded_proxy("-a", "127.0.0.2")
    sender.send(rtp.packet(0, bytes(1316)))
    wait_received(net.instance, 1)
    with stopped(proxy):
        for index in range(1, 3000):  # more than the socket's buffer holds
            sender.send(rtp.packet(index, bytes(1316)))
        found = doctor("-I", net.instance)
        assert {name: found.verdict(name) for name in ("process", "control-socket", "receive-queue", "input-drops")} == {
            "process": "fault", "control-socket": "fault", "receive-queue": "fault", "input-drops": "warning"}  # fmt: skip
        with streaming(sender):
            assert doctor("-I", net.instance).verdict("input-drops") == "fault"
        apply(found.command("process"))
        wait_until(lambda: has_lost(net.instance, sender), "input loss")
    found = doctor("-I", net.instance)
    assert found.verdict("process") == found.verdict("receive-queue") == found.verdict("control-socket") == "good"
    assert found.verdict("input-drops") == found.verdict("input-loss") == "warning"
    apply(found.command("input-loss"))
    assert doctor("-I", net.instance).verdict("input-loss") == "good"


def test_too_few_open_files_are_raised_by_the_command(commanded_proxy, net):
    proxy = commanded_proxy()
    apply(f"prlimit --pid {proxy.pid} --nofile=60:5000")
    found = doctor("-I", net.instance)
    assert "at most 60 files" in found.text("open-files")
    apply(found.command("open-files"))
    assert doctor("-I", net.instance).verdict("open-files") == "good"


def test_a_group_without_a_route_is_joined_after_the_command_and_a_new_start(commanded_proxy, net, island, start_options):
    proxy = commanded_proxy(group=GROUP, namespace=island)
    found = doctor("-I", net.instance)  # from another network: the proxy's own is looked at
    assert found.object["pid"] == proxy.pid
    assert (found.verdict("group-route"), found.verdict("group-joined")) == ("fault", "fault")
    apply(found.command("group-route"), island)
    proxy.stop()
    assert doctor("--start", start_options(group=GROUP), namespace=island).verdict("group-route") == "good"
    commanded_proxy(group=GROUP, namespace=island)
    found = doctor("-I", net.instance)
    assert (found.verdict("group-route"), found.verdict("group-joined")) == ("good", "good")
    assert found.verdict("group-interface") == "warning"  # only this machine is heard by way of lo
    assert found.verdict("listen-port") == "good"


def test_a_strict_source_filter_is_found_and_loosened_by_the_command(commanded_proxy, net, make_lan, closing):
    lan = make_lan(2)
    lan.proxy.ip("route", "add", "default", "via", netns.peer_address(1))
    lan.peer.ip("address", "add", "10.99.0.1/32", "dev", "lo")
    apply("sysctl -w net.ipv4.conf.eth0.rp_filter=1", lan.proxy)
    commanded_proxy(group=GROUP, namespace=lan.proxy)
    stranger = closing(Sender(GROUP, net.input, namespace=lan.peer, source="10.99.0.1",
                              multicast_interface=netns.peer_address(0)))  # fmt: skip
    with streaming(stranger):
        found = doctor("-I", net.instance)
        assert (found.verdict("rp-filter"), found.verdict("input")) == ("fault", "fault")
        assert "has just refused" in found.text("rp-filter")
        told = doctor("-I", net.instance, "--source", "10.99.0.1")
        assert told.verdict("rp-filter") == "fault"
        apply(found.command("rp-filter"), lan.proxy)
        wait_received(net.instance, 1)
        found = doctor("-I", net.instance)
        assert (found.verdict("rp-filter"), found.verdict("input")) == ("good", "good")
        assert found.wrong() == {"receivers": "warning"}


def test_only_what_comes_for_the_proxys_ports_counts_as_arrived(commanded_proxy, net, lease, make_lan, closing):
    lan = make_lan()
    other = "10.77.0.9"  # a machine that is not there, but its datagrams are: the wire is shared
    lan.peer.ip("neigh", "add", other, "lladdr", "02:00:0a:4d:00:09", "dev", "eth0", "nud", "permanent")
    commanded_proxy(namespace=lan.proxy)
    places = [(netns.peer_address(0), net.input, lan.proxy), (other, net.input, lan.peer),
              (other, net.destination, lan.peer), (netns.proxy_address(0), lease.port(), lan.peer)]  # fmt: skip
    for target, port, host in places:
        closing(Steady(closing(Sender(target, port, namespace=host)), lambda index: b"", 50))
    found = doctor("-I", net.instance)
    assert (found.verdict("firewall"), found.verdict("pings")) == ("not applicable", "not applicable")
    closing(Steady(closing(Sender(netns.proxy_address(0), net.destination, namespace=lan.peer)), lambda index: b"", 50))
    wait_until(lambda: control.request(net.instance, "AllStats").endswith(netns.peer_address(0)), "a receiver")
    found = doctor("-I", net.instance)
    assert found.verdict("firewall") == "not applicable"
    assert found.text("pings") == "1 receiver has pinged between the looks"


def test_interfaces_of_n_are_missed_and_set_up_by_the_command(net, island, start_options):
    found = doctor("--start", start_options("-n", 1, "-a", "127.0.0.2"), namespace=island)
    assert "eth0, which -n 1 asks for, is missing" in found.text("output-interfaces")
    island.ip("link", "add", "eth0", "type", "veth", "peer", "name", "far")
    island.ip("link", "set", "far", "up")
    found = doctor("--start", start_options("-n", 1, "-a", "127.0.0.2"), namespace=island)
    assert "is down" in found.text("output-interfaces")
    apply(found.command("output-interfaces"), island)
    # The kernel notices that the other end is up, too, a moment later.
    start = ("--start", start_options("-n", 1, "-a", "127.0.0.2"))
    wait_until(lambda: doctor(*start, namespace=island).verdict("output-interfaces") == "good", "a good interface")


def test_a_lock_port_among_the_ephemeral_ones_is_reserved_by_the_command(island):
    options = "-I 700 -p 20000 -r 20001 20002"
    found = doctor("--start", options, namespace=island)
    assert found.status == ALREADY_SO
    assert found.wrong() == {"ephemeral-ports": "warning"}
    assert "lock port 32823" in found.text("ephemeral-ports")
    apply(found.command("ephemeral-ports"), island)
    assert doctor("--start", options, namespace=island).status == GOOD


def test_a_small_receive_buffer_limit_is_a_warning(tmp_path, start_options):
    limit = tmp_path / "rmem_max"
    limit.write_text("212992\n", encoding="ascii")
    cover = sandbox.covering(b"/proc/sys/net/core/rmem_max", bytes(limit))
    found = doctor("--start", start_options(), preexec=cover)
    assert found.wrong() == {"rmem-max": "warning"}
    assert found.command("rmem-max") == "sysctl -w net.core.rmem_max=524288"
    limit.write_text("524288\n", encoding="ascii")
    assert doctor("--start", start_options(), preexec=cover).status == GOOD


def run_as_nobody(*arguments):
    with open(arqctl.program(), "rb") as program:  # it may lie in a folder that is not nobody's
        command = ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups", "--bounding-set=-all",
                   f"/proc/self/fd/{program.fileno()}", "doctor", *map(str, arguments)]  # fmt: skip
        return subprocess.run(command, capture_output=True, text=True, timeout=scaled(30), check=False,
                              pass_fds=[program.fileno()])  # fmt: skip


def test_without_rights_it_says_what_it_could_not_see(commanded_proxy, net, start_options):
    commanded_proxy("-a", "127.0.0.2", "-z")
    done = run_as_nobody("-I", net.instance, "--json")
    found = {finding["name"]: finding for finding in json.loads(done.stdout)["findings"]}
    assert done.stderr == ""
    assert found["control-socket"]["verdict"] == "warning"
    assert found["control-socket"]["command"] == f"sudo arqctl doctor -I {net.instance}"
    for name in ("encryption", "input", "input-loss", "receive-buffer"):
        assert found[name]["verdict"] == "not applicable", name
    done = run_as_nobody("--start", start_options(), "--json")
    verdicts = {finding["name"]: finding["verdict"] for finding in json.loads(done.stdout)["findings"]}
    assert verdicts["dev-rights"] == "fault" and verdicts["run-rights"] == "warning"
    assert done.returncode == NOT_DONE


def test_a_control_socket_that_anybody_may_use_is_closed_by_the_command(commanded_proxy, net):
    commanded_proxy(preexec=lambda: os.umask(0))
    wait_until(lambda: pathlib.Path(control.path(net.instance)).exists(), "the control socket")
    found = doctor("-I", net.instance)
    assert "any user of this machine" in found.text("control-rights")
    apply(found.command("control-rights"))
    assert doctor("-I", net.instance).verdict("control-rights") == "good"


def test_a_library_under_another_name_in_folders_of_the_proxys_own_is_seen(start_proxy, net, tmp_path, monkeypatch):
    folders = plugin_builder.PrivateFolders(tmp_path, monkeypatch)
    folders.library("cipher.so", plugin_builder.build(tmp_path / "xor.so"))
    (folders.installed / plugin_builder.INSTALLED_NAME).symlink_to("cipher.so")
    proxy = folders.start(start_proxy, "-Z", "secret")
    proxy.wait_stderr(re.compile("Loaded xor cipher, .*"))
    found = doctor("-I", net.instance)
    assert found.object["pid"] == proxy.pid
    assert found.verdict("encryption") == "good"


def test_another_machine_is_looked_at_by_the_program_over_there(commanded_proxy, net, lease, closing):
    proxy = commanded_proxy()
    server = closing(SshServer(lease.port()))
    there = {**server.environment(), "ARQCTL_THERE": arqctl.program()}
    via = ("--via", f"ssh:{server.HOST}/{net.instance}")
    found = doctor(*via, env=there)
    assert (found.status, found.object["pid"]) == (NOT_DONE, proxy.pid)
    assert found.wrong() == {"input": "fault", "receivers": "warning"}
    started = doctor(*via, "--start", f"-X 1000000 {net.input + 9}", "--rate", "2M", "--payload", 188, env=there)
    assert started.object["instance"] == net.instance  # it runs already
    assert started.wrong() == {"pacing-rate": "fault", "lock-port": "fault", "control-socket": "fault"}


def test_without_a_proxy_it_says_so_and_how_to_go_on(lease):
    for arguments in (("doctor",), ("-I", lease.instance, "doctor"), ("doctor", "--socket", "/nowhere")):
        result = arqctl.run(*arguments)
        assert result.status == NO_PROXY
        assert "--start" in result.problem[1]
        assert arqctl.run(*arguments, "--json").json["status"] == NO_PROXY


@pytest.mark.parametrize("arguments", [
    ("--start", "-I x 5000"), ("--start", ""), ("--start", "'5000"), ("--start", "5000", "--rate", "fast"),
    ("--start", "5000", "--rate", "8M", "--payload", "0"), ("--start", "5000", "--socket", "/x"), ("--source", "studio")])  # fmt: skip
def test_options_that_are_wrong_end_with_a_sentence_of_advice(arguments):
    result = arqctl.run("doctor", *arguments)
    assert result.status == USAGE
    assert all(result.problem)


def test_people_get_the_same_findings_a_line_each_and_the_page_names_them_all(start_options):
    found = doctor("--start", start_options("-n", 1, "-a", "127.0.0.2"))
    result = arqctl.run("doctor", "--start", f"tx_proxy {start_options('-n', 1, '-a', '127.0.0.2')}")
    head, *lines, counts = result.stdout.splitlines()
    assert head == f"instance {found.object['instance']}, to be started"
    place = lines[0].index(found.names[0])
    assert [line[place:].split()[0] for line in lines] == found.names
    assert [line[:place].strip() for line in lines] == [found.verdict(name) for name in found.names]
    assert all(found.text(name) in line for name, line in zip(found.names, lines))
    assert re.fullmatch(r"\d+ good, 0 warnings, 1 fault, \d+ not applicable", counts)
    assert result.status == found.status == NOT_DONE
    on_page = [quoted(cells[0])[0] for cells in Page("arqctl.md").rows("Doctor")]
    assert [name for name in on_page if not name.startswith("-")] == found.names
    help_text = arqctl.run("doctor", "--help").stdout
    options = re.findall(r"^ +(--[a-z]+ [A-Z]+)", help_text, re.MULTILINE)
    assert [name for name in on_page if name.startswith("-")] == options
