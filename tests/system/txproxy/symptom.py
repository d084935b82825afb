"""A symptom of docs/troubleshooting.md: what the page says of it, in parts that a test can use."""

import re

from .page import Page, quoted

PAGE = Page("troubleshooting.md")
FINDING = re.compile(r"`([a-z-]+)`, (good|warning|fault): `([^`]+)`")
COUNT = re.compile(r"`(\w+)` (above 0|0)")
COMMAND = re.compile(r"^    (\w+)\$ (.+)$")


def pattern(text):
    """A text of the page, with `...` for what changes."""
    return re.compile(".*".join(map(re.escape, text.split("..."))))


class Symptom:
    """One section of the third rank: the rows of its table, the commands to look and those to mend."""

    def __init__(self, title):
        self.title = title
        start = PAGE.text.index(f"\n### {title}\n")
        self._text = re.split(r"\n##", PAGE.text[start + 1 :], maxsplit=2)[0]
        self._rows = [line.strip("| ").split(" | ", 1) for line in self._text.splitlines() if line.startswith("| ")][1:]
        self.look, self.mend = self._commands()

    def _commands(self):
        parts = self._text.split("\nMend it", 1)
        assert len(parts) == 2, f"{self.title}: no word of how to mend it"
        return [[match.groups() for match in map(COMMAND.match, part.splitlines()) if match] for part in parts]

    def voices(self):
        """Who says something: "arqrx says", "the doctor finds", ..."""
        return {where for where, _ in self._rows}

    def texts(self, where):
        """Patterns of what is said there."""
        return [pattern(text) for place, what in self._rows if place == where for text in quoted(what)]

    def findings(self, where):
        """(check, verdict, pattern of the text)."""
        cells = [what for place, what in self._rows if place == where]
        found = [FINDING.fullmatch(cell) for cell in cells]
        assert all(found), f"{self.title}: {cells}"
        return [(match.group(1), match.group(2), pattern(match.group(3))) for match in found]

    def counts(self):
        """(field, whether it has grown) of what arqrx counts."""
        cells = [what for place, what in self._rows if place == "arqrx counts"]
        return [(name, amount != "0") for cell in cells for name, amount in COUNT.findall(cell)]


def titles():
    return re.findall(r"^### (.+)$", PAGE.text, re.MULTILINE)
