"""Completion for bash: every option of the programs' help, in its place, and what its argument may be."""

import pytest

from txproxy import control, program_options
from txproxy.completion import LIBRARY, Completion, install
from txproxy.tmux import Terminal

pytestmark = pytest.mark.release_only

DIRECTIONS = ("--down-", "--up-")
LINE_SETTINGS = 11
ARGUMENT_MAY_BE_LEFT_OUT = {"--watch"}


@pytest.fixture(scope="module")
def completion(tmp_path_factory):
    return Completion(tmp_path_factory.mktemp("completion"))


def names(options):
    return {name for option in options for name in option.names}


def arqlink_options():
    """Settings of the line are there for each direction, too: those that stand first in the help."""
    options = program_options.of_program("arqlink")
    first = next(i for i, option in enumerate(options) if option.names == ("--loss",))
    line = [option.names[0] for option in options[first : first + LINE_SETTINGS]]
    assert line[-1] == "--blackout"
    return names(options) | {way + name[2:] for way in DIRECTIONS for name in line}


def test_each_package_brings_the_completion_of_its_programs(tmp_path):
    for component, programs in {"proxy": ["tx_proxy"], "tools": ["arqctl", "arqlink", "arqrx"]}.items():
        install(component, tmp_path / component)
        files = [path.relative_to(tmp_path / component) for path in (tmp_path / component).rglob("*") if path.is_file()]
        assert sorted(map(str, files)) == [f"share/bash-completion/completions/{program}" for program in programs]


def test_every_option_of_each_program_is_offered_and_no_other(completion, lease):
    offered = [set(words) for words in completion.offers("tx_proxy -", "arqrx -", "arqlink -", "arqctl -")]
    assert offered == [
        {f"-{letter}" for letter in program_options.of_tx_proxy(lease.instance)},
        names(program_options.of_program("arqrx")),
        arqlink_options(),
        names(program_options.of_program("arqctl")),
    ]


def arqctl_lines():
    """{command with what is below it: its options}"""
    lines = {}
    for command in program_options.commands():
        for below in program_options.subcommands(command) or [""]:
            text = program_options.help_of("arqctl", command, *([below] if below else []))
            own = [one for one in program_options.of_help(text.split("\nExamples:")[0]) if "--help" not in one.names]
            lines[f"{command} {below}".strip()] = own
    return lines


def test_every_command_of_arqctl_is_offered_with_its_options_and_no_other(completion):
    assert set(completion.offer("arqctl ")) == set(program_options.commands())
    everywhere = names(program_options.of_program("arqctl"))
    lines = arqctl_lines()
    offered = completion.offers(*(f"arqctl -I 7 --json {line} -" for line in lines))
    for (line, own), words in zip(lines.items(), offered):
        assert set(words) == everywhere | names(own), line
    assert set(completion.offer("arqctl impair ")) == set(program_options.subcommands("impair"))


def test_an_option_is_followed_by_its_argument_if_it_has_one(completion, lease):
    """Behind an argument options are offered again; in its place they are not."""
    cases = {}
    for letter, has_argument in program_options.of_tx_proxy(lease.instance).items():
        cases[f"tx_proxy -{letter} -"] = has_argument
    for program in ("arqrx", "arqlink", "arqctl"):
        for option in program_options.of_program(program):
            cases |= {f"{program} {name} -": bool(option.argument) for name in option.names}
    for line, own in arqctl_lines().items():
        for option in own:
            if option.names[0] not in ARGUMENT_MAY_BE_LEFT_OUT:
                cases |= {f"arqctl {line} {name} -": bool(option.argument) for name in option.names}
    for (line, has_argument), words in zip(cases.items(), completion.offers(*cases)):
        assert any(word.startswith("-") and word != "-" for word in words) == (not has_argument), line


def test_the_word_behind_an_argument_is_the_command(completion):
    options = [option for option in program_options.of_program("arqctl") if "--help" not in option.names]
    words = [f"{name} x" if option.argument else name for option in options for name in option.names]
    for line, offered in zip(words, completion.offers(*(f"arqctl {one} dra" for one in words))):
        assert offered == ["drain"], line


