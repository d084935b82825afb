"""The demo behind ./demo: source, proxy and receivers, a line of figures a second, and a verdict.

    ffmpeg (test picture and tone) -- RTP --> tx_proxy --+--> 127.0.0.2  lossy path, asks again
                                                         +--> 127.0.0.3  the same loss, never asks
                                                         +--> 127.0.0.4  ffmpeg, decodes the picture

One thread drives everything: Demo.step() waits a few milliseconds for input and does what is due.
"""

import argparse
import contextlib
import fcntl
import os
import pathlib
import selectors
import signal
import socket
import struct
import subprocess
import sys
import time

import demo_receiver
from demo_child import Child

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "demo"

# Instance numbers that demos share. A running proxy guards its number with UDP port 32123 + number; the
# blocks of ports that go with the numbers lie, as those do, below the kernel's ephemeral ports (32768).
INSTANCES = range(600, 640)
LOCK_PORT_BASE = 32123
BLOCK_BASE, BLOCK_SIZE = 12000, 8

ASKING, SILENT, VIEWER = "127.0.0.2", "127.0.0.3", "127.0.0.4"
LOSS = 0.05
FRAMES_PER_SECOND = 25
PACKET_BYTES = 12 + 7 * 188  # an RTP header and seven transport stream packets; the source fills every packet

ALREADY_RUNNING = "Process already running!"
STEP_SECONDS = 0.01
START_SECONDS = 30  # for a program to get ready
GRACE_SECONDS = 15  # for the source to end after its time, on a busy machine
WATCHED_SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


class Failed(Exception):
    """The demo cannot go on; the text says why."""


class Stopped(Exception):
    """A signal asks for the end."""

    def __init__(self, number):
        super().__init__(signal.Signals(number).name)
        self.status = 128 + number


class StopRequest:
    """Remembers the first signal that asks for the end; looked at between steps, so nothing is torn."""

    def __init__(self):
        self._number = None
        for number in WATCHED_SIGNALS:
            signal.signal(number, self._remember)

    def _remember(self, number, _frame):
        self._number = self._number or number

    def check(self):
        if self._number:
            raise Stopped(self._number)


class Ports:
    """The ports of one instance. ffmpeg sends or binds RTCP on the port above each of its own."""

    def __init__(self, instance):
        block = BLOCK_BASE + BLOCK_SIZE * (instance - INSTANCES.start)
        self.input = block
        self.destination = block + 2  # media port of the two model receivers, and the proxy's ping port
        self.request = block + 3
        self.viewer = block + 4
        self.all = {LOCK_PORT_BASE + instance, *range(block, block + BLOCK_SIZE)}


def bound_udp_addresses():
    """(address, port) of every bound UDP socket, without disturbing anyone by trying to bind."""
    bound = set()
    for line in pathlib.Path("/proc/net/udp").read_text(encoding="ascii").splitlines()[1:]:
        address, port = line.split()[1].split(":")
        bound.add((socket.inet_ntoa(struct.pack("=I", int(address, 16))), int(port, 16)))
    return bound


def free_instances():
    """Instance numbers of which no port is in use, each demo beginning at another one."""
    offset = os.getpid() % len(INSTANCES)
    for instance in [*INSTANCES[offset:], *INSTANCES[:offset]]:
        if Ports(instance).all.isdisjoint(port for _, port in bound_udp_addresses()):
            yield instance


def source_command(ports, seconds):
    picture = f"testsrc2=size=640x360:rate={FRAMES_PER_SECOND}"
    return [
        *("ffmpeg", "-hide_banner", "-nostats", "-loglevel", "error", "-progress", "pipe:1", "-stats_period", "0.1"),
        *("-re", "-f", "lavfi", "-i", picture, "-re", "-f", "lavfi", "-i", "sine=frequency=440:sample_rate=48000"),
        *("-t", seconds, "-c:v", "mpeg2video", "-b:v", "2500k", "-g", "12", "-c:a", "mp2", "-b:a", "128k"),
        *("-f", "rtp_mpegts", f"rtp://127.0.0.1:{ports.input}?pkt_size={PACKET_BYTES}"),
    ]


def viewer_command():
    return [
        *("ffmpeg", "-hide_banner", "-nostats", "-loglevel", "error", "-progress", "pipe:1", "-stats_period", "0.1"),
        *("-protocol_whitelist", "pipe,rtp,udp", "-localaddr", VIEWER, "-analyzeduration", "1000000"),
        *("-f", "sdp", "-i", "pipe:0", "-map", "0:v", "-map", "0:a", "-f", "null", "-"),
    ]


