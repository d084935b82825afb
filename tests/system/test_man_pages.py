"""The manual pages: readable, with every option, default, status, command and record of the programs, and no other."""

import gzip
import os
import pathlib
import re
import shlex
import subprocess

import pytest

from txproxy import arqctl, arqrx, link, packages, program_options, raw_control
from txproxy.page import ROOT, Page, quoted
from txproxy.proxy import binary, run
from txproxy.waiting import DEFAULT_TIMEOUT, scaled

pytestmark = pytest.mark.release_only

FOLDER = ROOT / "man"
BUILD = pathlib.Path(binary()).parent
VERSION = packages.project_version()
PAGES = {
    "tx_proxy.8": "proxy", "tx_proxy_control.7": "proxy", "tx_proxy_protocol.7": "proxy",
    "arqrx.1": "tools", "arqlink.1": "tools", "arqctl.1": "tools",
}  # fmt: skip


# They are arqctl's own, not of its unit.
OTHER_VARIABLES = {"ARQCTL_SSH", "ARQCTL_THERE"}


class ManPage:
    """The source of a page. An entry begins with a word in bold at the line's start, its text is indented."""

    def __init__(self, name):
        self.text = (FOLDER / f"{name}.scd").read_text("utf-8")

    def section(self, heading, rank="#"):
        """What stands below a heading, which may have arguments behind it."""
        section = rf"^{rank} {re.escape(heading)}(?: [^\n]*)?\n(.*?)(?=^{rank} |^# |\Z)"
        found = re.search(section, self.text, re.MULTILINE | re.DOTALL)
        assert found, f"there is no {rank} {heading}"
        return found[1]

    def entries(self, heading, rank="#"):
        """[(head, text)] of a section, without the marks of bold and underlined."""
        return entries(self.section(heading, rank))

    def rows(self, heading):
        """The cells of a section's table below its head."""
        rows = []
        for line in self.section(heading).splitlines():
            if line.startswith(("[[", "|")):
                rows.append([])
            if re.match(r"\[\[|:\[|[|:] ", line):
                rows[-1].append(unmarked(line[2:].strip()))
        return rows[1:]


def unmarked(text):
    return re.sub(r"(?<!\w)_|_(?!\w)|\*", "", text)


def entries(text):
    found = re.findall(r"^(\*.*)\n((?:\t.*\n|\n(?=\t))+)", text, re.MULTILINE)
    return [(unmarked(head), re.sub(r"^\t", "", body, flags=re.MULTILINE)) for head, body in found]


def options_on(text):
    """{names: (argument, text)} of the entries that are options."""
    found = {}
    for head, body in entries(text):
        if head.startswith("-"):
            names, _, argument = head.replace(", ", ",").partition(" ")
            found[tuple(names.split(","))] = (argument, unmarked(" ".join(body.split())))
    return found


def render(page):
    return subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", page], capture_output=True, text=True, check=True,
                          env={**os.environ, "LC_ALL": "C.UTF-8", "MANWIDTH": "80"})  # fmt: skip


@pytest.mark.parametrize("name", PAGES)
def test_a_page_is_typeset_without_a_warning_and_known_to_apropos(name):
    page = BUILD / "man" / f"{name}.gz"
    shown = render(page)
    assert shown.stderr == ""
    lines = shown.stdout.splitlines()
    title = name.replace(".", "(") + ")"
    assert re.fullmatch(rf"{re.escape(title)} +tx_proxy manual +{re.escape(title)}", lines[0])
    assert re.fullmatch(rf"tx_proxy {VERSION} +{re.escape(title)}", lines[-1]), "version, no date"
    program = name.split(".")[0]
    known = subprocess.run(["lexgrog", page], capture_output=True, text=True, check=True).stdout
    assert re.fullmatch(rf'{re.escape(str(page))}: "{program} - [a-z].*[^.]"\n', known)
    # Marks that were not understood would be shown.
    assert not re.search(r"\*\w|(?<!\w)_\w+_(?!\w)|@\w+@", shown.stdout)


