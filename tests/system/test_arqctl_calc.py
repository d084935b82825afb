"""`arqctl calc` as its page shows it, and what a person may write."""

import re
import shlex
import subprocess

import pytest

from txproxy import arqctl, arqrx
from txproxy.page import Page, quoted

PAGE = Page("arqctl.md")
USUAL = {"--rate": "8M", "--loss": "2%", "--round-trip": "40ms"}


def examples():
    """(command line, what it prints) of each on the page."""
    found = re.findall(r"^```\n\$ arqctl (calc .+)\n((?:.*\n)+?)```$", PAGE.section("Calc"), re.MULTILINE)
    assert len(found) == 2
    return found


def calc(*first, **options):
    """Of a usual line: calc("--json", loss="5%", hold_off="150ms")."""
    given = USUAL | {"--" + name.replace("_", "-"): value for name, value in options.items()}
    return arqctl.run("calc", *first, *(word for option in given.items() for word in option))


@pytest.mark.parametrize("command, printed", examples())
def test_the_examples_of_the_page_print_what_stands_there(command, printed):
    done = subprocess.run(f"{shlex.quote(arqctl.program())} {command}", shell=True, capture_output=True, text=True,
                          check=False, timeout=60)  # fmt: skip
    assert (done.stdout, done.stderr) == (printed, "")


def test_both_programs_take_the_command_lines_that_it_prints(launch, lease):
    given = calc("--json", hold_off="150ms").json
    program, *arguments = given["tx_proxy"].split()
    assert program == "tx_proxy" and arguments.pop() == "5000"
    proxy = launch("-I", lease.instance, *arguments, lease.port()).wait_ready()
    proxy.wait_stdout(f"GrossMediaBitrate is {given['gross_bit_rate']}")
    proxy.wait_stdout(f"Number of ARQ Buffers = {given['ring_packets']}")
    program, where, *arguments = given["arqrx"].split()
    assert (program, where) == ("arqrx", "PROXY") and "--hold-off" in arguments
    status, _, stderr = arqrx.run("127.0.0.1", *arguments, "--duration", "100ms")
    assert status == arqrx.NO_MEDIA, stderr


def test_the_page_has_every_option_and_its_default():
    help_text = re.sub(r"\s+", " ", arqctl.run("calc", "--help").stdout)
    on_page = {quoted(cells[0])[0]: cells[1].strip("`") for cells in PAGE.rows("Calc") if cells[0].startswith("`--")}
    assert sorted(name.split()[0] for name in on_page) == sorted(set(re.findall(r" (--[a-z-]+) [A-Z]+", help_text)))
    for option, default in on_page.items():
        meaning = re.search(rf" {option} (.*?)(?= --[a-z-]+ [A-Z]+ |$)", help_text).group(1)
        assert f"[{default.replace('as `', 'as ')}]" in meaning or default in ("", "none"), option


def test_the_page_has_every_field_of_the_json():
    on_page = {name for cells in PAGE.rows("Calc") if not cells[0].startswith("`--") for name in quoted(cells[0])}
    whole, short = calc("--json", burst="1s").json, calc("--json", latency="1s").json
    assert whole.keys() | short.keys() == on_page
    assert whole.keys() - short.keys() == {"burst_ms", "target_loss", "burst"}
    for name in [*whole["ports"], *whole["burst"]]:
        assert f"`{name}`" in PAGE.section("Calc")


def test_what_has_no_end_in_sight_is_said_with_what_to_do():
    done = calc("--json", receivers=51)
    assert done.status == arqctl.NOT_DONE
    assert not done.json["holds"]
    (exceeded,) = [limit for limit in done.json["limits"] if not limit["holds"]]
    assert exceeded["name"] == "receivers" and "take 2 proxies" in exceeded["advice"]
    assert exceeded["advice"] in calc(receivers=51).stdout
    fast = calc(rate="10G").stdout
    assert "949848 packets/s" in fast and "SEND_BITRATE is 10289 of the 2147 Mbit/s" in fast


def test_nothing_lost_is_said_without_a_figure():
    figures = calc("--json", loss=0).json
    assert figures["residual_loss"] == 0 and "seconds_per_lost_packet" not in figures


WRONG = [("rate", "8X"), ("rate", "0"), ("rate", "11G"), ("loss", "51%"), ("loss", "nan"), ("round_trip", "40"),
         ("receivers", "0"), ("receivers", "1e3"), ("payload", "1525"), ("burst", "31s"), ("hold_off", "99ms"),
         ("latency", "9ms"), ("target_loss", "0"), ("target_loss", "1e-400"), ("target_loss", "nan")]  # fmt: skip


@pytest.mark.parametrize("option, value", WRONG)
def test_what_cannot_be_reckoned_with_is_refused_by_name(option, value):
    done = calc("--json", **{option: value})
    assert done.status == arqctl.USAGE == done.json["status"]
    assert done.problem[0].startswith(f"--{option.replace('_', '-')}: '{value}' is not ")


def test_latency_and_target_exclude_each_other():
    assert calc(latency="1s", target_loss="1e-3").status == arqctl.USAGE
