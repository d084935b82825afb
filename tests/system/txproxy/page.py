"""What the pages of docs/ say, for the tests that hold them against the programs."""

import pathlib
import re

ROOT = pathlib.Path(__file__).resolve().parents[3]


class Page:
    """A page by its file's name. A heading is one of the second rank."""

    def __init__(self, name):
        self.text = (ROOT / "docs" / name).read_text(encoding="utf-8")

    def section(self, heading):
        """The text below a heading, up to the next of the same rank."""
        start = self.text.index(f"\n## {heading}\n")
        end = self.text.find("\n## ", start + 1)
        return self.text[start : end if end >= 0 else len(self.text)]

    def rows(self, heading):
        """The cells of all table rows in a section, without the head of each table.

        Cells are parted by bars with blanks around them: a bar within a word is part of it.
        """
        lines = [line for line in self.section(heading).splitlines() if line.startswith("|")]
        heads = {i - 1 for i, line in enumerate(lines) if line.startswith("|---")}
        return [
            [cell.strip(" ") for cell in re.split(r"(?<= )\|(?= )", line.strip("|"))]
            for i, line in enumerate(lines)
            if i not in heads and not line.startswith("|---")
        ]


def quoted(cell):
    """What stands between backticks."""
    return re.findall(r"`([^`]+)`", cell)


def prose(text):
    """Without the blocks of commands and captures."""
    return re.sub(r"(?ms)^```.*?^```$", "", text)


def links(text):
    """Where the links of a page lead, but for other sites."""
    return [link for link in re.findall(r"\]\(([^)\s]+)\)", prose(text)) if "://" not in link]