@pytest.mark.parametrize("name", PAGES)
def test_a_page_has_its_sections_in_the_usual_order_and_refers_to_what_there_is(name):
    page = ManPage(name)
    headings = re.findall(r"^# (.*)", page.text, re.MULTILINE)
    usual = ["NAME", "SYNOPSIS", "DESCRIPTION", "OPTIONS", "EXIT STATUS", "ENVIRONMENT", "FILES", "EXAMPLES",
             "SEE ALSO"]  # fmt: skip
    assert [one for one in headings if one in usual] == [one for one in usual if one in headings]
    assert headings[0] == "NAME" and headings[-1] == "SEE ALSO"
    seen = re.findall(r"\*(\w+)\*\((\d)\)", page.text)
    assert {f"{one}.{section}" for one, section in seen} - {"ssh.1"} <= set(PAGES)
    assert name.split(".")[0] not in [one for one, _ in re.findall(r"\*(\w+)\*\((\d)\)", page.section("SEE ALSO"))]
    documents = re.findall(r"/usr/share/doc/tx_proxy/(\w+\.md)", page.text)
    assert documents
    for document in documents:
        assert (ROOT / "docs" / document).exists(), document


def test_pages_are_compressed_as_debian_wants_it_and_the_same_each_time():
    for name in PAGES:
        data = (BUILD / "man" / f"{name}.gz").read_bytes()
        assert data[:4] == b"\x1f\x8b\x08\x00" and data[4:8] == bytes(4), "no name, no time"
        assert data[8] == 2, "the best compression"
        text = gzip.decompress(data).decode()
        assert re.search(rf'^\.TH "\w+" "\d" "" "tx_proxy {VERSION}" ', text, re.MULTILINE)


def install(component, folder):
    subprocess.run(["cmake", f"-DCMAKE_INSTALL_PREFIX={folder}", f"-DCMAKE_INSTALL_COMPONENT={component}", "-P",
                    BUILD / "man" / "cmake_install.cmake"], check=True, stdout=subprocess.DEVNULL)  # fmt: skip


def test_man_finds_the_pages_where_they_are_installed_each_with_its_package(tmp_path):
    for component in ("proxy", "tools"):
        install(component, tmp_path / component)
        found = {path.name for path in (tmp_path / component).rglob("*.gz")}
        assert found == {f"{name}.gz" for name, where in PAGES.items() if where == component}
    for name, component in PAGES.items():
        program, section = name.split(".")
        manuals = tmp_path / component / "share" / "man"
        command = ["man", "-M", manuals, "-w", section, program]
        path = subprocess.run(command, capture_output=True, text=True, check=True).stdout.strip()
        assert path == f"{manuals}/man{section}/{name}.gz"


def test_without_scdoc_the_proxy_is_configured_all_the_same_and_one_line_says_so(tmp_path):
    command = ["cmake", "-G", "Ninja", "-S", ROOT, "-B", tmp_path, "-DSCDOC="]
    done = subprocess.run(command, capture_output=True, text=True, check=True)
    assert done.stderr == ""
    assert re.findall(r".*(?:scdoc |anual).*", done.stdout) == ["-- No manual pages: scdoc is not installed"]


def test_the_proxys_page_has_the_options_of_the_binary_with_arguments_and_defaults_of_the_operators_page(lease):
    page = ManPage("tx_proxy.8")
    shown = options_on(page.section("OPTIONS"))
    assert {names[0].removeprefix("-"): bool(argument) for names, (argument, _) in shown.items()} == \
        program_options.of_tx_proxy(lease.instance)  # fmt: skip
    for cells in Page("operations.md").rows("Options"):
        option, _, argument = quoted(cells[0])[0].partition(" ")
        assert shown[(option,)][0] == argument
        if re.match(r"\d", cells[1]):
            assert shown[(option,)][1].endswith(f"Default: {cells[1]}."), option
        else:
            assert "Default" not in shown[(option,)][1], option


def default_of(program, option):
    """What the help says, in brackets; arqlink's are round."""
    marks = r"\[([^\]]+)\]" if program != "arqlink" else r"(?<!burst)\((\d+\w*)\)"
    found = re.search(marks, option.text.removeprefix(f" {option.argument}"))
    return found[1] if found and option.names != ("--burst",) else None


