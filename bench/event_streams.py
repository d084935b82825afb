#!/usr/bin/env python3
"""What open pages cost `arqctl serve`: processor time and memory with a number of event streams.

    bench/event_streams.py [--build build/release] [--clients 50] [--seconds 10] [--rounds 5]

Runs a proxy with an input of 1000 packets a second and four receivers, and `arqctl serve` on it, all on loopback. Prints
the share of one core that the server takes without and with the clients (median, smallest and largest of the rounds) and
its resident memory before and after. Nothing is judged: a busy machine changes the figures.
"""

import argparse
import contextlib
import pathlib
import re
import select
import socket
import statistics
import struct
import subprocess
import threading
import time

INSTANCE = 790
INPUT, MEDIA, REQUESTS = 17900, 17910, 17920
PACKETS_PER_SECOND = 1000


def cpu_seconds(pid):
    """Of its present threads, in nanoseconds' precision: the kernel's ticks are too coarse."""
    threads = pathlib.Path(f"/proc/{pid}/task").glob("*/schedstat")
    return sum(int(thread.read_text(encoding="ascii").split()[0]) for thread in threads) / 1e9


def resident_kib(pid):
    return int(re.search(r"VmRSS:\s+(\d+)", pathlib.Path(f"/proc/{pid}/status").read_text(encoding="ascii")).group(1))


def feed(running):
    """RTP packets of 1316 bytes, paced in turns of 10 ms."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
        number, begin = 0, time.monotonic()
        while running.is_set():
            while number < (time.monotonic() - begin) * PACKETS_PER_SECOND:
                sock.sendto(struct.pack(">BBHII", 0x80, 33, number & 0xFFFF, number, 1) + b"x" * 1316, ("127.0.0.1", INPUT))
                number += 1
            time.sleep(0.01)


def drain(running, socks, counts):
    """Reads all event streams as browsers do; counts bytes."""
    while running.is_set():
        for sock in select.select(socks, [], [], 0.2)[0]:
            counts[0] += len(sock.recv(1 << 20))


def share(pid, seconds):
    before, began = cpu_seconds(pid), time.monotonic()
    time.sleep(seconds)
    return 100 * (cpu_seconds(pid) - before) / (time.monotonic() - began)


def row(name, shares):
    print(f"{name:24} {statistics.median(shares):6.2f} % of a core   ({min(shares):.2f} to {max(shares):.2f}, "
          f"{len(shares)} rounds)", flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=pathlib.Path, default=pathlib.Path("build/release"))
    parser.add_argument("--clients", type=int, default=50)
    parser.add_argument("--seconds", type=float, default=10)
    parser.add_argument("--rounds", type=int, default=5)
    options = parser.parse_args()
    with contextlib.ExitStack() as stack:
        running = threading.Event()
        running.set()

        def start(*command):
            process = subprocess.Popen(list(map(str, command)), stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
            stack.callback(process.wait)
            stack.callback(process.terminate)
            return process

        receivers = ",".join(f"127.0.0.{number}" for number in range(2, 6))
        for address in receivers.split(","):
            sock = stack.enter_context(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            sock.bind((address, MEDIA))
        start(options.build / "tx_proxy", "-I", INSTANCE, "-a", receivers, "-p", MEDIA, "-r", REQUESTS, INPUT)
        server = start(options.build / "arqctl", "serve", "--listen", "127.0.0.1:0", "--reports", "off", INSTANCE)
        port = int(re.search(r":(\d+)/", server.stdout.readline()).group(1))
        threading.Thread(target=feed, args=(running,), daemon=True).start()
        stack.callback(running.clear)
        time.sleep(3)
        memory = [resident_kib(server.pid)]
        row("no client", [share(server.pid, options.seconds) for _ in range(options.rounds)])
        socks, counts = [], [0]
        for _ in range(options.clients):
            sock = stack.enter_context(socket.create_connection(("127.0.0.1", port)))
            sock.sendall(f"GET /api/v1/events HTTP/1.1\r\nHost: 127.0.0.1:{port}\r\n\r\n".encode())
            socks.append(sock)
        reader = threading.Thread(target=drain, args=(running, socks, counts))
        reader.start()
        stack.callback(reader.join)  # before the sockets close
        stack.callback(running.clear)
        time.sleep(2)
        memory.append(resident_kib(server.pid))
        row(f"{options.clients} event streams", [share(server.pid, options.seconds) for _ in range(options.rounds)])
        memory.append(resident_kib(server.pid))
        print(f"resident memory          {memory[0]} kB without clients, {memory[1]} kB with, {memory[2]} kB at the end; "
              f"{counts[0] / 1e6:.2f} MB were read", flush=True)


if __name__ == "__main__":
    main()
