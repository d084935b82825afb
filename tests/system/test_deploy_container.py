"""deploy/container/: the commands of the image, each in a container of its own."""

import re
import urllib.request

import pytest

from txproxy import container
from txproxy.model_receiver import STOP_MESSAGE, PingingReceiver
from txproxy.page import Page, quoted
from txproxy.waiting import scaled, wait_until

pytestmark = pytest.mark.release_only

PAGE = Page("fleet.md")
NOBODY = 65534
SETTINGS = 'TX_PROXY_OPTIONS="-q 1024 -p 10000 -r 7020"\nTX_PROXY_LISTEN="5000"\n'


@pytest.fixture(scope="module")
def image(tmp_path_factory):
    return container.Image(tmp_path_factory.mktemp("image") / "root")


@pytest.fixture
def run(closing, image, island, tmp_path):
    """run(*command, ...) starts a container with the settings of channels 1 to 3, in a network with nothing but loopback."""
    settings = tmp_path / "default"
    settings.mkdir()
    for number in (1, 2, 3):
        (settings / f"tx_proxy-{number}").write_text(f"{SETTINGS}CHANNEL_SETTINGS={number}\n", "utf-8")
    serial = iter(range(99))

    def start(*command, mounts=None, **keywords):
        mounts = {"/etc/default": settings, **(mounts or {})}
        name = f"c{next(serial)}"
        return closing(
            container.Container(image, tmp_path / "state", name, command, mounts=mounts, namespace=island, **keywords)
        )

    return start


def test_channels_have_the_numbers_and_settings_that_the_page_gives(run):
    for _, _, example in PAGE.rows("Channel numbers and settings"):
        wanted = re.search(r": channel (\d)$", example).group(1)
        env = dict(text.split("=") for text in quoted(example) if "=" in text)
        for name, text in (("POD_NAME", r"pod `(\S+)`"), ("NOMAD_ALLOC_INDEX", r"index (\d)"), ("CHANNEL_ORDINAL", r", (\d):")):
            if match := re.search(text, example):
                env[name] = match.group(1)
        box = run("ordinal", "sh", "-c", 'echo "$CHANNEL_SETTINGS $0"', env=env)
        assert (box.wait_exit(), box.process.stdout.text) == (0, f"{wanted} {wanted}\n")


@pytest.mark.parametrize(
    "env, text",
    [
        ({"CHANNEL_ORDINAL": "7"}, "there are no settings of channel 8: /etc/default/tx_proxy-8"),
        ({"POD_NAME": "leaf"}, "no ordinal or first channel, 0 to 999: 'leaf'"),
        ({}, "no ordinal or first channel, 0 to 999: ''"),
        ({"CHANNEL_ORDINAL": "1", "CHANNEL_FIRST": "x"}, "no ordinal or first channel, 0 to 999: 'x'"),
    ],
)
def test_without_a_channel_the_container_ends_and_says_so(run, env, text):
    box = run("ordinal", "drain-first", env=env)
    assert box.wait_exit() == 2
    assert box.process.stderr.text.startswith(f"ordinal: {text}")


def test_a_relay_without_a_way_up_ends_and_says_so(run):
    box = run("ordinal", "relay", env={"CHANNEL_ORDINAL": "0"})
    assert box.wait_exit() == 2 and "channel 1 does not know where its stream comes from" in box.process.stderr.text


def test_sigterm_does_not_reach_a_proxy_that_is_the_first_process(run):
    box = run("ordinal", "channel", "start", env={"CHANNEL_ORDINAL": "0"})
    box.process.wait_ready()
    box.signal("TERM")
    wait_until(lambda: box.execute(["ordinal", "channel", "live"]) == (0, ""), "the proxy to answer after the signal")
    assert box.process.is_alive()


def test_drain_first_tells_the_receivers_and_ends_the_proxy(run, closing, island):
    box = run("ordinal", "drain-first", env={"CHANNEL_ORDINAL": "0"})
    box.process.wait_ready()
    box.process.wait_stderr("SocketListener: sock bound to port 10000")
    ports = type("Ports", (), {"destination": 10000, "request": 7020})
    told = closing(PingingReceiver("127.0.0.9", 0, ports, namespace=island))
    told.ping()
    wait_until(lambda: "127.0.0.9" in box.execute(["arqctl", "-I", "1", "list"])[1], "the receiver to join")
    box.signal("TERM")
    assert box.wait_exit() == 0
    assert told.payloads.count(STOP_MESSAGE) == 5


def test_drain_first_ends_with_the_status_of_a_proxy_that_cannot_start(run):
    first = run("ordinal", "drain-first", env={"CHANNEL_ORDINAL": "0"})
    first.process.wait_ready()
    second = run("ordinal", "drain-first", env={"CHANNEL_ORDINAL": "0"})
    assert second.wait_exit() == 1  # the lock of channel 1 is taken: both are in one network


def test_another_user_gets_a_stream_without_commands(run):
    box = run("ordinal", "channel", "start", env={"CHANNEL_ORDINAL": "0"}, user=NOBODY, pids=None)
    box.process.wait_ready()
    box.process.wait_stderr(re.compile(r"binding socket: Permission denied"))
    assert box.execute(["ordinal", "channel", "live"])[0] != 0


def test_the_runtime_takes_no_empty_folder_for_dev(run, tmp_path):
    empty = tmp_path / "empty"
    empty.mkdir()
    box = run("ordinal", "channel", "start", env={"CHANNEL_ORDINAL": "0"}, mounts={"/dev": empty})
    assert box.wait_exit() != 0 and "/dev/null" in box.process.stderr.text


def test_the_monitor_finds_a_proxy_that_was_started_again(run, closing, island):
    pod = closing(container.Pod())
    number = {"CHANNEL_ORDINAL": "2"}

    def up():
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        text = island.call(lambda: opener.open("http://127.0.0.1:8080/metrics", timeout=scaled(5)).read().decode())
        return re.findall(r'^tx_proxy_up\{channel="/run/channel-3"\} (\d)$', text, re.MULTILINE)

    first = run("ordinal", "channel", "start", env=number, pids=pod)
    first.process.wait_ready()
    monitor = run("ordinal", "monitor", env=number, pids=pod)
    monitor.process.wait_stdout("http://127.0.0.1:8080/")
    wait_until(lambda: up() == ["1"], "the proxy to be seen")
    first.signal("TERM")
    first.wait_exit()
    wait_until(lambda: up() == ["0"], "its end to be seen")
    run("ordinal", "channel", "start", env=number, pids=pod).process.wait_ready()
    wait_until(lambda: up() == ["1"], "the next proxy to be seen")
    monitor.signal("TERM")
    assert monitor.wait_exit() == 0
