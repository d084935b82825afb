"""The control-room page in a real browser: one proxy, one server and one browser for all tests, in their order."""

import contextlib
import json
import re
import socket
import time
import types
import urllib.request

import pytest

from txproxy import control, ports, rtp
from txproxy.arqctl import Arqctl
from txproxy.arqrx import Arqrx, joining
from txproxy.browser import Browser
from txproxy.model_receiver import wait_bound
from txproxy.proxy import Proxy
from txproxy.receiver import Sender
from txproxy.traffic import Steady
from txproxy.waiting import wait_until

pytestmark = [pytest.mark.release_only, pytest.mark.large, pytest.mark.xdist_group("browser")]

PER_SECOND = 400
PAYLOAD = bytes(1316)
MBIT_PER_SECOND = PER_SECOND * (len(PAYLOAD) + 12) * 8 / 1e6
TOKEN = "a-token-of-the-tests"
STUDIO = "127.0.0.9"
RED, WHITE = "rgb(179, 20, 15)", "rgb(255, 255, 255)"
TILE = ".tile[data-id]"
DAY_S = 86400
MOST_ROWS = 1000  # of a plot
PICTURE = "return document.querySelector('.plot canvas').toDataURL()"
PAINTED = """const canvas = document.querySelector(".plot canvas");
    const { data } = canvas.getContext("2d").getImageData(0, 0, canvas.width, canvas.height);
    const colours = new Set();
    for (let at = 0; at < data.length; at += 4) if (data[at + 3]) colours.add(data.slice(at, at + 4).join());
    return colours.size > 10"""
ALL_INSIDE = """const plots = [...document.querySelectorAll(".plot canvas")];
    const right = (element) => element.getBoundingClientRect().right;
    return document.documentElement.scrollWidth <= innerWidth && plots.length === 4 &&
        plots.every((plot) => right(plot) <= right(plot.closest(".plot")))"""


class Room:
    """A proxy with a stream and a receiver that reports, the server beside it, and a browser before it."""

    def __init__(self, folder):
        self._opened = contextlib.ExitStack()
        lease = self._keep(ports.Lease())
        self.net = types.SimpleNamespace(
            instance=lease.instance, input=lease.port(), destination=lease.port(), request=lease.port()
        )
        self.host = f"127.0.0.1:{lease.port()}"
        self.channel = str(lease.instance)
        self._token_file = folder / "token"
        self._token_file.write_text(TOKEN + "\n", "ascii")
        self._token_file.chmod(0o600)
        self._sender = self._keep(Sender("127.0.0.1", self.net.input))
        self._sent = 0
        self._stream = self.server = None

    def open(self):
        net = self.net
        proxy = Proxy("-I", net.instance, "-p", net.destination, "-r", net.request, net.input)
        self._opened.callback(proxy.kill)
        wait_bound(proxy.wait_ready(), net.destination, net.request)
        self.start_stream()
        self.start_server()
        self._keep(Arqrx(*joining(net, "--report", self.host, "--report-name", "studio-b")))
        self.browser = self._keep(Browser())
        self.browser.open(self.url())

    def _keep(self, thing):
        self._opened.callback(thing.close)
        return thing

    def url(self, **choice):
        return f"http://{self.host}/#" + "&".join(f"{name}={value}" for name, value in choice.items())

    def start_server(self):
        self.server = Arqctl("serve", self.net.instance, "--channel-name", f"{self.net.instance}=Main feed",
                             "--listen", self.host, "--allow-control", "--token-file", self._token_file)  # fmt: skip
        self.server.wait_stdout(re.compile("http://.*"))

    def start_stream(self):
        first = self._sent
        self._stream = Steady(self._sender, lambda index: rtp.packet((first + index) & 0xFFFF, PAYLOAD), PER_SECOND)

    def stop_stream(self):
        self._stream.close()
        self._sent += self._stream.sent

    def event_clients(self):
        with urllib.request.urlopen(f"http://{self.host}/metrics", timeout=5) as answer:
            return int(re.search(r"^arqctl_event_clients (\d+)$", answer.read().decode(), re.MULTILINE).group(1))

    def close(self):
        for thing in filter(None, (self._stream, self.server)):
            thing.close()
        self._opened.close()


@pytest.fixture(scope="module")
def room(tmp_path_factory):
    made = Room(tmp_path_factory.mktemp("room"))
    try:
        made.open()
        yield made
    finally:
        made.close()


