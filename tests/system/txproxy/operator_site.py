"""The two machines of docs/troubleshooting.md with its programs, and whether what they show is what the page says."""

import os
import pathlib
import re
import shlex
import subprocess

from . import arqctl, arqrx, control, netns, ports, rtp
from .diagnosis import doctor
from .link import Link
from .proxy import binary
from .receiver import Sender
from .traffic import Steady
from .waiting import scaled, wait_until

# The page's own addresses and ports.
PROXY, RECEIVER, SOURCE = "10.0.0.1", "10.0.0.7", "10.0.0.5"
GROUP, INPUT, PINGS, REQUESTS = "239.1.1.1", 5000, 10000, "7020"
PER_SECOND = 200
PAYLOAD = bytes(1316)
FIREWALL = """
table inet filter {{
    chain input {{
        type filter hook input priority filter; policy accept;
        udp dport {} drop
    }}
}}
"""
PROGRAMS = {**os.environ, "PATH": f"{pathlib.Path(binary()).parent}:{os.environ['PATH']}"}
GOOD_OR_WARNED = (arqctl.GOOD, arqctl.ALREADY_SO)


class Site:
    """Both machines and the programs that run there. The source is beside the receiver."""

    def __init__(self, launch, closing):
        self.launch, self._closing = launch, closing
        self.hosts = {name: closing(netns.Namespace()) for name in ("proxy", "receiver")}
        proxy, receiver = self.hosts.values()
        proxy.ip("link", "add", "eth0", "type", "veth", "peer", "name", "eth0", "netns", receiver.name)
        for host, addresses in ((proxy, [PROXY]), (receiver, [RECEIVER, SOURCE])):
            for address in addresses:
                host.ip("addr", "add", f"{address}/24", "dev", "eth0")
            host.ip("link", "set", "eth0", "up")
        proxy.wait_cables()
        receiver.wait_cables()
        receiver.ip("route", "add", "224.0.0.0/4", "dev", "eth0")
        for number in (1, 2):
            closing(ports.Lease(number))
        self.running = []
        self.receivers = []
        self.line = None

    def command(self, host, text):
        """The line of a page as a shell there gets it."""
        return ["ip", "netns", "exec", self.hosts[host].name, "bash", "-c", text]

    def run(self, host, text):
        return subprocess.run(self.command(host, text), capture_output=True, text=True, timeout=scaled(30), check=False,
                              env=PROGRAMS)  # fmt: skip

    def proxy(self, *words, ready=True):
        """Starts one beside those that run."""
        proxy = self.launch(*words, namespace=self.hosts["proxy"])
        self.running.append(proxy)
        if ready:
            proxy.wait_ready()
            self.answers(proxy)
        return proxy

    def answers(self, proxy):
        """It takes commands: those of this process, not of the one before."""
        number = proxy.arguments[proxy.arguments.index("-I") + 1] if "-I" in proxy.arguments else 1
        control.request(number, "RxStat")

    def stop_proxies(self):
        while self.running:
            self.running.pop().stop()

    def arqrx(self, *words):
        """One as the page starts it; where there is a line between, it goes by that."""
        if self.line:
            (host, pings), (_, requests) = self.line.listen
            places = {PROXY: f"{host}:{pings}", REQUESTS: requests}
            words = [places.get(word, word) for word in words]
            words += [] if "--request-port" in words else ["--request-port", requests]
        receiver = self._closing(arqrx.Arqrx(*words, "--json", "--interval", "100ms", namespace=self.hosts["receiver"]))
        self.receivers.append(receiver)
        return receiver

    def bad_line(self, *options):
        """From here on receivers reach the proxy by a bad line."""
        targets = [(PROXY, PINGS), (PROXY, 7020)]
        self.line = self._closing(Link(targets, *options, namespace=self.hosts["receiver"]))

    def stream(self, port=INPUT, host=PROXY, source=SOURCE, number=lambda index: index, per_second=PER_SECOND):
        sender = Sender(host, port, namespace=self.hosts["receiver"], source=source, multicast_interface=RECEIVER)
        self._closing(sender)
        return self._closing(Steady(sender, lambda index: rtp.packet(number(index) & 0xFFFF, PAYLOAD), per_second,
                                    most_at_once=PER_SECOND // 10))  # fmt: skip

    def firewall(self, port):
        rules = self.run("proxy", f"nft -f - <<'RULES'{FIREWALL.format(port)}RULES")
        assert rules.returncode == 0, rules.stderr

    def doctor(self, *words, **keywords):
        return doctor(*words, namespace=self.hosts["proxy"], **keywords)

    def arqctl(self, *words):
        return arqctl.run(*words, namespace=self.hosts["proxy"])

    def mend(self, page):
        """Does what the page says; a program that goes on takes the place of the one before."""
        assert page.mend
        started = {}
        for host, text in page.mend:
            program, *words = shlex.split(text)
            if program == "tx_proxy":
                self.stop_proxies()
                self.proxy(*words)
            elif program == "arqrx":
                while self.receivers and host not in started:
                    self.receivers.pop().close()
                started.setdefault(host, []).append(self.arqrx(*words))
            else:
                done = self.run(host, text)
                assert done.returncode == 0, f"{text}: {done.stderr}"
        return started.get("receiver", [])

    def look(self, page):
        """What the commands of the page print."""
        assert page.look, f"{page.title}: nothing to look at"
        printed = ""
        for host, text in page.look:
            done = self.run(host, text)
            assert done.returncode in GOOD_OR_WARNED, f"{text}: {done.stderr}"
            printed += done.stdout
        return printed


def judged(page, found, where="the doctor finds"):
    """The doctor's findings are those of the page."""
    assert page.findings(where), f"{page.title}: the doctor finds nothing"
    for name, verdict, text in page.findings(where):
        shown = found.text(name)
        assert (found.verdict(name), bool(text.search(shown))) == (verdict, True), (page.title, name, shown)


def said(page, where, text):
    """Everything that the page lets somebody say is in the text, which is asked for until it is."""
    texts = page.texts(where)
    assert texts, f"{page.title}: nobody says anything at '{where}'"
    for wanted in texts:
        wait_until(lambda sought=wanted: sought.search(text()), lambda sought=wanted: f"{sought} in:\n{text()}")


def counted(page, receiver):
    """arqrx counts as the page has it."""
    counts = page.counts()
    assert counts, page.title

    def agrees(figures):
        return all((figures.get(name, 0) > 0) == has_grown for name, has_grown in counts)

    receiver.wait_figures(agrees, f"{counts}")


def mended(page, found):
    """Nothing of what the doctor had found is wrong any more."""
    names = {name for name, verdict, _ in page.findings("the doctor finds") if verdict != "good"}
    assert names & set(found.wrong()) == set(), found.wrong()


def receives(receiver, least=20):
    receiver.wait_figures(lambda figures: figures.get("packets_received", 0) >= least, "media")


def recovers(receiver):
    receiver.wait_figures(lambda figures: figures.get("packets_recovered", 0) > 0, "a packet that came again")


def received_count():
    return int(re.search(r"RECV_PACKETS=(\d+)", control.request(1, "AllStats")).group(1))


def wait_input(least=1):
    wait_until(lambda: received_count() >= least, "input")


def wait_receivers(count):
    def here():
        listed = control.request(1, "AllStats").partition("CLIENTS=")[2]
        return len(listed.replace(",", " ").split()) == count

    wait_until(here, f"{count} receivers")
