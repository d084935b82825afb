"""The HTTP interface of `arqctl serve` as pages, programs and strangers use it. One server serves most of the tests."""

import contextlib
import http.client
import json
import pathlib
import re
import signal
import socket
import subprocess
import threading
import time
import types

import pytest

from txproxy import arqctl, control, netns, ports, rtp, serving
from txproxy.process import stopped
from txproxy.proxy import Proxy, build_kind
from txproxy.receiver import Receiver, Sender
from txproxy.serving import TOKEN, Server
from txproxy.traffic import Steady
from txproxy.waiting import scaled, wait_until, within

NOWHERE = "/dev/no_proxy_here"
RECEIVER = "127.0.0.2"
LATER = "127.0.0.77"


def launch_proxy(lease, net):
    return Proxy("-I", lease.instance, "-a", RECEIVER, "-p", net.destination, "-r", net.request, net.input).wait_ready()


def ports_of(lease):
    return types.SimpleNamespace(input=lease.port(), destination=lease.port(), request=lease.port())


@pytest.fixture(scope="module")
def site(tmp_path_factory):
    """A channel with input, one without a proxy, and the server that shows both and may be told to change them."""
    token = tmp_path_factory.mktemp("serve") / "token"
    token.write_text(TOKEN + "\n")
    with contextlib.ExitStack() as stack:
        lease = stack.enter_context(contextlib.closing(ports.Lease()))
        net = ports_of(lease)
        for address in (RECEIVER, LATER):  # otherwise what is sent there would be taken for pings
            stack.enter_context(contextlib.closing(Receiver(address, net.destination)))
        proxy = launch_proxy(lease, net)
        stack.callback(proxy.kill)
        feed = Steady(stack.enter_context(contextlib.closing(Sender("127.0.0.1", net.input))),
                      lambda number: rtp.packet(number), 300)
        stack.callback(feed.close)
        server = Server("--allow-control", "--token-file", token, "--channel-name", f"{lease.instance}=News",
                        "--allow-host", "wall.example", lease.instance, NOWHERE)
        stack.callback(server.close)
        server.wait_channel(lease.instance, lambda channel: channel["state"] == "good", "good")
        server.wait_channel(NOWHERE, lambda channel: channel["state"] == "down", "down")
        yield types.SimpleNamespace(server=server, proxy=proxy, id=str(lease.instance), net=net, feed=feed,
                                    path=f"/api/v1/channels/{lease.instance}")
        assert server.is_alive() and proxy.is_alive()
        server.process.send_signal(signal.SIGTERM)
        assert server.wait_exit() == 0 and server.stderr.text == ""


@pytest.fixture
def server(site):
    return site.server


def kinds(value):
    """The same structure with the names of types in place of values."""
    if isinstance(value, dict):
        return {name: kinds(inner) for name, inner in value.items()}
    if isinstance(value, list):
        return [kinds(inner) for inner in value]
    return "number" if isinstance(value, (int, float)) and not isinstance(value, bool) else type(value).__name__


INPUT = dict.fromkeys(["bit_rate", "packets", "packet_rate", "lost", "loss_rate"], "number")
OUTPUT = dict.fromkeys(["bit_rate", "packets", "packet_rate", "sent_beyond", "sent_beyond_rate", "withheld",
                        "withheld_rate"], "number")
CHANNEL = {"id": "str", "name": "str", "state": "str", "state_text": "str", "since": "number", "up": "bool",
           "input": INPUT, "output": OUTPUT, "resets": "number", "restarts": "number", "receivers": [], "reports": []}
OPTIONS = {"listen_port": "number", "group": "str", "media_port": "number", "request_port": "number",
           "ring_packets": "number", "gross_bit_rate": "number", "pacing_bit_rate": "number"}
SEEN = {**CHANNEL, "input": {**INPUT, "silent_s": "number", "kernel_drops": "number"}, "options": OPTIONS,
        "receivers": [{"address": "str", "state": "str", "since": "number"}]}


