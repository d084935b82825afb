"""What a proxy needs in its environment to run with one of the tests' libraries before all others."""

import os

from . import programs


def environment(directory, name, **variables):
    """Builds programs/<name>.c in `directory`; returns the environment for Proxy(env=...)."""
    # The address sanitizer's own library does not mind that another one comes first.
    options = ":".join(filter(None, [os.environ.get("ASAN_OPTIONS"), "verify_asan_link_order=0"]))
    return {"LD_PRELOAD": str(programs.build_library(directory, name)), "ASAN_OPTIONS": options, **variables}
