"""docs/fleet.md agrees with the manifests, with the scripts, and with the pages that its sums come from."""

import math
import re
import shlex

import pytest

from txproxy import fleet
from txproxy.arqctl import Arqctl
from txproxy.arqrx import Arqrx
from txproxy.page import ROOT, Page, quoted
from txproxy.waiting import wait_until

pytestmark = pytest.mark.release_only

PAGE = Page("fleet.md")
PERFORMANCE, SCALE, RECEIVER, ARQCTL = (
    Page(f"{name}.md").text for name in ("performance", "scale", "receiver", "arqctl")
)
CONTAINER = ROOT / "deploy" / "container"
RECEIVERS = 50
PROBE_MS = 30  # processor time of a probe
BUFFER_MIB = 1  # what the proxy asks of the kernel for its input
MIB = 1 << 20
EVENT_STREAMS = 200
EVENT_BYTES = 256_000
KINDS = ("proxy", "relay", "monitor")


def number(text, pattern):
    found = re.findall(pattern, text, re.MULTILINE)
    assert len(set(found)) == 1, f"{pattern}: {found}"
    return float(found[0].replace(",", ""))


def up_to(step, value):
    return math.ceil(value / step) * step


def packet_us():
    block = PERFORMANCE.split("CPU per delivered datagram, N=50, 2000 datagrams/s, evenly: ratio to B\n")[1]
    return number(block.split("\n\n")[0], r"^  tx_proxy, learnt +([\d.]+) us")


def packets_per_second():
    sent = number(SCALE, r"^\| media \| (\d+)/s")
    return int(sent), int(sent + number(SCALE, r"^\| sent again, 2 % lost each way \| (\d+)/s"))


def resident(header):
    return number(PERFORMANCE, rf"^  tx_proxy, learnt +{header} +([\d.]+) MiB")


def probes_per_second():
    boxes = [box for one in fleet.of_kind("StatefulSet") for box in one["spec"]["template"]["spec"]["containers"]]
    (rate,) = {1 / box["readinessProbe"]["periodSeconds"] + 1 / box["livenessProbe"]["periodSeconds"] for box in boxes
               if box["name"] == "proxy"}  # fmt: skip
    return rate


def program_mib(row):
    return int(re.search(r"(\d+) \(program\)", row).group(1))


def rows():
    """{what: (sum, manifest)} of the table of sums."""
    return {what: (text, quoted(manifest)[0]) for what, text, manifest in PAGE.rows("Sizing")}


def sums():
    """{what: (the figures that its sum must show, its result, the step to which that is rounded up)}."""
    sent, all_packets = packets_per_second()
    media = RECEIVERS * all_packets * packet_us() / 1000
    probes = probes_per_second() * PROBE_MS
    probe = int(re.search(r"(\d+) \(a probe\)", rows()["proxy, memory"][0]).group(1))
    relay = program_mib(rows()["relay, memory"][0])
    share = number(RECEIVER, r"^\| processor time at 50 Mbit/s \| (\d+) % of a core")
    kernel = 2 * number(RECEIVER, r"^\| `--receive-buffer SIZE` \| (\d+)M")
    latency = number(fleet.of_kind("ConfigMap")[0]["data"]["arqrx-2"], r"--latency (\d+)ms") / 1000
    most = number(RECEIVER, r"^\| `--max-packets COUNT` \| (\d+)")
    a_packet = number(RECEIVER, r"latency holds: (\d+) KB a packet") * 1024 / MIB
    waiting = math.ceil(sent * latency * a_packet)
    monitor = program_mib(rows()["monitor, memory"][0])
    events = math.ceil(EVENT_STREAMS * EVENT_BYTES / MIB)
    return {
        "proxy, processor": ([f"{RECEIVERS} receivers × {all_packets} packets/s × {packet_us()} us = {media:.1f} m",
                              f"{probes_per_second():.1f}/s × {PROBE_MS} ms = {probes:.0f} m"], media + probes, 10),
        "proxy, memory": ([f"{resident('RTP')} ", f"{BUFFER_MIB} (input", f"{probe} (a probe)"],
                          resident("RTP") + BUFFER_MIB + probe, 8),
        "proxy, bound": ([f"{resident('-u')} ", f"+ {BUFFER_MIB} +", f"2 × {probe} ("],
                         resident("-u") + BUFFER_MIB + 2 * probe, 16),
        "relay, processor": ([f"{share:.0f} % of a core"], 10 * share, 10),
        "relay, memory": ([f"{kernel:.0f} (kernel", f"{waiting} ({sent} packets/s × {latency} s × 2 KB)"],
                          relay + kernel + waiting, 8),
        "relay, bound": ([f"{most * a_packet:.0f} ({most:.0f} packets × 2 KB)"], relay + kernel + most * a_packet, 16),
        "monitor, processor": ([], 20, 10),
        "monitor, memory": ([], monitor, 8),
        "monitor, bound": ([f"{events} (200 event streams × 256 kB)"], monitor + events, 16),
    }  # fmt: skip


