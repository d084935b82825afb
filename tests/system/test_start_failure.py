"""Start-up that cannot succeed."""

import resource

import pytest

from txproxy.proxy import run

NAME = "./some dir/tx"
ADDRESS_SPACE_BYTES = 4 << 30
MOST_ARQ_BUFFERS = 1 << 30


def limit_address_space():
    resource.setrlimit(resource.RLIMIT_AS, (ADDRESS_SPACE_BYTES, ADDRESS_SPACE_BYTES))


@pytest.mark.release_only
def test_without_memory_for_the_packets_the_start_fails_with_status_1(net):
    status, stdout, stderr = run(
        "-I", net.instance, "-q", MOST_ARQ_BUFFERS, net.input, argv0=NAME, preexec=limit_address_space
    )
    assert status == 1
    assert stdout.splitlines() == [f"Number of ARQ Buffers = {MOST_ARQ_BUFFERS}"]
    assert stderr.splitlines() == [
        "Maximum output streams = 50",
        "ArqSendReplicator: ERROR: PacketBufferInit failed!",
        f"{NAME}: Cannot create arq_send",
    ]
