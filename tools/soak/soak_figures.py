"""What the samples of a soak say: whether memory, descriptors, threads and processor time stayed flat.

Memory is fitted with a straight line over time, and with the number of streams beside it, as each stream has an
engine of its own. Neighbouring samples tell the same, so blocks of them are averaged first; the error of the slope
follows from how the blocks scatter around the line. A limit is passed only if the figure exceeds it by three errors.
"""

import collections
import math
import statistics

# A sample: seconds since the start; KiB; numbers; seconds of all threads on a processor; datagrams since the start.
Sample = collections.namedtuple(
    "Sample", "seconds rss_kib pss_kib heap_kib descriptors threads streams cpu_seconds delivered"
)
Line = collections.namedtuple("Line", "slope error")
Figure = collections.namedtuple("Figure", "text is_flat")

# The proxy touches its buffers for the first time until all have come round: with this load it takes a minute for the
# 1024 of each listener.
WARM_UP_SHARE = 0.5
LONGEST_WARM_UP_SECONDS = 120
BLOCKS = 24
ERRORS = 3

# A record of 100 bytes lost with each stream that goes, one in 5 s, is 70 KiB an hour.
HEAP_KIB_PER_HOUR = 64
# The allocator may come to need room for two more streams of 100 KiB at once, at any time of the run, and does not
# give it back: that is no leak, however short the run.
RESIDENT_STEP_KIB = 256
# A client of the control socket comes and goes between two looks.
DESCRIPTORS_OF_CLIENTS = 1
# What other programs on the machine do to the caches. A table that grows makes far more of it.
CPU_GROWTH = 0.15


def after_warm_up(samples):
    begin = samples[0].seconds
    length = min(WARM_UP_SHARE * (samples[-1].seconds - begin), LONGEST_WARM_UP_SECONDS)
    return [sample for sample in samples if sample.seconds >= begin + length]


def in_blocks(samples, count=BLOCKS):
    """At most `count` runs of neighbours, of about the same length."""
    count = min(count, len(samples))
    bounds = [len(samples) * i // count for i in range(count + 1)]
    return [samples[begin:end] for begin, end in zip(bounds, bounds[1:])]


def means(samples, field):
    return [statistics.fmean(getattr(sample, field) for sample in block) for block in in_blocks(samples)]


def without(values, others):
    """What is left of the values when their mean, and what goes in proportion with the others, is taken away."""
    mean, mean_other = statistics.fmean(values), statistics.fmean(others)
    power = sum((other - mean_other) ** 2 for other in others)
    share = sum((v - mean) * (o - mean_other) for v, o in zip(values, others)) / power if power else 0
    return [(v - mean) - share * (o - mean_other) for v, o in zip(values, others)]


def slope_per_hour(samples, field):
    """The growth of a field that does not go with the number of streams."""
    streams = means(samples, "streams")
    values = without(means(samples, field), streams)
    hours = without([second / 3600 for second in means(samples, "seconds")], streams)
    power = sum(hour * hour for hour in hours)
    if len(values) < 4 or power == 0:
        return Line(0.0, math.inf)
    slope = sum(hour * value for hour, value in zip(hours, values)) / power
    rest = sum((value - slope * hour) ** 2 for hour, value in zip(hours, values))
    return Line(slope, math.sqrt(rest / (len(values) - 3) / power))


def memory_figure(samples, field, name, limit):
    line = slope_per_hour(samples, field)
    text = f"{name}: {line.slope:+.1f} KiB/h (error {line.error:.1f}, limit {limit:.0f})"
    return Figure(text, line.slope - ERRORS * line.error <= limit)


def resident_limit(samples):
    """A step in the middle of the run looks like this slope, 3/2 of its height over the run's length."""
    hours = (samples[-1].seconds - samples[0].seconds) / 3600
    return max(HEAP_KIB_PER_HOUR, 1.5 * RESIDENT_STEP_KIB / hours)


def quarters(samples):
    return in_blocks(samples, 4)


def descriptors_figure(samples):
    """Learnt and configured streams have one each; what is beyond them may not grow."""
    beyond = [min(sample.descriptors - sample.streams for sample in quarter) for quarter in quarters(samples)]
    counts = [sample.descriptors for sample in samples]
    text = f"descriptors: {min(counts)} to {max(counts)}, beyond the streams' at least {beyond[0]}, then {beyond[-1]}"
    return Figure(text, beyond[-1] <= beyond[0] + DESCRIPTORS_OF_CLIENTS)


def threads_figure(samples):
    counts = [sample.threads for sample in samples]
    return Figure(f"threads: {min(counts)} to {max(counts)}", min(counts) == max(counts))


def microseconds_per_datagram(samples):
    """One value for every two neighbours between which something was delivered."""
    pairs = zip(samples, samples[1:])
    return [
        1e6 * (after.cpu_seconds - before.cpu_seconds) / (after.delivered - before.delivered)
        for before, after in pairs
        if after.delivered > before.delivered
    ]


def cpu_figure(samples):
    first, last = (microseconds_per_datagram(quarters(samples)[i]) for i in (0, -1))
    if min(len(first), len(last)) < 2:
        return Figure("processor time a datagram: too few samples", False)
    medians = statistics.median(first), statistics.median(last)
    # Of medians, whose error is a quarter greater than that of means.
    errors = [1.25 * statistics.stdev(values) / math.sqrt(len(values)) for values in (first, last)]
    text = (
        f"processor time a datagram: {medians[0]:.2f} us in the first quarter, {medians[1]:.2f} us in the last "
        f"(errors {errors[0]:.2f}, {errors[1]:.2f})"
    )
    return Figure(text, medians[1] - medians[0] <= CPU_GROWTH * medians[0] + ERRORS * math.hypot(*errors))


def judge(samples):
    """All figures of a run, as Figure records."""
    kept = after_warm_up(samples)
    figures = [
        memory_figure(kept, "rss_kib", "resident memory", resident_limit(kept)),
        memory_figure(kept, "pss_kib", "proportional memory", resident_limit(kept)),
        descriptors_figure(kept),
        threads_figure(kept),
        cpu_figure(kept),
    ]
    if kept[0].heap_kib:
        figures.insert(0, memory_figure(kept, "heap_kib", "heap", HEAP_KIB_PER_HOUR))
    return figures
