"""A storm of hostile datagrams on all ports and requests on the control socket, while a stream runs.

What is sent and how it is checked stands in programs/datagram_storm.c.

TX_PROXY_FUZZ_DATAGRAMS   how many hostile datagrams; by default a million for the release build, and what fits into
                          20 s for the others
TX_PROXY_FUZZ_SEED        replays a run; it is printed
"""

import math
import os
import re
import subprocess
import time

import pytest

from txproxy import control, process, programs
from txproxy.control import request
from txproxy.model_receiver import wait_bound
from txproxy.proxy import build_kind
from txproxy.traffic import kernel_drops
from txproxy.waiting import wait_until

RELEASE = build_kind() == "release"
DATAGRAMS = int(os.environ.get("TX_PROXY_FUZZ_DATAGRAMS", "1000000"))
SEED = os.environ.get("TX_PROXY_FUZZ_SEED", "7020")
WARM_UP = 80000 if RELEASE else 2000  # 7,000 packets of media: every buffer of every pool has been used then
SECONDS = 600 if RELEASE else 20
LEAST_DATAGRAMS = 1000  # where the time ends it
NICER = 5  # tests beside this one go first
GROWTH_KIB = 1024  # a byte a datagram
LOG_KIB = 1024  # both batches of the log: a busy machine that writes one late lets the other fill for the first time
# The allocator gives back rings of streams that ended, instead of keeping as much as was ever needed at once.
GIVE_BACK = {"MALLOC_MMAP_THRESHOLD_": "4096", "MALLOC_TRIM_THRESHOLD_": "4096"}
ROUND_SECONDS = 0.15  # more than the 100 ms after which removed streams are destroyed
PARTS = ("storm_draw", "storm_datagrams", "storm_control")
CONFIGURED, LEARNT = "127.0.0.2", "127.0.0.5"


def be_nice():
    os.nice(NICER)


class Storm:
    """The running program; its figures are known at the end."""

    def __init__(self, path, net, *options):
        ports = ("--input", net.input, "--ping", net.destination, "--request", net.request)
        command = [path, *ports, "--control", control.path(net.instance), "--seed", SEED, *options]
        self._process = subprocess.Popen(
            list(map(str, command)), stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, preexec_fn=be_nice
        )
        self.text = ""

    def wait_line(self, wanted):
        for line in self._process.stdout:
            self.text += line
            if line.strip() == wanted:
                return
        raise AssertionError(f"no {wanted}, status {self._process.wait()}:\n{self.text}")

    def go_on(self):
        self._process.stdin.write("\n")
        self._process.stdin.flush()

    def figures(self):
        return {name: int(value) for name, value in re.findall(r"^([A-Z_]+)=(\d+)$", self.text, re.MULTILINE)}

    def close(self):
        self._process.kill()
        self._process.communicate()


def delete_what_strangers_added(instance):
    """Destinations of the control client, and receivers whose ID is 0."""
    for address in sorted(set(request(instance, "List").split(",")) - {CONFIGURED, LEARNT}):
        request(instance, f"Delete {address}")


def only_bystanders_left(instance):
    """Receivers with an ID that a datagram got by chance are not told to leave: they are dropped for their silence."""
    return request(instance, "List").split(",") == [CONFIGURED, LEARNT]


class State:
    """What a proxy holds when nobody but the bystanders is there."""

    def __init__(self, proxy, instance):
        delete_what_strangers_added(instance)
        wait_until(lambda: only_bystanders_left(instance), lambda: f"quiet, not {request(instance, 'List')}")
        # A removed stream is destroyed a little later.
        self.descriptors = wait_steady(lambda: process.descriptors(proxy.pid))
        self.threads = process.threads(proxy.pid)
        self.resident_kib = wait_steady(proxy.resident_kib)


def wait_steady(look):
    """The value that look() gives three times in a row, a status thread's round apart."""
    seen = []

    def is_steady():
        time.sleep(ROUND_SECONDS)
        seen.append(look())
        return len(seen) >= 3 and seen[-1] == seen[-2] == seen[-3]

    wait_until(is_steady, lambda: f"a steady value, not {seen[-5:]}")
    return seen[-1]


@pytest.mark.parametrize("mode, share", [((), 1), (("-u",), 10)], ids=["rtp", "udp_input"])
def test_a_million_hostile_datagrams_cost_bystanders_nothing_and_leave_nothing_behind(
    start_proxy, closing, net, tmp_path, capsys, mode, share
):
    path = programs.build(tmp_path, "datagram_storm", *PARTS)
    proxy = start_proxy("-a", CONFIGURED, *mode, env=GIVE_BACK, preexec=be_nice)
    wait_bound(proxy, net.destination, net.request)
    assert request(net.instance, "List") == CONFIGURED  # the storm expects a control socket from its start on
    count = DATAGRAMS // share
    limits = ("--count", count, "--warm-up", WARM_UP, "--seconds", SECONDS / math.sqrt(share))
    storm = closing(Storm(path, net, *limits, *(["--udp-input"] if mode else [])))
    storm.wait_line("WARM")
    before = State(proxy, net.instance)
    storm.go_on()
    storm.wait_line("END")
    found = storm.figures()
    with capsys.disabled():
        print(f"\nstorm {mode}: {found}")
    # What anybody received had been sent, and the proxy read all of it.
    assert found["FAULTS"] == 0 and found["CONTROL_FAULTS"] == 0, storm.text
    assert kernel_drops(net.input, net.destination, net.request) == 0
    assert found["HOSTILE"] >= (count if RELEASE else min(count, LEAST_DATAGRAMS)), storm.text
    # The stream of the bystanders is whole, requests and commands are answered.
    assert found["ARRIVED_CONFIGURED"] == found["ARRIVED_LEARNT"] == found["MEDIA"], storm.text
    assert found["ANSWERED"] == 2, storm.text
    assert request(net.instance, "RxStat").startswith(f"NET_TOTAL_PACKETS={found['MEDIA']}\n")
    # Strangers got no more than they may, and the storm went deep enough for all of it.
    assert 0 < found["AGAIN_BYTES"] <= found["AGAIN_BOUND"], storm.text
    assert 0 < found["ECHOES"] <= found["ECHOES_SENT"], storm.text
    assert 0 < found["FIRST"] <= 50 * found["MEDIA"] and found["REPLIES"] > 0, storm.text
    after = State(proxy, net.instance)
    assert (len(after.descriptors), after.threads) == (len(before.descriptors), before.threads)
    print(f"resident KiB: {before.resident_kib} before, {after.resident_kib} after")
    if RELEASE:
        assert after.resident_kib <= before.resident_kib + GROWTH_KIB + LOG_KIB
