"""The files of the service: units, their bounds, sample settings, and the script that starts a channel."""

import os
import pathlib
import re
import shutil
import subprocess

import pytest

from txproxy import booted
from txproxy.page import ROOT, Page, quoted

pytestmark = [pytest.mark.release_only]

FOLDER = ROOT / "packaging" / "service"
UNITS = ("tx_proxy@", "tx_proxy-private@", "arqctl@", "arqrx@")
MOST_EXPOSURE = 2.5  # of 10, as systemd counts
EXPOSURE = re.compile(r"Overall exposure level for (\S+)@\S+: ([\d.]+)")
DOCTORS_LEAST = 524288  # bytes of net.core.rmem_max, see docs/arqctl.md
RECEIVERS_WISH = 16000000  # see docs/receiver.md
QUIET = {**os.environ, "SYSTEMD_LOG_LEVEL": "warning"}


@pytest.fixture(scope="module")
def installed(tmp_path_factory):
    """What both packages install, below a folder, with what units find on every machine."""
    root = tmp_path_factory.mktemp("root")
    booted.install(root)
    (root / "etc").mkdir()
    (root / "etc/group").write_text("root:x:0:\ntx_proxy:x:990:\n", encoding="ascii")
    for name in ("lib", "bin", "sbin"):
        (root / name).symlink_to(f"usr/{name}")
    for unit in ("network-online.target", "sysinit.target", "basic.target", "shutdown.target", "multi-user.target"):
        shutil.copy(f"/lib/systemd/system/{unit}", root / "usr/lib/systemd/system")
    return root


def systemd_analyze(*arguments):
    return subprocess.run(
        ["systemd-analyze", "--no-pager", *map(str, arguments)], capture_output=True, text=True, check=False, env=QUIET
    )


@pytest.mark.parametrize("unit", UNITS)
def test_a_unit_is_exposed_little(installed, unit):
    result = systemd_analyze("security", "--offline=yes", installed / f"usr/lib/systemd/system/{unit}.service")
    name, exposure = EXPOSURE.search(result.stdout).groups()
    print(f"{name}: exposure {exposure}")
    assert float(exposure) <= MOST_EXPOSURE, result.stdout
    on_page = next(cells[1:] for cells in Page("service.md").rows("What the units may do") if cells[0] == "exposure")
    assert on_page[UNITS.index(unit)] == exposure


def test_units_are_verified_without_a_word(installed):
    names = [f"{unit}1.service" for unit in UNITS]
    result = systemd_analyze("verify", "--man=no", f"--root={installed}", *names)
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")


def settings_of(unit):
    """Its lines but for comments."""
    text = (FOLDER / f"{unit}.service.in").read_text(encoding="utf-8")
    return [line for line in text.splitlines() if line and not line.startswith("#")]


def test_the_units_of_a_channel_differ_in_rights_only():
    usual, private = map(settings_of, UNITS[:2])
    both = r"\[|Description|Conflicts|After=tx_proxy@%i"
    rights = rf"{both}|CapabilityBoundingSet|DynamicUser|Runtime|Bind|Private|Read|Inaccessible"
    assert all(re.match(rights, line) for line in set(usual) ^ set(private))


def test_a_channel_ends_before_its_other_unit_starts():
    assert {"Conflicts=tx_proxy@%i.service", "After=tx_proxy@%i.service"} <= set(settings_of("tx_proxy-private@"))


def test_no_unit_is_given_up():
    for unit in UNITS:
        assert {"StartLimitIntervalSec=0", "Restart=always", "RestartSec=1"} <= set(settings_of(unit))


def test_a_prefix_is_in_the_units_and_a_folder_of_the_package_is_not(tmp_path):
    booted.install(tmp_path, "/usr/local")
    unit = (tmp_path / "usr/local/lib/systemd/system/tx_proxy@.service").read_text(encoding="utf-8")
    assert "\nExecStart=/usr/local/lib/tx_proxy/channel start %i\n" in unit
    folder = tmp_path / "_CPack_Packages/Linux/DEB/tx-proxy/proxy/usr"
    booted.install("", folder)
    unit = (folder / "lib/systemd/system/arqrx@.service").read_text(encoding="utf-8")
    assert "\nExecStart=/usr/bin/arqrx $ARQRX_OPTIONS\n" in unit


def test_the_sample_explains_every_option_with_its_default():
    on_page = {}
    for option, default, _ in Page("operations.md").rows("Options"):
        default = default.split(",")[0]
        on_page[quoted(option)[0]] = default if default not in ("none", "off", "") else None
    sample = (FOLDER / "tx_proxy.default").read_text(encoding="utf-8")
    explained = dict(re.findall(r"^#   (-\w(?: [A-Z]+)?) .*?(?:\[(\d+)\b.*\])?$", sample, re.MULTILINE))
    assert {"-I NUMBER", "-Z PASSWORD"} == set(on_page) - set(explained)
    assert set(explained) <= set(on_page)
    for option, default in explained.items():
        assert (default or "0") == (on_page[option] or "0"), option


def test_samples_are_read_by_a_shell_as_by_systemd():
    for sample in FOLDER.glob("*.default"):
        for line in sample.read_text(encoding="utf-8").splitlines():
            assert re.fullmatch(r'|#.*|[A-Z_]+="[^"$`\\]*"', line), line


