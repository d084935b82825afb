"""The names of all figures that the programs print about one running channel, by where they are printed."""

import contextlib
import csv
import io
import itertools
import json
import pathlib
import re
import types
import urllib.request

from . import arqctl, arqrx, control, plugin_builder, ports, rtp
from .arqrx import Arqrx
from .link import Link
from .link import run as run_link
from .model_receiver import wait_bound
from .proxy import Proxy
from .receiver import Receiver, Sender
from .serving import Server
from .tmux import Terminal
from .traffic import Steady
from .waiting import DEFAULT_TIMEOUT, scaled, wait_until

PER_SECOND = 300
RECEIVER = "127.0.0.3"
NOT_OURS = "192.0.2.1"  # an address that no machine has


def names(value, path=""):
    """{"down.lost_by.random", "outputs[].name", ...} of an object. What holds others is itself no figure."""
    if isinstance(value, dict):
        return set().union(*(names(inner, f"{path}.{name}" if path else name) for name, inner in value.items()))
    if isinstance(value, list):
        return set().union(*(names(inner, f"{path}[]") for inner in value)) if value else {path}
    return {path}


def transport_packets(number):
    """A payload of seven packets whose continuity counters go on."""
    return b"".join(bytes([0x47, 0x01, 0x00, 0x10 | (7 * number + i) % 16]) + bytes(184) for i in range(7))


def metrics(port):
    with urllib.request.urlopen(f"http://127.0.0.1:{port}/metrics", timeout=scaled(DEFAULT_TIMEOUT)) as answer:
        return set(re.findall(r"^# TYPE (\w+) ", answer.read().decode(), re.MULTILINE))


