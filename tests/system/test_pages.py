"""All pages together: what a reader clicks on is there, and none of them is lost."""

import functools
import re

import pytest

from txproxy.page import ROOT, links, prose

pytestmark = pytest.mark.release_only

PAGES = sorted([*ROOT.glob("*.md"), *ROOT.glob("docs/*.md")])
NEWCOMERS_LINES = 170  # what is read in three minutes, tables and captures included


def read(page):
    return page.read_text(encoding="utf-8")


@functools.lru_cache(maxsize=None)
def anchors(page):
    """What a link may name behind #: the headings, as hosts of Git write them."""
    headings = [re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", line) for line in re.findall(r"(?m)^#+ (.*)$", prose(read(page)))]
    return {re.sub(r"[^\w -]", "", heading).strip().lower().replace(" ", "-") for heading in headings}


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.name)
def test_every_link_leads_to_a_page_and_a_heading_that_is_there(page):
    lost = []
    for link in links(read(page)):
        name, _, heading = link.partition("#")
        target = (page.parent / name).resolve() if name else page
        if not target.is_file() or (heading and heading not in anchors(target)):
            lost.append(link)
    assert lost == []


def test_every_page_is_reached_from_the_readme_which_is_short():
    readme = ROOT / "README.md"
    named = {(ROOT / link.partition("#")[0]).resolve() for link in links(read(readme))}
    assert set(PAGES) - {readme} <= named
    assert len(read(readme).splitlines()) <= NEWCOMERS_LINES