def compare(program, options, section):
    shown = options_on(section)
    arguments = {names: argument for names, (argument, _) in shown.items()}
    assert arguments == {option.names: option.argument for option in options}
    for option in options:
        text = shown[option.names][1]
        default = default_of(program, option)
        said = rf"(?:Default: |\(|Without it ){re.escape(default)}(?!\w)" if default else "Default"
        assert bool(re.search(said, text)) == bool(default), f"{program} {option.names}: {text}"


@pytest.mark.parametrize("program", ["arqrx", "arqlink"])
def test_a_tools_page_has_the_options_arguments_and_defaults_of_its_help(program):
    compare(program, program_options.of_program(program), ManPage(f"{program}.1").section("OPTIONS"))


def test_the_page_of_arqctl_has_every_command_with_its_options_arguments_and_defaults():
    page = ManPage("arqctl.1")
    compare("arqctl", program_options.of_program("arqctl"), page.section("OPTIONS"))
    shown = re.findall(r"^## (\w+)", page.section("COMMANDS"), re.MULTILINE)
    assert sorted(shown) == sorted(program_options.commands())
    for command in shown:
        compare(f"arqctl {command}", program_options.of_command(command), page.section(command, "##"))
        text = program_options.help_of("arqctl", command)
        usage = re.search(rf"^Usage: arqctl {command} \[options\](.*)$", text, re.MULTILINE)
        below = "|".join(program_options.subcommands(command))
        assert f"\n## {command}{usage[1]}{' ' + below if below else ''}\n" in page.text


def statuses(name):
    return [int(head) for head, _ in ManPage(name).entries("EXIT STATUS")]


def test_the_pages_have_every_exit_status_and_the_proxy_ends_with_those_of_its_page(start_proxy, net):
    for program in ("arqrx", "arqlink", "arqctl"):
        said = re.sub(r"\s+", " ", program_options.help_of(program).split("Exit status:")[1])
        assert statuses(f"{program}.1") == [int(one) for one in re.findall(r"(?:^|, ) ?(\d) ", said)], program
    assert statuses("tx_proxy.8") == [0, 1, 255]
    assert run("-h")[0] == 0
    assert run("-I", "x", "5000")[0] == run("-I", net.instance)[0] == run("-I", net.instance, "1", "2", "3")[0] == 255
    start_proxy()
    status, _, stderr = run("-I", net.instance, net.input)
    assert status == 1 and "Process already running!" in stderr
    assert "*Process already running!*" in ManPage("tx_proxy.8").text


def test_the_synopsis_is_the_usage_of_the_help(lease):
    for program in ("arqrx", "arqctl"):
        usage = re.search(r"^Usage: ((?:.*\n)+?)\n", program_options.help_of(program), re.MULTILINE)[1]
        shown = unmarked(ManPage(f"{program}.1").section("SYNOPSIS")).replace("++", "").split("\n")
        assert [line for line in shown if line] == [line.strip() for line in usage.splitlines() if "--help" not in line]
    status, _, stderr = run("-h", argv0="tx_proxy")
    usage = stderr.splitlines()[0].removeprefix("Usage: ").replace("Net Tx Options", "options")
    assert (status, usage) == (0, unmarked(ManPage("tx_proxy.8").section("SYNOPSIS")).strip())
    assert lease


def test_every_example_is_taken_by_its_program(tmp_path):
    """They get no further than what this machine has not: a proxy, an interface, an address."""
    for name in ("tx_proxy.8", "arqrx.1", "arqlink.1", "arqctl.1"):
        commands = re.findall(r"```\n(.*)\n```", ManPage(name).section("EXAMPLES"))
        assert commands
        for command in commands:
            assert outcome(shlex.split(command), tmp_path), command


def outcome(words, folder):
    program, *arguments = words
    if program == "tx_proxy":
        # That there is one operand too many is found last.
        status, _, stderr = run(*arguments, "1", "2", "3")
        return status == 255 and "extra operand" in stderr
    arguments = ["10ms" if one == "30s" else one for one in arguments]
    if program != "arqctl" and "--duration" not in arguments:
        arguments += ["--duration", "1ms"]
    expected = {"arqrx": (arqrx.NO_MEDIA, arqrx.NO_START), "arqlink": (link.DONE,),
                "arqctl": (arqctl.NO_PROXY, arqctl.NO_START)}  # fmt: skip
    done = subprocess.run([BUILD / program, *arguments], cwd=folder, capture_output=True, check=False,
                          timeout=scaled(DEFAULT_TIMEOUT))  # fmt: skip
    return done.returncode in expected[program]


