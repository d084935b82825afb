"""Alerts and dashboard in monitoring/: promtool takes them, and a real Prometheus that scrapes a running channel with a
receiver on a bad line has data for every query."""

import contextlib
import itertools
import json
import math
import re
import types
import urllib.request

import pytest

from txproxy import ports, rtp
from txproxy.arqctl import Arqctl
from txproxy.arqrx import Arqrx, joining
from txproxy.link import Link
from txproxy.model_receiver import wait_bound
from txproxy.page import ROOT, Page, quoted
from txproxy.prometheus import Prometheus, promtool
from txproxy.proxy import Proxy
from txproxy.receiver import Sender
from txproxy.traffic import Steady
from txproxy.waiting import wait_until

pytestmark = [pytest.mark.release_only, pytest.mark.large]

FOLDER = ROOT / "monitoring"
METRIC = re.compile(r"\b(?:tx_proxy|arqctl)_\w+\b|\bup\b(?={)")
PER_SECOND = 300
RECEIVER = "127.0.0.3"
GRAFANA = {"$__rate_interval": "5s", "$__interval": "5s", "$channel": ".*"}
OFTEN = "500ms"  # asked, and rules looked at


def dashboard():
    return json.loads((FOLDER / "dashboard.json").read_text("utf-8"))


def panels():
    return [panel for panel in dashboard()["panels"] if panel["type"] != "row"]


def queries():
    """Of the dashboard, as Grafana sends them."""
    found = [target["expr"] for panel in panels() for target in panel["targets"]]
    # Of what happens seldom the part that is there at any time.
    found += [mark["expr"].removesuffix(" > 0") for mark in dashboard()["annotations"]["list"] if "expr" in mark]
    for variable, value in GRAFANA.items():
        found = [expression.replace(variable, value) for expression in found]
    return found


class Watched:
    """A channel with a receiver behind a line that loses packets, arqctl serve beside it, and Prometheus."""

    def __init__(self, folder):
        self._opened = contextlib.ExitStack()
        self._folder = folder
        lease = self._keep(ports.Lease())
        self.net = lease.for_proxy()
        self.host = f"127.0.0.1:{lease.port()}"
        self._prometheus_port = lease.port()
        self._numbers = itertools.count()
        self._stream = None

    def open(self):
        net = self.net
        proxy = Proxy("-I", net.instance, "-p", net.destination, "-r", net.request, net.input)
        self._opened.callback(proxy.kill)
        wait_bound(proxy.wait_ready(), net.destination, net.request)
        self._keep(Arqctl("serve", "--listen", self.host, net.instance)).wait_stdout(f"http://{self.host}/")
        prometheus = self._keep(Prometheus(self._configuration(), self._folder / "data", self._prometheus_port))
        targets = [("127.0.0.1", net.destination), ("127.0.0.1", net.request)]
        line = self._keep(Link(targets, "--source", RECEIVER, "--loss", "3%", "--delay", "5ms"))
        behind = types.SimpleNamespace(destination=line.listen[0][1], request=line.listen[1][1])
        receiver = self._keep(Arqrx(*joining(behind, "--bind", RECEIVER, "--latency", "2s", "--report", self.host,
                                             "--report-name", "studio-b")))  # fmt: skip
        receiver.wait_figures(lambda figures: figures["echoes_back"] > 0, "the receiver to join")
        self.start_stream()
        self.prometheus = prometheus.wait_ready()
        return self

    def _configuration(self):
        """The files of monitoring/ in a hurry."""
        rules = (FOLDER / "alerts.yml").read_text("utf-8")
        hurried = re.sub(r"(- alert: InputGone\n.*?for: )5s", rf"\g<1>{OFTEN}", rules, flags=re.DOTALL)
        assert hurried != rules
        (self._folder / "alerts.yml").write_text(hurried, "utf-8")
        text = (FOLDER / "prometheus.yml").read_text("utf-8").replace("127.0.0.1:8080", self.host)
        text = re.sub(r"(_interval|_timeout): \ds", rf"\1: {OFTEN}", text)
        path = self._folder / "prometheus.yml"
        path.write_text(text, "utf-8")
        return path

    def start_stream(self):
        sender = self._keep(Sender("127.0.0.1", self.net.input))
        self._stream = self._keep(Steady(sender, lambda _: rtp.packet(next(self._numbers) % 65536, bytes(1316)), PER_SECOND))

    def stop_stream(self):
        self._stream.close()

    def _keep(self, thing):
        self._opened.callback(thing.close)
        return thing

    def close(self):
        self._opened.close()


@pytest.fixture(name="watched")
def make_watched(closing, tmp_path):
    return closing(Watched(tmp_path)).open()


def test_promtool_takes_the_rules_and_the_sample_configuration():
    for arguments in (("check", "rules", "alerts.yml"), ("check", "config", "prometheus.yml")):
        status, text = promtool(*arguments, folder=FOLDER)
        assert status == 0, text
        assert "SUCCESS" in text


