"""tshark with this project's dissector, and with no settings or plugins of the user or the machine."""

import os
import pathlib
import re
import subprocess
import tempfile

from . import sandbox
from .page import ROOT
from .waiting import scaled

SCRIPT = ROOT / "dissector" / "tx_proxy.lua"
CAPTURES = ROOT / "dissector" / "captures"
EXPECTED = ROOT / "dissector" / "expected"
LONGEST_SECONDS = 120  # a quarter of a second of work, on a machine that may have a dozen others to do
AS_ROOT = 'Running as user "root" and group "root". This could be dangerous.\n'
# Media that nothing is to be said about is left out of the texts.
REMARKABLE = 'txproxy.kind != "media" || txproxy.media.again == 1 || txproxy.media.missing || txproxy.media.again_frame'


def run(*arguments, script=SCRIPT, plugins=None, shell=None, home=None):
    """Runs it to its end; returns its output.

    `plugins` stands for the machine's folder of plugins, an empty one unless given, and `home` for the user's folder,
    where it also runs then. `shell` is a script for a shell instead of arguments.
    """
    with tempfile.TemporaryDirectory() as empty:
        line = ["bash", "-euo", "pipefail", "-c", shell] if shell else [
            "tshark", *(["-X", f"lua_script:{script}"] if script else []), *map(str, arguments)]  # fmt: skip
        environment = {"PATH": os.environ["PATH"], "HOME": str(home or empty), "LC_ALL": "C.UTF-8", "TZ": "UTC"}
        done = subprocess.run(
            line, capture_output=True, text=True, check=False, stdin=subprocess.DEVNULL, timeout=scaled(LONGEST_SECONDS),
            cwd=home or ROOT, env=environment, preexec_fn=sandbox.covering(global_plugins(), plugins or empty),
        )  # fmt: skip
    trouble = done.stderr.replace(AS_ROOT, "")
    assert done.returncode == 0 and "Lua" not in trouble, f"{line}: {done.returncode}\n{trouble}"
    return done.stdout


def folders():
    """{name: path} as the program tells them."""
    output = subprocess.run(["tshark", "-G", "folders"], capture_output=True, text=True, check=True).stdout
    return dict(re.findall(r"^(.+?):\s+(\S+)$", output, re.MULTILINE))


_global_plugins = []


def global_plugins():
    if not _global_plugins:
        _global_plugins.append(folders()["Global Lua Plugins"])
    return _global_plugins[0]


def fields(path, *names, only=None, options=()):
    """A list of {name: [values]} for each frame that has anything of the proxy's, read twice as Wireshark itself does."""
    chosen = [text for name in ("frame.number", *names) for text in ("-e", name)]
    shown = run("-2", "-r", path, "-Y", only or "txproxy", "-T", "fields", "-E", "separator=/t", "-E", "aggregator=;",
                "-E", "occurrence=a", *chosen, *options)  # fmt: skip
    rows = []
    for line in shown.splitlines():
        cells = [cell.split(";") if cell else [] for cell in line.split("\t")]
        rows.append(dict(zip(("frame.number", *names), cells)))
    return rows


def text(path):
    """The trees of all that is remarkable, frame by frame."""
    shown = run("-2", "-r", path, "-O", "txproxy", "-Y", REMARKABLE)
    blocks = re.findall(r"^(Frame \d+): .*?^(tx_proxy, .*?)^(?=\S|$)", shown, re.MULTILINE | re.DOTALL)
    trees = "\n".join(f"{frame}\n{tree.rstrip()}\n" for frame, tree in blocks)
    # A note's lines below its first one say the same again.
    return re.sub(r"(?<=\])\n +\[[^\n]*\]\n +\[Severity level: [^\n]*\n +\[Group: [^\n]*", "", trees)


def write_expected():
    EXPECTED.mkdir(exist_ok=True)
    for path in sorted(CAPTURES.glob("*.pcapng")):
        pathlib.Path(EXPECTED, f"{path.stem}.txt").write_text(text(path), encoding="utf-8")