def test_pages_name_their_units_with_the_settings_that_these_read():
    folder = ROOT / "packaging" / "service"
    for name, instance in (("tx_proxy.8", "N"), ("arqctl.1", "NAME"), ("arqrx.1", "NAME")):
        page, program = ManPage(name), name.split(".")[0]
        units = set(re.findall(rf"\*([\w-]+@){instance}\.service\*", page.text))
        assert units == {path.name.removesuffix(".service.in") for path in folder.glob(f"{program}*@.service.in")}
        for unit in units:
            text = (folder / f"{unit}.service.in").read_text("utf-8")
            settings = re.search(r"^EnvironmentFile=-?(.*)$", text, re.MULTILINE)[1]
            assert f"_{settings.replace('%i', instance)}_\n" in page.section("FILES")
        sample = (folder / f"{program}.default").read_text("utf-8")
        variables = re.findall(r"^#?([A-Z_]+)=", sample, re.MULTILINE)
        named = re.findall(rf"\*({program.upper()}_[A-Z_]+)\*", page.text)
        assert set(variables) == set(named) - OTHER_VARIABLES


def test_files_and_settings_of_the_proxys_page_are_those_of_the_operators_page():
    page, operations = ManPage("tx_proxy.8"), Page("operations.md")
    files = re.findall(r"^_(/.*)_$", page.section("FILES"), re.MULTILINE)
    described = [quoted(cells[0])[0] for cells in operations.rows("Files")]
    assert sorted(files) == sorted([*described, "/etc/default/tx_proxy-N"])
    settings = {head: re.search(r"Default: (\d+)", text)[1] for head, text in page.entries("DELIBERATE LOSS")}
    assert settings == {quoted(cells[0])[0]: cells[1] for cells in operations.rows("Deliberate loss")}
    assert [row[0] for row in page.rows("PORTS")] == [
        cells[0].replace("`", "").removesuffix(", mod 65536") for cells in operations.rows("Ports")]  # fmt: skip


# What a command is given, and what it answers, on the page of the control socket.
def replies(page):
    """{command: (takes an argument, reply or "")}"""
    found = {}
    for head, text in page.entries("COMMANDS"):
        command, _, argument = head.partition(" ")
        block = re.search(r"```\n(.*?)\n```", text, re.DOTALL)
        found[command] = (bool(argument), block[1] if block else "", text)
    return found


def test_every_command_of_the_control_page_gets_its_answer_and_there_is_no_other(start_proxy, net, receive):
    receive("127.0.0.2"), receive("127.0.0.3")
    proxy = start_proxy("-a", "127.0.0.2", "-u")
    page = ManPage("tx_proxy_control.7")
    commands = replies(page)
    assert list(commands) == [quoted(cells[0])[0].split()[0] for cells in Page("operations.md").rows("Commands")[:-1]]
    fields = set()
    for command, (has_argument, reply, text) in commands.items():
        request = f"{command} 127.0.0.3" if has_argument else command
        answer = raw_control.converse(net.instance, request.encode())
        texts = r"127\.0\.0\.3" if has_argument else r"[\d.,]*"
        pattern = re.escape(reply).replace("%d", r"-?\d+").replace("%s", texts)
        # What has a line feed at the end too says so.
        pattern += r"\n" if "each with a line feed" in text else ""
        assert re.fullmatch(pattern, answer), command
        assert ("*no reply*" in text) == (reply == "" or command == "List"), command
        fields |= set(re.findall(r"^([A-Z_]+)=", answer, re.MULTILINE))
    proxy.wait_stderr(re.compile(r"m_nDropPacket \d+"))
    dump = set(re.findall(r"^(m_[\w.]+) -?\d+$", proxy.stderr.text, re.MULTILINE))
    assert {name for head, _ in page.entries("FIELDS") for name in head.split(", ")} == fields | dump


