"""The page of arqctl agrees with the program: commands, options, exit statuses. Help fits a terminal and has examples."""

import functools
import re

import pytest

from txproxy import arqctl
from txproxy.page import Page, quoted

pytestmark = pytest.mark.release_only

PAGE = Page("arqctl.md")
OPTION = re.compile(r"^  (?:-\w,)?(--[a-z-]+)", re.MULTILINE)
OWN_SECTIONS = {"doctor": "Doctor", "calc": "Calc", "top": "Top", "serve": "Serve"}


def help_text(*command):
    status, stdout, stderr = arqctl.run(*command, "--help")
    assert (status, stderr) == (arqctl.GOOD, "")
    return stdout


@functools.cache
def all_help():
    """{command: its help}, the program's own under ""."""
    program = help_text()
    listed = program.split("\nCommands:\n")[1].split("\n\n")[0]
    return {"": program, **{command: help_text(command) for command in re.findall(r"^  ([a-z]+) ", listed, re.MULTILINE)}}


def test_every_help_fits_80_columns_and_shows_examples_and_usage():
    for command, text in all_help().items():
        assert max(map(len, text.splitlines())) < 80, command
        assert f"\nUsage: arqctl {command}".rstrip() in text
        assert re.search(r"\nExamples:\n  .*arqctl", text), f"no examples in the help of {command}"
        assert "\n\n\n" not in text, command


def test_the_page_has_every_command_and_no_other():
    commands = set(all_help()) - {""}
    headings = set(re.findall(r"^### (\w+)$", PAGE.section("Commands"), re.MULTILINE))
    assert headings | set(OWN_SECTIONS) == commands


def test_the_page_has_every_option_of_every_command():
    assert sorted(option for cells in PAGE.rows("Options") for option in OPTION.findall("  " + quoted(cells[0])[0])) == \
        sorted(OPTION.findall(all_help()[""]))  # fmt: skip
    for command, text in all_help().items():
        if not command:
            continue
        section = PAGE.section(OWN_SECTIONS[command]) if command in OWN_SECTIONS else part(command)
        for option in set(OPTION.findall(text)) - {"--help"}:
            assert re.search(rf"`[^`\n]*{option}\b", section), f"{option} of {command} is not on the page"


def part(command):
    """The text below a command's heading."""
    text = PAGE.section("Commands")
    start = text.index(f"\n### {command}\n")
    end = text.find("\n### ", start + 1)
    return text[start : end if end >= 0 else len(text)]


def test_every_exit_status_is_on_the_page_and_in_the_help():
    statuses = [arqctl.GOOD, arqctl.NOT_DONE, arqctl.USAGE, arqctl.NO_PROXY, arqctl.BAD_ANSWER, arqctl.NO_START,
                arqctl.ALREADY_SO]  # fmt: skip
    assert [int(cells[0]) for cells in PAGE.rows("Exit statuses")] == statuses
    shown = re.sub(r"\s+", " ", all_help()[""].split("Exit status:")[1])
    assert [int(number) for number in re.findall(r"(?:^|, ) ?(\d) ", shown)] == statuses


def test_the_states_of_instances_are_on_the_page():
    states = [quoted(line)[0] for line in part("instances").splitlines() if line.startswith("| `")]
    assert states == ["running", "silent", "not_allowed", "stale", "foreign", "no_socket"]


def test_the_version_is_a_line():
    status, stdout, stderr = arqctl.run("--version")
    assert (status, stderr) == (arqctl.GOOD, "")
    assert re.fullmatch(r"arqctl \d+\.\d+\.\d+\n", stdout)
