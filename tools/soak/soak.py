"""The soak behind scripts/soak: the real binary under the load of an ordinary day, looked at once a second.

    scripts/soak                                20 minutes of build/release/tx_proxy, results in build/soak
    scripts/soak --minutes 120 --out DIR
    scripts/soak --binary build/asan/tx_proxy

It needs root, since the proxy gets a /dev, a /run and a network of its own, and a C++ compiler for the load, which
is the program of tests/system/programs/churn: 2,000 packets of 1,328 bytes a second to eight receivers that stay,
lose one packet in a hundred and recover it, and to up to eight that come and go or are added and deleted. All
datagrams are checked. The impairment is off.

DIR gets samples.csv, curves.txt, figures.txt and, where python3-matplotlib is there, curves.png. The exit status is
1 if something grew or went wrong, and 2 if the soak could not be made. What counts as flat: see soak_figures.py.
"""

import argparse
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests" / "system"))

import soak_curves  # noqa: E402
import soak_figures  # noqa: E402
from txproxy import control, ports, process, programs, proxy, reports, sandbox  # noqa: E402
from txproxy.heap import HeapMeter  # noqa: E402
from txproxy.model_receiver import wait_bound  # noqa: E402
from txproxy.waiting import wait_until  # noqa: E402

PACKETS_PER_SECOND = 2000
CONFIGURED = "127.0.1.3"
SANITIZERS = (b"__asan_init", b"__tsan_init")
PATIENCE_SECONDS = 120
NANOSECONDS = 1e9


def arguments():
    parser = argparse.ArgumentParser(
        prog="scripts/soak", description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("--minutes", type=float, default=20)
    parser.add_argument("--binary", type=pathlib.Path, default=ROOT / "build" / "release" / "tx_proxy")
    parser.add_argument("--out", type=pathlib.Path, default=ROOT / "build" / "soak")
    return parser.parse_args()


class Soaked:
    """The proxy and its load. What start() has begun ends with close(), however far it came."""

    def __init__(self):
        self._lease = ports.Lease()
        self._load = None
        self.proxy = None

    def start(self, directory, binary, seconds):
        os.environ["TX_PROXY_BIN"] = str(binary)
        # A sanitizer has a heap of its own.
        is_plain = not any(mark in binary.read_bytes() for mark in SANITIZERS)
        self._meter = HeapMeter(directory) if is_plain else None
        media, ping, request = where = [self._lease.port() for _ in range(3)]
        options = ["-I", self._lease.instance, "-p", ping, "-r", request, "-a", CONFIGURED, media]
        load = programs.build_folder(directory, "churn")
        self.proxy = proxy.Proxy(*options, env=self._meter.env if is_plain else None)
        self.proxy.wait_ready()
        wait_bound(self.proxy, ping, request)
        wait_until(pathlib.Path(control.path(self._lease.instance)).exists, "the control socket")
        rest = [control.path(self._lease.instance), PACKETS_PER_SECOND, os.getpid(), PATIENCE_SECONDS]
        self._load = subprocess.Popen(
            [load, *map(str, [*where, *rest])],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
        )
        self._load.stdin.write(f"{seconds}\n")
        self._load.stdin.flush()

    def runs(self):
        return self._load.poll() is None and self.proxy.is_alive()

    def sample(self, begin):
        stats = reports.all_stats(self._lease.instance)
        return soak_figures.Sample(
            seconds=time.monotonic() - begin,
            rss_kib=self.proxy.resident_kib(),
            pss_kib=process.proportional_kib(self.proxy.pid),
            heap_kib=self._meter.read().bytes / 1024 if self._meter else 0,
            descriptors=len(process.descriptors(self.proxy.pid)),
            threads=len(process.threads(self.proxy.pid)),
            streams=len(stats["CLIENTS"].split(",")),
            cpu_seconds=process.running_nanoseconds(self.proxy.pid) / NANOSECONDS,
            delivered=stats["SEND_PACKETS"],
        )

    def finish(self):
        """Lets the load come to its end; returns what it counted as {name: number}, and what went wrong."""
        try:
            text, _ = self._load.communicate(timeout=2 * PATIENCE_SECONDS)
        except subprocess.TimeoutExpired:
            return {}, ["the load did not end"]
        status = self._load.returncode
        figures = {name: int(value) for name, value in re.findall(r"^([A-Z_]+)=(\d+)$", text, re.MULTILINE)}
        faults = re.findall(r"^fault.*$", text, re.MULTILINE)
        if status != 0 or not figures:
            faults.append(f"the load ended with status {status}")
        if not self.proxy.is_alive():
            faults.append("the proxy ended by itself")
        elif (lost := reports.all_stats(self._lease.instance)["RECV_LOSS"]) != 0:
            faults.append(f"the proxy counted {lost} lost packets")
        return figures, faults

    def close(self):
        if self._load:
            self._load.kill()
            self._load.wait()
        if self.proxy:
            self.proxy.kill()
        self._lease.close()


def watch(soaked, seconds):
    """Samples once a second while the load lasts."""
    begin = time.monotonic()
    samples = []
    while soaked.runs() and time.monotonic() - begin < seconds:
        samples.append(soaked.sample(begin))
        time.sleep(max(0, begin + len(samples) - time.monotonic()))
    return samples


def report(samples, load, faults, out):
    """Writes everything; returns the exit status."""
    figures = soak_figures.judge(samples)
    lines = [f"{'flat' if figure.is_flat else 'NOT FLAT'}: {figure.text}" for figure in figures]
    lines += [f"wrong: {fault}" for fault in faults]
    lines.append(
        "load: {SENT} packets, {DATAGRAMS} datagrams checked, {RECOVERED} of {LOST_ON_PURPOSE} lost ones recovered, "
        "{JOINS} joins, {STOPS} stops, {DELETES} deletes, {MOVES} moves, {EXPIRIES} expiries, {ADDS} adds".format(**load)
        if load
        else "load: no figures"
    )
    soak_curves.write_table(samples, out / "samples.csv")
    soak_curves.write_text(samples, out / "curves.txt")
    if missing := soak_curves.write_picture(samples, figures, out / "curves.png"):
        lines.append(missing)
    (out / "figures.txt").write_text("\n".join(lines) + "\n", encoding="utf-8")
    print("\n".join(lines))
    return 1 if faults or not all(figure.is_flat for figure in figures) else 0


def main():
    options = arguments()
    binary = options.binary.resolve()
    if not binary.is_file():
        print(f"scripts/soak: there is no {options.binary}", file=sys.stderr)
        return 2
    out = options.out.resolve()
    out.mkdir(parents=True, exist_ok=True)
    try:
        sandbox.enter()
    except sandbox.NoSandbox as reason:
        print(f"scripts/soak: needs root and namespaces ({reason})", file=sys.stderr)
        return 2
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(2))  # everything that was started ends with us
    seconds = options.minutes * 60
    with tempfile.TemporaryDirectory(prefix="tx_proxy_soak_") as directory:
        soaked = Soaked()
        try:
            soaked.start(pathlib.Path(directory), binary, seconds)
            samples = watch(soaked, seconds)
            load, faults = soaked.finish()
        finally:
            soaked.close()
    if len(samples) < soak_figures.BLOCKS // 3:
        print("scripts/soak: too few samples", *faults, sep="\n", file=sys.stderr)
        return 1
    return report(samples, load, faults, out)


if __name__ == "__main__":
    sys.exit(main())