def test_a_request_is_framed_as_the_control_page_says(start_proxy, net):
    proxy = start_proxy()
    page = ManPage("tx_proxy_control.7")
    unknown = re.search(r"```\n(.*)\n```", page.section("ERRORS"))[1]
    ask = lambda data: raw_control.converse(net.instance, data)  # noqa: E731
    assert ask(b"RxStat\n") == ask(b"rxstat") == ask(b" ") == ask(b"\n") == unknown
    assert ask(b"  Delete   127.0.0.9  and more") == "OK: Deleting: 127.0.0.9"
    assert ask(b"List") == ""
    assert "at most 1024 bytes" in page.text
    assert ask(b" " * 1018 + b"RxStat").startswith("NET_TOTAL_PACKETS")
    assert ask(b" " * 1019 + b"RxStat") == unknown * 2, "cut in two"
    with raw_control.connected(net.instance) as sock:
        assert [raw_control.ask(sock, "StatClear") for _ in range(3)] == ["OK: Stat Reset"] * 3
    assert proxy.is_alive()


# The protocol.

WIRE = (ROOT / "src" / "arq" / "wire.h").read_text("utf-8")
PROTOCOL = Page("protocol.md")
TABLES = {"MEDIA PACKETS": ("Media packets", "MediaHeader"), "STREAM TAGS": ("Stream tags", "StreamTag"),
          "ECHO PINGS": ("Echo pings", "ArqPing"), "REQUESTS": ("Requests", "ArqRequest")}  # fmt: skip
ORDERS = {"Be": "big-endian", "Ho": "host"}
BYTES = {"WireByte": 1, "Be16": 2, "Host16": 2, "Be32": 4, "Host32": 4}


def members(record):
    """[(offset, bytes)] and the orders of a record's members, which lie side by side."""
    body = re.search(rf"struct {record} {{(.*?)\n}};", WIRE, re.DOTALL)[1]
    types = re.findall(r"^    (\w+) \w+;", body, re.MULTILINE)
    sizes = [BYTES[one] for one in types]
    places = [(str(sum(sizes[:i])), str(size)) for i, size in enumerate(sizes)]
    return places, [ORDERS.get(one[:2], "-") for one in types]


@pytest.mark.parametrize("heading", TABLES)
def test_a_record_of_the_protocol_page_is_that_of_the_program(heading):
    there, record = TABLES[heading]
    rows = ManPage("tx_proxy_protocol.7").rows(heading)
    described = [[cell.replace("*", "") or "-" for cell in row[:4]] for row in PROTOCOL.rows(there)]
    assert [row[:4] for row in rows] == described
    places, orders = members(record)
    assert [tuple(row[:2]) for row in rows[: len(places)]] == places
    for row, order in zip(rows, orders):
        # Zero is zero, and a magic is known in either order.
        assert row[3] == order or row[2] in ("zero", "magic"), row


def test_the_constants_of_the_protocol_page_are_those_of_the_program():
    text = ManPage("tx_proxy_protocol.7").text
    words = dict(re.findall(r"^constexpr \w+ (\w+) = (0x\w+);", WIRE, re.MULTILINE))
    for name in ("STREAM_TAG_MAGIC", "STREAM_LEAVE_MAGIC", "ARQ_PING_ID"):
        assert words[name] in text, name
    media, again = words["MEDIA_PAYLOAD_TYPE"], words["RETRANSMIT_PAYLOAD_TYPE"]
    assert f"type {int(media, 16)}, or {int(again, 16)} ({again}) when sent again" in text
    assert " ".join(re.findall(r"0x(\w\w)", re.search(r"STOP_MESSAGE\[8\] = {(.*)}", WIRE)[1])) in text
    assert ManPage("tx_proxy_protocol.7").rows("TIMING") == [
        [cell.replace("*", "") for cell in row] for row in PROTOCOL.rows("Timing")]  # fmt: skip
    defaults = {quoted(cells[0])[0].split()[0]: cells[1] for cells in Page("operations.md").rows("Options")}
    assert f"ping port (*-p*, {defaults['-p']};" in text and f"request port (*-r*, {defaults['-r']})" in text


def test_the_protocol_page_has_no_number_that_the_whole_description_has_not():
    number = re.compile(r"(?<![\w.])(?:0x[0-9A-F]+|[\d,]*\d)(?!\w|\.\d)")
    body = ManPage("tx_proxy_protocol.7").text.split("# NAME")[1]
    assert set(number.findall(body)) - set(number.findall(PROTOCOL.text)) == set()
