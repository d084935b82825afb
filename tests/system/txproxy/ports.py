"""Instance numbers and UDP ports. All of them belong to this test process alone: see sandbox.

Each instance number owns a block of ports. The lock ports (32123 + instance) and all blocks lie below 32768,
where the kernel's ephemeral ports begin, so no other socket can take one of them by chance.
"""

import itertools
import pathlib
import socket
import types

LOCK_PORT_BASE = 32123
FIRST_INSTANCE = 10
LAST_INSTANCE = 560
BLOCK_BASE = 14000
BLOCK_SIZE = 32

# Round robin: what a test leaves in flight meets no socket of the next one.
_instances = itertools.cycle(range(FIRST_INSTANCE, LAST_INSTANCE + 1))


def lock_port(instance):
    return (LOCK_PORT_BASE + instance) & 0xFFFF


def udp_port_is_free(port):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        try:
            probe.bind(("0.0.0.0", port))
        except OSError:
            return False
    return True


def instance_files(instance):
    """The files outside the test's own directories that a proxy of this instance may use."""
    names = (
        f"/dev/arq_tx_ctrl{instance}",
        f"/dev/arq_tx_stat{instance}",
        f"/var/run/tx_proxy{instance}.imp",
        f"/var/run/tx_proxy{instance}.imp.conf",
        f"/var/run/tx_proxy{instance}.clear",
    )
    return [pathlib.Path(name) for name in names]


class Lease:
    """One instance number and its ports. Without `wanted` it is one that no open lease has."""

    def __init__(self, wanted=None):
        self.instance = next(_instances) if wanted is None else wanted
        block = BLOCK_BASE + BLOCK_SIZE * self.instance
        self._ports = iter(range(block, block + BLOCK_SIZE))

    def port(self):
        """A UDP port that no later call returns again."""
        return next(self._ports)

    def for_proxy(self):
        """What one proxy needs: its instance number, and ports of its input, destination (= ping) and requests."""
        return types.SimpleNamespace(
            instance=self.instance, input=self.port(), destination=self.port(), request=self.port()
        )

    def close(self):
        """Removes the files that a proxy of this instance leaves when a signal ends it."""
        for path in instance_files(self.instance):
            path.unlink(missing_ok=True)
