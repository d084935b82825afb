#!/usr/bin/python3
"""Checks the includes of our own headers below src/.

Every one exists, the folders include each other one way only (LAYERS), and headers form no circle.
Prints one line per fault and exits with 1 if there is any.
"""
import re
import sys
from pathlib import Path

SOURCE_ROOT = Path(__file__).resolve().parent.parent / "src"

# From the bottom up: (rank, name of the layer, what belongs to it). The longest prefix wins. A file may
# include its own layer and every layer of a lower rank. "shared" are the records and helpers that several
# folders need; they include nothing above base.
LAYERS = [
    (0, "base", ["base/"]),
    (1, "shared", ["pacing/ms_clock.", "control/impairment."]),
    (2, "input", ["input/"]),
    (3, "arq", ["arq/"]),
    (3, "pacing", ["pacing/"]),
    (4, "replicator", ["replicator/"]),
    (5, "pacer callback", ["pacing/pacer_cb."]),
    (6, "control", ["control/"]),
    (7, "main", ["main/"]),
]

INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"', re.MULTILINE)


def layer_of(file):
    """(rank, name) of the layer that a path below src/ belongs to, or None."""
    matches = [(len(prefix), rank, name) for rank, name, prefixes in LAYERS
               for prefix in prefixes if file.startswith(prefix)]
    return max(matches)[1:] if matches else None


def read_includes():
    """{path below src/: [included path, ...]} of all headers and sources."""
    files = sorted(p for p in SOURCE_ROOT.rglob("*") if p.suffix in (".h", ".cpp"))
    return {str(p.relative_to(SOURCE_ROOT)): INCLUDE.findall(p.read_text(encoding="utf-8")) for p in files}


def layer_faults(includes):
    for file, targets in includes.items():
        own = layer_of(file)
        if own is None:
            yield f"src/{file}: belongs to no layer"
            continue
        for target in targets:
            other = layer_of(target)
            if target not in includes:
                yield f'src/{file}: there is no "{target}" below src/'
            elif other is not None and other != own and other[0] >= own[0]:
                yield f'src/{file}: "{own[1]}" must not include "{target}" of "{other[1]}"'


def find_circle(includes):
    """A list of files in which each includes the next and the last is the first again, or None."""
    finished, path = set(), []

    def visit(file):
        if file in path:
            return path[path.index(file):] + [file]
        if file in finished:
            return None
        path.append(file)
        for target in includes.get(file, []):
            circle = visit(target)
            if circle:
                return circle
        path.pop()
        finished.add(file)
        return None

    for file in includes:
        circle = visit(file)
        if circle:
            return circle
    return None


def main():
    includes = read_includes()
    if not includes:
        print("no sources below src/")
        return 1
    faults = list(layer_faults(includes))
    circle = find_circle(includes)
    if circle:
        faults.append("circle: " + " -> ".join(circle))
    print(*faults, sep="\n", end="\n" if faults else "")
    return 1 if faults else 0


sys.exit(main())
