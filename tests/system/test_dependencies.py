"""The proxy links the C library and the C++ library, and nothing that these two do not bring."""

import pathlib
import subprocess

import pytest

from txproxy.proxy import binary

ALLOWED = {"linux-vdso", "ld-linux-x86-64", "ld-linux-aarch64", "libc", "libstdc++", "libm", "libgcc_s"}


@pytest.mark.release_only
def test_only_libc_and_libstdcxx_are_linked():
    listing = subprocess.run(["ldd", binary()], check=True, capture_output=True, text=True).stdout
    names = {pathlib.Path(line.split()[0]).name.partition(".so")[0] for line in listing.splitlines()}
    assert "libc" in names
    assert names <= ALLOWED
