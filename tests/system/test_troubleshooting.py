"""docs/troubleshooting.md: each symptom is made, found by the doctor, looked at and mended by the page's commands."""

import os
import re
import shlex
import subprocess
import threading
import time

import pytest

from txproxy import arqctl, arqrx, control, plugin_builder, rtp, sandbox
from txproxy.diagnosis import apply, doctor
from txproxy.link import Link
from txproxy.operator_site import (GROUP, INPUT, PAYLOAD, PINGS, PROXY, RECEIVER, Site, counted, judged, mended,
                                   received_count, receives, recovers, said, wait_input, wait_receivers)  # fmt: skip
from txproxy.page import Page, quoted
from txproxy.process import stopped
from txproxy.receiver import Sender, udp_socket
from txproxy.stepped_clock import SteppedClock
from txproxy.symptom import PAGE, Symptom, titles
from txproxy.waiting import scaled, wait_until

pytestmark = [pytest.mark.release_only, pytest.mark.large]

STRANGER = "172.16.0.5"  # a sender of another network
NOBODY = 65534
TESTED = set()


def symptom(title):
    """Marks the test of a section, which gets it as its argument `page`."""
    TESTED.add(title)
    return pytest.mark.parametrize("page", [Symptom(title)], ids=[re.sub(r"\W+", "-", title)])


@pytest.fixture
def site(launch, closing):
    return Site(launch, closing)


def test_every_symptom_of_the_page_has_its_test_and_no_other():
    assert TESTED == set(titles())


def test_the_list_of_symptoms_leads_to_every_section():
    table = PAGE.text.split("\n## ")[0]
    links = dict(re.findall(r"\[([^\]]+)\]\(#([^)]+)\)", table))
    assert set(links) == set(titles())
    for title, anchor in links.items():
        assert anchor == re.sub(r"[^a-z0-9 -]", "", title.lower()).replace(" ", "-")
    names = [quoted(cells[0])[0] for cells in pages_checks()]
    for name in re.findall(r"^\| the doctor[^|]*\| `([a-z-]+)`", PAGE.text, re.MULTILINE):
        assert name in names, f"there is no check {name}"


def pages_checks():
    return [cells for cells in Page("arqctl.md").rows("Doctor") if not quoted(cells[0])[0].startswith("-")]


def test_every_voice_of_the_page_is_listened_to():
    known = {"the proxy says", "arqrx says", "arqrx counts", "arqctl says", "the control socket answers",
             "the doctor finds", "the doctor of the start finds"}  # fmt: skip
    assert set().union(*(Symptom(title).voices() for title in titles())) == known


@symptom("No input comes")
def test_no_input(page, site):
    proxy = site.proxy(INPUT)
    receiver = site.arqrx(PROXY)
    wait_receivers(1)
    said(page, "the proxy says", lambda: proxy.stdout.text)
    judged(page, site.doctor())
    assert re.search(r"input packets +0$", site.look(page), re.MULTILINE)
    said(page, "arqrx says", lambda: spoken(site))
    site.stream()
    receives(receiver)
    mended(page, site.doctor())


def spoken(site, *words):
    """What arqrx says to people while nothing comes."""
    done = site.run("receiver", f"arqrx {' '.join(words) or PROXY} --duration 1.2s")
    return done.stdout + done.stderr


@symptom("The input comes to another port")
def test_another_input_port(page, site):
    proxy = site.proxy(INPUT)
    site.stream(port=5006)
    said(page, "the proxy says", lambda: proxy.stdout.text)
    judged(page, site.doctor())
    assert int(re.search(r"UdpNoPorts +(\d+)", site.look(page)).group(1)) > 0
    receiver = site.arqrx("--listen", PINGS)
    site.mend(page)
    receives(receiver)
    mended(page, site.doctor())


def group_input(site):
    site.stream(host=GROUP)
    return site.arqrx("--listen", PINGS)


