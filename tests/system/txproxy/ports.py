"""Instance numbers and UDP ports for tests that run at the same time in several processes.

A lease is one instance number, guarded by a lock file that the kernel unlocks when its holder dies. Each
instance number owns a block of ports. The lock ports (32123 + instance) and all blocks lie below 32768,
where the kernel's ephemeral ports begin, so no unrelated socket can take one of them by chance.
"""

import fcntl
import os
import pathlib
import socket
import tempfile

LOCK_PORT_BASE = 32123
FIRST_INSTANCE = 10
LAST_INSTANCE = 560
BLOCK_BASE = 14000
BLOCK_SIZE = 32


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
    """One instance number and its ports, ours until close()."""

    def __init__(self, wanted=None):
        self._lock_file = None
        candidates = [wanted] if wanted is not None else self._shuffled_instances()
        for instance in candidates:
            # A wanted number is waited for; of the others any free one will do.
            if self._lock(instance, wait=wanted is not None):
                if wanted is not None or udp_port_is_free(lock_port(instance)):
                    self.instance = instance
                    break
                self._unlock()
        else:
            raise RuntimeError("no free instance number")
        block = BLOCK_BASE + BLOCK_SIZE * self.instance
        self._ports = iter(range(block, block + BLOCK_SIZE))
        self.remove_files()

    @staticmethod
    def _shuffled_instances():
        span = LAST_INSTANCE - FIRST_INSTANCE + 1
        offset = os.getpid() * 37 % span
        return [FIRST_INSTANCE + (offset + i) % span for i in range(span)]

    def _lock(self, instance, wait):
        directory = pathlib.Path(tempfile.gettempdir()) / "tx_proxy_test_instances"
        directory.mkdir(exist_ok=True)
        self._lock_file = open(directory / f"{instance}.lock", "w", encoding="ascii")
        try:
            fcntl.flock(self._lock_file, fcntl.LOCK_EX | (0 if wait else fcntl.LOCK_NB))
        except BlockingIOError:
            self._unlock()
            return False
        return True

    def _unlock(self):
        self._lock_file.close()
        self._lock_file = None

    def port(self):
        """A UDP port that nobody uses and that no later call returns again."""
        return next(port for port in self._ports if udp_port_is_free(port))

    def remove_files(self):
        for path in instance_files(self.instance):
            path.unlink(missing_ok=True)

    def close(self):
        if self._lock_file:
            self.remove_files()
            self._unlock()