def session_description(ports):
    """What an RTP client must know: payload type 33 is an MPEG transport stream."""
    return (
        f"v=0\r\no=- 0 0 IN IP4 {VIEWER}\r\ns=tx_proxy demo\r\nc=IN IP4 {VIEWER}\r\nt=0 0\r\n"
        f"m=video {ports.viewer} RTP/AVP 33\r\n"
    ).encode()


class ViewerCompanion:
    """Says for ffmpeg what a plain RTP client cannot: pings to the proxy, and at the end that the stream is over."""

    IP_PKTINFO = 8  # of Linux; the socket module does not name it
    GOODBYE = bytes.fromhex("80c90001 00000000 81cb0001 00000000")  # RTCP: empty receiver report, BYE

    def __init__(self, ports):
        self.pings = 0
        self._ports = ports
        self._next_ping = 0.0
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.bind(("127.0.0.1", ports.viewer))

    def tick(self, now):
        if now >= self._next_ping:
            self._next_ping = now + demo_receiver.PING_SECONDS
            self.pings += 1
            self._send_as_viewer(demo_receiver.PING)

    def say_goodbye(self):
        self._socket.sendto(self.GOODBYE, (VIEWER, self._ports.viewer + 1))

    def leave(self):
        self._send_as_viewer(demo_receiver.LEAVE)

    def _send_as_viewer(self, datagram):
        """From the viewer's address and, since this socket has the same number, from the viewer's port."""
        source = struct.pack("=I4s4s", 0, socket.inet_aton(VIEWER), bytes(4))
        control = [(socket.IPPROTO_IP, self.IP_PKTINFO, source)]
        self._socket.sendmsg([datagram], control, 0, ("127.0.0.1", self._ports.destination))


