"""What a program file says about itself, as readelf prints it."""

import collections
import functools
import pathlib
import re
import subprocess

Segment = collections.namedtuple("Segment", "kind offset address file_size memory_size flags")
Section = collections.namedtuple("Section", "name address size flags")
Function = collections.namedtuple("Function", "name address size")

SEGMENT = re.compile(r" +([A-Z_]+) +0x(\w+) 0x(\w+) 0x\w+ 0x(\w+) 0x(\w+) ([R ][W ][E ]) 0x\w+")
SECTION = re.compile(
    r" +\[ *\d+\] (\S+) +\S+ +([0-9a-f]{16}) [0-9a-f]{6,} ([0-9a-f]{6,}) \w\w +([A-Za-z]*) +\d+ +\d+ +\d+"
)
SYMBOL = re.compile(r" +\d+: ([0-9a-f]{16}) +(\d+) (\w+) +(\w+) +\w+ +(\w+) (\S+).*")
TAG = re.compile(r" 0x[0-9a-f]{16} \((\w+)\) +(.*)")


class Elf:
    def __init__(self, path):
        self._path = str(path)
        self._content = pathlib.Path(path).read_bytes()

    @functools.lru_cache(maxsize=None)
    def _read(self, what):
        command = ["readelf", "--wide", what, self._path]
        return subprocess.run(command, check=True, capture_output=True, text=True, env={"LC_ALL": "C"}).stdout

    def _rows(self, what, pattern):
        rows = [match.groups() for match in map(pattern.fullmatch, self._read(what).splitlines()) if match]
        assert rows, f"readelf {what} shows nothing that is known here"
        return rows

    @property
    def header(self):
        """{"Type": ..., "Machine": ...}"""
        pairs = (line.partition(":")[::2] for line in self._read("--file-header").splitlines())
        return {name.strip(): value.strip() for name, value in pairs}

    @property
    def segments(self):
        rows = self._rows("--segments", SEGMENT)
        return [Segment(kind, *(int(number, 16) for number in numbers), flags) for kind, *numbers, flags in rows]

    @property
    def sections(self):
        rows = self._rows("--sections", SECTION)
        return [Section(name, int(address, 16), int(size, 16), flags) for name, address, size, flags in rows]

    @property
    def dynamic(self):
        """(tag, value) of the dynamic section: what the loader is told."""
        return self._rows("--dynamic", TAG)

    def _symbols(self, what):
        return self._rows(what, SYMBOL)

    @property
    def imports(self):
        """The names of what comes from libraries, without versions."""
        return {name.partition("@")[0] for *_, index, name in self._symbols("--dyn-syms") if index == "UND"}

    @property
    def public_functions(self):
        return [
            Function(name, int(address, 16), int(size))
            for address, size, kind, binding, index, name in self._symbols("--symbols")
            if kind == "FUNC" and binding == "GLOBAL" and index != "UND"
        ]

    def bytes_at(self, address, count):
        for segment in self.segments:
            if segment.kind == "LOAD" and segment.address <= address < segment.address + segment.file_size:
                start = segment.offset + address - segment.address
                return self._content[start : start + count]
        raise AssertionError(f"nothing is loaded at {address:#x}")
