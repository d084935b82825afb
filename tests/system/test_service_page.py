"""docs/service.md and the README's channel: their commands in order on a machine with systemd, and the page's tables."""

import json
import re

import pytest

from txproxy import arqctl, booted, encoder, model_receiver, receiver
from txproxy.page import ROOT, Page, quoted
from txproxy.booted import wait_until

pytestmark = [pytest.mark.release_only, pytest.mark.large]

PAGE = Page("service.md")
FOLDER = ROOT / "packaging" / "service"
UNITS = ("tx_proxy@", "tx_proxy-private@", "arqctl@", "arqrx@")
SHELL = re.compile(r"^```sh\n(.*?)^```$", re.MULTILINE | re.DOTALL)


def unit_text(unit):
    return (FOLDER / f"{unit}.service.in").read_text(encoding="utf-8")


def value(unit, key):
    """The last value of a key in a unit, "" without."""
    return (re.findall(rf"^{key}=(.*)$", unit_text(unit), re.MULTILINE) or [""])[-1]


class Story:
    """The page's commands, a section at a time."""

    def __init__(self, machine):
        self.machine = machine

    def tell(self, heading):
        """Each block of the section in turn; yields what it prints."""
        return map(self._run, SHELL.findall(PAGE.section(heading)))

    def _run(self, block):
        result = self.machine.run("sh", "-euc", block)
        is_doctor_last = block.splitlines()[-1].startswith("arqctl doctor")
        allowed = (arqctl.GOOD, arqctl.ALREADY_SO) if is_doctor_last else (arqctl.GOOD,)  # it may warn of our machine
        assert result.returncode in allowed, f"{block}: {result.returncode}\n{result.stdout}{result.stderr}"
        return result.stdout

    def is_active(self, unit):
        return self.machine.property(unit, "ActiveState") == "active"


def ordered(machine):
    """What becomes of an order that is given through the page's interface with its token."""
    body = ("-H", "Content-Type: application/json", "-d", '{"address":"192.0.2.7"}')
    token = machine.do("cat", "/etc/tx_proxy.token").strip()
    url = "http://127.0.0.1:8080/api/v1/channels/1/receivers"
    answer = machine.run("curl", "-s", "-H", f"X-Arqctl-Token: {token}", *body, url).stdout
    return json.loads(answer).get("result") if answer else None


def readmes_blocks():
    """What a newcomer types when the packages are installed."""
    text = (ROOT / "README.md").read_text(encoding="utf-8").split("## A channel on air\n")[1].split("\n## ")[0]
    return re.findall(r"^```\n(.*?)^```$", text, re.MULTILINE | re.DOTALL)[1:4]


def follow_the_readme(machine, closing):
    """FFmpeg is left to the recipes: here it says only where to send."""
    begin, play, look_after = readmes_blocks()
    source, arqrx = play.splitlines()
    doctor, stats, restart, stop = look_after.splitlines()
    machine.do("sh", "-euc", begin)
    stream = closing(encoder.Stream(int(re.search(r"'rtp://127\.0\.0\.1:(\d+)\?pkt_size=1328'$", source).group(1))))
    player = closing(receiver.Receiver("127.0.0.1", 1234))
    machine.do("sh", "-euc", f"{arqrx} --id none --duration 2s --quiet")
    assert player.count() and encoder.number(player.payloads[-1]) < stream.count
    assert "0 faults" in machine.run("sh", "-euc", doctor).stdout
    assert "input packets" in machine.do("sh", "-euc", stats)
    wait_until(lambda: 'tx_proxy_up{channel="1"} 1' in machine.run("curl", "-s", "http://127.0.0.1:8080/metrics").stdout,
               "the channel in the metrics")  # fmt: skip
    configured = closing(receiver.Receiver("127.0.0.5", 10000))
    before = machine.property("tx_proxy@1", "MainPID")
    machine.do("sh", "-euc", restart)
    assert machine.property("tx_proxy@1", "MainPID") not in (before, "0")
    machine.do("arqctl", "add", "127.0.0.5")
    machine.do("sh", "-euc", stop)
    wait_until(lambda: configured.payloads.count(model_receiver.STOP_MESSAGE) == 5, "the stop messages")
    assert machine.property("tx_proxy@1", "ActiveState") == "inactive"
    for mine in (stream, player, configured):
        mine.close()  # the page has the same ports


