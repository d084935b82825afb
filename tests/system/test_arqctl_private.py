"""arqctl and proxies that have a /dev and a /run of their own, as the unit tx_proxy-private@ gives them."""

import os
import pathlib
import re
import shutil
import subprocess
import types

import pytest

from txproxy import arqctl, control, instances, ports, rtp, sandbox
from txproxy.diagnosis import doctor
from txproxy.proxy import Proxy
from txproxy.serving import Server
from txproxy.traffic import Steady
from txproxy.waiting import scaled, wait_until

pytestmark = pytest.mark.release_only

NOBODY = 65534
RECEIVER = "127.0.0.2"


class Folders:
    """What is /dev and /run for a proxy and for nobody else."""

    def __init__(self, folder, instance):
        self.folder = pathlib.Path(folder)
        self.socket = f"{folder}/dev/arq_tx_ctrl{instance}"
        self.run = self.folder / "run"
        self.make()

    def make(self):
        for name in ("dev", "run"):
            (self.folder / name).mkdir(parents=True)
        self.folder.chmod(0o750)

    def covering(self):
        return sandbox.covering_all({"/dev": self.folder / "dev", "/run": self.run})

    def close(self):
        shutil.rmtree(self.folder, ignore_errors=True)


@pytest.fixture
def unit(net, closing):
    """The folders of tx_proxy-private@ with the instance of `net`."""
    return closing(Folders(f"/run/tx_proxy-{net.instance}", net.instance))


@pytest.fixture
def start(start_proxy):
    """start(folders, *options): a proxy in them that takes commands."""

    def run(folders, *options):
        process = start_proxy(*options, preexec=folders.covering())
        wait_until(lambda: arqctl.run("--socket", folders.socket, "list").status == arqctl.GOOD, "commands to be taken")
        return process

    return run


def found(number):
    """What `instances` has of this number, in both forms."""
    result = arqctl.run("instances", "--json")
    shown = arqctl.run("instances").stdout
    return [one for one in result.json["instances"] if one.get("instance") == number], shown


def test_a_unit_without_rights_is_found_and_meant_by_its_number(unit, start, net, launch):
    usual = instances.start(launch, net)
    wait_until(pathlib.Path(control.path(net.instance)).exists, "the control socket")
    usual.stop()  # leaves its socket in /dev
    process = start(unit, "-a", RECEIVER)
    (stale, running), shown = found(net.instance)
    assert stale == {"instance": net.instance, "socket": control.path(net.instance), "state": "stale"}
    assert (running["socket"], running["state"], running["pid"]) == (unit.socket, "running", process.pid)
    assert running["receivers"] == [RECEIVER]
    assert f"{net.instance}: running, 1 receiver, pid {process.pid}\n    control socket {unit.socket}\n" in shown
    assert arqctl.run("-I", net.instance, "list") == (arqctl.GOOD, RECEIVER + "\n", "")


def test_one_with_any_folders_of_its_own_is_found_through_its_process(start, net, closing, tmp_path):
    process = start(closing(Folders(tmp_path / "own", net.instance)))
    path = f"/proc/{process.pid}/root{control.path(net.instance)}"
    (running,), shown = found(net.instance)
    assert (running["socket"], running["state"], running["pid"]) == (path, "running", process.pid)
    assert f"    control socket {path}\n" in shown
    assert arqctl.run("--socket", path, "add", RECEIVER) == (arqctl.GOOD, f"{RECEIVER} was added\n", "")
    diagnosis = doctor()
    assert (diagnosis.object["pid"], diagnosis.object["socket"]) == (process.pid, path)
    assert diagnosis.verdict("control-socket") == "good"


def test_its_deliberate_loss_is_switched_in_its_own_folder(unit, start, net, sender, receive, closing):
    process = start(unit, "-a", RECEIVER)
    receive(RECEIVER)
    closing(Steady(sender, lambda number: rtp.packet(number & 0xFFFF, bytes(100)), 500))
    switched = arqctl.run("-I", net.instance, "impair", "on", "--drop", "1", "--dist", "10")
    assert (switched.status, switched.stderr) == (arqctl.GOOD, "")
    assert "Impairment ON" in process.stderr.lines
    assert (unit.run / f"tx_proxy{net.instance}.imp.conf").exists()
    unit.run.chmod(0o777)
    diagnosis = doctor("-I", net.instance)
    assert diagnosis.verdict("control-socket") == "good" and unit.socket in diagnosis.text("control-socket")
    assert diagnosis.verdict("deliberate-loss") == "warning"
    assert diagnosis.text("run-rights").startswith("anybody may write to /var/run")


def test_a_channel_goes_on_when_the_other_unit_runs_it(unit, net, closing):
    words = ["-I", net.instance, "-p", net.destination, "-r", net.request, net.input]
    first = Proxy(*words, preexec=unit.covering()).wait_ready()
    closing(types.SimpleNamespace(close=first.kill))
    server = closing(Server())
    lines = closing(arqctl.Arqctl("top", "--plain"))
    answers = rf"\S+  {net.instance}  (good|waiting) .*"
    server.wait_channel(net.instance, lambda one: one["up"], "found and up")
    lines.wait_stdout(re.compile(answers))
    first.stop()
    unit.close()  # as systemd does
    server.wait_channel(net.instance, lambda one: not one["up"], "down")
    second = Proxy(*words).wait_ready()
    closing(types.SimpleNamespace(close=second.kill))
    assert server.wait_channel(net.instance, lambda one: one["up"], "up again")["restarts"] == 1
    ended = lines.wait_stdout(re.compile(rf"\S+  {net.instance}  NO PROXY: .*"))
    wait_until(lambda: re.fullmatch(answers, lines.stdout.lines[-1]), f"its return after {ended!r}")
    assert "  good  " not in lines.stdout.text, "neither has had input"


def test_who_may_not_enter_its_folder_is_told_so(unit, start, net):
    start(unit)
    program = shutil.copy(arqctl.program(), f"/tmp/arqctl_{os.getpid()}")
    os.chmod(program, 0o755)

    def become_nobody():
        os.setgid(NOBODY)
        os.setuid(NOBODY)

    def run(*words):
        return subprocess.run([program, *map(str, words)], capture_output=True, text=True, check=False, cwd="/",
                              preexec_fn=become_nobody, timeout=scaled(20))  # fmt: skip

    try:
        listed, shown = run("-I", net.instance, "list"), run("instances")
    finally:
        os.unlink(program)
    assert listed.returncode == arqctl.NO_PROXY
    assert listed.stderr.startswith(f"arqctl: no right to use {unit.socket}\n")
    assert f"{net.instance}: no right to its socket" in shown.stdout