@symptom("No route leads to the group")
def test_no_route_to_the_group(page, site):
    receiver = group_input(site)
    proxy = site.proxy(INPUT, GROUP)
    said(page, "the proxy says", lambda: proxy.stderr.text)
    judged(page, site.doctor())
    assert GROUP not in site.look(page)
    site.mend(page)
    receives(receiver)
    mended(page, site.doctor())
    assert GROUP in site.look(page)


@symptom("The proxy was started before the network")
def test_started_before_the_network(page, site):
    receiver = group_input(site)
    proxy = site.proxy(INPUT, GROUP)
    said(page, "the proxy says", lambda: proxy.stderr.text)
    site.hosts["proxy"].ip("route", "add", "224.0.0.0/4", "dev", "eth0")
    found = site.doctor()
    judged(page, found)
    assert found.verdict("group-route") == "good"
    assert GROUP not in site.look(page)
    site.mend(page)
    receives(receiver)
    mended(page, site.doctor())


@symptom("The sender of the group is refused")
def test_refused_sender(page, site):
    proxy, receiver = site.hosts.values()
    proxy.ip("link", "add", "far", "type", "veth", "peer", "name", "farther")
    proxy.ip("addr", "add", "10.9.9.1/24", "dev", "far")
    for end in ("far", "farther"):
        proxy.ip("link", "set", end, "up")
    for route in ("default", "224.0.0.0/4"):
        proxy.ip("route", "add", route, *(("via", "10.9.9.2") if route == "default" else ("dev", "eth0")))
    receiver.ip("addr", "add", f"{STRANGER}/32", "dev", "lo")
    apply("sysctl -w net.ipv4.conf.eth0.rp_filter=1", proxy)
    site.proxy(INPUT, GROUP)
    site.stream(host=GROUP, source=STRANGER)
    judged(page, site.doctor())
    assert int(re.search(r"IPReversePathFilter +(\d+)", site.look(page)).group(1)) > 0
    site.mend(page)
    wait_input()
    mended(page, site.doctor())


@symptom("A firewall drops the input")
def test_a_firewall_before_the_input(page, site):
    site.firewall(INPUT)
    site.proxy(INPUT)
    site.stream()
    judged(page, site.doctor())
    assert f"udp dport {INPUT} drop" in site.look(page)
    site.mend(page)
    wait_input()
    mended(page, site.doctor())


@symptom("A firewall drops the pings")
def test_a_firewall_before_the_pings(page, site):
    site.firewall(PINGS)
    site.proxy(INPUT)
    site.stream()
    receiver = site.arqrx(PROXY, "--ping-interval", "200ms")
    receiver.wait_ready()
    judged(page, site.doctor())
    said(page, "arqrx says", lambda: spoken(site))
    assert f"udp dport {PINGS} drop" in site.look(page)
    site.mend(page)
    receives(receiver)
    mended(page, site.doctor())


@symptom("Nobody is in the list")
def test_nobody_in_the_list(page, site):
    site.proxy(INPUT)
    site.stream()
    receiver = site.arqrx("--listen", PINGS)
    judged(page, site.doctor())
    assert site.look(page) == ""
    site.mend(page)
    receives(receiver)
    mended(page, site.doctor())


@symptom("The receiver pings another port")
def test_pings_to_another_port(page, site):
    site.proxy(INPUT)
    site.stream()
    site.arqrx(f"{PROXY}:10002", "--ping-interval", "200ms").wait_ready()
    judged(page, site.doctor())
    said(page, "arqrx says", lambda: spoken(site, f"{PROXY}:10002"))
    assert str(PINGS) in site.look(page)
    receives(*site.mend(page))
    mended(page, site.doctor())


@symptom("The destination is wrong")
def test_a_destination_where_nobody_listens(page, site):
    apply("sysctl -w net.ipv4.icmp_ratelimit=0", site.hosts["receiver"])  # else one a second comes back
    site.proxy("-a", RECEIVER, INPUT)
    site.stream()
    wait_input()
    judged(page, site.doctor())
    assert RECEIVER in site.look(page)
    receives(*site.mend(page))
    mended(page, site.doctor())


