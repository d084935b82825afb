"""An encoder that knows nothing of what becomes of its stream: RTP at an even rate from its beginning to its end."""

import threading
import time

from . import receiver, rtp

PACKETS_A_SECOND = 100
PAYLOAD_BYTES = 188


class Stream:
    """An encoder: numbered packets at an even rate on loopback, from a thread of its own."""

    def __init__(self, port):
        self.count = 0
        self._sender = receiver.Sender("127.0.0.1", port)
        self._is_running = True
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        began = time.monotonic()
        while self._is_running:
            payload = self.count.to_bytes(4, "big") * (PAYLOAD_BYTES // 4)
            self._sender.send(rtp.packet(self.count, payload))
            self.count += 1
            time.sleep(max(0.0, began + self.count / PACKETS_A_SECOND - time.monotonic()))

    def stop(self):
        self._is_running = False
        self._thread.join()

    def close(self):
        self.stop()
        self._sender.close()


def number(payload):
    return int.from_bytes(payload[:4], "big")
