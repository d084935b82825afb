"""The operator's page agrees with the binary: options, commands with their replies, files and messages."""

import pathlib
import re
import string

import pytest

from txproxy import raw_control
from txproxy.proxy import binary, run

PAGE = pathlib.Path(__file__).resolve().parents[2] / "docs" / "operations.md"
# A text that ends in a line feed and a zero: that is how messages stand in the binary.
MESSAGE_IN_BINARY = re.compile(rb"[\x20-\x7e\t\n]{4,}\n\x00")
RUN_TIME_MESSAGE = "terminate called"


def section(heading):
    """The text below a heading, up to the next of the same rank."""
    text = PAGE.read_text(encoding="utf-8")
    start = text.index(f"\n## {heading}\n")
    end = text.find("\n## ", start + 1)
    return text[start : end if end >= 0 else len(text)]


def rows(heading):
    """The cells of all table rows in a section, without the head of each table."""
    lines = [line for line in section(heading).splitlines() if line.startswith("|")]
    table = [[cell.strip(" ") for cell in line.strip("|").split(" | ")] for line in lines]
    heads = {i - 1 for i, line in enumerate(lines) if line.startswith("|---")}
    return [cells for i, cells in enumerate(table) if i not in heads and not lines[i].startswith("|---")]


def quoted(cell):
    return re.findall(r"`([^`]+)`", cell)


def as_pattern(text):
    """A reply of the page as a pattern: numbers and texts for its placeholders, line feeds for "\\n"."""
    pattern = re.escape(text.replace("\\n", "\n"))
    return pattern.replace("%d", r"-?\d+").replace("%s", ".*")


def options_of_binary(instance):
    """{letter: takes an argument}, found by trying every letter and digit."""
    options = {}
    for letter in string.ascii_letters + string.digits:
        # Behind it nothing follows: an argument would be missed, and so would the listen port.
        status, _, stderr = run("-I", instance, f"-{letter}")
        assert status == (0 if letter == "h" else 255), letter
        if "invalid option" not in stderr:
            options[letter] = "requires an argument" in stderr
    return options


def test_the_page_has_every_option_of_the_binary_and_no_other(lease):
    on_page = {}
    for cells in rows("Options"):
        option, *argument = quoted(cells[0])[0].split()
        on_page[option.removeprefix("-")] = bool(argument)
    assert on_page == options_of_binary(lease.instance)


def test_the_page_shows_the_help_text(launch):
    process = launch("-h", argv0="%s")
    assert process.wait_exit() == 0
    shown = [line.removeprefix("    ") for line in section("Options").splitlines() if line.startswith("    ")]
    assert "\n".join(shown) + "\n" == process.stderr.text


def test_every_command_of_the_page_gets_the_reply_that_the_page_gives(start_proxy, net):
    start_proxy("-a", "127.0.0.2")
    commands = rows("Commands")
    assert len(commands) == 10
    for command, reply, _ in commands:
        text = (quoted(command) or ["whatever"])[0].replace("%s", "127.0.0.3")
        expected = as_pattern((quoted(reply) or [""])[0])
        if quoted(command) and "%s" in quoted(command)[0]:
            expected = expected.replace(".*", r"127\.0\.0\.3")
        assert re.fullmatch(expected, raw_control.converse(net.instance, text.encode())), text


def test_every_message_of_the_page_is_in_the_binary():
    data = pathlib.Path(binary()).read_bytes()
    messages = [text for cells in rows("Messages") for text in quoted(cells[0])]
    assert len(messages) > 50
    assert [text for text in messages if text.encode() not in data] == []


@pytest.mark.release_only  # a sanitizer's own tables and code hold bytes that look like messages
def test_every_message_of_the_binary_is_on_the_page():
    page = PAGE.read_text(encoding="utf-8").replace("\\n", "\n")
    quoted_texts = tuple(quoted(page))
    data = pathlib.Path(binary()).read_bytes()
    texts = [match.group()[:-2].decode() for match in MESSAGE_IN_BINARY.finditer(data)]
    # The page shows counts of every width alike.
    lines = [line.replace("%llu", "%d") for text in texts for line in text.split("\n") if len(line) > 5]
    assert len(lines) > 40
    # Other constants may stand directly before a message. The C++ run time has messages of its own.
    missing = [line for line in lines if line not in page and not line.endswith(quoted_texts)]
    assert [line for line in missing if not line.startswith(RUN_TIME_MESSAGE)] == []


def test_every_file_of_the_page_is_named_in_the_binary():
    data = pathlib.Path(binary()).read_bytes()
    for cells in rows("Files"):
        for part in re.split(r"N(?=\.|$)", quoted(cells[0])[0]):
            assert part.encode() in data, part


def test_every_setting_of_the_page_is_in_the_binary():
    data = pathlib.Path(binary()).read_bytes()
    for cells in rows("Deliberate loss"):
        assert quoted(cells[0])[0].encode() + b"\0" in data
