"""The page of faults names the tests that hold its promises, and every test of a fault stands on it."""

import ast
import pathlib
import re

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGE = ROOT / "docs" / "reliability.md"
TESTS = ROOT / "tests" / "system"
# The last cell of a row: `test_file.py`: `test_name`, `test_name`; `test_other.py`: `test_name`
NAMED = re.compile(r"`(test_\w+)(\.py)?`")
CELLS = 5


def rows():
    """The cells of every row of the tables of faults."""
    found = []
    for table in re.findall(r"(?:^\|.*\n)+", PAGE.read_text(encoding="utf-8"), re.MULTILINE):
        if table.startswith("| Fault |"):
            found += [[cell.strip() for cell in line.strip("|").split(" | ")] for line in table.splitlines()[2:]]
    return found


def named_tests(cell):
    """{(file, test name)} of a row's last cell."""
    file = None
    found = set()
    for name, suffix in NAMED.findall(cell):
        if suffix:
            file = f"{name}.py"
        else:
            assert file is not None, f"no file before {name}"
            found.add((file, name))
    return found


def names_in(file):
    tree = ast.parse((TESTS / file).read_text(encoding="utf-8"))
    return {node.name for node in tree.body if isinstance(node, ast.FunctionDef) and node.name.startswith("test_")}


def test_every_fault_names_tests_that_there_are():
    assert rows()
    for cells in rows():
        named = named_tests(cells[-1])
        assert named, f"no test: {cells[0]}"
        for file, name in named:
            assert name in names_in(file), f"{cells[0]}: there is no {name} in {file}"


def test_every_test_of_a_fault_stands_on_the_page():
    named = {test for cells in rows() for test in named_tests(cells[-1])}
    for path in TESTS.glob("test_fault_*.py"):
        for name in names_in(path.name):
            assert (path.name, name) in named, f"{path.name}: {name} is in no row"


def test_every_fault_tells_how_it_is_injected_what_is_promised_and_what_was_measured():
    for cells in rows():
        assert len(cells) == CELLS and all(cells), cells