def test_each_alert_fires_where_it_should_and_not_beside_it():
    status, text = promtool("test", "rules", "alerts_test.yml", folder=FOLDER)
    assert status == 0, text
    rules = re.findall(r"- alert: (\w+)", (FOLDER / "alerts.yml").read_text("utf-8"))
    cases = (FOLDER / "alerts_test.yml").read_text("utf-8")
    firing = set(re.findall(r"alertname: (\w+)\n +exp_alerts:\n", cases))
    silent = set(re.findall(r"alertname: (\w+)\n +exp_alerts: \[\]\n", cases))
    assert firing == silent == set(rules)
    assert len(rules) == len(set(rules))


def test_panels_say_what_they_show_in_which_unit_and_stand_side_by_side():
    ids = [panel["id"] for panel in dashboard()["panels"]]
    assert len(ids) == len(set(ids))
    taken = set()
    for panel in dashboard()["panels"]:
        place = panel["gridPos"]
        cells = set(itertools.product(range(place["x"], place["x"] + place["w"]), range(place["y"], place["y"] + place["h"])))
        assert not cells & taken and place["x"] + place["w"] <= 24, panel["title"]
        taken |= cells
    for panel in panels():
        assert panel["title"] and panel["datasource"] == {"type": "prometheus", "uid": "${datasource}"}
        assert panel["type"] == "state-timeline" or panel["fieldConfig"]["defaults"]["unit"], panel["title"]
        for target in panel["targets"]:
            assert 'channel=~"$channel"' in target["expr"] or target["expr"].startswith("arqctl_"), target
            assert re.search(r"{{\w+}}", target["legendFormat"]), target
    assert [variable["name"] for variable in dashboard()["templating"]["list"]] == ["datasource", "channel"]


def test_a_running_channel_has_data_for_every_query_and_alerts_when_its_input_stops(watched):
    every_query_has_data(watched)
    every_metric_is_on_the_dashboard(watched)
    alerts_rest_on_series_that_are_there_and_are_silent_while_all_is_well(watched)
    a_stream_that_stops_is_an_alert_and_one_that_comes_again_ends_it(watched)


def every_query_has_data(watched):
    prometheus = watched.prometheus
    missing = queries()

    def answer():
        """Leaves those in `missing` that have none yet."""
        missing[:] = [query for query in missing if not good(prometheus.query(query))]
        return not missing

    def good(rows):
        return rows and all(math.isfinite(value) for _, value in rows)

    wait_until(answer, lambda: f"data for {missing}")
    channel = str(watched.net.instance)
    assert [labels["channel"] for labels, _ in prometheus.query("tx_proxy_up == 1")] == [channel]
    assert prometheus.get("label/channel/values", **{"match[]": "tx_proxy_up"}) == [channel]
    wait_until(lambda: prometheus.query('tx_proxy_report_recovered_packets_total{name="studio-b"} > 3'), "repair on the line")
    assert prometheus.query("max_over_time(tx_proxy_report_largest_request_bytes[1m]) >= 1328")


def every_metric_is_on_the_dashboard(watched):
    with urllib.request.urlopen(f"http://{watched.host}/metrics", timeout=15) as answer:
        given = set(re.findall(r"^# TYPE (\w+) ", answer.read().decode(), re.MULTILINE))
    shown = {name for query in queries() for name in METRIC.findall(query)}
    assert given == shown


def alerts_rest_on_series_that_are_there_and_are_silent_while_all_is_well(watched):
    for rule in watched.prometheus.rules():
        for metric in METRIC.findall(rule["query"]):
            assert watched.prometheus.query(metric), f"{rule['name']}: there is no {metric}"
        assert watched.prometheus.query(rule["query"]) == [], rule["name"]
        assert rule["health"] == "ok", rule
    assert watched.prometheus.alerts() == {}


def a_stream_that_stops_is_an_alert_and_one_that_comes_again_ends_it(watched):
    watched.stop_stream()
    wait_until(lambda: firing(watched) == {"InputGone"}, lambda: f"InputGone; there is {watched.prometheus.alerts()}")
    assert watched.prometheus.alerts()["InputGone"][1]["channel"] == str(watched.net.instance)
    watched.start_stream()
    wait_until(lambda: not firing(watched), lambda: f"the end of {watched.prometheus.alerts()}")


def firing(watched):
    return {name for name, (state, _) in watched.prometheus.alerts().items() if state == "firing"}


def test_the_page_has_every_alert_with_its_severity_and_no_other():
    rules = (FOLDER / "alerts.yml").read_text("utf-8")
    given = re.findall(r"- alert: (\w+)\n(?:(?!- alert:).)*?severity: (\w+)", rules, re.DOTALL)
    on_page = [(quoted(cells[0])[0], cells[1]) for cells in Page("arqctl.md").rows("Alerts and dashboard")]
    assert on_page == given