@pytest.mark.release_only
def test_channels_have_the_documented_fields(site):
    server, now = site.server, time.time()
    listing = server.get("/api/v1/channels").json
    assert list(listing) == ["version", "time", "allow_control", "channels"]
    assert listing["allow_control"] is True and abs(listing["time"] - now) < scaled(5)
    seen, missing = listing["channels"]
    assert kinds(seen) == SEEN
    assert kinds(missing) == {**CHANNEL, "input": {}, "output": {}}
    assert (seen["id"], seen["name"], seen["up"]) == (site.id, "News", True)
    assert (missing["id"], missing["name"], missing["up"]) == (NOWHERE, NOWHERE, False)
    assert seen["options"]["listen_port"] == site.net.input and seen["input"]["kernel_drops"] == 0
    assert [one["address"] for one in seen["receivers"]] == [RECEIVER]
    assert now - scaled(60) < seen["since"] <= time.time()
    assert server.get(site.path).json["id"] == site.id
    assert server.get("/api/v1/channels/%2Fdev%2Fno_proxy_here").json["id"] == NOWHERE


@pytest.mark.release_only
def test_history_has_columns_of_equal_steps_with_null_where_nothing_is_known(site):
    path = site.path + "/history?span=60&points=1000"

    def two_seconds_with_input():
        found = site.server.get(path).json
        return found if min(packets or 0 for packets in found["input_packets"][-2:]) > 150 else None

    history = wait_until(two_seconds_with_input, "two seconds with input")
    columns = ["input_bit_rate", "output_bit_rate", "input_packets", "lost", "sent_beyond", "withheld", "receivers",
               "reported_missing", "reported_recovered", "reported_lost"]
    assert list(history) == ["channel", "step_s", "time", *columns]
    assert history["channel"] == site.id and history["step_s"] == 1
    times = history["time"]
    assert len(times) == 60 and all(later - earlier == 1 for earlier, later in zip(times, times[1:]))
    assert all(len(history[column]) == 60 for column in columns)
    assert history["input_packets"][0] is None and history["receivers"][-1] == 1
    assert sum(packets or 0 for packets in history["input_packets"]) <= site.feed.sent, "each counts its own second only"
    day = site.server.get(site.path + "/history?span=86400&points=1000").json
    assert day["step_s"] == 90 and len(day["time"]) == 960


@pytest.mark.release_only
def test_metrics_have_every_documented_name_and_pass_the_linter(site):
    reply = site.server.get("/metrics")
    assert reply.fields["Content-Type"] == "text/plain; version=0.0.4; charset=utf-8"
    lint = subprocess.run(["promtool", "check", "metrics"], input=reply.body, text=True, capture_output=True, check=False)
    assert (lint.returncode, lint.stdout, lint.stderr) == (0, "", "")
    names = set(re.findall(r"^(\w+)(?:\{[^}]*\})? ", reply.body, re.MULTILINE))
    assert names == {"arqctl_build_info", "arqctl_event_clients"} | {"tx_proxy_" + name for name in (
        "up input_packets_total input_lost_packets_total input_bytes_per_second output_packets_total "
        "output_bytes_per_second sent_beyond_packets_total withheld_packets_total input_silent_seconds receivers "
        "receiver_up input_kernel_drops_total restarts_total start_time_seconds cpu_seconds_total "
        "resident_memory_bytes ring_packets request_budget_bytes control_failures_total "
        "control_answer_seconds").split()}
    assert f'tx_proxy_up{{channel="{site.id}"}} 1' in reply.body
    assert f'tx_proxy_up{{channel="{NOWHERE}"}} 0' in reply.body
    assert f'tx_proxy_receiver_up{{channel="{site.id}",receiver="{RECEIVER}"}} 1' in reply.body
    of_missing = re.findall(rf'^(\w+){{channel="{NOWHERE}"}}', reply.body, re.MULTILINE)
    assert of_missing == ["tx_proxy_up", "tx_proxy_control_failures_total"]
    assert f'tx_proxy_request_budget_bytes{{channel="{site.id}"}} 352516' in reply.body


@pytest.mark.release_only
def test_a_receiver_is_added_and_deleted_and_the_answers_tell_what_happened(site):
    path, receiver = site.path + "/receivers", f"{site.path}/receivers/{LATER}"
    answers = [site.server.order("POST", path, {"address": LATER}), site.server.order("POST", path, {"address": LATER})]
    assert [(one.status, one.json) for one in answers] == [
        (200, {"result": "done", "text": f"{LATER} was added"}),
        (200, {"result": "already", "text": f"{LATER} was in the list before"})]
    assert LATER in control.request(int(site.id), "List").split(",")
    site.server.wait_channel(site.id, lambda one: LATER in [each["address"] for each in one["receivers"]], "wider")
    answers = [site.server.order("DELETE", receiver), site.server.order("DELETE", receiver)]
    assert [(one.status, one.json) for one in answers] == [
        (200, {"result": "done", "text": f"{LATER} was deleted"}),
        (200, {"result": "already", "text": f"{LATER} is not in the list"})]
    # Nobody misses what was deleted on purpose.
    site.server.wait_channel(site.id, lambda one: [each["address"] for each in one["receivers"]] == [RECEIVER], "as before")
    refused = site.server.order("POST", path, {"address": "nosuch.invalid"}).json
    assert refused["result"] == "refused" and refused["advice"].startswith("50 receivers are the most")


