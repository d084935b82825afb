"""Tests cannot reach a proxy that serves somebody outside of them: not its files, not its ports."""

import os
import pathlib
import subprocess
import sys

import pytest

from txproxy import impairment, ports, proxy
from txproxy.control import request
from txproxy.waiting import scaled

HERE = pathlib.Path(__file__).resolve().parent
WORST_TEST = "test_command_line.py::test_the_defaults_are_destination_10000_request_7020_instance_1_and_4096_buffers"
OPERATORS_INSTANCE = 1  # the default, so the likeliest
POWERLESS = ("setpriv", "--bounding-set=-sys_admin")  # root, but not entitled to namespaces


@pytest.fixture
def operators_proxy(launch, closing):
    """A running proxy with impairment on, in this test's own /dev and /run: the machine, for what runs below."""
    lease = closing(ports.Lease(OPERATORS_INSTANCE))
    impairment.write_settings(lease.instance, mode=1)
    impairment.toggle(lease.instance)
    running = launch("-p", lease.port(), "-r", lease.port(), "-a", "127.0.0.2", lease.port()).wait_ready()
    running.wait_stderr("Impairment ON")
    assert request(lease.instance, "List") == "127.0.0.2"
    return running


def traces():
    """What the proxy of instance 1 uses: its control socket and impairment files, each with its identity."""
    files = [path for path in ports.instance_files(OPERATORS_INSTANCE) if path.exists()]
    return {path.name: (path.stat().st_ino, path.stat().st_mtime_ns) for path in files}


def in_a_sandbox(program):
    """The output of a Python program that enters a sandbox as a test process does."""
    enter = "import os, socket; from txproxy import ports, sandbox; sandbox.enter()\n"
    command = [sys.executable, "-B", "-c", enter + program]
    run = subprocess.run(command, cwd=HERE, check=True, capture_output=True, text=True)
    return run.stdout.strip()


def test_files_of_a_proxy_outside_cannot_be_seen(operators_proxy):
    assert {"arq_tx_ctrl1", "tx_proxy1.imp.conf"} <= set(traces())
    assert in_a_sandbox("print([path for path in ports.instance_files(1) if os.path.lexists(path)])") == "[]"
    assert in_a_sandbox("print(sorted(os.listdir('/run')))") == "[]"


def test_files_made_or_removed_by_a_test_are_nobody_elses(operators_proxy):
    before = traces()
    in_a_sandbox("lease = ports.Lease(1)\nfor path in ports.instance_files(1): path.touch()\nlease.close()")
    assert traces() == before


def test_the_lock_port_of_a_proxy_outside_is_free(operators_proxy):
    assert not ports.udp_port_is_free(ports.lock_port(OPERATORS_INSTANCE))
    assert in_a_sandbox("print(ports.udp_port_is_free(ports.lock_port(1)))") == "True"


def test_devices_that_programs_expect_work(operators_proxy):
    program = "print(len(open('/dev/urandom', 'rb').read(9)), open('/dev/zero', 'rb').read(1), open('/dev/null').read())"
    assert in_a_sandbox(program) == "9 b'\\x00'"


def test_a_test_of_instance_1_runs_beside_a_proxy_of_instance_1(operators_proxy):
    before = traces()
    # Every process that runs tests enters a sandbox of its own, this one too.
    command = [sys.executable, "-m", "pytest", "-q", "-p", "no:cacheprovider", "-p", "no:xdist", HERE / WORST_TEST]
    environment = {**os.environ, "TX_PROXY_BIN": proxy.binary(), "PYTEST_ADDOPTS": ""}
    inner = subprocess.run(
        command, env=environment, capture_output=True, text=True, timeout=scaled(60), check=False
    )
    assert inner.returncode == 0 and "1 passed" in inner.stdout, inner.stdout + inner.stderr
    assert traces() == before
    assert request(OPERATORS_INSTANCE, "List") == "127.0.0.2"


def test_without_the_right_to_make_a_sandbox_there_is_one_message_and_no_test():
    command = [*POWERLESS, sys.executable, "-B", "-m", "pytest", "-p", "no:cacheprovider", "-n", "2", HERE]
    run = subprocess.run(command, cwd="/", capture_output=True, text=True, timeout=scaled(60), check=False)
    assert run.returncode == 1
    assert (run.stdout + run.stderr).count("The system tests need root") == 1
    assert "failed" not in run.stdout


@pytest.mark.parametrize(
    "prefix, status, text",
    [
        ((), 0, "The system tests can run.\n"),
        (
            POWERLESS,
            1,
            "The system tests need root and the right to make namespaces for mounts and networks "
            "(namespaces for mounts and network: Operation not permitted)\n",
        ),
    ],
    ids=["entitled", "not_entitled"],
)
def test_whether_the_machine_lets_tests_run_can_be_asked_beforehand(prefix, status, text):
    run = subprocess.run([*prefix, HERE / "can_run"], capture_output=True, text=True, timeout=scaled(60), check=False)
    assert (run.returncode, run.stdout, run.stderr) == (status, text, "")