@pytest.fixture
def browser(room):
    """The browser with one tab, before a page that shows live figures; afterwards nothing has gone wrong in it."""
    tabs = room.browser.driver.window_handles
    for tab in tabs[1:]:
        room.browser.close_tab(tab)
    room.browser.turn_to(tabs[0])
    room.browser.open("about:blank")
    room.browser.complaints()
    room.browser.open(room.url())
    wait_live(room.browser)
    yield room.browser
    assert room.browser.complaints() == []
    assert room.browser.hosts() == {room.host}


def wait_live(browser):
    browser.wait_text("#connection_text", lambda text: text == "Live", "live figures")


def figure(browser, name):
    """A figure of the tile as [value, unit]."""
    return browser.text(f"{TILE} [data-name={name}] dd").split("\n")[0]


def wait_state(browser, word):
    browser.wait_text(f"{TILE} .word", lambda text: text == word, f"the state {word!r}")


def curve(browser, name):
    """What the plots hold of this curve: [[Unix second, value]...], the newest last."""
    rows = "columns.time.map((time, row) => [time, columns.curve(given[0])[row]])"
    return browser.run_module(f"const {{ columns }} = page.history; return {rows}", name)


def is_rate_of_stream(megabits):
    """A busy machine may hold up who sends it for a second, which is then made up for."""
    return float(megabits) == pytest.approx(MBIT_PER_SECOND, rel=0.3)


def test_tiles_and_plots_move_while_a_stream_runs(browser):
    wait_state(browser, "Good")
    value = f"{TILE} [data-name=input] .value"
    browser.wait_text(value, lambda text: text not in ("", "–") and is_rate_of_stream(text), "the stream's rate")
    assert browser.text(f"{TILE} [data-name=input] .unit") == "Mbit/s"
    assert browser.text(f"{TILE} h3") == "Main feed"
    browser.run("document.querySelector('.tile .select').focus()")
    before = wait_until(lambda: curve(browser, "input_bit_rate"), "the past of the channel")
    assert before[0][1] is None, "a time before the server began stays a gap"

    def moved():
        rows = curve(browser, "input_bit_rate")
        return rows if rows[-1][0] >= before[-1][0] + 4 and is_rate_of_stream((rows[-1][1] or 0) / 1e6) else None

    picture = browser.run(PICTURE)
    after = wait_until(moved, "the plots to move")
    steps = {late[0] - early[0] for early, late in zip(after, after[1:])}
    assert steps == {1}, "five minutes are shown second by second"
    assert browser.run("return document.activeElement.className") == "select", "the keyboard stays where it was"
    assert browser.run(PAINTED), "the curve is drawn"
    assert browser.run(PICTURE) != picture, "and drawn anew"


def test_a_longer_span_is_fetched_once_and_kept_in_the_address(browser):
    browser.find("#spans [data-span='3600']").click()
    wait_until(lambda: browser.run_module("return page.history.columns.step") == 5, "an hour in steps of 5 s")
    assert "span=3600" in browser.run("return location.hash")
    browser.wait_text("#plots .plot h3", lambda text: text == "Input Mbit/s", "the unit of the first plot")
    answers = browser.run("return performance.getEntriesByType('resource').filter(e => e.name.includes('/history?'))"
                          ".map(e => new URL(e.name).search)")  # fmt: skip
    assert answers == ["?span=300&points=300", "?span=3600&points=720"]


def test_receivers_and_what_they_report_are_in_the_table(browser):
    row = "#receiver_table tbody tr"
    browser.wait_text(f"{row} [data-name=name]", lambda text: text == "studio-b", "a report")
    assert browser.text(f"{row} [data-name=state]") == "● receiving"
    assert browser.text(f"{row} [data-name=packets_lost]") == "0"
    assert len(browser.find_all(row)) == 1, "one row has both"
    browser.wait_text(f"{row} [data-name=round_trip_ms]", re.compile(r"[\d.]+ ms").fullmatch, "a round trip")
    heads = [head.text for head in browser.find_all("#receiver_table thead th[scope=col]")]
    assert [head.split(" ")[0] for head in heads[:4]] == ["Receiver", "State", "Name", "Since"]
    lost = browser.find("#receiver_table thead [data-name=packets_lost] button")
    lost.click()
    assert browser.find("#receiver_table thead [data-name=packets_lost]").get_attribute("aria-sort") == "descending"