class Demo:
    """Owns all programs and sockets; close() ends them in whatever state the demo is."""

    def __init__(self, binary, seconds, stop):
        self._binary = binary
        self._seconds = seconds
        self._stop = stop
        self._selector = selectors.DefaultSelector()
        self._children = []
        self._tried = []  # (instance, proxy); the last one is ours unless another demo was faster
        self._proxy = None  # once it listens
        self._receivers = {}  # the model receivers by address
        self._members = []  # whoever pings the proxy now

    def run(self):
        """The whole show. Returns what is wrong, as a list of texts."""
        self._start_proxy()
        self._start_receivers()
        self._start_source()
        self._print_head()
        self._stream()
        self._finish()
        self._print_row("end")
        return self._faults()

    def close(self):
        for child in reversed(self._children):
            child.kill()
        for instance, proxy in self._tried:
            if ALREADY_RUNNING not in proxy.lines:
                with contextlib.suppress(OSError):
                    os.unlink(f"/dev/arq_tx_ctrl{instance}")
        self._selector.close()

    def step(self):
        """Waits a moment for input, then does what is due."""
        self._stop.check()
        ready = self._selector.select(STEP_SECONDS)
        now = time.monotonic()
        for key, _ in ready:
            key.data(now)
        for member in self._members:
            member.tick(now)
        if self._proxy and self._proxy.status is not None:
            ended = f"the proxy ended by itself, status {self._proxy.status}"
            raise Failed(f"{ended}; its last line: {self._proxy.last_line()}")

    def _wait(self, condition, what, seconds=START_SECONDS):
        deadline = time.monotonic() + seconds
        while not condition():
            if time.monotonic() > deadline:
                raise Failed(f"gave up waiting for {what}")
            self.step()

    def _wait_for_all(self, message, what):
        """Until the proxy has logged the message about each receiver."""
        clients = [f" for {address} ID:0x00000000" for address in (ASKING, SILENT, VIEWER)]

        def logged(client):
            return any(message in line and line.endswith(client) for line in self._proxy.lines)

        self._wait(lambda: all(map(logged, clients)), what)

    def _run_child(self, name, arguments, stdin=b""):
        child = Child(name, arguments, self._selector, stdin)
        self._children.append(child)
        return child

    def _start_proxy(self):
        for instance in free_instances():
            ports = Ports(instance)
            options = ["-I", instance, "-p", ports.destination, "-r", ports.request]
            proxy = self._run_child("tx_proxy", [self._binary, *options, ports.input])
            self._tried.append((instance, proxy))
            ready = {
                f"Listening on port {ports.input} for incoming stream",
                f"SocketListener: sock bound to port {ports.destination}",
                f"SocketListener: sock bound to port {ports.request}",
            }
            self._wait(lambda: proxy.status is not None or ready.issubset(proxy.lines), "the proxy to listen")
            if proxy.status is None:
                self._proxy, self._instance, self._ports = proxy, instance, ports
                return
            if ALREADY_RUNNING not in proxy.lines:
                raise Failed(f"the proxy did not start: {proxy.last_line()}")
        raise Failed("no free instance number: too many demos at once")

    def _start_receivers(self):
        """All of them are in place before media flow: nothing is missing from the beginning."""
        for address, asks in ((ASKING, True), (SILENT, False)):
            receiver = demo_receiver.Receiver(
                address, self._ports.destination, self._ports.request, asks=asks, loss=LOSS, seed=address
            )
            self._receivers[address] = receiver
            self._selector.register(receiver.socket, selectors.EVENT_READ, receiver.on_readable)
        self._viewer = self._run_child("ffmpeg", viewer_command(), session_description(self._ports))
        self._wait(
            lambda: self._viewer.status is not None or (VIEWER, self._ports.viewer) in bound_udp_addresses(),
            "ffmpeg to receive",
        )
        if self._viewer.status is not None:
            raise Failed(f"ffmpeg does not receive: {self._viewer.last_line()}")
        self._companion = ViewerCompanion(self._ports)
        self._members = [*self._receivers.values(), self._companion]
        self._wait_for_all("Media started on port", "the proxy to serve the receivers")

    def _start_source(self):
        self._source = self._run_child("ffmpeg", source_command(self._ports, self._seconds))
        self._wait(lambda: self._source.status is not None or self._source.value("frame"), "the first picture")

    def _stream(self):
        """Prints a row a second until the source has sent its last picture."""
        begin = time.monotonic()
        printed = 0
        while self._source.status is None:
            elapsed = time.monotonic() - begin
            if elapsed > self._seconds + GRACE_SECONDS:
                raise Failed("the source does not end")
            if int(elapsed) > printed:
                printed = int(elapsed)
                self._print_row(f"{printed} s")
            self.step()
        if self._source.status != 0:
            raise Failed(f"the source failed, status {self._source.status}: {self._source.last_line()}")

    def _finish(self):
        """Lets what is on its way arrive: the last repeats, and the pictures that ffmpeg still decodes."""
        buffer = time.monotonic() + demo_receiver.BUFFER_SECONDS
        while any(receiver.waits() for receiver in self._receivers.values()) and time.monotonic() < buffer:
            self.step()
        self._companion.say_goodbye()
        self._wait(lambda: self._viewer.status is not None, "ffmpeg to decode the rest", GRACE_SECONDS)
        for receiver in self._receivers.values():
            receiver.give_up_rest()
        for member in self._members:
            member.leave()
        self._members = []
        self._wait_for_all("Stream stopped", "the proxy to let the receivers go")

    def _packets_sent(self):
        return self._source.value("total_size") // PACKET_BYTES

    def _print_head(self):
        ports = self._ports
        print(f"{self._seconds} s of live test picture and tone as RTP to 127.0.0.1:{ports.input}")
        print(f"tx_proxy: process {self._proxy.process.pid}, instance {self._instance}, ", end="")
        print(f"pings on port {ports.destination}, requests on port {ports.request}")
        print(f"  {ASKING}  behind a path that loses {LOSS:.0%} each way; asks for what is missing")
        print(f"  {SILENT}  behind a path that loses {LOSS:.0%} each way; never asks")
        print(f"  {VIEWER}  ffmpeg as a plain RTP client; decodes the picture")
        print()
        for cells in (
            ("", "source", f"{ASKING}, asks again", f"{SILENT}, never asks", f"{VIEWER}, ffmpeg"),
            ("time", "frames packets", *["pings   got missing recovered lost"] * 2, "pings frames"),
        ):
            print("{:>5} | {:^14} | {:^34} | {:^34} | {}".format(*cells), flush=True)

    def _print_row(self, label):
        cells = [f"{self._source.value('frame'):6} {self._packets_sent():7}"]
        for receiver in self._receivers.values():
            f = receiver.figures
            cells.append(f"{f.pings:5} {f.got:5} {f.missing:7} {f.recovered:9} {f.lost:4}")
        cells.append(f"{self._companion.pings:5} {self._viewer.value('frame'):6}")
        print(f"{label:>5} | " + " | ".join(cells), flush=True)

    def _faults(self):
        asking, silent = self._receivers[ASKING].figures, self._receivers[SILENT].figures
        sent, frames, decoded = self._packets_sent(), self._source.value("frame"), self._viewer.value("frame")
        expected = self._seconds * FRAMES_PER_SECOND
        checks = (
            (frames >= 0.95 * expected, f"the source made {frames} frames of {expected}"),
            (decoded >= 0.9 * frames, f"{VIEWER} decoded {decoded} frames of {frames}"),
            (asking.got >= 0.98 * sent, f"{ASKING} got {asking.got} packets of {sent}"),
            (asking.recovered > 0, f"{ASKING} recovered nothing"),
            (asking.lost == 0, f"{ASKING} lost {asking.lost} packets in spite of asking"),
            (silent.got > 0, f"{SILENT} got nothing"),
            (silent.lost > 0, f"{SILENT} shows no loss"),
            (silent.recovered == 0, f"{SILENT} got {silent.recovered} packets late without asking"),
        )
        return [fault for good, fault in checks if not good]

    def summary(self):
        asking, silent = self._receivers[ASKING].figures, self._receivers[SILENT].figures
        return (
            f"ffmpeg decoded {self._viewer.value('frame')} of {self._source.value('frame')} frames, "
            f"{ASKING} recovered {asking.recovered} of {asking.missing} missing packets, "
            f"{SILENT} lost {silent.lost} of {silent.missing}"
        )


