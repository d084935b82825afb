#!/usr/bin/python3
"""Checks the includes of our own headers below src/ and tools/.

Every one exists, the folders include each other one way only (LAYERS, TOOL_LAYERS), and headers form no circle.
Prints one line per fault and exits with 1 if there is any.
"""
import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
SOURCE_ROOT = ROOT / "src"
TOOL_ROOT = ROOT / "tools"

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

# What a folder below tools/ may include besides its own files, the longest prefix of the including file counts. Of
# the proxy the tools take the records on the wire and the helpers that know nothing of it.
WIRE = ["base/", "arq/wire.h"]
TOOL_LAYERS = {
    "common/": ["base/"],
    "common_cli/": ["common/"],
    "arqrx/core/": WIRE,
    "arqlink/core/": ["common/quantity.", *WIRE],
    "arqrx/": ["common/", *WIRE],
    "arqrx/cli/": ["arqrx/", "common/", "common_cli/", *WIRE],
    "arqlink/": ["common/", *WIRE],
    "arqctl/core/": ["arqrx/core/request_window.", "arqrx/core/settings.", "common/endpoint.", "common/quantity.", *WIRE],
    "arqctl/proxy/": ["arqctl/core/", "common/", *WIRE],
    "arqctl/": ["common/", "common_cli/", *WIRE],
    "demo/": ["arqrx/core/", "arqlink/core/", "common/", *WIRE],
}

INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"', re.MULTILINE)


def layer_of(file):
    """(rank, name) of the layer that a path below src/ belongs to, or None."""
    matches = [(len(prefix), rank, name) for rank, name, prefixes in LAYERS
               for prefix in prefixes if file.startswith(prefix)]
    return max(matches)[1:] if matches else None


def read_includes(root):
    """{path below the root: [included path, ...]} of all headers and sources."""
    files = sorted(p for p in root.rglob("*") if p.suffix in (".h", ".cpp"))
    return {str(p.relative_to(root)): INCLUDE.findall(p.read_text(encoding="utf-8")) for p in files}


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


def tool_faults(includes, proxy_files):
    for file, targets in includes.items():
        own = max((prefix for prefix in TOOL_LAYERS if file.startswith(prefix)), key=len, default=None)
        if own is None:
            yield f"tools/{file}: belongs to no tool"
            continue
        for target in targets:
            if target not in includes and target not in proxy_files:
                yield f'tools/{file}: there is no "{target}" below tools/ or src/'
            elif not target.startswith((own, *TOOL_LAYERS[own])):
                yield f'tools/{file}: "{own}" must not include "{target}"'


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
    includes, tools = read_includes(SOURCE_ROOT), read_includes(TOOL_ROOT)
    if not includes or not tools:
        print("no sources below src/ or tools/")
        return 1
    faults = [*layer_faults(includes), *tool_faults(tools, includes)]
    circle = find_circle({**includes, **tools})
    if circle:
        faults.append("circle: " + " -> ".join(circle))
    print(*faults, sep="\n", end="\n" if faults else "")
    return 1 if faults else 0


sys.exit(main())
