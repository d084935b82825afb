"""The proxy is one file to copy to a target machine: of shared libraries it needs the C library's alone."""

import pathlib
import subprocess

import pytest

from txproxy.proxy import binary

LOADED_ALWAYS = {"linux-vdso", "ld-linux-x86-64", "ld-linux-aarch64"}


@pytest.mark.release_only
def test_nothing_but_the_c_library_is_loaded_not_even_the_cxx_runtime():
    listing = subprocess.run(["ldd", binary()], check=True, capture_output=True, text=True).stdout
    names = {pathlib.Path(line.split()[0]).name.partition(".so")[0] for line in listing.splitlines()}
    assert "libc" in names
    assert names <= LOADED_ALWAYS | {"libc", "libm"}
