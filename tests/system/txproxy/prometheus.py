"""A Prometheus of a test's own on loopback, and promtool, which reads its files. Both are Debian's."""

import json
import subprocess
import urllib.error
import urllib.parse
import urllib.request

from .proxy import Proxy
from .waiting import DEFAULT_TIMEOUT, scaled, wait_until


def promtool(*arguments, folder, stdin=subprocess.DEVNULL):
    """Runs it in `folder`; returns (status, standard output and error together)."""
    done = subprocess.run(
        ["promtool", *arguments], cwd=folder, stdin=stdin, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
        timeout=scaled(4 * DEFAULT_TIMEOUT), check=False,
    )  # fmt: skip
    return done.returncode, done.stdout


class Prometheus(Proxy):
    """It reads `configuration`, a path, and keeps its data in `folder`."""

    def __init__(self, configuration, folder, port):
        self._address = f"http://127.0.0.1:{port}"
        super().__init__(
            f"--config.file={configuration}", f"--storage.tsdb.path={folder}", f"--web.listen-address=127.0.0.1:{port}",
            "--log.level=warn", program="prometheus",
        )  # fmt: skip

    def wait_ready(self):
        wait_until(self._is_ready, lambda: f"Prometheus to be ready:\n{self.stderr.text}")
        return self

    def _is_ready(self):
        assert self.is_alive(), self.stderr.text
        try:
            with urllib.request.urlopen(f"{self._address}/-/ready", timeout=scaled(DEFAULT_TIMEOUT)):
                return True
        except urllib.error.URLError:
            return False

    def get(self, path, **parameters):
        """The data of an answer of its HTTP API; a query that it does not understand fails, with its reason."""
        url = f"{self._address}/api/v1/{path}?{urllib.parse.urlencode(parameters)}"
        try:
            with urllib.request.urlopen(url, timeout=scaled(DEFAULT_TIMEOUT)) as answer:
                return json.load(answer)["data"]
        except urllib.error.HTTPError as error:
            raise AssertionError(f"{parameters}: {error.read().decode()}") from None

    def query(self, expression):
        """[(labels, value)] of now."""
        return [(row["metric"], float(row["value"][1])) for row in self.get("query", query=expression)["result"]]

    def rules(self):
        return [rule for group in self.get("rules")["groups"] for rule in group["rules"]]

    def alerts(self):
        """{name: (state, labels)} of all that are pending or firing."""
        return {alert["labels"]["alertname"]: (alert["state"], alert["labels"]) for alert in self.get("alerts")["alerts"]}

    def close(self):
        self.kill()
