"""What a proxy needs to run with one of the tests' libraries before all others, and what such a library shares."""

import ctypes
import mmap
import os

from . import programs


def environment(directory, name, **variables):
    """Builds programs/<name>.c in `directory`, unless it is there; returns the environment for Proxy(env=...)."""
    library = directory / f"{name}.so"
    if not library.exists():
        programs.build_library(directory, name)
    # The address sanitizer's own library does not mind that another one comes first.
    options = ":".join(filter(None, [os.environ.get("ASAN_OPTIONS"), "verify_asan_link_order=0"]))
    return {"LD_PRELOAD": str(library), "ASAN_OPTIONS": options, **variables}


def shared_words(path, count):
    """Makes a file for programs/shared_words.h; returns its words, all 0, each read and written in one piece."""
    path.write_bytes(bytes(mmap.PAGESIZE))
    with path.open("r+b") as file:
        return (ctypes.c_int64 * count).from_buffer(mmap.mmap(file.fileno(), mmap.PAGESIZE))