def run_quietly(arguments, stop):
    """Runs a build step; its output is shown only when it fails. A stop ends it with all its children."""
    with subprocess.Popen(
        list(map(str, arguments)), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
        start_new_session=True,
    ) as process:
        try:
            while True:
                stop.check()
                try:
                    output, _ = process.communicate(timeout=0.1)
                    break
                except subprocess.TimeoutExpired:
                    pass
        except Stopped:
            os.killpg(process.pid, signal.SIGKILL)
            raise
    if process.returncode != 0:
        print(output.decode("utf-8", "replace"), file=sys.stderr)
        raise Failed(f"could not build the proxy: {arguments[0]} ended with status {process.returncode}")


def build(stop):
    """Builds the proxy alone, in a folder of its own; a second demo waits for the first one's build."""
    BUILD.mkdir(parents=True, exist_ok=True)
    print("Building the proxy ... ", end="", flush=True)
    begin = time.monotonic()
    with open(BUILD / "demo.lock", "w", encoding="ascii") as lock:
        while True:
            stop.check()
            try:
                fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
                break
            except BlockingIOError:
                time.sleep(0.1)
        options = [f"-DTX_PROXY_BUILD_{part}=OFF" for part in ("TESTS", "BENCH", "FUZZ")]
        run_quietly(["cmake", "-S", ROOT, "-B", BUILD, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release", *options], stop)
        run_quietly(["cmake", "--build", BUILD, "--target", "tx_proxy"], stop)
    print(f"done in {time.monotonic() - begin:.0f} s", flush=True)
    return BUILD / "tx_proxy"


def show(seconds, stop):
    """Returns the exit status, with the verdict as the last line."""
    demo = None
    try:
        binary = os.environ.get("TX_PROXY_BIN") or build(stop)
        demo = Demo(binary, seconds, stop)
        faults = demo.run()
        verdict = "FAILED: " + "; ".join(faults) if faults else "GOOD: " + demo.summary()
        status = 1 if faults else 0
    except (Failed, OSError) as failure:
        verdict, status = f"FAILED: {failure}", 1
    except Stopped as stopped:
        verdict, status = f"STOPPED by {stopped}", stopped.status
    finally:
        if demo:
            demo.close()
    print(f"\n{verdict}", flush=True)
    return status


def seconds_argument(text):
    seconds = int(text)
    if not 3 <= seconds <= 86400:
        raise argparse.ArgumentTypeError("must be 3 to 86400")
    return seconds


def main():
    parser = argparse.ArgumentParser(
        prog="./demo",
        description="Sends a live test picture through the proxy to three receivers and shows what each one gets.",
        epilog="TX_PROXY_BIN names a proxy to use instead of building one. Exit status: 0 when all went well, "
        "1 when not, 128 + number when stopped by a signal.",
    )
    parser.add_argument("--seconds", type=seconds_argument, default=15, metavar="N", help="length (default: 15)")
    arguments = parser.parse_args()
    try:
        return show(arguments.seconds, StopRequest())
    except BrokenPipeError:
        # Nobody reads us any more. All is cleaned up; keep the interpreter from flushing into the same pipe.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 1


if __name__ == "__main__":
    sys.exit(main())