def test_the_sums_come_from_the_pages_of_figures():
    dropped = f"An event stream that is not read is dropped once {EVENT_BYTES // 1000} kB wait for it"
    assert f"{EVENT_STREAMS} event streams. {dropped}" in ARQCTL
    assert list(rows()) == list(sums())
    for what, (figures, result, step) in sums().items():
        text, manifest = rows()[what]
        for figure in figures:
            assert figure in text, what
        if "MiB" in text:
            assert text.endswith(f"= {result:.4g} MiB"), what
        unit = "m" if "processor" in what else "Mi"
        assert manifest == f"{up_to(step, result)}{unit}", what


def test_the_manifests_ask_for_these_sums():
    wanted = {kind: {
        "requests": {"cpu": rows()[f"{kind}, processor"][1], "memory": rows()[f"{kind}, memory"][1]},
        "limits": {"memory": rows()[f"{kind}, bound"][1]},
    } for kind in KINDS}  # fmt: skip
    for one in fleet.of_kind("StatefulSet"):
        for box in one["spec"]["template"]["spec"]["containers"]:
            assert box["resources"] == wanted[box["name"]]
    mhz = number(PAGE.text, r"share of the (\d+) MHz")
    assert f"{mhz / 1000:.1f} GHz" in PERFORMANCE
    for _, group in fleet.blocks(fleet.job()["group"]):
        for name, task in fleet.blocks(group["task"]):
            cores = int(wanted[name]["requests"]["cpu"].removesuffix("m")) / 1000
            bound = int(wanted[name]["limits"]["memory"].removesuffix("Mi"))
            assert task["resources"] == {"cpu": round(mhz * cores), "memory": bound}


def peak_mib(process):
    with open(f"/proc/{process.pid}/status", encoding="ascii") as status:
        return int(re.search(r"VmHWM:\s+(\d+) kB", status.read()).group(1)) / 1024


def test_programs_beside_the_proxy_take_no_more_memory_than_the_sums_say(closing, commanded_proxy, net, lease):
    commanded_proxy()
    watch = closing(Arqctl("-I", net.instance, "--json", "stats", "--watch", "100ms", "--count", 50))
    serve = closing(Arqctl("serve", "--listen", "127.0.0.1:0", net.instance))
    relay = closing(Arqrx(f"127.0.0.1:{net.destination}", "--request-port", net.request, "--json", "--bind", "127.0.0.2",
                          "--output", f"rtp://127.0.0.3:{lease.port()}").wait_ready())  # fmt: skip
    wait_until(lambda: len(watch.objects) > 2 and serve.stdout.lines, "answers")
    assert peak_mib(watch) <= int(re.search(r"(\d+) \(a probe\)", rows()["proxy, memory"][0]).group(1))
    assert peak_mib(serve) <= program_mib(rows()["monitor, memory"][0])
    assert peak_mib(relay) <= program_mib(rows()["relay, memory"][0])


def test_the_input_buffer_is_the_one_of_the_sums(start_proxy):
    proxy = start_proxy()
    assert proxy.stderr.find(f"New Rx bufferSize = {BUFFER_MIB * MIB}")


def test_what_a_machine_holds_follows_from_the_sums():
    names = ("media", "sent again, 2 % lost each way")
    media, resends = (number(SCALE, rf"^\| {what} \|[^|]+\| (\d+) Mbit/s") for what in names)
    takes = {"network": media + resends, "processor": 120, "memory": 24}
    assert (rows()["proxy, processor"][1], rows()["proxy, memory"][1]) == ("120m", "24Mi")
    scale = {"1 Gbit/s": 1000, "10 Gbit/s": 10000, "2 cores": 2000, "2 GiB": 2048}
    table = PAGE.rows("When one machine is not enough")
    assert [row[0] for row in table] == ["network", "network", "processor", "memory"]
    for what, taken, machine, holds in table:
        assert float(taken.split()[0]) == takes[what]
        assert holds == f"{scale[machine] // takes[what]:.0f} channels"


