"""arqlink's options, messages and exit statuses, and the page that describes them."""

import json
import pathlib
import re
import shlex
import socket
import subprocess

import pytest

from txproxy.link import DONE, TROUBLE, USAGE, Link, program, run
from txproxy.receiver import udp_socket

PAGE = (pathlib.Path(__file__).resolve().parents[2] / "docs" / "arqlink.md").read_text(encoding="utf-8")
PAIR = "127.0.0.1:0=127.0.0.1:9"
HINT = "\nTry 'arqlink --help' for more information.\n"
DIRECTIONS = ("", "down-", "up-")


def page_options():
    """The options in the page's tables."""
    cells = [line.split(" | ")[0] for line in PAGE.splitlines() if line.startswith("| `-")]
    return {option for cell in cells for option in re.findall(r"`(-[^`]+)`", cell)}


def help_options(text):
    """The options at the beginning of a line of the help text."""
    heads = [line.split("  ")[1].split(" ")[0] for line in text.splitlines() if re.match(r"  -", line)]
    return {option for head in heads for option in head.split(",")}


def page_blocks(language):
    """[(words behind the language, text)] of the page's blocks in it."""
    return re.findall(rf"^```{language} ?([^\n]*)\n(.*?)^```$", PAGE, re.MULTILINE | re.DOTALL)


def test_the_page_and_the_help_have_the_same_options():
    status, stdout, stderr = run("--help")
    assert (status, stderr) == (DONE, "")
    assert page_options() == help_options(stdout)
    assert len(page_options()) > 20
    assert run("-h")[1] == stdout


def test_the_help_fits_a_terminal_and_shows_examples():
    lines = run("--help")[1].splitlines()
    assert max(len(line) for line in lines) <= 120
    assert any(line.strip().startswith("arqlink --loss 5%") for line in lines)


def test_the_version_is_printed():
    status, stdout, _ = run("--version")
    assert status == DONE
    assert re.fullmatch(r"arqlink \d+\.\d+\.\d+\n", stdout)


def test_every_command_and_script_of_the_page_works(tmp_path):
    scripts = page_blocks("script")
    for name, text in scripts:
        file = tmp_path / (name or "script")
        file.write_text(text, encoding="utf-8")
        assert run("--script", file, "--duration", "1ms", PAIR)[0] == DONE
    commands = [text for _, text in page_blocks("sh")]
    assert (len(scripts), len(commands)) == (2, 7)
    for command in commands:
        name, *words = shlex.split(command)
        assert name == "arqlink"
        status, _, stderr = run(*words, "--duration", "1ms", cwd=tmp_path)
        assert (status, stderr) == (DONE, ""), command


def test_every_setting_may_be_given_for_one_direction():
    settings = [name for name in page_options() if f"| `{name}` | " in PAGE.split("The run:")[0]]
    assert len(settings) == 11
    times = {"--delay": "1ms", "--jitter": "1ms", "--queue": "1ms"}
    value = {"--burst": "1%,10%", "--drop-seq": "5", "--rate": "1M", "--blackout": "on", **times}
    words = [f"--{way}{name[2:]}={value.get(name, '1%')}" for way in DIRECTIONS for name in settings]
    status, stdout, stderr = run("--json", "--duration", "1ms", *words, PAIR)
    assert (status, stderr) == (DONE, "")
    ready = json.loads(stdout.splitlines()[0])
    assert ready["down"] == ready["up"]
    assert len(ready["up"]["settings"].split()) == 22