@symptom("The proxy stands still")
def test_a_stopped_proxy(page, site):
    proxy = site.proxy("-a", RECEIVER, INPUT)
    with stopped(proxy):
        found = site.doctor()
        judged(page, found)
        said(page, "arqctl says", lambda: site.arqctl("list", "--timeout", "300ms").stderr)
        assert re.search(rf"^ *{proxy.pid} T", site.look(page), re.MULTILINE)
        assert found.command("process") == f"kill -CONT {proxy.pid}" and "kill -CONT" in PAGE.text
        apply(found.command("process"))
        site.answers(proxy)
        mended(page, site.doctor())


@symptom("The input has holes")
def test_holes_in_the_input(page, site):
    holes = threading.Event()
    holes.set()
    jumps = []

    def number(index):
        if holes.is_set() and index % 50 == 0:
            jumps.append(index)
        return index + len(jumps)

    site.proxy("-a", RECEIVER, INPUT)
    site.stream(number=number)
    wait_input(100)
    judged(page, site.doctor())
    assert re.search(r"^time .*\blost\b", site.look(page), re.MULTILINE)
    holes.clear()
    before = len(jumps)
    wait_input(received_count() + 20)
    site.mend(page)
    mended(page, site.doctor())
    assert len(jumps) == before


@symptom("The receive buffer is too small")
def test_a_small_limit_of_receive_buffers(page, site, tmp_path):
    limit = tmp_path / "rmem_max"
    limit.write_text("212992\n", encoding="ascii")
    cover = sandbox.covering(b"/proc/sys/net/core/rmem_max", bytes(limit))
    found = doctor("--start", f"-a {RECEIVER} {INPUT}", preexec=cover)
    judged(page, found)
    assert site.look(page).strip().isdigit()
    ((_, command),) = page.mend
    assert command == found.command("rmem-max")
    limit.write_text(command.rpartition("=")[2] + "\n", encoding="ascii")  # the real one is the machine's
    mended(page, doctor("--start", f"-a {RECEIVER} {INPUT}", preexec=cover))


@symptom("Nobody asks for what is missing")
def test_nobody_asks(page, site):
    site.bad_line("--down-loss", "10%")
    site.proxy(INPUT)
    site.stream()
    counted(page, site.arqrx(PROXY, "--no-ask"))
    judged(page, site.doctor())
    assert re.search(r"^time .*\bbeyond\b", site.look(page), re.MULTILINE)
    recovers(*site.mend(page))


@symptom("Requests go to another port")
def test_requests_to_another_port(page, site):
    site.bad_line("--down-loss", "10%")
    wrong = Link([(PROXY, PINGS), (PROXY, 7021)], "--down-loss", "10%", namespace=site.hosts["receiver"])
    right, site.line = site.line, wrong
    try:
        site.proxy(INPUT)
        site.stream()
        counted(page, site.arqrx(PROXY, "--ping-interval", "200ms"))
        judged(page, site.doctor())
        assert "7020" in site.look(page)
    finally:
        site.receivers.pop().close()
        wrong.close()
    site.line = right
    assert ("--request-port", "7020") == tuple(shlex.split(page.mend[0][1])[-2:])
    recovers(*site.mend(page))
    mended(page, site.doctor())


@symptom("The ring is too small")
def test_a_small_ring(page, site):
    site.bad_line("--down-loss", "5%", "--delay", "80ms")
    site.proxy("-q", 16, INPUT)
    site.stream()
    counted(page, site.arqrx(PROXY))
    judged(page, site.doctor())
    assert "-q 16" in site.look(page)
    site.mend(page)
    recovers(site.receivers[-1])
    mended(page, site.doctor())


