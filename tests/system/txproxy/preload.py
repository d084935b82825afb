"""What a proxy needs in its environment to run with one of the tests' libraries before all others."""

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
