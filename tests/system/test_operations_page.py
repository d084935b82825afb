"""The operator's page agrees with the binary: options, commands with their replies, files and messages."""

import pathlib
import re

import pytest

from txproxy import program_options, raw_control
from txproxy.page import Page, quoted
from txproxy.proxy import binary

pytestmark = pytest.mark.release_only

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGE = Page("operations.md")
# What in a source file is no code that runs; a text in quotes is group 1.
BESIDE_CODE = re.compile(
    r"""//[^\n]*|/\*.*?\*/|\#\s*include[^\n]*|static_assert\b.*?;|'(?:[^'\\]|\\.)'|"((?:[^"\\\n]|\\.)*)\"""", re.DOTALL
)
# The page shows numbers of every width alike.
NUMBER = re.compile(r"%(?:l|ll|h|z)?[diu]")
# Texts with a blank or a line end that say nothing by themselves: what is split at, the loader's own words, the time.
NO_MESSAGES = {r" \t\n\v\f\r", r"%s\n", r"\n", "%.15s: "}


def as_pattern(text):
    """A reply of the page as a pattern: numbers and texts for its placeholders, line feeds for "\\n"."""
    pattern = re.escape(text.replace("\\n", "\n"))
    return pattern.replace("%d", r"-?\d+").replace("%s", ".*")


def test_the_page_has_every_option_of_the_binary_and_no_other(lease):
    on_page = {}
    for cells in PAGE.rows("Options"):
        option, *argument = quoted(cells[0])[0].split()
        on_page[option.removeprefix("-")] = bool(argument)
    assert on_page == program_options.of_tx_proxy(lease.instance)


def test_the_page_shows_the_help_text(launch):
    process = launch("-h", argv0="%s")
    assert process.wait_exit() == 0
    shown = [line.removeprefix("    ") for line in PAGE.section("Options").splitlines() if line.startswith("    ")]
    assert "\n".join(shown) + "\n" == process.stderr.text


def test_every_command_of_the_page_gets_the_reply_that_the_page_gives(start_proxy, net):
    start_proxy("-a", "127.0.0.2")
    commands = PAGE.rows("Commands")
    assert len(commands) == 10
    for command, reply, _ in commands:
        text = (quoted(command) or ["whatever"])[0].replace("%s", "127.0.0.3")
        expected = as_pattern((quoted(reply) or [""])[0])
        if quoted(command) and "%s" in quoted(command)[0]:
            expected = expected.replace(".*", r"127\.0\.0\.3")
        assert re.fullmatch(expected, raw_control.converse(net.instance, text.encode())), text


def texts_of(source):
    """All texts in quotes of a source file as they are written, those that follow each other joined."""
    code = source.read_text(encoding="utf-8")
    end = None
    texts = []
    for match in BESIDE_CODE.finditer(code):
        if match.group(1) is None:
            continue
        if end is not None and not code[end : match.start()].strip():
            texts[-1] += match.group(1)
        else:
            texts.append(match.group(1))
        end = match.end()
    return texts


def messages_of_sources():
    """Every text that may become a line of output, in the page's notation and without its line end."""
    texts = {text for source in (ROOT / "src").rglob("*.[ch]*") for text in texts_of(source)}
    help_lines = {line.expandtabs() for line in PAGE.section("Options").splitlines()}
    replies = {text for cells in PAGE.rows("Commands") for text in quoted(cells[1])}
    dump = {line.strip() for line in PAGE.section("Commands").splitlines() if line.startswith("    m_")}
    messages = set()
    for text in texts - NO_MESSAGES:
        as_shown = NUMBER.sub("%d", text)
        line = as_shown.removesuffix(r"\n")
        is_help = ("    " + line.replace(r"\t", "\t")).expandtabs() in help_lines
        if (" " in text or line != as_shown) and not is_help and as_shown not in replies and line not in dump:
            messages.add(line)
    return messages


def messages_of_page():
    return [text for cells in PAGE.rows("Messages") for text in quoted(cells[0])]


def test_the_messages_of_the_page_are_exactly_those_of_the_sources():
    on_page = messages_of_page()
    assert len(on_page) == len(set(on_page)), "each once"
    in_sources = messages_of_sources()
    missing, unknown = sorted(in_sources - set(on_page)), sorted(set(on_page) - in_sources)
    assert (missing, unknown) == ([], [])


def test_every_message_of_the_page_is_a_whole_text_of_the_binary():
    data = pathlib.Path(binary()).read_bytes()

    def is_in_binary(text):
        # The compiler may leave the line end to the function that writes the line.
        return any(text.encode() + end in data for end in (b"\n\0", b"\0"))

    assert [text for text in messages_of_page() if not is_in_binary(text)] == []


def test_every_file_of_the_page_is_named_in_the_binary():
    data = pathlib.Path(binary()).read_bytes()
    for cells in PAGE.rows("Files"):
        for part in re.split(r"N(?=\.|$)", quoted(cells[0])[0]):
            assert part.encode() in data, part


def test_every_setting_of_the_page_is_in_the_binary():
    data = pathlib.Path(binary()).read_bytes()
    for cells in PAGE.rows("Deliberate loss"):
        assert quoted(cells[0])[0].encode() + b"\0" in data