def test_files_are_offered_where_files_are_wanted(completion):
    programs = {program: program_options.of_program(program) for program in ("arqrx", "arqlink", "arqctl")}
    programs |= {f"arqctl {line}": own for line, own in arqctl_lines().items()}
    lines = [f"{program} {name} a_" for program, options in programs.items() for option in options
             if option.argument in ("FILE", "PATH", "LIBRARY") for name in option.names]  # fmt: skip
    assert len(lines) >= 7
    lines += [line.replace(" a_", "=a_") for line in lines]
    for line, offered in zip(lines, completion.offers(*lines)):
        assert offered == ["a_file"], line


CASES = {
    "arqrx --id ": ["auto", "none"],
    "arqrx --id=a": ["auto"],
    "arqrx --interface l": ["lo"],
    "arqrx --output ": ["-", "file:", "rtp://", "udp://"],
    "arqrx --output u": ["udp://"],
    "arqrx --output file:a_": ["a_file"],  # behind the colon, which is a word's end for bash
    "arqrx proxy": ["proxy.example.net"],
    "arqrx --report proxy": ["proxy.example.net"],
    "arqrx --latency ": [],
    "arqlink --blackout ": ["off", "on"],
    "arqlink --down-blackout=of": ["off"],
    "arqlink 127": [],
    "tx_proxy -a proxy": ["proxy.example.net"],
    "tx_proxy -a 10.0.0.7,proxy": ["10.0.0.7,proxy.example.net"],
    "tx_proxy 50": [],
    "arqctl add proxy": ["proxy.example.net"],
    "arqctl reset ": ["all", "rx", "tx"],
    "arqctl reset rx ": [],
    "arqctl impair on --mode ": ["1", "2"],
    "arqctl impair st": ["status"],
    "arqctl --via ssh:e": ["edge1"],
    "arqctl --via edge": ["ssh:edge1"],
    "arqctl stats --watch ": [],
    "arqctl stats --watch --c": ["--config", "--count", "--csv"],
    "arqctl list ": [],
    "arqctl --socket x del ": [],
}


def test_what_an_argument_may_be_is_offered(completion):
    for (line, expected), offered in zip(CASES.items(), completion.offers(*CASES)):
        assert sorted(offered) == expected, line


def test_running_instances_and_the_receivers_of_the_one_on_the_line_are_offered(completion, start_proxy, net, receive):
    both = ["127.0.0.21", "127.0.0.22"]
    for address in both:
        receive(address)
    start_proxy("-a", ",".join(both))
    control.request(net.instance, "RxStat")
    number = str(net.instance)
    start = number[:-1]
    lines = [f"arqctl -I {start}", "arqctl list --instance=", "arqctl top ", f"arqctl serve --channel-name {start}",
             f"arqctl -I {number} del ", f"arqctl --instance={number} del 127.0.0.22 127.0.0.21",
             f"arqctl --socket {control.path(number)} del ", f"arqctl -I {number} --via ssh:edge1 del "]  # fmt: skip
    assert completion.offers(*lines) == [[number], [number], [number], [f"{number}="], both, ["127.0.0.21"], both, []]


def test_a_socket_that_was_left_behind_is_no_running_instance(completion, start_proxy, net):
    proxy = start_proxy()
    control.request(net.instance, "RxStat")
    assert completion.offer("arqctl -I ") == [str(net.instance)]
    proxy.stop()
    assert completion.offer("arqctl -I ") == []


def test_tab_completes_a_command_in_a_terminal(completion, closing):
    terminal = closing(Terminal())
    settings = completion.folder / "bashrc"
    settings.write_text(f". {LIBRARY}\nPS1='bash> '\n", "ascii")
    terminal.run("bash", "--rcfile", settings, **completion.environment)
    terminal.wait(lambda screen: screen.rstrip().endswith("\nbash>"))  # what is typed earlier would be shown twice
    terminal.keys("arqctl", "Space", "dra", "Tab", "--se", "Tab", "3s")
    terminal.wait("bash> arqctl drain --settle 3s")
    terminal.keys("C-u", "arqrx", "Space", "--output", "Space", "u", "Tab", "10.0.0.1")
    terminal.wait("bash> arqrx --output udp://10.0.0.1")
    terminal.keys("C-u", "tx_proxy", "Space", "-a", "Space", "prox", "Tab")
    terminal.wait("bash> tx_proxy -a proxy.example.net")
