"""Fixtures of the system tests. They need root and TX_PROXY_BIN, the binary under test.

Every process that runs tests has a /dev, a /run and a network of its own (txproxy/sandbox.py). `can_run` beside
this file says beforehand whether the machine lets it make them.

TX_PROXY_TIME_SCALE   factor for all time-outs (default 1; 3 with the address sanitizer, 5 with the thread sanitizer)
TX_PROXY_BUILD_KIND   "release" when the binary is an optimised build without sanitizers, "asan" with the
                      address sanitizer
TX_PROXY_LONG         set and not empty: tests marked `long`, which take minutes, run too
"""

import collections
import os
import signal

import pytest

from txproxy import control, model_receiver, mpegts, netns, ports, proxy, receiver, sandbox


AFTER_LONG_LOADS = 8  # tests of every other file
# The programs behind these have one thread: under the thread sanitizer there would be nothing to see.
ONE_THREAD = ("test_demo.py", "test_arqlink_")
# Compiling arqctl for the thread sanitizer takes longer than all other programs together.
LONG_WITH_TSAN = ("test_arqctl_",)
MARKERS = {
    "release": "release_only: limits of memory, time and libraries are promises of the release build",
    "asan": "asan_only: needs the address sanitizer",
}
LONG = "long: takes minutes, or what only a release needs; its short form is a test of its own (TX_PROXY_LONG)"
LARGE = "large: runs what takes a whole machine, or wants its time: a browser, a player, a Debian system; after the others, three at a time"


def pytest_collection_modifyitems(config, items):
    """Tests of one kind of build are not collected for the others.

    Side by side the first test of every file comes first, then every second one: processes are given neighbours,
    and those of one file are all long or all short. The demo shows a live picture: it waits until the long loads,
    each the first test of its file, have had some time.
    """
    foreign = [f"{kind}_only" for kind in MARKERS if kind != proxy.build_kind()]
    is_long = bool(os.environ.get("TX_PROXY_LONG"))
    if not is_long:
        foreign.append("long")
    left_out = ONE_THREAD if is_long else ONE_THREAD + LONG_WITH_TSAN
    dropped = [item for item in items if any(map(item.get_closest_marker, foreign))
               or (proxy.build_kind() == "tsan" and item.path.name.startswith(left_out))]
    items[:] = [item for item in items if item not in dropped]
    config.hook.pytest_deselected(items=dropped)
    if hasattr(config, "workerinput"):
        place = collections.Counter({item.path: AFTER_LONG_LOADS for item in items if item.path.name == "test_demo.py"})
        order = {}
        for item in items:
            order[item] = place[item.path]
            place[item.path] += 1
        items.sort(key=order.get)


def pytest_configure(config):
    for marker in (*MARKERS.values(), LARGE, LONG):
        config.addinivalue_line("markers", marker)
    # Started by nohup, programs under test would ignore it, too; a handler, other than that, is not inherited.
    if signal.getsignal(signal.SIGHUP) == signal.SIG_IGN:
        signal.signal(signal.SIGHUP, lambda number, frame: None)
    # Also in the process that only hands out the tests: it meets a refusal first and says so once.
    try:
        sandbox.enter()
    except sandbox.NoSandbox as reason:
        pytest.exit(f"{sandbox.NEEDS} ({reason})", returncode=1)


@pytest.fixture
def closing():
    """Registers anything with close(); closes in reverse order at the end of the test."""
    opened = []

    def register(thing):
        opened.append(thing)
        return thing

    yield register
    for thing in reversed(opened):
        thing.close()


@pytest.fixture
def lease(closing):
    """An instance number with ports of its own."""
    return closing(ports.Lease())


@pytest.fixture
def net(lease):
    """The usual ports of one proxy: input, destination (= ping) and ARQ request port."""
    return lease.for_proxy()


@pytest.fixture
def launch(lease):
    """launch(*arguments, ...) starts the binary with exactly these arguments.

    At the end of the test every process must still run (unless it was waited for) and is ended.
    """
    # Asking for `lease` orders the clean-up: processes end before their instance number is given back.
    assert lease
    started = []

    def start(*arguments, **keywords):
        process = proxy.Proxy(*arguments, **keywords)
        started.append(process)
        return process

    yield start
    failures = []
    for process in started:
        try:
            if not process.ended:
                process.stop()
        except AssertionError as failure:
            failures.append(str(failure))
        finally:
            process.kill()
    assert not failures, "\n".join(failures)


@pytest.fixture
def start_proxy(launch, net):
    """start_proxy(*options, group=None, ...) runs a proxy on the ports of `net` and waits until it is ready."""

    def start(*options, group=None, ready=True, **keywords):
        arguments = ["-I", net.instance, "-p", net.destination, "-r", net.request, *options, net.input]
        process = launch(*arguments, *([group] if group else []), **keywords)
        return process.wait_ready() if ready else process

    return start


@pytest.fixture
def commanded_proxy(start_proxy, net):
    """start_proxy, which then waits until the proxy takes commands, too."""

    def start(*options, **keywords):
        process = start_proxy(*options, **keywords)
        control.request(net.instance, "RxStat")
        return process

    return start


@pytest.fixture
def receive(closing, net):
    """receive(address, ...) makes a receiver on the destination port (127.0.0.2 and up: see Receiver)."""

    def make(address="127.0.0.2", port=None, **keywords):
        return closing(receiver.Receiver(address, net.destination if port is None else port, **keywords))

    return make


@pytest.fixture
def learn(closing, lease, net):
    """learn(address, ...) makes a receiver with a port of its own; it has not pinged yet."""
    return lambda address="127.0.0.5", **keywords: closing(
        model_receiver.PingingReceiver(address, keywords.pop("port", None) or lease.port(), net, **keywords)
    )


@pytest.fixture
def sender(closing, net):
    """Sends to the proxy's input on loopback."""
    return closing(receiver.Sender("127.0.0.1", net.input))


@pytest.fixture
def make_lan(closing):
    """make_lan(interfaces) gives a netns.Lan for the time of the test."""
    return lambda interfaces=1: closing(netns.Lan(interfaces))


@pytest.fixture
def island(closing):
    """A namespace with nothing but loopback: every other address is unreachable there."""
    return closing(netns.Namespace())


@pytest.fixture(scope="session")
def transport_stream(tmp_path_factory, worker_id):
    """Three seconds of a real MPEG transport stream."""
    directory = tmp_path_factory.getbasetemp()
    return mpegts.make(directory if worker_id == "master" else directory.parent)
