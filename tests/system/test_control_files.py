"""The file of the control socket: what an earlier run left there, and what makes it impossible."""

import re
import socket
import stat

import pytest

from txproxy import control, impairment, instances, ports, rtp
from txproxy.control import request
from txproxy.proxy import binary
from txproxy.receiver import pump

EXITING = "process_request_thread: exiting"


@pytest.fixture
def control_file(lease):
    """The path of the control socket, and whatever stands there removed at the end."""
    path = ports.instance_files(lease.instance)[0]
    assert str(path) == control.path(lease.instance)
    yield path
    if path.is_dir() and not path.is_symlink():
        for entry in path.iterdir():
            entry.unlink()
        path.rmdir()


def stream_runs(sender, receiver):
    pump(sender, [receiver], [rtp.packet(i, bytes(1316)) for i in range(100)])


def test_the_socket_that_an_ended_run_left_is_replaced(start_proxy, net, control_file):
    first = start_proxy("-a", "127.0.0.2")
    assert request(net.instance, "List") == "127.0.0.2"
    first.stop()
    assert control_file.is_socket(), "a signal leaves the file behind"
    start_proxy("-a", "127.0.0.3")
    assert request(net.instance, "List") == "127.0.0.3"


def test_a_plain_file_in_the_way_is_replaced(start_proxy, net, control_file):
    control_file.write_text("left over")
    start_proxy("-a", "127.0.0.2")
    assert request(net.instance, "List") == "127.0.0.2"
    assert stat.S_ISSOCK(control_file.lstat().st_mode)


def test_a_left_over_socket_of_another_process_is_replaced(start_proxy, net, control_file):
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as other:
        other.bind(str(control_file))
        start_proxy("-a", "127.0.0.2")
        assert request(net.instance, "List") == "127.0.0.2"


def test_of_a_link_in_the_way_the_file_behind_it_is_removed_and_the_bind_fails(
    start_proxy, sender, receive, control_file, tmp_path
):
    target = tmp_path / "target"
    target.write_text("left over")
    control_file.symlink_to(target)
    proxy = start_proxy("-a", "127.0.0.2")
    proxy.wait_stderr("binding socket: Address already in use")
    proxy.wait_stderr(EXITING)
    assert not target.exists()
    stream_runs(sender, receive("127.0.0.2"))


def test_a_failed_start_takes_the_link_away_so_that_the_next_run_has_control(
    start_proxy, net, control_file, tmp_path
):
    control_file.symlink_to(tmp_path / "nowhere")
    failing = start_proxy("-a", "127.0.0.2")
    failing.wait_stderr("binding socket: Address already in use")
    failing.wait_stderr(EXITING)
    failing.stop()
    assert not control_file.is_symlink()
    start_proxy("-a", "127.0.0.2")
    assert request(net.instance, "List") == "127.0.0.2"


def test_an_impossible_bind_is_reported_and_the_stream_runs_without_control(
    start_proxy, sender, receive, control_file
):
    control_file.mkdir()
    (control_file / "entry").touch()
    proxy = start_proxy("-a", "127.0.0.2")
    proxy.wait_stderr("binding socket: Address already in use")
    proxy.wait_stderr(EXITING)
    stream_runs(sender, receive("127.0.0.2"))


def test_without_control_the_impairment_files_are_not_looked_at(
    start_proxy, net, control_file, launch, closing
):
    control_file.mkdir()
    (control_file / "entry").touch()
    proxy = start_proxy("-a", "127.0.0.2")
    proxy.wait_stderr(EXITING)
    impairment.toggle(net.instance)
    # Two looks of a proxy that is well are the clock.
    other = instances.reserve(closing)
    healthy = instances.start(launch, other)
    impairment.toggle(other.instance)
    healthy.wait_stderr("Impairment ON")
    impairment.toggle(other.instance)
    healthy.wait_stderr("Impairment OFF")
    assert impairment.toggle_file(net.instance).exists()
    assert "Impairment" not in proxy.stderr.text


def test_without_permission_for_the_folder_the_stream_runs_without_control(
    start_proxy, sender, receive, control_file, tmp_path, monkeypatch
):
    unprivileged = tmp_path / "tx_proxy_unprivileged"
    unprivileged.write_text(
        "#!/bin/sh\n"
        f"exec 9<'{binary()}'\n"
        'exec setpriv --reuid=65534 --regid=65534 --clear-groups /proc/self/fd/9 "$@"\n'
    )
    unprivileged.chmod(0o755)
    monkeypatch.setenv("TX_PROXY_BIN", str(unprivileged))
    proxy = start_proxy("-a", "127.0.0.2")
    proxy.wait_stderr(re.compile("binding socket: (Permission denied|Read-only file system)"))
    proxy.wait_stderr(EXITING)
    stream_runs(sender, receive("127.0.0.2"))


def test_two_instances_have_control_sockets_of_their_own(launch, closing):
    places = [instances.reserve(closing) for _ in range(2)]
    for i, place in enumerate(places):
        instances.start(launch, place, "-a", f"127.0.0.{i + 2}")
    assert [request(place.instance, "List") for place in places] == ["127.0.0.2", "127.0.0.3"]


def test_a_reader_of_status_records_gets_none(launch, closing):
    # Instance N would report its N-th stream, once a second.
    lease = closing(ports.Lease(1))
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK) as reader:
        reader.bind(f"/dev/arq_tx_stat{lease.instance}")
        proxy = launch(
            "-I", lease.instance, "-p", lease.port(), "-r", lease.port(), "-a", "127.0.0.2", lease.port()
        )  # fmt: skip
        # A switch is looked for in the same poll, before the report: when the second is seen, the first has ended.
        for line in ("Impairment ON", "Impairment OFF"):
            impairment.toggle(lease.instance)
            proxy.wait_stderr(line)
        with pytest.raises(BlockingIOError):
            reader.recv(64)
    assert "Created ARQ TX Status Socket" not in proxy.stderr.text
