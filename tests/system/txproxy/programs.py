"""Small C programs and libraries of the tests, compiled when a test needs them."""

import pathlib
import subprocess

FOLDER = pathlib.Path(__file__).resolve().parent.parent / "programs"


def build(directory, name, *parts):
    """Compiles programs/<name>.c, and <part>.c for each part, to an executable in `directory`; returns its path."""
    path = directory / name
    sources = [FOLDER / f"{source}.c" for source in (name, *parts)]
    subprocess.run(["cc", "-O2", "-Wall", "-Wextra", "-pthread", "-o", path, *sources], check=True)
    return path


def build_library(directory, name):
    """Compiles programs/<name>.c to a shared library in `directory`; returns its path."""
    path = directory / f"{name}.so"
    flags = ["-O1", "-Wall", "-Wextra", "-shared", "-fPIC"]
    subprocess.run(["cc", *flags, "-o", path, FOLDER / f"{name}.c", "-ldl"], check=True)
    return path
