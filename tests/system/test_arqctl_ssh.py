"""arqctl reaches proxies of other machines through ssh, and says which part of the way is missing."""

import contextlib
import json
import os
import pathlib
import signal
import stat
import urllib.request

import pytest

from txproxy import arqctl, control, instances, ports, process, raw_control
from txproxy.ssh_server import SshServer
from txproxy.waiting import scaled, wait_until

pytestmark = pytest.mark.release_only


@pytest.fixture(scope="module")
def server():
    lease = ports.Lease()
    opened = SshServer(lease.port())
    yield opened
    opened.close()
    lease.close()


def through(server, *arguments, **keywords):
    return arqctl.run("--via", f"ssh:{server.HOST}", *arguments, env=server.environment(**keywords))


def tunnel_folders(server):
    return [path for path in server.folder.iterdir() if path.name.startswith("arqctl-")]


def children(pid):
    return [int(child) for task in process.threads(pid)
            for child in pathlib.Path(f"/proc/{pid}/task/{task}/children").read_text(encoding="ascii").split()]


def test_a_command_reaches_a_proxy_through_ssh_and_leaves_nothing_behind(server, commanded_proxy, net):
    commanded_proxy("-a", "127.0.0.2,127.0.0.3")
    result = through(server, "-I", net.instance, "list")
    assert result == (arqctl.GOOD, "127.0.0.2\n127.0.0.3\n", "")
    assert not tunnel_folders(server)


def test_no_such_socket_over_there(server, net):
    result = through(server, "-I", net.instance, "list")
    assert result.status == arqctl.NO_PROXY
    assert result.problem == (f"there is no control socket {server.HOST}:{control.path(net.instance)}",
                              f"start the proxy there, or see with 'arqctl --via ssh:{server.HOST} instances' which ones run")


def test_a_socket_over_there_whose_proxy_has_ended(server, commanded_proxy, net):
    commanded_proxy().stop()
    result = through(server, "-I", net.instance, "list", "--json")
    assert result.status == result.json["status"] == arqctl.NO_PROXY
    assert result.json["error"] == f"nobody listens on {server.HOST}:{control.path(net.instance)}: its proxy has ended"


def test_an_unknown_host_key_is_refused(server, net):
    result = through(server, "-I", net.instance, "list", known_hosts="/dev/null")
    assert result.status == arqctl.NO_PROXY
    assert result.problem[0] == f"the host key of {server.HOST} is not known here"


def test_a_changed_host_key_is_refused(server, net):
    result = through(server, "-I", net.instance, "list", known_hosts=server.change_known_key())
    assert result.status == arqctl.NO_PROXY
    assert result.problem[0] == f"the host key of {server.HOST} has changed: it may be another machine"


def test_a_key_that_the_other_side_does_not_know_is_refused(server, net):
    result = through(server, "-I", net.instance, "list", key="other")
    assert result.status == arqctl.NO_PROXY
    assert result.problem[0] == f"{server.HOST} refuses the login"


def test_no_ssh_server_on_the_port(server, net, lease):
    result = through(server, "-I", net.instance, "list", port=lease.port())
    assert result.status == arqctl.NO_PROXY
    assert result.problem[0] == f"no ssh server answers on {server.HOST}"


def test_no_ssh_program_here(net):
    result = arqctl.run("--via", "ssh:edge1", "-I", net.instance, "list", env={"ARQCTL_SSH": "no-such-ssh -p 22"})
    assert result.status == arqctl.NO_START
    assert result.problem == ("there is no program no-such-ssh", "install openssh-client, or name another with ARQCTL_SSH")


def test_an_ssh_server_that_forwards_nothing(commanded_proxy, net, lease, closing):
    commanded_proxy("-a", "127.0.0.2")
    strict = closing(SshServer(lease.port(), "AllowStreamLocalForwarding no"))
    result = through(strict, "-I", net.instance, "list")
    assert result.status == arqctl.NO_PROXY
    assert result.problem == (f"{strict.HOST} lets us in, but refuses to forward the control socket",
                              "allow it in its sshd_config: AllowStreamLocalForwarding yes (or local)")


def test_the_tunnel_is_private_and_ends_with_an_arqctl_that_is_killed(server, commanded_proxy, net, closing):
    commanded_proxy()
    with raw_control.connected(net.instance) as held:  # so that arqctl waits for its answer
        held.sendall(b"RxStat")
        assert held.recv(100)
        waiting = closing(arqctl.Arqctl("--via", f"ssh:{server.HOST}", "-I", net.instance, "--timeout", "60s", "list",
                                        env=server.environment()))  # fmt: skip
        (folder,) = wait_until(lambda: tunnel_folders(server), "the tunnel's folder")
        local = wait_until(lambda: list(folder.iterdir()), "the tunnel's socket")[0]
        assert stat.S_IMODE(folder.stat().st_mode) == 0o700
        assert stat.S_IMODE(local.stat().st_mode) == 0o600
        (ssh,) = wait_until(lambda: children(waiting.pid), "ssh")
        waiting.process.send_signal(signal.SIGKILL)
        waiting.wait_exit()
        wait_until(lambda: not os.path.exists(f"/proc/{ssh}"), "ssh to end too")
    os.utime(folder, (0, 0))  # long ago
    assert through(server, "-I", net.instance, "list").status == arqctl.GOOD
    assert not tunnel_folders(server)  # what the killed one left is gone too


def test_instances_of_another_machine_are_those_that_arqctl_finds_there(server, commanded_proxy, net):
    process = commanded_proxy()
    there = {**server.environment(), "ARQCTL_THERE": arqctl.program()}
    found = arqctl.run("--via", f"ssh:{server.HOST}", "instances", "--json", env=there)
    assert found.status == arqctl.GOOD
    assert process.pid in [each.get("pid") for each in found.json["instances"]]
    missing = arqctl.run("--via", f"ssh:{server.HOST}", "instances", env={**there, "ARQCTL_THERE": "/nowhere/arqctl"})
    assert missing.status == arqctl.NO_START
    assert missing.problem == (f"there is no program /nowhere/arqctl on {server.HOST}",
                               "install arqctl there, name it with ARQCTL_THERE=/path/of/arqctl, or run this command there")


def states(port):
    """{ID: state} as the page has them."""
    with urllib.request.urlopen(f"http://127.0.0.1:{port}/api/v1/channels", timeout=scaled(5)) as answer:
        return {each["id"]: each["state"] for each in json.load(answer)["channels"]}


def test_all_proxies_of_a_host_share_one_ssh_which_is_started_again(server, launch, commanded_proxy, net, closing):
    commanded_proxy()
    other, missing = instances.reserve(closing), instances.reserve(closing)
    instances.start(launch, other)
    port = closing(ports.Lease()).port()
    names = [f"{server.HOST}/{each.instance}" for each in (net, other, missing)]
    serving = closing(arqctl.Arqctl("serve", "--listen", f"127.0.0.1:{port}", "--reports", "off", "--timeout", "2s",
                                    *(f"ssh:{name}" for name in names), env=server.environment()))  # fmt: skip

    def are_up():
        with contextlib.suppress(OSError):
            found = states(port)
            return [found.get(name) for name in names] == ["waiting", "waiting", "down"]
        return False

    wait_until(are_up, "two proxies to answer through ssh")
    (ssh,) = children(serving.pid)
    os.kill(ssh, signal.SIGKILL)
    wait_until(lambda: children(serving.pid) not in ([ssh], []), "another ssh")
    wait_until(are_up, "the proxies to answer again")