@pytest.mark.release_only
def test_deliberate_loss_is_switched_on_and_off_and_the_channel_says_so(site):
    path = site.path + "/impairment"
    on = site.server.order("POST", path, {"on": True, "mode": 1, "min_drop": 1, "min_dist": 4})
    assert (on.status, on.json["result"]) == (200, "done"), on.body
    assert site.server.wait_channel(site.id, lambda one: one["output"]["withheld"] > 0, "withholding")["impairment"] is True
    assert site.server.order("POST", path, {"on": False}).json["result"] == "done"
    site.server.wait_channel(site.id, lambda one: one["impairment"] is False, "known to withhold nothing")


CONTROL_TOKEN_ADVICE = "send the one of --token-file, or of the file named at the start, as X-Arqctl-Token"
OWN_PAGE_ADVICE = "control the channels from this server's own page, or with 'arqctl'"
ADDRESS_ADVICE = 'send {"address":"10.0.0.1"}, an address or a host name'
HISTORY_ADVICE = "ask for history?span=300&points=600"
CHANNELS_ADVICE = "/api/v1/channels lists those there are"
IMPAIR_ADVICE = 'send {"on":true,"mode":1,"min_drop":1,"min_dist":100} or {"on":false}'
PATHS_ADVICE = "the page is at /, the interface at /api/v1/channels, metrics at /metrics"

REFUSALS = {
    "unknown path": ("GET", "/nothing", {}, None, 404, "there is nothing at this path", PATHS_ADVICE),
    "unknown file": ("GET", "/page/../token", {}, None, 404, "the page has no such file", PATHS_ADVICE),
    "broken escape": ("GET", "/api/v1/channels/%zz", {}, None, 404, "there is nothing at this path", PATHS_ADVICE),
    "unknown channel": ("GET", "/api/v1/channels/x", {}, None, 404, "there is no such channel", CHANNELS_ADVICE),
    "other method": ("PUT", "/", {}, None, 405, "this path does not have that method", "the Allow field says which it has"),
    "short span": ("GET", "{channel}/history?span=59", {}, None, 400, "span is not 60 to 86400 seconds", HISTORY_ADVICE),
    "no span": ("GET", "{channel}/history?span=x", {}, None, 400, "span is not 60 to 86400 seconds", HISTORY_ADVICE),
    "many points": ("GET", "{channel}/history?points=1001", {}, None, 400, "points is not 1 to 1000", HISTORY_ADVICE),
    "wrong token": ("POST", "{channel}/receivers", {"X-Arqctl-Token": TOKEN[:-1] + "x"}, {"address": "10.0.0.1"}, 403,
                    "the token is not the right one", CONTROL_TOKEN_ADVICE),
    "other page": ("POST", "{channel}/receivers", {"Origin": "http://evil.example"}, {"address": "10.0.0.1"}, 403,
                   "the request comes from a page of 'http://evil.example'", OWN_PAGE_ADVICE),
    "other site": ("DELETE", "{channel}/receivers/10.0.0.1", {"Sec-Fetch-Site": "cross-site"}, None, 403,
                   "the request comes from another site's page (Sec-Fetch-Site: 'cross-site')", OWN_PAGE_ADVICE),
    "a form": ("POST", "{channel}/receivers", {"Content-Type": "text/plain"}, {"address": "10.0.0.1"}, 415,
               "the body is not said to be JSON", "send it with Content-Type: application/json"),
    "no address": ("POST", "{channel}/receivers", {}, {}, 400, "the body is not an object with an address", ADDRESS_ADVICE),
    "a list": ("POST", "{channel}/receivers", {}, [], 400, "the body is not an object with an address", ADDRESS_ADVICE),
    "two words": ("POST", "{channel}/receivers", {}, {"address": "10.0.0.1 StatClear"}, 400,
                  "the address is empty, too long, or has blanks or colons in it", ADDRESS_ADVICE),
    "two words in the path": ("DELETE", "{channel}/receivers/a%20b", {}, None, 400,
                              "the address is empty, too long, or has blanks or colons in it",
                              "end the path with /receivers/10.0.0.1"),
    "on or off": ("POST", "{channel}/impairment", {}, {"on": 1}, 400,
                  "the body does not say whether deliberate loss shall be on", IMPAIR_ADVICE),
    "a setting misspelt": ("POST", "{channel}/impairment", {}, {"on": True, "min_dorp": 1}, 400,
                           "there is no setting of that name", IMPAIR_ADVICE),
    "a negative setting": ("POST", "{channel}/impairment", {}, {"on": True, "min_drop": -1}, 400,
                           "min_drop is no whole number from 0 to 1000000000", IMPAIR_ADVICE),
    "channel to change": ("POST", "/api/v1/channels/x/receivers", {}, {"address": "10.0.0.1"}, 404,
                          "there is no such channel", CHANNELS_ADVICE),
    "channel that is down": ("POST", "/api/v1/channels/%2Fdev%2Fno_proxy_here/receivers", {}, {"address": "10.0.0.1"}, 503,
                             f"there is no control socket {NOWHERE}", "try again when the channel is up"),
}


