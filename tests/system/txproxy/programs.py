"""Programs and libraries of the tests in C and C++, compiled when a test needs them."""

import concurrent.futures
import os
import pathlib
import shutil
import subprocess

FOLDER = pathlib.Path(__file__).resolve().parent.parent / "programs"


def build(directory, name, *parts):
    """Compiles programs/<name>.c, and <part>.c for each part, to an executable in `directory`; returns its path."""
    path = directory / name
    sources = [FOLDER / f"{source}.c" for source in (name, *parts)]
    subprocess.run(["cc", "-O2", "-Wall", "-Wextra", "-pthread", "-o", path, *sources], check=True)
    return path


def build_folder(directory, name):
    """Compiles the C++ program whose sources are in programs/<name>/ to an executable; returns its path.

    Most of a minute on a busy machine, so ccache keeps what it has seen, if it is there.
    """
    compiler = ["ccache", "c++"] if shutil.which("ccache") else ["c++"]
    flags = ["-std=c++20", "-O1", "-Wall", "-Wextra", "-pthread"]
    sources = sorted((FOLDER / name).glob("*.cpp"))
    objects = [directory / f"{name}_{source.stem}.o" for source in sources]

    def compile_one(source, target):
        subprocess.run([*compiler, *flags, "-c", "-o", target, source], check=True)

    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        list(pool.map(compile_one, sources, objects))
    path = directory / name
    subprocess.run(["c++", "-pthread", "-o", path, *objects], check=True)
    return path


def build_library(directory, name):
    """Compiles programs/<name>.c to a shared library in `directory`; returns its path."""
    path = directory / f"{name}.so"
    flags = ["-O1", "-Wall", "-Wextra", "-shared", "-fPIC"]
    subprocess.run(["cc", *flags, "-o", path, FOLDER / f"{name}.c", "-ldl"], check=True)
    return path