@symptom("The budget is too small")
def test_a_small_budget(page, site):
    site.bad_line("--down-loss", "5%")
    site.proxy("-G", 1000, INPUT)
    site.stream()
    counted(page, site.arqrx(PROXY))
    judged(page, site.doctor())
    assert "good            request-budget" in site.look(page)
    site.mend(page)
    recovers(site.receivers[-1])
    mended(page, site.doctor())


@symptom("The latency is too short")
def test_a_short_latency(page, site):
    site.bad_line("--down-loss", "5%", "--delay", "80ms")
    site.proxy(INPUT)
    site.stream()
    counted(page, site.arqrx(PROXY, "--latency", "100ms"))
    judged(page, site.doctor())
    wanted = re.search(r"^arqrx PROXY --latency (\d+)ms", site.look(page), re.MULTILINE).group(1)
    given = re.search(r"--latency (\d+)s", page.mend[0][1]).group(1)
    assert int(wanted) <= int(given) * 1000
    (receiver,) = site.mend(page)
    recovers(receiver)
    assert receiver.figures()["packets_lost"] == 0


@symptom("Deliberate loss was left on")
def test_loss_that_was_left_on(page, site):
    proxy = site.proxy("-a", RECEIVER, INPUT)
    site.stream()
    assert site.arqctl("impair", "on", "--dist", "10").status == arqctl.GOOD
    said(page, "the proxy says", lambda: proxy.stderr.text)
    judged(page, site.doctor())
    assert site.look(page).startswith("on: ")
    site.mend(page)
    found = site.doctor()
    mended(page, found)
    assert found.verdict("deliberate-loss") == "good", found.text("deliberate-loss")


@symptom("The proxy is too late to read")
def test_a_proxy_that_reads_too_late(page, site, closing):
    proxy = site.proxy("-a", RECEIVER, INPUT)
    sender = closing(Sender(PROXY, INPUT, namespace=site.hosts["receiver"]))
    sender.send(rtp.packet(0, PAYLOAD))
    wait_input()
    with stopped(proxy):
        for number in range(1, 3000):  # more than its socket holds
            sender.send(rtp.packet(number, PAYLOAD))
    site.answers(proxy)

    def has_hole():
        sender.send(rtp.packet(5000, PAYLOAD))  # there may be no room for the first
        return "NET_LOSS=0" not in control.request(1, "RxStat")

    wait_until(has_hole, "a hole in the input")
    judged(page, site.doctor())
    drops = [int(line.split()[-1]) for line in site.look(page).splitlines() if f":{INPUT:04X} " in line]
    assert sum(drops) > 0
    site.mend(page)
    assert site.doctor().verdict("input-loss") == "good"


@symptom("The receiver does not ping again")
def test_a_receiver_that_pings_once(page, site, closing):
    proxy = site.proxy(INPUT)
    site.stream()
    player = closing(udp_socket(RECEIVER, 4000, namespace=site.hosts["receiver"]))
    player.sendto(b"", (PROXY, PINGS))
    wait_receivers(1)
    assert RECEIVER in site.look(page)
    said(page, "the proxy says", lambda: proxy.stderr.text)
    judged(page, site.doctor())
    assert site.look(page) == ""
    site.mend(page)
    mended(page, site.doctor())
    assert RECEIVER in site.look(page)


class RestlessPinger(threading.Thread):
    """Pings from another port each time."""

    def __init__(self, namespace):
        super().__init__()
        self._namespace, self._ended = namespace, threading.Event()
        self.start()

    def run(self):
        while not self._ended.wait(0.2):
            with udp_socket(RECEIVER, 0, namespace=self._namespace) as sock:
                sock.sendto(b"", (PROXY, PINGS))

    def close(self):
        self._ended.set()
        self.join()