@pytest.mark.parametrize(
    "words, message",
    [
        ([], "say from where to where: LISTEN=TARGET, such as 127.0.0.1:11000=10.0.0.1:10000"),
        (["127.0.0.1:5"], "'127.0.0.1:5' is not LISTEN=TARGET, such as 127.0.0.1:11000=10.0.0.1:10000"),
        (["127.0.0.1=127.0.0.1:5"], "'127.0.0.1' is not HOST:PORT"),
        (["127.0.0.1:0=127.0.0.1:66000"], "'127.0.0.1:66000' is not HOST:PORT"),
        (
            ["127.0.0.1:0=127.0.0.1:0"],
            "'127.0.0.1:0=127.0.0.1:0' has no address and port to go on to; write for example 10.0.0.1:10000",
        ),
        (
            ["127.0.0.1:0=239.1.1.1:5"],
            "'239.1.1.1:5' is a multicast group; a line has two ends with addresses of their own",
        ),
        (["--loss", "5x", PAIR], "--loss '5x' is not a ratio such as 5% or 0.05"),
        (["--down-loss", "101%", PAIR], "--down-loss '101%' is not a ratio such as 5% or 0.05"),
        (["--up-delay", "20", PAIR], "--up-delay '20' is not a duration such as 20ms, at most 1h"),
        (["--seed", "x", PAIR], "--seed 'x' is not a number from 0 to 18446744073709551615"),
        (["--clients", "0", PAIR], "--clients '0' is not a number from 1 to 10000"),
        (["--idle", "0", PAIR], "--idle '0' is not a time such as 30s or 500ms"),
        (["--duration", "5", PAIR], "--duration '5' is not a time such as 30s or 500ms"),
        (["--memory", "99k", PAIR], "--memory '99k' is not a size such as 256M, at least 100k"),
        (["--source", "here", PAIR], "--source 'here' is not an address such as 10.0.0.2"),
        (
            ["--source-pool", "127.9.0.0", PAIR],
            "--source-pool '127.9.0.0' is not a range of addresses such as 127.9.0.0/24 (/8 to /30)",
        ),
        (
            ["--source-pool", "127.9.0.5/24", PAIR],
            "--source-pool '127.9.0.5/24' does not begin a range; write 127.9.0.0/24",
        ),
        (
            ["--source", "127.0.0.1", "--source-pool", "127.9.0.0/24", PAIR],
            "--source and --source-pool exclude each other",
        ),
        (
            ["--script", "missing", PAIR],
            "cannot read the script missing; is it there, and a text of less than 10 MB?",
        ),
        (["--up-reorder", "5%", PAIR], "--reorder does nothing without --jitter, which is what changes the order"),
        (["--los", "5%", PAIR], "The following argument was not expected: --los"),
        ([PAIR] * 65, "there may be 64 pairs of LISTEN=TARGET at most"),
    ],
)
def test_a_wrong_command_line_says_what_is_wrong_in_both_forms(words, message, tmp_path):
    assert run(*words, cwd=tmp_path) == (USAGE, "", f"arqlink: {message}{HINT}")
    status, stdout, stderr = run("--json", *words, cwd=tmp_path)
    assert (status, stderr) == (USAGE, f"arqlink: {message}{HINT}")
    assert [json.loads(line) for line in stdout.splitlines()] == [{"error": message}]


def test_a_wrong_script_is_refused_with_its_line(tmp_path):
    script = tmp_path / "script"
    script.write_text("0s both clean\n8s both los 5%\n", encoding="ascii")
    status, _, stderr = run("--script", script, PAIR)
    assert (status, stderr) == (USAGE, f"arqlink: {script}, line 2: there is no setting 'los'{HINT}")


def test_an_address_or_a_file_that_the_system_refuses_is_named(closing, tmp_path):
    port = closing(udp_socket("127.0.0.1", 0, reuse=False)).getsockname()[1]
    log = tmp_path / "fates.jsonl"
    log.write_text("of the last run", encoding="ascii")
    status, stdout, stderr = run("--json", "--log-fates", log, f"127.0.0.1:{port}=127.0.0.1:9")
    message = f"cannot use 127.0.0.1:{port}: Address already in use; see who has the port with: ss -ulpn"
    assert (status, stderr, json.loads(stdout)) == (TROUBLE, f"arqlink: {message}\n", {"error": message})
    assert log.read_text(encoding="ascii") == "of the last run", "a start that fails spoils no log"
    assert run("--source", "192.0.2.1", PAIR)[::2] == (
        TROUBLE,
        "arqlink: cannot use 192.0.2.1:0: Cannot assign requested address; see this machine's addresses with: ip -brief addr\n",
    )
    folder = tmp_path / "missing"
    assert run("--log-fates", folder / "log", PAIR)[::2] == (
        TROUBLE,
        f"arqlink: cannot write {folder}/log: No such file or directory\n",
    )