def test_a_stop_leaves_twice_the_time_of_the_longest_drain():
    source = (ROOT / "packaging" / "service" / "channel").read_text("utf-8")
    each, once = map(int, re.search(r"wc -l\) \* (\d+) \+ (\d+)\)\)ms", source).groups())
    longest = (RECEIVERS * each + once) / 1000
    assert f"takes {once / 1000:.0f} s and {each / 1000} s a receiver at most: {longest} s for {RECEIVERS}" in PAGE.text
    for one in (*fleet.kubernetes("123"), *fleet.nomad("123")):
        assert one.grace == 20 >= 2 * longest
    assert f"The manifests leave\n{one.grace} s, more than twice as much" in PAGE.text
    assert "stop_grace_period: 20s" in (CONTAINER / "compose.yml").read_text("utf-8")


def commands(program):
    found = re.findall(rf"^    ({program} .+)$", PAGE.text, re.MULTILINE)
    return [shlex.split(command) for command in found]


def test_commands_of_the_page_name_files_and_objects_that_are_there():
    (build,), (compose,), (nomad,) = map(commands, ("docker", "docker-compose", "nomad"))
    for command in (build, compose):
        assert (ROOT / command[command.index("--file") + 1]).is_file()
    for path in (CONTAINER / "Containerfile", CONTAINER / "compose.yml"):
        assert f"#   {shlex.join(build)}\n" in path.read_text("utf-8")
    assert f"#   {shlex.join(compose)}\n" in (CONTAINER / "compose.yml").read_text("utf-8")
    assert ROOT / nomad[-1] == fleet.TREE_HCL
    image = build[build.index("--tag") + 1]
    for path in (fleet.TREE_YAML, fleet.TREE_HCL, CONTAINER / "compose.yml"):
        used = set(re.findall(r"registry\.example/\S+?(?=[\"\s])", path.read_text("utf-8")))
        assert used == {image}, path
    sets = {one["metadata"]["name"] for one in fleet.of_kind("StatefulSet")}
    pods = {one.name for one in fleet.kubernetes("123")}
    kubectl = commands("kubectl")
    assert ROOT / kubectl[0][-1] == fleet.TREE_YAML
    (space,) = fleet.of_kind("Namespace")
    for command in kubectl[1:]:
        assert command[1:3] == ["--namespace", space["metadata"]["name"]]
        for word in command:
            assert not word.startswith("statefulset/") or word.removeprefix("statefulset/") in sets
        if "exec" in command:
            assert command[4] in pods and command[5:7] == ["--container", "proxy"]


def test_the_page_has_every_command_of_the_image_and_every_object():
    scripts = {path.name for path in CONTAINER.iterdir() if path.is_file() and path.read_text("utf-8").startswith("#!")}
    assert {quoted(row[0])[0].split()[0] for row in PAGE.rows("The image")} == scripts | {"channel"}
    objects = {(kind, name) for first, _ in PAGE.rows("Kubernetes") for kind in first.split()[:1] for name in quoted(first)}
    there = {(one["kind"], one["metadata"]["name"]) for one in fleet.documents() if one["kind"] != "Namespace"}
    assert objects == there


def test_the_page_has_every_variable_of_the_monitor():
    text = (CONTAINER / "monitor").read_text("utf-8")
    defaults = dict(re.findall(r"\$\{(MONITOR_\w+):-([^}]*)\}", text))
    for name, default, _ in PAGE.rows("Monitoring"):
        shown = quoted(default)[0] if default else ""
        assert defaults.pop(quoted(name)[0]).replace("$1", "N") == shown
    assert not defaults


def test_services_of_the_compose_file_are_where_the_page_says():
    text = (CONTAINER / "compose.yml").read_text("utf-8")
    addresses = [quoted(row[0])[0] for row in PAGE.rows("Compose")]
    settings = (CONTAINER / "default" / "tx_proxy-1").read_text("utf-8")
    listen = number(settings, r'^TX_PROXY_LISTEN="(\d+)"$')
    assert addresses[0] == f"udp://127.0.0.1:{listen:.0f}"
    assert re.findall(r"http://127\.0\.0\.1:\d+", text) == addresses[1:]


def anchors(text, rank):
    found = re.findall(rf"^{rank} (.+)$", text, re.MULTILINE)
    return {re.sub(r"[^\w -]", "", heading).lower().replace(" ", "-") for heading in found}


def test_links_and_headings_of_the_page_are_there():
    headings = anchors(PAGE.text, "##")
    assert set(re.findall(r"\]\(#([^)]+)\)", PAGE.text)) == headings
    for name, anchor in re.findall(r"\]\((\w+\.md)(?:#([^)]+))?\)", PAGE.text):
        if name in ("install.md", "service.md"):
            continue
        text = (ROOT / "docs" / name).read_text("utf-8")
        assert not anchor or anchor in anchors(text, "#+"), f"{name}#{anchor}"
