"""The options of every program as the program itself has them."""

import re
import string

from . import arqctl, arqrx, link
from .proxy import run

# "  -I,--instance NUMBER   ...": names, and the name of the argument without its bounds.
LINE = re.compile(r"^  ((?:-\w,)?--[a-z-]+)(?: (\S+?)(?=:INT\b|\s))?(?=[:\s])", re.MULTILINE)


class Option:
    """`names` like ("-I", "--instance"), `argument` like "NUMBER" or "", `text` what the help says of it."""

    def __init__(self, names, argument, text):
        self.names = tuple(sorted(names.split(","), key=len))
        self.argument = argument or ""
        self.text = text


def of_help(text):
    """[Option] of a help."""
    found = list(LINE.finditer(text))
    ends = [match.start() for match in found[1:]] + [len(text)]
    blocks = [text[match.end(1) : end].split("\n\n")[0] for match, end in zip(found, ends)]
    texts = [re.sub(r"\s+|:INT in \[.*?\]", " ", block) for block in blocks]
    return [Option(match[1], match[2], block) for match, block in zip(found, texts)]


def of_tx_proxy(instance):
    """{letter: takes an argument}, found by trying every letter and digit."""
    options = {}
    for letter in string.ascii_letters + string.digits:
        # Behind it nothing follows: an argument would be missed, and so would the listen port.
        status, _, stderr = run("-I", instance, f"-{letter}")
        assert status == (0 if letter == "h" else 255), letter
        if "invalid option" not in stderr:
            options[letter] = "requires an argument" in stderr
    return options


def help_of(program, *command):
    """The help that goes to people."""
    runner = {"arqrx": arqrx.run, "arqlink": link.run, "arqctl": arqctl.run}[program]
    status, stdout, stderr = runner(*command, "--help")
    assert (status, stderr) == (0, "")
    return stdout


def of_program(program):
    return of_help(help_of(program).split("\nExamples:")[0])


def commands():
    """Those of arqctl, with those below them: "list", "impair on", ..."""
    listed = help_of("arqctl").split("\nCommands:\n")[1].split("\n\n")[0]
    return re.findall(r"^  ([a-z]+) ", listed, re.MULTILINE)


def subcommands(command):
    text = help_of("arqctl", command)
    listed = text.split("\nSubcommands:\n")[1].split("\n\n")[0] if "\nSubcommands:\n" in text else ""
    return re.findall(r"^  ([a-z]+) ", listed, re.MULTILINE)


def of_command(command):
    """[Option] of a command of arqctl and of what is below it, each once, without --help."""
    texts = [help_of("arqctl", command), *(help_of("arqctl", command, below) for below in subcommands(command))]
    options = {option.names: option for text in texts for option in of_help(text.split("\nExamples:")[0])}
    return [option for names, option in options.items() if "--help" not in names]
