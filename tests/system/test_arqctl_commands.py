"""The commands of arqctl against a real proxy, as an operator types them and as a script reads them."""

import json
import os
import pathlib
import socket
import threading
import time

import pytest

from txproxy import arqctl, arqrx, control, instances, ports
from txproxy.arqrx import Arqrx, joining
from txproxy.waiting import wait_until

pytestmark = pytest.mark.release_only


class Pinging:
    """Pings without a stream ID, whatever it is told."""

    def __init__(self, net, address):
        self._ended = threading.Event()
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.bind((address, 0))
        self._socket.connect(("127.0.0.1", net.destination))
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        while not self._ended.wait(0.3):
            self._socket.send(b"")

    def close(self):
        self._ended.set()
        self._thread.join()
        self._socket.close()


def run(net, *arguments, **keywords):
    return arqctl.run("-I", net.instance, *arguments, **keywords)


def objects(result):
    return [json.loads(line) for line in result.stdout.splitlines()]


def test_add_del_and_list_tell_what_happened_by_one_line_and_the_status(commanded_proxy, net, receive):
    for address in ("127.0.0.2", "127.0.0.3"):
        receive(address)  # else what is sent there comes back as pings
    commanded_proxy("-a", "127.0.0.2")
    assert run(net, "add", "127.0.0.3") == (arqctl.GOOD, "127.0.0.3 was added\n", "")
    assert run(net, "list") == (arqctl.GOOD, "127.0.0.2\n127.0.0.3\n", "")
    assert run(net, "add", "127.0.0.3") == (arqctl.ALREADY_SO, "127.0.0.3 was in the list before\n", "")
    assert run(net, "del", "127.0.0.2") == (arqctl.GOOD, "127.0.0.2 was deleted\n", "")
    assert run(net, "del", "127.0.0.2") == (arqctl.ALREADY_SO, "127.0.0.2 is not in the list\n", "")
    assert run(net, "list", "--json").json == {"receivers": ["127.0.0.3"]}


def test_a_name_is_looked_up_by_the_proxy(commanded_proxy, net):
    commanded_proxy("-a", "127.0.0.2")
    assert run(net, "add", "localhost").status == arqctl.GOOD
    assert run(net, "list").stdout == "127.0.0.2\n127.0.0.1\n"
    assert run(net, "del", "localhost").status == arqctl.GOOD
    refused = run(net, "add", "no-such-host.invalid", "--json")
    assert refused.status == arqctl.NOT_DONE
    assert refused.json["result"] == "refused"
    assert "a name must be known to the proxy's machine" in refused.json["advice"]
    assert run(net, "del", "no-such-host.invalid").status == arqctl.NOT_DONE


def test_several_receivers_have_a_line_each_and_one_status(commanded_proxy, net, receive):
    receive("127.0.0.2")
    commanded_proxy("-a", "127.0.0.2")
    some = run(net, "add", "127.0.0.2,127.0.0.3", "127.0.0.4", "--json")
    assert some.status == arqctl.GOOD
    assert [(each["receiver"], each["result"]) for each in objects(some)] == [
        ("127.0.0.2", "already"), ("127.0.0.3", "done"), ("127.0.0.4", "done")]  # fmt: skip
    assert objects(some)[-1]["receivers"] == ["127.0.0.2", "127.0.0.3", "127.0.0.4"]
    assert run(net, "add", "127.0.0.2", "127.0.0.3").status == arqctl.ALREADY_SO
    assert run(net, "del", "127.0.0.2", "no-such-host.invalid").status == arqctl.NOT_DONE


def test_a_receiver_with_a_stream_id_is_refused_with_the_reason(commanded_proxy, net, closing):
    proxy_process = commanded_proxy()
    receiver = closing(Arqrx(*joining(net, "--bind", arqrx.LOCAL)))
    proxy_process.wait_stderr(arqrx.started())
    refused = run(net, "del", arqrx.LOCAL)
    assert refused.status == arqctl.NOT_DONE
    assert refused.problem == (f"{arqrx.LOCAL} is still in the list",
                               "it joined with an ID, which no command deletes, or it pings on and came back: end the receiver")
    assert run(net, "add", arqrx.LOCAL).status == arqctl.GOOD  # once more, by its address
    twice = run(net, "del", arqrx.LOCAL)
    assert twice == (arqctl.GOOD, f"{arqrx.LOCAL} was deleted; it stands there once more\n", "")
    assert receiver.end() == arqrx.NO_MEDIA