def test_what_a_stranger_reports_is_text_and_never_markup(room, browser):
    name = "<b onclick='x'>&amp;"
    kinds = ("received", "resent", "missing", "recovered", "waiting", "duplicate", "late")
    counts = {f"packets_{kind}": 0 for kind in kinds}
    report = {"arqrx": 1, "name": name, "channel": room.channel, "run_s": 1.0, **counts, "packets_lost": 10**6}
    report |= {"requests": 0, "numbers_asked": 0, "most_asked": 0}
    host, _, port = room.host.rpartition(":")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
        sender.sendto(json.dumps(report).encode(), (host, int(port)))
    row = "#receiver_table tbody tr"
    browser.wait_text(f"{row} [data-name=name]", lambda text: text == name, "the worst receiver on top")
    assert browser.text(f"{row} [data-name=packets_lost]") == "1,000,000"
    assert not browser.find_all("#receiver_table b")


def test_a_stopped_input_is_red_with_a_sentence_and_good_again_when_it_is_back(room, browser):
    wait_state(browser, "Good")
    room.stop_stream()
    wait_state(browser, "Input gone")
    wait_until(lambda: browser.style(TILE, "backgroundColor") == RED, "the tile to be red")
    assert browser.style(TILE, "color") == WHITE
    sentence = browser.text(f"{TILE} .sentence")
    assert len(sentence) > 10
    assert sentence in browser.run("return document.getElementById('said_at_once').textContent"), "it is said aloud"
    assert browser.driver.title == "✖ Main feed: Input gone"
    assert browser.text("#red") == "✖ 1 of 1 red"
    room.start_stream()
    wait_state(browser, "Good")
    wait_until(lambda: browser.style(TILE, "backgroundColor") == WHITE, "the tile to be white again")
    wait_until(lambda: browser.text(f"{TILE} .sentence") == browser.text("#red") == "", "the sentence to go")


def test_thirty_channels_are_on_one_screen_and_what_is_not_known_is_a_dash(room, browser):
    browser.resize(1920, 1080)
    try:
        wait_until(lambda: browser.run("return innerWidth") == 1920, "the new size")
        assert browser.text("#plots_title") == "Main feed"
        shown = browser.run_module("""events.stop();
            const state = structuredClone(page.state);
            const own = Object.assign(state.channels[0], { name: state.channels[0].id, receivers: [], reports: [] });
            state.channels.push(...[...Array(29).keys()].map((index) => ({ ...own, id: `other ${index}` })));
            state.channels[2].name = "A name that has no room in so small a tile";
            page.take(state, 0);
            const part = (name) => document.getElementById(name);
            const text = (name) => (part(name).checkVisibility() ? part(name).innerText : "");
            const before = [text("plots_title"), text("receivers_title"), text("no_receivers"), text("red")];
            const down = { state: "down", state_text: "The proxy does not answer: because.", up: false, input: {}, output: {} };
            Object.assign(own, down);
            page.take(state, 0);
            const tiles = [...document.querySelectorAll(".tile[data-id]")];
            const bottom = Math.max(...tiles.map((tile) => tile.getBoundingClientRect().bottom));
            const values = [...tiles[0].querySelectorAll(".value")].map((value) => value.innerText);
            return [tiles.length, bottom <= innerHeight, before, values.join(""), text("no_receivers"), text("red")];""")
    finally:
        browser.command("Emulation.clearDeviceMetricsOverride")
    titles = [f"Channel {room.channel}", f"Receivers of channel {room.channel}", "The proxy's list is empty.", ""]
    assert shown == [30, True, titles, "–" * 5, "Not known: the proxy does not answer.", "✖ 1 of 30 red"]


def test_a_click_on_how_many_are_red_shows_the_first_of_them(browser):
    browser.resize(390, 844)
    try:
        wait_until(lambda: browser.run("return innerWidth") == 390, "the new size")
        top = browser.run_module("""events.stop();
            const state = structuredClone(page.state);
            const others = [...Array(29).keys()].map((index) => ({ ...state.channels[0], id: `other ${index}` }));
            state.channels.push(...others);
            state.channels[24].state = "input_gone";
            page.take(state, 0);
            const tile = document.querySelector(".tile[data-state=input_gone]");
            const isSeen = () => tile.getBoundingClientRect().top >= 0 && tile.getBoundingClientRect().bottom <= innerHeight;
            const before = isSeen();
            document.getElementById("red").click();
            return [before, isSeen()];""")
    finally:
        browser.command("Emulation.clearDeviceMetricsOverride")
    assert top == [False, True]