@pytest.mark.parametrize("case", REFUSALS, ids=lambda case: case.replace(" ", "-"))
def test_a_refusal_says_what_is_wrong_and_what_to_do(site, case):
    method, path, fields, body, status, error, advice = REFUSALS[case]
    reply = site.server.order(method, path.format(channel=site.path), body, **fields)
    assert (reply.status, reply.json) == (status, {"error": error, "advice": advice})
    if status == 405:
        assert reply.fields["Allow"] == "GET, HEAD"


EVERY_PATH = ["/", "/page/index.html", "/healthz", "/metrics", "/api/v1/channels", "/api/v1/events", "/nothing"]


@pytest.mark.parametrize("path", EVERY_PATH)
def test_another_host_is_refused_on_every_path_and_an_allowed_one_is_not(server, path):
    refused = server.get(path, Host=f"evil.example:{server.port}")
    assert refused.status == 421
    assert refused.json == {
        "error": f"this server is not known as 'evil.example:{server.port}'",
        "advice": "use the address that it listens on, or start it with --allow-host NAME for another name"}
    assert server.request("HEAD", path, {"Host": "wall.example"}).status == (404 if path == "/nothing" else 200)
    assert server.request("HEAD", path, {"Host": f"localhost:{server.port}"}).status != 421


@pytest.mark.parametrize("path", EVERY_PATH)
def test_every_reply_keeps_browsers_from_taking_or_showing_it_elsewhere(server, path):
    for host in (f"127.0.0.1:{server.port}", "evil.example"):
        fields = server.request("HEAD", path, {"Host": host, "Origin": "http://evil.example"}).fields
        assert fields["Content-Security-Policy"].startswith("default-src 'self';")
        assert "frame-ancestors 'none'" in fields["Content-Security-Policy"]
        assert (fields["X-Content-Type-Options"], fields["Referrer-Policy"]) == ("nosniff", "no-referrer")
        assert fields["Cache-Control"] in ("no-store", "no-cache")
        assert not [name for name in fields if name.lower().startswith("access-control")]


@pytest.mark.release_only
def test_a_file_that_the_browser_has_is_not_sent_again(server):
    first = server.get("/")
    assert first.status == 200 and first.fields["Content-Type"] == "text/html; charset=utf-8"
    again = server.request("GET", "/", {"If-None-Match": first.fields["ETag"]})
    assert (again.status, again.body) == (304, "")
    assert server.request("GET", "/", {"If-None-Match": '"other"'}).body == first.body
    assert server.request("HEAD", "/").body == ""


@pytest.mark.release_only
def test_without_control_the_server_only_shows(closing):
    server = closing(Server(NOWHERE))
    assert server.get("/api/v1/channels").json["allow_control"] is False
    reply = server.order("POST", "/api/v1/channels/1/receivers", {"address": "10.0.0.1"})
    assert (reply.status, reply.json) == (403, {
        "error": "this server only shows", "advice": "start it with --allow-control to change something through it"})
    wait_until(lambda: server.get("/healthz").body == f"there is no control socket {NOWHERE}\n", "a reason")
    assert server.get("/healthz").status == 503