def test_a_log_for_which_there_is_no_room_ends_with_a_failure(closing):
    line = closing(Link([("127.0.0.1", 9)], "--log-fates", "/dev/full"))
    closing(udp_socket("127.0.0.1", 0, reuse=False)).sendto(b"x", line.listen[0])
    line.wait_figures(lambda figures: figures["up"]["came"] == 1, "the datagram")
    line.process.terminate()
    assert line.wait_end(expected=TROUBLE) == {"error": "cannot write all of /dev/full; is its disk full?"}


def test_options_may_stand_in_a_file_and_the_command_line_goes_before_it(tmp_path):
    config = tmp_path / "config"
    config.write_text('loss="5%"\nup-delay="20ms"\nseed=9\n', encoding="ascii")
    status, stdout, stderr = run("--config", config, "--loss", "7%", "--json", "--duration", "1ms", PAIR)
    assert (status, stderr) == (DONE, "")
    ready = json.loads(stdout.splitlines()[0])
    assert (ready["down"]["settings"], ready["up"]["settings"]) == ("loss 7%", "loss 7% delay 20ms")
    config.write_text("los=5%\n", encoding="ascii")
    status, _, stderr = run("--config", config, PAIR)
    assert status == USAGE
    assert "los" in stderr


def test_people_get_a_line_a_report_and_a_summary():
    status, stdout, _ = run("--loss", "5%", "--interval", "50ms", "--duration", "120ms", PAIR)
    lines = stdout.splitlines()
    assert status == DONE
    assert re.fullmatch(r"127\.0\.0\.1:\d+ -> 127\.0\.0\.1:9", lines[0])
    assert lines[1] == "The line: both ways loss 5%"
    report = (
        r" {4}0\.\d s  down {6}0 in {6}0 out {6}0 lost \( 0\.0 %\) \| up {6}0 in {6}0 out {6}0 lost \( 0\.0 %\) "
        r"\| 0 clients"
    )
    assert len(lines[2:-3]) >= 1
    for line in lines[2:-3]:
        assert re.fullmatch(report, line)
    assert re.fullmatch(r"0\.\d s, 0 clients", lines[-3])
    assert lines[-2:] == ["down 0 in, 0 out, 0 lost (0.00 %)", "up   0 in, 0 out, 0 lost (0.00 %)"]


def test_quiet_prints_nothing_and_no_interval_only_the_end():
    assert run("--quiet", "--duration", "50ms", PAIR) == (DONE, "", "")
    _, stdout, _ = run("--json", "--interval", "0", "--duration", "50ms", PAIR)
    assert [json.loads(line)["event"] for line in stdout.splitlines()] == ["ready", "final"]


def test_a_reader_that_goes_away_ends_the_run():
    process = subprocess.Popen([program(), "--interval", "10ms", PAIR], stdout=subprocess.PIPE)
    process.stdout.readline()
    process.stdout.close()
    assert process.wait(15) == TROUBLE


def test_every_address_of_the_machine_may_be_heard(closing):
    status, stdout, _ = run("--json", "--duration", "1ms", "*:0=localhost:9", ":0=127.0.0.1:9")
    assert status == DONE
    pairs = json.loads(stdout.splitlines()[0])["pairs"]
    assert all(re.fullmatch(r"0\.0\.0\.0:\d+", pair["listen"]) for pair in pairs)
    assert [pair["target"] for pair in pairs] == [f"{socket.gethostbyname('localhost')}:9", "127.0.0.1:9"]