def test_the_readme_and_the_page_are_followed_from_a_channel_to_a_receiver(closing):
    machine = closing(booted.Machine({}))
    follow_the_readme(machine, closing)
    stream = closing(encoder.Stream(5000))
    story = Story(machine)
    channel = story.tell("A channel")
    status = next(channel)
    assert "active (running)" in status and "0 faults" in status
    stream.stop()  # the receivers of the page are not there, and each packet would have a line in the log
    stats, _ = channel
    assert "receivers        1\n                 192.0.2.9\n" in stats
    assert story.is_active("tx_proxy@1") and machine.property("tx_proxy@1", "UnitFileState") == "enabled"
    assert machine.do("arqctl", "list") == ""

    assert "Listening on port 5000 for incoming stream" in next(story.tell("Logs"))
    before = machine.property("tx_proxy@1", "MainPID")
    assert len(list(story.tell("Upgrade"))) == 1
    assert machine.property("tx_proxy@1", "MainPID") != before

    stream = closing(encoder.Stream(5000))
    ready = ("/usr/lib/tx_proxy/channel", "ready", "1")
    wait_until(lambda: machine.run(*ready).returncode == 0, "the channel to have input")
    stream.stop()
    wait_until(lambda: machine.run(*ready).returncode == 1, "the input to be missed")

    assert len(list(story.tell("Without rights"))) == 2
    assert story.is_active("tx_proxy@2") and not story.is_active("tx_proxy-private@2")

    assert "arqctl_build_info" in next(page := story.tell("Page and metrics"))
    wanted = {f'tx_proxy_up{{channel="{number}"}} 1' for number in (1, 2)}
    ask = SHELL.findall(PAGE.section("Page and metrics"))[0].splitlines()[-1].split()
    wait_until(lambda: wanted <= set(machine.run(*ask).stdout.splitlines()), "both channels in the metrics")
    next(page)
    wait_until(lambda: ordered(machine) == "done", "the token to be good for an order")
    assert machine.do("arqctl", "list") == "192.0.2.7\n"
    machine.do("arqctl", "del", "192.0.2.7")

    next(side := story.tell("The receiving side"))
    path = machine.root / "var/lib/private/arqrx-news/live.ts"
    wait_until(path.exists, "the receiver's file")
    assert "live.ts" in next(side)
    wait_until(lambda: machine.do("arqctl", "list") == "", "the receiver to have left")
    configured = closing(receiver.Receiver("127.0.0.5", 10000))
    machine.do("arqctl", "add", "127.0.0.5")
    machine.run("systemctl", "poweroff")
    assert configured.wait_count(5)[:5] == [model_receiver.STOP_MESSAGE] * 5


def test_the_page_names_units_settings_and_states_as_they_are():
    for unit, row in zip(UNITS, PAGE.text.split("## A channel")[0].split("|---|---|---|\n")[1].splitlines()):
        name, settings = quoted(row)[0], quoted(row)[-1]
        file = re.escape(settings.replace("-NAME", "-%i").replace("-N", "-%i"))
        assert name.startswith(unit)
        assert re.search(rf"^EnvironmentFile=-?{file}$", unit_text(unit), re.MULTILINE)
    assert "RestartPreventExitStatus=2 255" in unit_text("tx_proxy@")
    assert value("tx_proxy@", "LogRateLimitIntervalSec") == "30s" and value("tx_proxy@", "LogRateLimitBurst") == "1000"


def test_the_table_of_what_units_may_do_is_that_of_the_units():
    rows = {cells[0]: cells[1:] for cells in PAGE.rows("What the units may do")}
    for unit, user, group, capabilities in zip(UNITS, rows["user"], rows["group"], rows["capabilities"]):
        assert (user == "its own") == (value(unit, "DynamicUser") == "yes")
        assert ("`tx_proxy`" in group) == ("tx_proxy" in (value(unit, "Group"), value(unit, "SupplementaryGroups")))
        assert ("its own" in group) == (value(unit, "Group") == "")
        assert quoted(capabilities) == value(unit, "CapabilityBoundingSet").split()
    places = [value(unit, key) for unit, key in zip(
        UNITS, ("ReadWritePaths", "RuntimeDirectory", "RuntimeDirectory", "StateDirectory"))]  # fmt: skip
    named = [path.replace("NAME", "%i").replace("-N", "-%i") for cell in rows["may write to"] for path in quoted(cell)]
    assert named == [*places[0].split(), "/run/" + places[1].split()[0], "/run/" + places[2], "/var/lib/" + places[3]]


def test_the_table_of_commands_and_variables_is_that_of_the_script():
    script = (FOLDER / "channel").read_text(encoding="utf-8")
    head = script.split("set -u")[0]
    rows = [quoted(cells[0])[0] for cells in PAGE.rows("Without systemd")]
    commands = re.findall(r"^#   (channel \w+ N) ", head.split("for systemd")[0], re.MULTILINE)
    assert commands == [row for row in rows if row.startswith("channel")]
    assert sorted(re.findall(r"^#   (TX_PROXY_\w+)", head, re.MULTILINE)) == sorted(
        row for row in rows if row.startswith("TX_PROXY")
    )
    assert set(re.findall(r"TX_PROXY_\w+", script)) == set(re.findall(r"TX_PROXY_\w+", head))