def post(server, path, body):
    body = json.dumps(body).encode()
    head = (f"POST {path} HTTP/1.1\r\nHost: 127.0.0.1:{server.port}\r\nX-Arqctl-Token: {TOKEN}\r\n"
            f"Content-Type: application/json\r\nContent-Length: {len(body)}\r\n\r\n")
    return head.encode() + body


def get(server, path="/healthz"):
    return f"GET {path} HTTP/1.1\r\nHost: 127.0.0.1:{server.port}\r\n\r\n".encode()


def read_until(sock, enough):
    data = b""
    while not enough(data):
        chunk = sock.recv(65536)
        assert chunk, f"closed after {data!r}"
        data += chunk
    return data


def test_what_a_client_sends_behind_a_change_waits_for_its_answer(site):
    with site.server.connect() as sock:
        with stopped(site.proxy):
            sock.sendall(post(site.server, site.path + "/receivers", {"address": RECEIVER}))
            busy = {"error": "another change of this channel is under way", "advice": "try again when it has ended"}
            wait_until(lambda: site.server.order("DELETE", f"{site.path}/receivers/{LATER}").json == busy, "the change")
            sock.sendall(get(site.server) * 2)
        data = read_until(sock, lambda data: data.count(b"HTTP/1.1 ") == 3)
    assert data.index(b'"result":"already"') < data.index(b"ok\n")


def test_a_client_that_leaves_before_its_answer_harms_nobody(site):
    with site.server.connect() as sock:
        sock.sendall(post(site.server, site.path + "/receivers", {"address": RECEIVER}))
    wait_until(lambda: site.server.order("POST", site.path + "/receivers", {"address": RECEIVER}).status == 200, "its end")


MALFORMED = {
    "nothing known": b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03\r\n\r\n",
    "zero bytes": b"\0" * 64 + b"\r\n\r\n",
    "no version": b"GET /healthz\r\n\r\n",
    "version 9": b"GET /healthz HTTP/9.9\r\nHost: x\r\n\r\n",
    "no host": b"GET /healthz HTTP/1.1\r\n\r\n",
    "two hosts": b"GET /healthz HTTP/1.1\r\nHost: 127.0.0.1\r\nHost: evil.example\r\n\r\n",
    "host of the target": b"GET http://evil.example/healthz HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n",
    "field without a colon": b"GET /healthz HTTP/1.1\r\nHost\r\n\r\n",
    "long line": b"GET /" + b"a" * 20_000 + b" HTTP/1.1\r\n\r\n",
    "long fields": b"GET / HTTP/1.1\r\n" + b"X: y\r\n" * 5000 + b"\r\n",
    "length that is none": b"POST /x HTTP/1.1\r\nHost: x\r\nContent-Length: -1\r\n\r\n",
    "huge length": b"POST /x HTTP/1.1\r\nHost: x\r\nContent-Length: 99999999999999999999\r\n\r\n",
    "long body": b"POST /x HTTP/1.1\r\nHost: x\r\nContent-Length: 4097\r\n\r\n" + b"x" * 4097,
    "long chunk": b"POST /x HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\nffffffff\r\nx",
    "chunk that is none": b"POST /x HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\nx",
    "unknown method": b"BREW / HTTP/1.1\r\nHost: x\r\n\r\n",
    "connect": b"CONNECT evil.example:443 HTTP/1.1\r\nHost: evil.example\r\n\r\n",
}


@pytest.mark.parametrize("case", MALFORMED, ids=lambda case: case.replace(" ", "-"))
def test_a_malformed_request_is_refused_or_cut_off(server, case):
    with server.connect() as sock:
        sock.sendall(MALFORMED[case])
        with contextlib.suppress(ConnectionResetError):
            reply = sock.recv(65536)
            assert re.match(rb"HTTP/1\.[01] (4\d\d|501) |$", reply), reply
    assert server.get("/healthz").body == "ok\n"


def test_an_exact_body_limit(server):
    def status(size):
        return server.order("POST", "/api/v1/channels/x/receivers", "x" * (size - 2)).status

    assert (status(4096), status(4097)) == (404, 413)


