"""Further proxies beside the one that the fixtures start, each with an instance number and ports of its own."""

from . import ports
from .receiver import Receiver, Sender


def reserve(closing):
    """The instance number and ports of a proxy that is started later, so that its files can be made first."""
    return closing(ports.Lease()).for_proxy()


def start(launch, where, *options, group=None, **keywords):
    """Starts a proxy on reserved ports and waits until it is ready."""
    arguments = ["-I", where.instance, "-p", where.destination, "-r", where.request, *options, where.input]
    return launch(*arguments, *([group] if group else []), **keywords).wait_ready()


def sender_to(closing, where, **keywords):
    return closing(Sender("127.0.0.1", where.input, **keywords))


def receiver_of(closing, where, address="127.0.0.2", **keywords):
    return closing(Receiver(address, where.destination, **keywords))