class Channel:
    """A source, a proxy, a line that loses packets, a receiver that reports, and arqctl serve."""

    def __init__(self, folder):
        self._opened = contextlib.ExitStack()
        self._folder = folder
        lease = self._keep(ports.Lease())
        self.net = lease.for_proxy()
        self._metrics_port, self._decrypting_port = lease.port(), lease.port()

    def _keep(self, thing):
        self._opened.callback(thing.close)
        return thing

    def close(self):
        self._opened.close()

    def open(self):
        net = self.net
        self.proxy = Proxy("-I", net.instance, "-p", net.destination, "-r", net.request, net.input)
        self._opened.callback(self.proxy.kill)
        wait_bound(self.proxy.wait_ready(), net.destination, net.request)
        self.server = self._keep(Server(net.instance))
        script = self._folder / "script"
        script.write_text("0s down loss 5%\n1s down loss 6%\n", "utf-8")
        targets = [("127.0.0.1", net.destination), ("127.0.0.1", net.request)]
        self.line = self._keep(Link(targets, "--source", RECEIVER, "--delay", "5ms", "--script", script))
        (_, media), (_, requests) = self.line.listen
        self._behind = behind = types.SimpleNamespace(destination=media, request=requests)
        outputs = ["--output", f"file:{self._folder}/media", "--output", "file:/dev/full"]
        report = ["--report", f"127.0.0.1:{self.server.port}/{net.instance}", "--report-name", "studio-b"]
        self.receiver = self._keep(Arqrx(*arqrx.joining(behind, "--bind", RECEIVER, "--latency", "300ms", "--metrics",
                                                        self._metrics_port, *outputs, *report)))  # fmt: skip
        self.receiver.wait_figures(lambda figures: figures["echoes_back"] > 0, "the receiver to join")
        numbers = itertools.count()
        sender = self._keep(Sender("127.0.0.1", net.input))
        self._keep(Steady(sender, lambda _: next_packet(next(numbers)), PER_SECOND))
        wanted = {"recover_p99_ms", "round_trip_ms", "play_late_p99_ms", "transport_packets"}
        self.receiver.wait_figures(
            lambda figures: wanted <= set(figures) and "error" in figures["outputs"][1], "all figures"
        )
        self._start_decrypting()
        return self

    def _start_decrypting(self):
        """A second receiver, whose reports come to a plain socket."""
        library = plugin_builder.build(self._folder / "library.so")
        self._report_server = self._keep(Receiver("127.0.0.1"))
        report = ["--report", f"127.0.0.1:{self._report_server.address[1]}/1"]
        self.decrypting = self._keep(Arqrx(*self._joining("127.0.0.5"), "--metrics", self._decrypting_port, "--decrypt",
                                           library, *report))  # fmt: skip
        self.decrypting.wait_figures(lambda figures: figures.get("packets_decrypted"), "packets to be decrypted")

    def control_reports(self):
        """Of the socket, and of the dump."""
        text = "\n".join(control.request(self.net.instance, command) for command in ("AllStats", "RxStat"))
        with control.ControlClient(self.net.instance) as client:
            client.send("Debug")
            self.proxy.wait_stderr(re.compile(r"m_nDropPacket \d+"))
        dump = re.findall(r"^(m_[\w.]+) -?\d+$", self.proxy.stderr.text, re.MULTILINE)
        return set(re.findall(r"^([A-Z_]+)=", text, re.MULTILINE)) | set(dump)

    def receiver_objects(self):
        """The receiver ends for it."""
        assert self.receiver.end() == arqrx.OUTPUT_FAILED
        failed = arqrx.run("--json", "--listen", f"{NOT_OURS}:{self.net.destination}")[1]
        objects = [*self.receiver.objects, *self.decrypting.objects, *map(json.loads, failed.splitlines())]
        return set().union(*map(names, objects))

    def receiver_columns(self):
        """Of the lines for people."""
        words = [word for word in self._joining("127.0.0.6") if word != "--json"]
        lines = arqrx.run(*words, "--duration", "600ms")[1].splitlines()
        head = next(line for line in lines if line.lstrip().startswith("time "))
        return set(re.split(r"\s+(?!ms)", head.strip()))

    def _joining(self, address):
        """The arguments of a further receiver."""
        return arqrx.joining(self._behind, "--bind", address, stream_id=address.rpartition(".")[2])

    def reports(self):
        """The second receiver ends for it."""
        server = self._report_server
        server.wait_for(lambda datagram: b"bit_rate" in datagram.data and b"round_trip" in datagram.data)
        assert self.decrypting.end() == arqrx.GOOD
        server.wait_for(lambda datagram: b'"final":true' in datagram.data)
        return set().union(*(names(json.loads(data)) for data in server.payloads))

    def receiver_metrics(self):
        return metrics(self._metrics_port) | metrics(self._decrypting_port)

    def line_objects(self):
        self.line.wait(lambda: len(self.line.events("changed")) > 1, "the script")
        return set().union(*map(names, [*self.line.objects, json.loads(run_link("--json")[1])]))

    def line_columns(self):
        """Of the lines for people: what stands behind a number."""
        lines = run_link("--interval", "20ms", "--duration", "50ms", "127.0.0.1:0=127.0.0.1:9")[1].splitlines()
        return set(re.findall(r"\d (in|out|lost|[a-z]{3,})", next(line for line in lines if " | " in line)))

    def line_fates(self):
        """Of packets that are all doubled and changed."""
        log = self._folder / "fates"
        line = Link([("127.0.0.1", 9)], "--duplicate", "100%", "--corrupt", "100%", "--log-fates", log)
        with contextlib.closing(line), contextlib.closing(Sender(*line.listen[0])) as sender:
            sender.send(rtp.packet(1))
            line.wait_figures(lambda figures: figures["up"]["came"] == 1, "a packet")
            line.stop()
        return names(json.loads(log.read_text("utf-8")))

    def _arqctl(self, *words):
        return arqctl.run("-I", self.net.instance, *words).stdout

    def stats_objects(self):
        """In the end the proxy goes."""
        with contextlib.closing(arqctl.Arqctl("-I", self.net.instance, "--json", "stats", "--watch", "100ms")) as watch:
            wait_until(lambda: any("withheld_rate" in one for one in watch.objects), "rates")
            self.proxy.stop()
            wait_until(lambda: "error" in watch.objects[-1], "the proxy's end")
            return set().union(*map(names, watch.objects))

    def stats_columns(self):
        """Of CSV; and for people the labels of one reading and the heads of a watch."""
        head = next(csv.reader(io.StringIO(self._arqctl("stats", "--csv"))))
        labels = re.findall(r"^(\w+(?: \w+)*?)  ", self._arqctl("stats"), re.MULTILINE)
        heads = self._arqctl("stats", "--watch", "100ms", "--count", "1").splitlines()[0].split()
        return set(head), {*labels, *heads}

    def top_columns(self):
        terminal = Terminal(columns=130)
        with contextlib.closing(terminal):
            terminal.run(arqctl.program(), "top", self.net.instance)
            screen = terminal.wait("RCVRS")
            terminal.keys("q")
        head = next(line for line in screen.splitlines() if "RCVRS" in line)
        return {*head.partition("RCVRS")[0].split(), "RCVRS"}

    def instances(self):
        return {name.removeprefix("instances[].") for name in names(arqctl.run("--json", "instances").json)}

    def impairment(self):
        """Of a proxy whose bursts would be frequent: that there is none is soon known."""
        settings = pathlib.Path(f"/var/run/tx_proxy{self.net.instance}.imp.conf")
        settings.write_text("min_dist=5\n", "ascii")
        try:
            return names(json.loads(self._arqctl("--json", "impair", "off")))
        finally:
            settings.unlink()

    def channels(self):
        self.server.wait_channel(self.net.instance, lambda one: one["reports"] and "round_trip_ms" in one["reports"][0],
                                 "reported")  # fmt: skip
        found = {name.removeprefix("channels[].") for name in names(self.server.get("/api/v1/channels").json)}
        return {name.replace("receivers[].report.", "reports[].") for name in found}

    def history(self):
        return names(self.server.get(f"/api/v1/channels/{self.net.instance}/history?span=60").json)

    def server_metrics(self):
        self.channels()
        return metrics(self.server.port)


def next_packet(number):
    return rtp.packet(number % 65536, transport_packets(number))