def test_half_requests_of_many_connections_keep_nobody_out(server):
    with contextlib.ExitStack() as stack:
        lines = [stack.enter_context(server.connect()) for _ in range(300)]
        for sock in lines:
            sock.sendall(b"GET /healthz HTTP/1.1\r\nHo")
        with within(2):
            assert server.get("/healthz").body == "ok\n"
        more = [stack.enter_context(server.connect()) for _ in range(300)]
        for sock in more:
            with contextlib.suppress(ConnectionError):
                sock.sendall(b"G")
        # Beyond 512 the oldest ones end, so that there is room for a whole request.
        assert server.get("/healthz").body == "ok\n"
        with contextlib.suppress(ConnectionResetError):
            assert lines[0].recv(1) == b""
    assert server.get("/healthz").body == "ok\n"


def test_many_pages_get_each_event_and_those_that_leave_are_noticed(server):
    clients = 20 if build_kind() == "asan" else 60
    with contextlib.ExitStack() as stack:
        streams = [stack.enter_context(contextlib.closing(server.events())).begin() for _ in range(clients)]
        assert streams[0].fields["Content-Type"] == "text/event-stream"
        first = streams[0].next()
        assert first["event"] == "state" and list(first["data"]) == ["version", "time", "allow_control", "channels"]
        ids = [int(streams[0].next()["id"]) for _ in range(2)]
        assert ids == [int(first["id"]) + 1, int(first["id"]) + 2]
        for stream in streams[1:]:
            seen = int(stream.next()["id"])
            assert int(stream.next()["id"]) == seen + 1
        wait_until(lambda: server.metric("arqctl_event_clients") == clients, "all to be counted")
    wait_until(lambda: server.metric("arqctl_event_clients") == 0, "all to be gone")


def test_beyond_200_event_streams_the_next_one_is_told_to_come_later(server):
    with contextlib.ExitStack() as stack:
        streams = [stack.enter_context(contextlib.closing(server.events())) for _ in range(200)]
        assert {stream.begin().status for stream in streams} == {200}
        late = server.get("/api/v1/events")
        assert (late.status, late.fields["Retry-After"]) == (503, "10")
        assert late.json == {"error": "200 event streams are open already", "advice": "close some pages, and try again"}
    wait_until(lambda: server.metric("arqctl_event_clients") == 0, "all to be gone")


def test_an_event_client_that_does_not_read_is_dropped_and_others_go_on(closing):
    names = [f"/dev/{number}" for number in range(20)]
    long_names = [word for name in names for word in ("--channel-name", name + "=" + "x" * 6000)]
    server = closing(Server(*long_names, *names))
    closing(server.events(receive_buffer=4096))
    reader = closing(server.events()).begin()
    wait_until(lambda: server.metric("arqctl_event_clients") == 2, "both streams")
    wait_until(lambda: reader.next() and server.metric("arqctl_event_clients") == 1, "the silent one to be dropped")
    assert int(reader.next()["id"]) + 1 == int(reader.next()["id"])


def test_while_the_proxy_is_held_every_client_is_answered_at_once(site):
    def ask(times):
        for _ in range(5):
            began = time.monotonic()
            assert site.server.get("/api/v1/channels").status == 200
            assert site.server.get(site.path + "/history").status == 200
            times.append(time.monotonic() - began)

    times = []
    with stopped(site.proxy):
        threads = [threading.Thread(target=ask, args=(times,)) for _ in range(10)]
        with within(3):
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
        assert len(times) == 50
        down = site.server.wait_channel(site.id, lambda one: one["state"] == "down", "down")
        assert down["up"] is False and down["state_text"].startswith("The proxy does not answer: no answer in time on /dev/")
        assert site.server.get("/healthz").status == 503
        reply = site.server.order("POST", site.path + "/receivers", {"address": LATER})
        assert reply.status == 503 and reply.json["advice"] == "try again when the channel is up"
    site.server.wait_channel(site.id, lambda one: one["state"] == "good", "good again")


class CountedSocket:
    """A control socket that counts its requests and answers as a proxy does."""

    REPLY = b"RECV_PACKETS=0\nRECV_BITRATE=0\nRECV_LOSS=0\nSEND_PACKETS=0\nSEND_BITRATE=0\nCLIENTS="

    def __init__(self, path):
        self.requests = []
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._socket.bind(str(path))
        self._socket.listen()
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        with contextlib.suppress(OSError):
            while True:
                client, _ = self._socket.accept()
                with client:
                    self.requests.append((time.monotonic(), client.recv(1024)))
                    client.sendall(self.REPLY)

    def close(self):
        self._socket.shutdown(socket.SHUT_RDWR)
        self._socket.close()