def leads(browser, tab):
    browser.turn_to(tab)
    return browser.run_module("return events.isLeader")


def test_tabs_share_one_event_stream_and_another_leads_when_the_leader_is_closed(room, browser):
    tabs = [browser.driver.current_window_handle] + [browser.open_tab(room.url()) for _ in range(3)]
    for tab in tabs:
        browser.turn_to(tab)
        wait_live(browser)
    wait_until(lambda: room.event_clients() == 1, lambda: f"one event stream; there are {room.event_clients()}")
    assert [leads(browser, tab) for tab in tabs] == [True, False, False, False]
    browser.close_tab(tabs[0])
    wait_until(lambda: any(leads(browser, tab) for tab in tabs[1:]), "another to lead")
    for tab in tabs[1:]:
        browser.turn_to(tab)
        wait_live(browser)
    newest = curve(browser, "input_bit_rate")[-1][0]
    wait_until(lambda: curve(browser, "input_bit_rate")[-1][0] >= newest + 2, "figures from the next leader")
    wait_until(lambda: room.event_clients() == 1, lambda: f"one event stream; there are {room.event_clients()}")


def test_a_leader_that_the_browser_froze_loses_the_lead_to_a_tab_that_is_seen(room, browser):
    frozen, seen = browser.driver.current_window_handle, browser.open_tab(room.url())
    assert [leads(browser, tab) for tab in (frozen, seen)] == [True, False]
    browser.turn_to(frozen)
    browser.command("Page.setWebLifecycleState", state="frozen")
    browser.turn_to(seen)
    browser.run("const now = performance.now.bind(performance); performance.now = () => now() + 9000")
    wait_until(lambda: leads(browser, seen), "the other tab to lead")
    browser.turn_to(frozen)
    browser.command("Page.setWebLifecycleState", state="active")
    wait_until(lambda: not leads(browser, frozen), "the old leader to follow")
    wait_live(browser)
    wait_until(lambda: room.event_clients() == 1, lambda: f"one event stream; there are {room.event_clients()}")


def test_without_locks_a_hidden_tab_has_no_event_stream_and_a_visible_one_its_own(room, browser):
    """As on every address but this machine's own, where browsers have no locks."""
    script = browser.command("Page.addScriptToEvaluateOnNewDocument", source="delete Navigator.prototype.locks")
    try:
        browser.open("about:blank")
        browser.open(room.url())
        wait_live(browser)
        hide = ("Object.defineProperty(document, 'hidden', { value: arguments[0], configurable: true });"
                "document.dispatchEvent(new Event('visibilitychange'))")  # fmt: skip
        for is_hidden, clients in ((True, 0), (False, 1)):
            browser.run(hide, is_hidden)
            wait_until(lambda: room.event_clients() == clients, f"{clients} event streams")  # noqa: B023
    finally:
        browser.command("Page.removeScriptToEvaluateOnNewDocument", **script)


def test_the_page_follows_the_system_until_somebody_chooses_light_or_dark(room, browser):
    grounds = {}
    for theme in ("dark", "light"):
        browser.prefer(theme)
        wait_until(lambda: browser.run("return document.documentElement.dataset.theme") == theme, theme)  # noqa: B023
        grounds[theme] = browser.style("html", "backgroundColor")
    assert grounds["dark"] != grounds["light"]
    assert browser.text("#theme") == "Dark"
    browser.find("#theme").click()
    browser.open("about:blank")
    browser.open(room.url())
    wait_live(browser)
    assert browser.style("html", "backgroundColor") == grounds["dark"], "the choice is kept"
    assert browser.text("#theme") == "Light"
    browser.run("localStorage.clear()")


@pytest.mark.parametrize("width, height", [(1920, 1080), (1280, 720), (390, 844)])
def test_nothing_sticks_out_of_the_screen(browser, width, height):
    browser.resize(width, height)
    try:
        wait_until(lambda: browser.run("return innerWidth") == width, "the new size")
        wait_until(lambda: browser.run(ALL_INSIDE), "the plots to fit")
        big = float(browser.style(f"{TILE} [data-name=input] .value", "fontSize").removesuffix("px"))
        assert big >= {1920: 100, 1280: 60, 390: 30}[width], "the input's rate is read from afar"
    finally:
        browser.command("Emulation.clearDeviceMetricsOverride")