@symptom("A NAT gives each ping another port")
def test_pings_from_another_port_each_time(page, site, closing):
    proxy = site.proxy(INPUT)
    site.stream()
    pinger = closing(RestlessPinger(site.hosts["receiver"]))
    said(page, "the proxy says", lambda: proxy.stderr.text)
    judged(page, site.doctor())
    assert site.look(page) == f"{RECEIVER}\n"
    pinger.close()
    receives(*site.mend(page))
    mended(page, site.doctor())


@symptom("Two receivers are behind one address")
def test_two_receivers_behind_one_address(page, site):
    proxy = site.proxy(INPUT)
    site.stream()
    for _ in range(2):
        site.arqrx(PROXY, "--id", "none", "--ping-interval", "200ms")
    said(page, "the proxy says", lambda: proxy.stderr.text)
    judged(page, site.doctor())
    assert site.look(page) == f"{RECEIVER}\n"
    while site.receivers:
        assert site.receivers.pop().end() in (arqrx.GOOD, arqrx.NO_MEDIA)
    wait_receivers(0)
    first, second = site.mend(page)
    receives(first)
    receives(second)
    mended(page, site.doctor())


@symptom("Process already running")
def test_one_that_runs_already(page, site):
    site.proxy(INPUT)
    second = site.proxy(5010, ready=False)
    assert second.wait_exit() == 1
    site.running.remove(second)
    said(page, "the proxy says", lambda: second.stderr.text)
    judged(page, site.doctor("--start", "5010"), "the doctor of the start finds")
    assert "running" in site.look(page)
    ((_, text),) = page.mend
    words = shlex.split(text)[1:]
    assert site.doctor("--start", " ".join(words)).wrong() == {}
    site.proxy(*words)
    assert site.doctor("-I", 2).verdict("lock-port") == "good"


@symptom("A port is taken")
def test_a_port_that_is_taken(page, site, closing):
    closing(udp_socket("0.0.0.0", PINGS, namespace=site.hosts["proxy"], reuse=False))
    proxy = site.proxy(INPUT)
    said(page, "the proxy says", lambda: proxy.stderr.text)
    judged(page, site.doctor())
    assert f"pid={os.getpid()}," in site.look(page)
    site.mend(page)
    mended(page, site.doctor())


@symptom("OK, and no stream")
def test_ok_and_no_stream(page, site):
    proxy = site.proxy(INPUT)
    site.stream()
    receiver = site.arqrx("--listen", PINGS)
    (wrong,) = [text.pattern.split(" ")[-1].replace("\\", "") for text in page.texts("the control socket answers")]
    said(page, "the control socket answers", lambda: control.request(1, f"Add {wrong}"))
    said(page, "the proxy says", lambda: proxy.stderr.text)
    result = site.arqctl("add", wrong)
    assert result.status == arqctl.USAGE
    said(page, "arqctl says", lambda: result.stdout + result.stderr)
    judged(page, site.doctor("--start", f"-I 2 -p 10010 -r 7030 -a {wrong} 5010"), "the doctor of the start finds")
    assert site.look(page) == ""
    site.mend(page)
    receives(receiver)


@symptom("A name in -a is unknown")
def test_an_unknown_name(page, site):
    site.proxy("-a", "studio.invalid", INPUT)
    site.stream()
    receiver = site.arqrx("--listen", PINGS)
    judged(page, site.doctor())
    assert site.look(page) == "unknown\n"
    site.mend(page)
    receives(receiver)
    mended(page, site.doctor())


@symptom("The list is full")
def test_a_full_list(page, site):
    site.hosts["proxy"].ip("route", "add", "10.0.1.0/24", "via", RECEIVER)
    proxy = site.proxy("-a", ",".join(f"10.0.1.{last}" for last in range(1, 51)), INPUT)
    wait_receivers(50)
    result = site.arqctl("add", RECEIVER)
    said(page, "arqctl says", lambda: result.stdout + result.stderr)
    said(page, "the proxy says", lambda: proxy.stderr.text)
    judged(page, site.doctor())
    assert len(site.look(page).split()) == 50
    site.mend(page)
    assert RECEIVER in site.look(page)