@pytest.mark.release_only
def test_however_many_ask_the_proxy_is_asked_once_a_second(closing, tmp_path):
    proxy = closing(CountedSocket(tmp_path / "control"))
    server = closing(Server(tmp_path / "control"))
    wait_until(lambda: proxy.requests, "the first question")
    streams = [closing(server.events()).begin() for _ in range(5)]
    while len(proxy.requests) < 4:
        assert server.get("/metrics").status == server.get("/api/v1/channels").status == 200
    assert {request for _, request in proxy.requests} == {b"AllStats"}
    moments = [moment for moment, _ in proxy.requests]
    assert all(later - earlier > 0.9 for earlier, later in zip(moments, moments[1:]))
    assert streams


@pytest.mark.release_only
def test_history_survives_a_restart_of_the_proxy_with_a_gap(closing, lease):
    net = ports_of(lease)
    first = launch_proxy(lease, net)
    server = closing(Server())
    path = f"/api/v1/channels/{lease.instance}/history?span=60"
    server.wait_channel(lease.instance, lambda one: one["up"], "found, as no target was given, and up")
    wait_until(lambda: any(server.get(path).json["receivers"]), "a sample")
    first.stop()
    down = server.wait_channel(lease.instance, lambda one: one["state"] == "down", "down")
    assert set(down["input"]) == {"packets", "lost", "silent_s"} and set(down["output"]) == {"packets", "sent_beyond", "withheld"}
    unknown = rf'^tx_proxy_((in|out)put_bytes_per_second|receivers){{channel="{lease.instance}"}}'
    assert not re.search(unknown, server.get("/metrics").body, re.MULTILINE)
    second = launch_proxy(lease, net)
    closing(types.SimpleNamespace(close=second.kill))
    back = server.wait_channel(lease.instance, lambda one: one["up"], "up again")
    assert back["restarts"] == 1 and back["state"] == "waiting"

    def marks():
        return "".join("-" if value is None else "1" for value in server.get(path).json["receivers"]).strip("-")

    wait_until(lambda: re.fullmatch("1+-+1+", marks()), lambda: f"a gap between samples: {marks()}")
    second.stop()


FAILED_STARTS = {
    "no port": (["--listen", "127.0.0.1"], arqctl.USAGE, "'127.0.0.1' is not ADDRESS:PORT",
                "choose another one with --listen ADDRESS:PORT"),
    "not ours": (["--listen", "192.0.2.1:8080"], arqctl.NO_START,
                 "cannot listen on 192.0.2.1:8080: Cannot assign requested address",
                 "choose another one with --listen ADDRESS:PORT"),
    "reports": (["--listen", "127.0.0.1:0", "--reports", "x"], arqctl.USAGE, "'x' is not ADDRESS:PORT",
                "choose another one with --reports ADDRESS:PORT, or take none with --reports off"),
    "token": (["--listen", "127.0.0.1:0", "--allow-control", "--token-file", "/nowhere"], arqctl.NO_START,
              "no token could be read from /nowhere",
              "write one with 'openssl rand -hex 16', or leave --token-file out: then one is made"),
    "target": (["x"], arqctl.USAGE, "'x' is no proxy", "write 2, ssh:HOST/2 or the path of a socket"),
    "named twice": (["1", "-I", "2"], arqctl.USAGE, "proxies are named twice: by -I, --socket or --via and as arguments",
                    "name all of them as arguments: 2, ssh:HOST/2 or the path of a socket"),
    "a whole address for a host": (["--allow-host", "http://wall.example"], arqctl.USAGE,
                                   "'http://wall.example' is no name of a host",
                                   "write it as browsers send it: --allow-host wall.example.net"),
    "no host": (["--allow-host", ""], arqctl.USAGE, "'' is no name of a host",
                "write it as browsers send it: --allow-host wall.example.net"),
    "a token for nothing": (["--token-file", "/nowhere"], arqctl.USAGE, "--token-file is for --allow-control",
                            "add --allow-control, or leave --token-file out"),
    "name": (["--channel-name", "2"], arqctl.USAGE, "'2' names no channel", "write --channel-name 2=News"),
}