@pytest.mark.parametrize("what, left", [("rx", ("0", "6")), ("tx", ("3", "0")), ("all", ("0", "0"))])
def test_reset_begins_the_counts_again(commanded_proxy, net, receive, sender, what, left):
    for address in ("127.0.0.2", "127.0.0.3"):
        receive(address)
    commanded_proxy("-a", "127.0.0.2,127.0.0.3", "-u")
    for _ in range(3):
        sender.send(b"x" * 100)

    def counts():
        fields = dict(line.split("=", 1) for line in control.request(net.instance, "AllStats").splitlines())
        return fields["RECV_PACKETS"], fields["SEND_PACKETS"]

    wait_until(lambda: counts() == ("3", "6"), "all packets to be counted")
    assert run(net, "reset", what).status == arqctl.GOOD
    assert counts() == left


def test_debug_says_where_the_dump_is(commanded_proxy, net):
    process = commanded_proxy("-a", "127.0.0.2")
    result = run(net, "debug")
    assert result == (arqctl.GOOD, "the proxy has written its dump to its own standard error\n", "")
    process.wait_stderr("m_nNumStreams 1")


def test_options_stand_before_or_behind_the_command_or_in_a_file(commanded_proxy, net, tmp_path):
    commanded_proxy("-a", "127.0.0.2")
    settings = tmp_path / "arqctl.ini"
    settings.write_text(f"instance={net.instance}\njson=true\ntimeout=10s\n", encoding="ascii")
    wanted = (arqctl.GOOD, '{"receivers":["127.0.0.2"]}\n', "")
    assert arqctl.run("--json", "--socket", control.path(net.instance), "list") == wanted
    assert arqctl.run("list", "-I", net.instance, "--json", "--timeout", "10s") == wanted
    assert arqctl.run("--config", settings, "list") == wanted
    settings.write_text("instanze=3\n", encoding="ascii")
    misspelt = arqctl.run("--config", settings, "list")
    assert (misspelt.status, misspelt.problem[0]) == (arqctl.USAGE, "--config: there is no option 'instanze'")


@pytest.mark.parametrize("arguments, problem, command", [
    ((), "no command was given", ""),
    (("lsit",), "there is no command 'lsit'", ""),
    (("list", "-I", "1x"), "-I: '1x' is not an instance number; write it as behind the proxy's -I", " list"),
    (("-I", "1", "--socket", "/x", "list"), "-I and --socket are two proxies; name one", " list"),
    (("--via", "ssh:-oX", "list"),
     "--via: 'ssh:-oX' is not another machine; write ssh:HOST, ssh:USER@HOST or ssh:HOST/INSTANCE", " list"),
    (("--timeout", "0", "list"), "--timeout: '0' is not a time from 1ms to 1h; write 5s or 500ms", " list"),
    (("reset", "both"), "reset: 'both' is not rx, tx or all", " reset"),
    (("add", "10.0.0.1,"), "ADDRESS: '' is not an address or the name of a host", " add"),
    (("add", "10.0.0.1:5000"), "ADDRESS: '10.0.0.1:5000' is not an address or the name of a host", " add"),
    (("impair",), "impair: one of these is missing: on, off, status", " impair"),
])  # fmt: skip
def test_a_wrong_use_says_what_is_wrong_and_where_help_is(arguments, problem, command):
    result = arqctl.run(*arguments)
    assert result.status == arqctl.USAGE
    assert result.problem == (problem, f"Try 'arqctl{command} --help' for options and examples.")
    as_object = arqctl.run(*arguments, "--json")
    assert as_object.status == as_object.json["status"] == arqctl.USAGE
    assert as_object.json["error"] == problem


