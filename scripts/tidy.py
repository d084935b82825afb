#!/usr/bin/python3
"""Runs clang-tidy over the sources below src/, tools/ and samples/. Exits with 1 if there is any finding.

Most of a run is spent on the standard headers, so the sources of a folder are read as one file, kept in
build/tidy/; findings name the real file and line. Where names of two sources meet, so that the joined file does
not compile, the sources of that folder are read one by one.
"""
import os
import re
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
SOURCES = [ROOT / "src", ROOT / "tools", ROOT / "samples"]
# The tools' files that use a library: its headers, which are none of ours, take minutes to look through.
LEFT_OUT = [ROOT / "tools" / folder for folder in (
    "arqrx", "arqrx/cli", "arqlink", "arqctl", "arqctl/cli", "arqctl/doctor", "arqctl/serve", "common_cli")]
# The static analyzer takes three quarters of the time: it looks at the proxy, and at what the media path hands datagrams.
ANALYSED = [ROOT / folder for folder in ("src", "tools/arqrx/core", "samples")]
JOINED = ROOT / "build" / "tidy"

COMMAND = ["clang-tidy-14", "--quiet"]
FLAGS = ["-std=c++20", "-fno-exceptions", "-DSAMPLE_VERSION=\"\"", *(f"-I{folder}" for folder in SOURCES),
         "-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Wconversion", "-Wthread-safety"]

# The check for repeated includes starts afresh behind a macro: an include of the file before is none.
SEPARATOR = "#define TX_PROXY_NEXT_FILE\n#undef TX_PROXY_NEXT_FILE\n"


def join(folder, files):
    """Writes the joined file; returns its path and, for each of its lines, the place that it came from."""
    places, text = [], []
    for file in files:
        text.append(SEPARATOR)
        places += ["separator:0"] * SEPARATOR.count("\n")
        content = file.read_text(encoding="utf-8")
        if not content.endswith("\n"):
            content += "\n"
        text.append(content)
        places += [f"{file}:{i}" for i in range(1, content.count("\n") + 1)]
    path = JOINED / ("_".join(folder.relative_to(ROOT).parts) + ".cpp")
    path.write_text("".join(text), encoding="utf-8")
    return path, places


def run(path, is_analysed):
    command = COMMAND if is_analysed else [*COMMAND, "--checks=-clang-analyzer-*"]
    result = subprocess.run([*command, str(path), "--", *FLAGS], stdin=subprocess.DEVNULL, check=False,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    warnings = [line for line in result.stderr.splitlines() if not re.search(r"\d+ warnings? generated", line)]
    return result.returncode == 0, "\n".join([result.stdout, *warnings]).strip()


def look_at(folder, files):
    """(true if nothing was found, what was found)"""
    path, places = join(folder, files)
    is_analysed = any(folder.is_relative_to(place) for place in ANALYSED)
    good, output = run(path, is_analysed)
    if "[clang-diagnostic-error]" in output:
        outcomes = [run(file, is_analysed) for file in files]
        return all(good for good, _ in outcomes), "\n".join(output for _, output in outcomes if output)
    pattern = re.escape(str(path)) + r":(\d+)"
    return good, re.sub(pattern, lambda match: places[int(match.group(1)) - 1], output)


def main():
    folders = {}
    for file in sorted(file for folder in SOURCES for file in folder.rglob("*.cpp")):
        if file.parent not in LEFT_OUT:
            folders.setdefault(file.parent, []).append(file)
    if not folders:
        print("no sources below src/, tools/ and samples/")
        return 1
    JOINED.mkdir(parents=True, exist_ok=True)
    largest_first = sorted(folders.items(), key=lambda item: -sum(file.stat().st_size for file in item[1]))
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        outcomes = list(pool.map(lambda item: look_at(*item), largest_first))
    for good, output in outcomes:
        if not good:
            print(output or "clang-tidy failed without a finding")
    return 0 if all(good for good, _ in outcomes) else 1


if __name__ == "__main__":
    sys.exit(main())