@pytest.mark.release_only
@pytest.mark.parametrize("case", FAILED_STARTS, ids=lambda case: case.replace(" ", "-"))
def test_a_server_that_cannot_start_says_why(case):
    arguments, status, problem, advice = FAILED_STARTS[case]
    result = arqctl.run("serve", *arguments)
    assert (result.status, result.problem) == (status, (problem, advice))


@pytest.mark.release_only
def test_a_port_in_use_is_said_so(server):
    result = arqctl.run("serve", "--listen", f"127.0.0.1:{server.port}")
    assert result.status == arqctl.NO_START
    assert result.problem == (f"cannot listen on 127.0.0.1:{server.port}: Address already in use",
                              "choose another one with --listen ADDRESS:PORT")


def bound_to(server, protocol):
    """The addresses and ports, in hexadecimal, of the sockets of this protocol that it listens with."""
    folder = pathlib.Path(f"/proc/{server.pid}")
    own = set()
    for link in (folder / "fd").iterdir():
        with contextlib.suppress(FileNotFoundError):  # of a question to a proxy, over by now
            own.update(re.findall(r"^socket:\[(\d+)\]$", str(link.readlink())))
    rows = [line.split() for line in (folder / "net" / protocol).read_text("utf-8").splitlines()[1:]]
    return [row[1] for row in rows if row[9] in own]


@pytest.mark.release_only
def test_unless_told_it_is_reached_from_this_machine_only(closing):
    server = closing(arqctl.Arqctl("serve", NOWHERE))
    server.wait_stdout("http://127.0.0.1:8080/")
    here = "0100007F:1F90"
    assert (bound_to(server, "tcp"), bound_to(server, "udp")) == ([here], [here])
    assert bound_to(server, "tcp6") == bound_to(server, "udp6") == []


def get_from(address, port, path, host):
    with contextlib.closing(http.client.HTTPConnection(address, port, timeout=scaled(10))) as client:
        client.request("GET", path, headers={"Host": f"{host}:{port}"})
        reply = client.getresponse()
        return reply.status, reply.read().decode()


@pytest.mark.release_only
def test_on_every_address_it_is_known_by_those_of_the_machine(closing, lease):
    netns.ip("addr", "add", "10.78.9.1/32", "dev", "lo")
    closing(types.SimpleNamespace(close=lambda: netns.ip("addr", "del", "10.78.9.1/32", "dev", "lo")))
    server = closing(arqctl.Arqctl("serve", lease.instance, "--listen", "*:0"))
    port = int(server.wait_stdout(re.compile(r"http://0\.0\.0\.0:\d+/"))[len("http://0.0.0.0:"):-1])
    hosts = ("10.78.9.1", "127.0.0.1", "10.78.9.2", "wall.example")
    assert [get_from("10.78.9.1", port, "/metrics", host)[0] for host in hosts] == [200, 200, 421, 421]


@pytest.mark.release_only
def test_on_an_address_of_ipv6_it_shows_the_one_proxy_of_the_options_and_takes_no_reports(closing, lease):
    server = closing(arqctl.Arqctl("serve", "-I", lease.instance, "--listen", "[::1]:0"))
    port = int(server.wait_stdout(re.compile(r"http://\[::1\]:\d+/"))[len("http://[::1]:"):-1])
    up = f'tx_proxy_up{{channel="{lease.instance}"}} 0\n'
    wait_until(lambda: up in get_from("::1", port, "/metrics", "[::1]")[1], "the channel")
    assert bound_to(server, "udp") == bound_to(server, "udp6") == []


@pytest.mark.parametrize("told", [signal.SIGTERM, signal.SIGINT])
def test_a_signal_ends_it_cleanly_with_clients_and_removes_the_token(closing, told):
    server = closing(Server("--allow-control", NOWHERE))
    token = pathlib.Path(server.wait_stdout(re.compile(r"The token for control is in (/\S+)")).rpartition(" ")[2])
    assert re.fullmatch("[0-9a-f]{32}\n", token.read_text()) and token.stat().st_mode & 0o777 == 0o600
    stream = closing(server.events()).begin()
    half = closing(server.connect())
    half.sendall(b"GET / HT")
    wait_until(lambda: server.metric("arqctl_event_clients") == 1, "the stream")
    server.process.send_signal(told)
    assert server.wait_exit() == 0
    assert not token.exists() and server.stderr.text == ""
    assert stream.sock.recv(65536) is not None