def test_drain_deletes_every_receiver(commanded_proxy, net, receive):
    addresses = ["127.0.0.2", "127.0.0.3", "127.0.0.4"]
    for address in addresses:
        receive(address)  # else the stop messages come back as pings
    commanded_proxy("-a", ",".join(addresses))
    assert run(net, "drain", "--settle", "100ms") == (arqctl.GOOD, "3 receivers were deleted; none is left\n", "")
    assert run(net, "list").stdout == ""
    assert run(net, "drain", "--json").json == {
        "action": "drain", "result": "already", "text": "there are no receivers", "deleted": [], "left": []}  # fmt: skip
    assert run(net, "drain").status == arqctl.ALREADY_SO


def test_drain_tells_of_receivers_that_ping_and_of_those_with_a_stream_id(commanded_proxy, net, receive, closing):
    receive("127.0.0.9")
    process = commanded_proxy("-a", "127.0.0.9")
    closing(Arqrx(*joining(net, "--bind", arqrx.LOCAL)))
    process.wait_stderr(arqrx.started())
    closing(Pinging(net, "127.0.0.5"))
    wait_until(lambda: len(run(net, "list", "--json").json["receivers"]) == 3, "all three to be listed")
    result = run(net, "drain", "--timeout", "1500ms", "--json")
    assert result.status == arqctl.NOT_DONE
    assert result.json["result"] == "refused"
    assert result.json["deleted"] == ["127.0.0.9"]
    assert sorted(result.json["left"], key=str) == [
        {"address": arqrx.LOCAL, "came_back": False}, {"address": "127.0.0.5", "came_back": True}]  # fmt: skip
    assert result.problem[0].startswith("2 of 3 receivers are left: ")
    assert "127.0.0.5 (came back: it pings)" in result.problem[0]


def test_instances_tells_proxies_stale_sockets_and_other_programs_apart(commanded_proxy, launch, net, closing):
    process = commanded_proxy("-a", "127.0.0.2", "-Z", "secret")
    ended = instances.reserve(closing)
    process_of_ended = instances.start(launch, ended)
    cut_off = instances.reserve(closing)
    without = instances.start(launch, cut_off)
    for each in (ended, cut_off):
        wait_until(pathlib.Path(control.path(each.instance)).exists, "the control socket")
    process_of_ended.stop()
    os.unlink(control.path(cut_off.instance))
    pathlib.Path(control.path("X")).write_text("a file", encoding="ascii")
    try:
        found = run(net, "instances", "--json")
        shown = run(net, "instances").stdout
    finally:
        os.unlink(control.path("X"))
    assert found.status == arqctl.GOOD
    by_number = {each.get("instance"): each for each in found.json["instances"]}
    live = by_number[net.instance]
    assert live.pop("start_time") == pytest.approx(time.time(), abs=60)
    assert live == {
        "instance": net.instance, "socket": control.path(net.instance), "state": "running", "pid": process.pid,
        "command": f"tx_proxy -I {net.instance} -p {net.destination} -r {net.request} -a 127.0.0.2 -Z *** {net.input}",
        "listen_port": net.input, "media_port": net.destination, "request_port": net.request,
        "lock_port": ports.lock_port(net.instance), "input_bit_rate": 0, "receivers": ["127.0.0.2"]}  # fmt: skip
    assert by_number[ended.instance] == {"instance": ended.instance, "socket": control.path(ended.instance), "state": "stale"}
    assert (by_number[cut_off.instance]["state"], by_number[cut_off.instance]["pid"]) == ("no_socket", without.pid)
    assert by_number[None] == {"socket": control.path("X"), "state": "foreign"}
    assert f"{net.instance}: running, 1 receiver, pid {process.pid}\n" \
           f"    input {net.input}, media {net.destination}, requests {net.request}\n" in shown
    assert f"{ended.instance}: has ended; its socket was left behind\n" in shown


def test_instances_without_a_proxy_have_a_status_of_their_own():
    result = arqctl.run("instances", "--json")
    assert result.status == arqctl.NO_PROXY
    assert result.problem[0] == "no proxy runs here"
    assert {each["state"] for each in result.json["instances"]} <= {"stale"}
