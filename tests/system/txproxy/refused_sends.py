"""Sends of a proxy that the kernel seems to refuse, one destination's: see programs/refuse_sends.c."""

from . import preload


class RefusedSends:
    """`env` is for the proxy; begin() and end() are the time of the fault."""

    def __init__(self, folder, directory):
        """The library is built in `folder`, unless it is there; `directory` is the test's own."""
        self._wanted, self._staged = directory / "refused", directory / "staged"
        self._counts = preload.shared_words(directory / "refused_counts", 3)
        self.env = preload.environment(
            folder,
            "refuse_sends",
            REFUSED_SENDS=str(self._wanted),
            REFUSED_SENDS_COUNTS=str(directory / "refused_counts"),
        )

    def begin(self, address, error, kind="all", every=1):
        self._staged.write_text(f"{address} {error} {kind} {every}", encoding="ascii")
        self._staged.rename(self._wanted)

    def end(self):
        self._wanted.unlink()

    @property
    def trains(self):
        """Messages of several datagrams that were refused."""
        return self._counts[0]

    @property
    def others(self):
        return self._counts[1]

    @property
    def parts(self):
        """Calls for several messages that have taken only the first of them."""
        return self._counts[2]