def as_nobody(site, *words):
    """arqctl as a user without any right; the program may lie in a folder that is not nobody's."""
    with open(arqctl.program(), "rb") as program:
        user = ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups", "--bounding-set=-all"]
        command = ["ip", "netns", "exec", site.hosts["proxy"].name, *user, f"/proc/self/fd/{program.fileno()}", *words]
        return subprocess.run(command, capture_output=True, text=True, timeout=scaled(30), check=False,
                              pass_fds=[program.fileno()])  # fmt: skip


@symptom("Commands are not allowed")
def test_commands_without_the_right(page, site):
    site.proxy("-a", RECEIVER, INPUT)
    done = as_nobody(site, "list")
    assert done.returncode == arqctl.NO_PROXY
    said(page, "arqctl says", lambda: done.stderr)
    ((name, verdict, text),) = page.findings("the doctor finds")
    found = as_nobody(site, "doctor", "-I", "1").stdout
    assert re.search(rf"^{verdict} +{name} +{text.pattern}", found, re.MULTILINE), found
    assert "/dev/arq_tx_ctrl1" in site.look(page)
    site.mend(page)
    done = as_nobody(site, "list")
    assert (done.returncode, done.stdout) == (arqctl.GOOD, f"{RECEIVER}\n")


@symptom("A socket without a proxy")
def test_a_socket_that_was_left_behind(page, site):
    site.proxy(INPUT)
    site.stop_proxies()
    said(page, "arqctl says", lambda: site.arqctl("list").stderr)
    judged(page, site.doctor("--start", f"-a {RECEIVER} {INPUT}"), "the doctor of the start finds")
    assert '"stale"' in site.look(page)
    site.mend(page)
    assert site.arqctl("list").stdout == f"{RECEIVER}\n"


@symptom("The encryption library is not loaded")
def test_no_encryption_library(page, site, tmp_path, monkeypatch):
    ((_, text),) = page.mend
    words = shlex.split(text)[1:]
    site.proxy(*words)
    judged(page, site.doctor())
    assert "Loaded" not in site.running[-1].stderr.text
    site.look(page)
    site.stop_proxies()
    folders = plugin_builder.PrivateFolders(tmp_path, monkeypatch)
    folders.library(plugin_builder.INSTALLED_NAME, plugin_builder.build(tmp_path / "xor.so"))
    proxy = folders.start(site.launch, *words, namespace=site.hosts["proxy"]).wait_ready()
    proxy.wait_stderr(re.compile("Loaded .*"))
    site.answers(proxy)
    mended(page, site.doctor())


@symptom("The pacer is too slow")
def test_a_slow_pacer(page, site):
    proxy = site.proxy("-X", 1_000_000, "-a", RECEIVER, INPUT)
    site.stream(per_second=500)
    said(page, "the proxy says", lambda: proxy.stderr.text)
    wait_input(600)  # packets count when they are released: at the input's rate only once the queue is full
    judged(page, site.doctor())
    assert re.search(r"^input bit rate +\d", site.look(page), re.MULTILINE)
    site.mend(page)
    wait_input(100)
    mended(page, site.doctor())


@symptom("The clock was set")
def test_a_clock_that_is_set(page, site, tmp_path):
    site.proxy("-a", RECEIVER, INPUT)
    clock, ended = SteppedClock(tmp_path), threading.Event()

    def keep_setting():
        while not ended.wait(0.1):
            clock.step(3)

    service = threading.Thread(target=keep_setting)
    service.start()
    try:
        judged(page, site.doctor(env=clock.env))
    finally:
        ended.set()
        service.join()
    before = time.time()
    ((host, command),) = page.look
    assert abs(int(site.run(host, f"{command} +%s").stdout) - before) < scaled(5)
    mended(page, site.doctor(env=clock.env))
