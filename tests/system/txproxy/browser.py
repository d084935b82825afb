"""Debian's Chromium, driven as a person would: one window, tabs, what the page shows, what it complained about."""

import contextlib
import os
import shutil
import tempfile
import urllib.parse

from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By

from .waiting import DEFAULT_TIMEOUT, scaled, wait_until

CHROMIUM = "/usr/bin/chromium"
DRIVER = "/usr/bin/chromedriver"
# It asks nobody but the page's server, keeps nothing, and needs neither a screen nor shared memory of the machine.
SWITCHES = (
    "--headless=new", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-dev-shm-usage",
    "--disable-background-networking", "--disable-component-update", "--disable-sync", "--no-proxy-server",
)  # fmt: skip


class Browser:
    """One browser with an empty profile."""

    def __init__(self):
        self._home = tempfile.mkdtemp(prefix="tx_proxy_browser_")
        options = Options()
        options.binary_location = CHROMIUM
        for switch in (*SWITCHES, f"--user-data-dir={self._home}/profile"):
            options.add_argument(switch)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        service = Service(DRIVER, env={**os.environ, "HOME": self._home, "XDG_RUNTIME_DIR": self._home})
        self.driver = webdriver.Chrome(options=options, service=service)
        self.driver.set_page_load_timeout(scaled(DEFAULT_TIMEOUT))
        self.driver.set_script_timeout(scaled(4 * DEFAULT_TIMEOUT))

    def close(self):
        with contextlib.suppress(Exception):
            self.driver.quit()
        shutil.rmtree(self._home, ignore_errors=True)

    def open(self, url):
        self.driver.get(url)

    def open_tab(self, url):
        """Opens another tab and turns to it; returns its handle."""
        self.driver.switch_to.new_window("tab")
        self.driver.get(url)
        return self.driver.current_window_handle

    def turn_to(self, tab):
        self.driver.switch_to.window(tab)

    def close_tab(self, tab):
        self.turn_to(tab)
        self.driver.close()

    def find(self, selector):
        return self.driver.find_element(By.CSS_SELECTOR, selector)

    def find_all(self, selector):
        return self.driver.find_elements(By.CSS_SELECTOR, selector)

    def text(self, selector):
        """What a person reads there; empty when there is nothing, or nothing to be seen."""
        found = "const found = document.querySelector(arguments[0]);"
        return self.run(f"{found} return found?.checkVisibility() ? found.innerText : ''", selector)

    def wait_text(self, selector, condition, what):
        """Returns the first text there for which condition(text) holds."""

        def holds():
            text = self.text(selector)
            return text if condition(text) else None

        return wait_until(holds, lambda: f"{what} in {selector}; it says {self.text(selector)!r}")

    def run(self, script, *arguments):
        return self.driver.execute_script(script, *arguments)

    def run_module(self, body, *arguments):
        """Runs `body` with `page` and `events` of the page's own main module; returns what it returns."""
        script = f"""const done = arguments[arguments.length - 1];
            const given = [...arguments].slice(0, -1);
            import("/page/main.js").then(async ({{ page, events }}) => {{ {body} }})
                .then(done, (reason) => done("failed: " + reason))"""
        return self.driver.execute_async_script(script, *arguments)

    def style(self, selector, name):
        return self.run("return getComputedStyle(document.querySelector(arguments[0]))[arguments[1]]", selector, name)

    def complaints(self):
        """Errors and warnings on the console since the last call."""
        return [entry["message"] for entry in self.driver.get_log("browser") if entry["level"] in ("SEVERE", "WARNING")]

    def hosts(self):
        """Whom this tab asked for anything."""
        names = self.run("return performance.getEntries().map((entry) => entry.name)")
        return {urllib.parse.urlsplit(name).netloc for name in names if "://" in name}

    def prefer(self, theme):
        """The system's wish: "dark" or "light"."""
        self.command("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": theme}])

    def resize(self, width, height):
        self.command(
            "Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=width < 500
        )

    def memory(self):
        """(bytes of live JavaScript objects, nodes of documents) after the garbage is gone."""
        self.command("HeapProfiler.collectGarbage")
        self.command("Performance.enable")
        metrics = {metric["name"]: metric["value"] for metric in self.command("Performance.getMetrics")["metrics"]}
        return metrics["JSHeapUsedSize"], metrics["Nodes"]

    def command(self, name, **parameters):
        return self.driver.execute_cdp_cmd(name, parameters)
