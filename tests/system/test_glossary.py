"""The glossary has the figures that running programs print, and no other."""

import re

import pytest

from txproxy.every_figure import Channel
from txproxy.page import Page, quoted

pytestmark = pytest.mark.release_only

PAGE = Page("glossary.md")
# What one channel does not have all of: it sends to no group, and nobody has switched its deliberate loss.
NOT_IN_THIS_RUN = {"arqctl instances": {"group", "unicast_port"}, "arqctl serve: API": {"impairment"}}


def part(heading):
    """The text below a heading of either rank, up to the next one."""
    found = re.search(rf"^##+ {re.escape(heading)}\n(.*?)(?=^##|\Z)", PAGE.text, re.MULTILINE | re.DOTALL)
    assert found, heading
    return found[1]


def rows(heading):
    lines = [line for line in part(heading).splitlines() if line.startswith("| ")]
    return [[cell.strip(" ") for cell in line.strip("|").split("|")] for line in lines[1:]]


def on_page(heading, column=0):
    listed = [name for cells in rows(heading) for name in quoted(cells[column])]
    assert len(listed) == len(set(listed)), "each once"
    return set(listed)


def plain(names):
    """A list of plain values is one figure."""
    return {name.removesuffix("[]") for name in names}


def test_the_glossary_has_every_figure_that_is_printed_and_no_other(closing, tmp_path):
    channel = closing(Channel(tmp_path)).open()
    lines, heads = channel.stats_columns()
    printed = {
        "The proxy's control socket": channel.control_reports(),
        "arqrx lines": channel.receiver_columns(),
        "arqlink": channel.line_objects(),
        "arqlink lines": channel.line_columns(),
        "arqlink log of fates": channel.line_fates(),
        "arqctl stats lines": heads,
        "arqctl top": channel.top_columns(),
        "arqctl instances": channel.instances(),
        "arqctl impair": channel.impairment(),
        "arqctl serve: API": channel.channels(),
        "arqctl serve: history": channel.history(),
        "arqctl serve: metrics": channel.server_metrics(),
    }
    metrics, reports = channel.receiver_metrics(), channel.reports()
    printed["arqrx"] = channel.receiver_objects()
    printed["arqctl stats"] = channel.stats_objects()
    for heading, names in printed.items():
        assert on_page(heading) - NOT_IN_THIS_RUN.get(heading, set()) == plain(names), heading
    assert lines == on_page("arqctl stats") - {"error"}
    assert on_page("arqrx", 1) == metrics
    assert {quoted(cells[0])[0] for cells in rows("arqrx") if cells[2] == "yes"} | on_page("arqrx reports") == reports


def anchors(page):
    """Of the headings below the first rank, in their order."""
    headings = re.findall(r"^##+ (.*)", page.text, re.MULTILINE)
    return [re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-") for heading in headings]


def test_every_link_leads_somewhere_and_every_heading_is_in_the_list_above():
    assert re.findall(r"\]\(#([\w-]+)\)", PAGE.text.split("\n## ")[0]) == anchors(PAGE)
    links = re.findall(r"\]\(([\w.]*)#([\w-]+)\)", PAGE.text)
    assert len(links) == PAGE.text.count("](")
    for name, anchor in links:
        assert anchor in anchors(Page(name) if name else PAGE), (name, anchor)


def test_every_row_has_a_meaning():
    headings = re.findall(r"^##+ (.*)", PAGE.text, re.MULTILINE)
    for heading in headings:
        columns = len(re.search(r"^\|(---\|)+$", part(heading), re.MULTILINE)[0].split("|"))
        for cells in rows(heading):
            assert len(cells) + 2 == columns, cells
            assert cells[3 if heading == "arqrx" else 1], cells