def test_the_receive_buffer_is_what_doctor_and_receivers_ask_for():
    text = (FOLDER / "tx_proxy.sysctl").read_text(encoding="utf-8")
    figure = int(re.search(r"^net\.core\.rmem_max = (\d+)$", text, re.MULTILINE).group(1))
    assert figure == RECEIVERS_WISH >= DOCTORS_LEAST
    assert f"net.core.rmem_max={RECEIVERS_WISH}" in Page("receiver.md").text
    assert f"`net.core.rmem_max` is below {DOCTORS_LEAST}" in Page("arqctl.md").text


def test_receive_buffers_are_set_at_boot(installed):
    said = systemd_analyze("cat-config", f"--root={installed}", "sysctl.d").stdout
    assert said.count(f"# {installed}/usr/lib/sysctl.d/50-tx_proxy.conf\n") == 1


class Prefix:
    """The script in a prefix with programs that only tell how they were called."""

    def __init__(self, folder):
        self.folder = folder
        self.script = folder / "lib/tx_proxy/channel"
        self.script.parent.mkdir(parents=True)
        shutil.copy(FOLDER / "channel", self.script)

    def program(self, name, lines):
        path = self.folder / "bin" / name
        path.parent.mkdir(exist_ok=True)
        path.write_text(f"#!/bin/sh\n{lines}\n", encoding="utf-8")
        path.chmod(0o755)
        return self

    def run(self, *arguments, **variables):
        environment = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", **variables}
        result = subprocess.run(
            [self.script, *map(str, arguments)], env=environment, cwd=self.folder,
            capture_output=True, text=True, check=False, timeout=30,
        )  # fmt: skip
        return result.returncode, result.stdout, result.stderr


TELL = r"""printf '<%s>' "$@"; echo " $TX_PROXY_PASSWORD"; exit $STATUS"""


@pytest.fixture
def prefix(tmp_path):
    return Prefix(tmp_path).program("tx_proxy", TELL)


def test_a_channel_starts_with_its_options_its_number_and_its_input(prefix):
    (prefix.folder / "a").touch()
    status, stdout, _ = prefix.run(
        "start", 7, STATUS="0", TX_PROXY_OPTIONS=" -a *  -u ", TX_PROXY_LISTEN="5000 239.1.1.1", TX_PROXY_PASSWORD="a b"
    )
    assert (status, stdout) == (0, "<-a><*><-u><-Z><a b><-I><7><5000><239.1.1.1> \n")


def test_a_channel_ends_with_the_status_of_the_proxy(prefix):
    assert prefix.run("start", 7, STATUS="255", TX_PROXY_LISTEN="5000") == (255, "<-I><7><5000> \n", "")


@pytest.mark.parametrize("arguments", [(), ("start",), ("start", "7", "x"), ("begin", "7"), ("stop", "7"), ("fail", "7")])
def test_wrong_usage_has_status_2(prefix, arguments):
    status, _, stderr = prefix.run(*arguments)
    assert status == 2 and stderr.startswith("channel: usage:")


@pytest.mark.parametrize("number", ["", "x", "-1", "07", "10000", "1 2"])
def test_only_numbers_are_channels(prefix, number):
    status, _, stderr = prefix.run("start", number, TX_PROXY_LISTEN="5000")
    assert (status, stderr) == (2, f"channel: not a number of a channel, 0 to 9999: {number}\n")


def test_a_program_that_is_missing_has_status_5(tmp_path):
    bare = Prefix(tmp_path)
    assert bare.run("start", 7, TX_PROXY_LISTEN="5000")[0] == 5
    assert bare.run("ready", 7)[0] == 5
    assert bare.run("live", 7)[0] == 5


def test_a_drain_without_arqctl_says_so_and_succeeds(prefix):
    assert prefix.run("drain", 7) == (0, "", "channel: arqctl is not installed: receivers of channel 7 are not told\n")


def test_a_drain_has_the_time_that_its_receivers_need(prefix):
    prefix.program("arqctl", 'case $* in *list) printf "1\\n2\\n3\\n" ;; *) echo "$*"; exit 1 ;; esac')
    usual = "--socket /dev/arq_tx_ctrl7 drain --settle 0s --timeout"
    assert prefix.run("drain", 7) == (0, f"{usual} 2450ms\n", "")
    assert prefix.run("drain", 7, TX_PROXY_DRAIN_TIMEOUT="9") == (0, f"{usual} 9s\n", "")
    assert prefix.run("drain", 7, TX_PROXY_CONTROL="/x")[1] == f"{usual.replace('/dev/arq_tx_ctrl7', '/x')} 2450ms\n"
    assert prefix.run("drain", 7, TX_PROXY_DRAIN_TIMEOUT="0") == (0, "", "")
    assert prefix.run("drain", 7, TX_PROXY_DRAIN_TIMEOUT="5s")[0] == 2


@pytest.mark.parametrize("rate, status, ready", [(0, 0, 1), (10528, 0, 0), (10528, 3, 3), (-5, 0, 0)])
def test_ready_wants_input_and_live_does_not(prefix, rate, status, ready):
    answer = f'{{"time":1.5,"up":true,"input_bit_rate":{rate},"output_bit_rate":0,"receivers":[]}}'
    prefix.program("arqctl", f"echo '{answer}'; exit {status}")
    assert prefix.run("ready", 7)[0] == ready
    assert prefix.run("live", 7)[:2] == (status, "")


def test_the_script_needs_nothing_but_a_plain_shell():
    assert (FOLDER / "channel").read_text(encoding="utf-8").startswith("#!/bin/sh\n")
    assert os.access(FOLDER / "channel", os.X_OK)
    subprocess.run(["shellcheck", "--shell=sh", pathlib.Path(FOLDER, "channel")], check=True)