def answer_dialog(browser, name, token=None, **fields):
    """Fills an open question in and sends it."""
    dialog = browser.find(f"#{name}")
    wait_until(dialog.is_displayed, f"the dialog {name}")
    for field, value in fields.items():
        dialog.find_element("name", field).send_keys(value)
    if token:
        dialog.find_element("name", "token").send_keys(token)
    dialog.find_element("css selector", ".go").click()
    return dialog


def test_add_and_delete_ask_first_and_need_the_token_once(room, browser):
    browser.run("sessionStorage.clear()")
    browser.find("#open_add").click()
    dialog = answer_dialog(browser, "add_dialog", token="some-other-token-of-somebody", address=STUDIO)
    refusal = browser.wait_text("#add_dialog .outcome", len, "the refusal")
    assert re.fullmatch(r"[A-Z].*token.*\. [A-Z].*\.", refusal), f"what is wrong and what to do: {refusal}"
    assert dialog.is_displayed(), "the question stays open"
    assert STUDIO not in control.request(room.net.instance, "List")
    assert [text for text in browser.complaints() if "403" not in text] == []

    answer_dialog(browser, "add_dialog", token=TOKEN)
    wait_until(lambda: not dialog.is_displayed(), lambda: f"the dialog to close: {dialog.text}")
    assert STUDIO in control.request(room.net.instance, "List")
    assert browser.text("#message")
    assert browser.run("return [sessionStorage.length, localStorage.length, document.cookie]") == [1, 0, ""]

    button = f"button[aria-label='Delete {STUDIO}']"
    wait_until(lambda: browser.find_all(button), "the new receiver in the table")
    browser.find(button).click()
    dialog = answer_dialog(browser, "delete_dialog")
    wait_until(lambda: not dialog.is_displayed(), lambda: f"the dialog to close: {dialog.text}")
    assert STUDIO not in control.request(room.net.instance, "List")


def test_deliberate_loss_is_switched_on_and_off_and_told_on_the_tile(browser):
    browser.run("sessionStorage.setItem('arqctl-token', arguments[0])", TOKEN)
    for wanted in (True, False):
        browser.find("#open_impair").click()
        dialog = answer_dialog(browser, "impair_dialog")
        wait_until(lambda: not dialog.is_displayed(), lambda: f"the dialog to close: {dialog.text}")  # noqa: B023
        wait_until(lambda: bool(browser.text(f"{TILE} .badge")) == wanted, f"deliberate loss {wanted}")  # noqa: B023


def test_a_lost_server_is_told_figures_grow_old_and_it_is_found_again(room, browser):
    wait_state(browser, "Good")
    room.server.kill()
    browser.wait_text("#connection_text", lambda text: text.startswith("No connection since "), "the loss")
    browser.wait_text(f"{TILE} .age", lambda text: text.startswith("old: of "), "old figures")
    assert browser.style(f"{TILE} .word", "color") != browser.style("#connection", "color")
    before = "return getComputedStyle(document.querySelector('.tile .word'), '::before').content"
    assert browser.run(before) == '"was: "'
    room.server.close()
    room.start_server()
    wait_live(browser)
    wait_until(lambda: browser.text(f"{TILE} .age") == "", "figures of now")
    assert all("ERR_" in text for text in browser.complaints()), "only the browser's own words of the loss"


def test_a_page_that_is_open_for_a_day_stays_as_small_as_it_was(browser):
    wait_until(lambda: len(curve(browser, "lost")) > 200, "the past of the channel")
    feed = """events.stop();
        const first = structuredClone(page.state);
        for (let second = 1; second <= given[0]; second++) {
            const state = structuredClone(first);
            state.time = first.time + second;
            state.channels[0].input.bit_rate = 1e6 + second % 1000;
            page.take(state, 0);
            if (second % 100 === 0) await new Promise((resolve) => setTimeout(resolve)); // as the browser breathes
        }
        return page.history.columns.time.length;"""
    rows = browser.run_module(feed, 500)
    bytes_before, nodes_before = browser.memory()
    began = time.monotonic()
    assert browser.run_module(feed, DAY_S // 40) == rows <= MOST_ROWS
    bytes_after, nodes_after = browser.memory()
    print(f"{DAY_S // 40} events in {time.monotonic() - began:.1f} s: {bytes_before} -> {bytes_after} bytes, "
          f"{nodes_before} -> {nodes_after} nodes")  # fmt: skip
    assert bytes_after - bytes_before < 300_000
    assert nodes_after - nodes_before < 50
