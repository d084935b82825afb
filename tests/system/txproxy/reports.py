"""What a proxy says about itself: the reports of the control socket and the debug dump."""

import re

from .control import request
from .raw_control import converse
from .waiting import wait_until

DUMP_FIELDS = (
    "m_bRunning",
    "m_usSeqNum",
    "m_nNumStreams",
    "m_impair.m_mode",
    "m_impair.m_dist.m_value",
    "m_impair.m_burst.m_value",
    "m_nDropPacket",
)
# Line by line: messages of other threads may come between.
DUMP_LINES = [re.compile(rf"^{re.escape(name)} (-?\d+)$", re.MULTILINE) for name in DUMP_FIELDS]
ALL_STATS = re.compile(
    r"RECV_PACKETS=(?P<RECV_PACKETS>\d+)\nRECV_BITRATE=(?P<RECV_BITRATE>-?\d+)\nRECV_LOSS=(?P<RECV_LOSS>-?\d+)\n"
    r"SEND_PACKETS=(?P<SEND_PACKETS>\d+)\nSEND_BITRATE=(?P<SEND_BITRATE>-?\d+)\nCLIENTS=(?P<CLIENTS>.*)"
)
RX_STAT = re.compile(r"NET_TOTAL_PACKETS=(\d+)\nNET_LOSS=(-?\d+)\n")


def all_stats(instance):
    """The AllStats report as {name: number}, CLIENTS as a text."""
    match = ALL_STATS.fullmatch(request(instance, "AllStats"))
    assert match
    fields = match.groupdict()
    return {name: text if name == "CLIENTS" else int(text) for name, text in fields.items()}


def rx_stat(instance):
    """(packets, loss) as RxStat reports them."""
    match = RX_STAT.fullmatch(request(instance, "RxStat"))
    assert match
    return int(match.group(1)), int(match.group(2))


def dumps(proxy):
    """All complete debug dumps so far, each as a tuple of texts."""
    text = proxy.stderr.text
    return list(zip(*(line.findall(text) for line in DUMP_LINES)))


def debug_dump(proxy, instance):
    """Asks for a debug dump and returns it as {name: number}."""
    before = len(dumps(proxy))
    assert converse(instance, b"Debug") == ""
    wait_until(lambda: len(dumps(proxy)) > before, lambda: f"a debug dump; got:\n{proxy.stderr.text}")
    return dict(zip(DUMP_FIELDS, map(int, dumps(proxy)[before])))
