"""The samples of a soak as a table, as a plot of letters, and as a picture.

The table has everything; plots are drawn to the scale of what comes after the warm-up, as that is what has to be flat.
"""

import csv
import statistics

import soak_figures

TEXT_COLUMNS = 72
TEXT_ROWS = 8
PICTURE_NEEDS = "curves.png was not drawn: it needs the Debian package python3-matplotlib"


def per_datagram(samples):
    """(seconds, microseconds) of each block of samples."""
    blocks = soak_figures.in_blocks(samples, min(TEXT_COLUMNS, max(len(samples) // 5, 1)))
    pairs = [(block[-1].seconds, soak_figures.microseconds_per_datagram(block)) for block in blocks]
    return [(seconds, statistics.median(values)) for seconds, values in pairs if values]


def series(samples):
    """Every curve as (name, unit, seconds, values)."""
    seconds = [sample.seconds for sample in samples]
    curves = [
        (name, unit, seconds, [getattr(sample, field) for sample in samples])
        for name, unit, field in (
            ("resident memory", "KiB", "rss_kib"),
            ("proportional memory", "KiB", "pss_kib"),
            ("heap", "KiB", "heap_kib"),
            ("descriptors", "", "descriptors"),
            ("threads", "", "threads"),
            ("streams", "", "streams"),
        )
    ]
    cpu = per_datagram(samples)
    return curves + [("processor time a datagram", "us", [pair[0] for pair in cpu], [pair[1] for pair in cpu])]


def write_table(samples, path):
    with open(path, "w", encoding="ascii", newline="") as file:
        writer = csv.writer(file)
        writer.writerow(soak_figures.Sample._fields)
        writer.writerows([format(value, ".10g") for value in sample] for sample in samples)


def text_plot(name, unit, seconds, values):
    """One curve in letters: each column holds the mean of its part of the run."""
    columns = [statistics.fmean(part) for part in soak_figures.in_blocks(values, TEXT_COLUMNS) if part]
    low, high = min(columns), max(columns)
    step = (high - low) / (TEXT_ROWS - 1) or 1
    rows = [round((value - low) / step) for value in columns]
    lines = [f"{name}{f' ({unit})' if unit else ''}, {low:.6g} to {high:.6g}"]
    for row in reversed(range(TEXT_ROWS)):
        marks = "".join("*" if row == mark else " " for mark in rows)
        lines.append(f"{low + row * step:12.6g} |{marks}".rstrip())
    begin, end = (f"{second:.0f} s" for second in (seconds[0], seconds[-1]))
    return "\n".join(lines + [f"{begin:>13} +{'-' * len(columns)} {end}"])


def write_text(samples, path):
    plots = [text_plot(*curve) for curve in series(soak_figures.after_warm_up(samples)) if curve[3]]
    path.write_text("\n\n".join(plots) + "\n", encoding="ascii")


def write_picture(samples, figures, path):
    """Returns an empty text, or why there is no picture."""
    try:
        import matplotlib  # pylint: disable=import-outside-toplevel

        matplotlib.use("Agg")
        from matplotlib import pyplot  # pylint: disable=import-outside-toplevel
    except ImportError:
        return PICTURE_NEEDS
    curves = [curve for curve in series(samples) if curve[3]]
    picture, places = pyplot.subplots(len(curves), 1, sharex=True, figsize=(10, 1.9 * len(curves) + 1.5))
    warm = soak_figures.after_warm_up(samples)[0].seconds
    for place, (name, unit, seconds, values) in zip(places, curves):
        kept = [value for second, value in zip(seconds, values) if second >= warm]
        room = 0.1 * (max(kept) - min(kept)) or 1
        place.plot([second / 60 for second in seconds], values, linewidth=0.9)
        place.axvspan(samples[0].seconds / 60, warm / 60, color="0.9")
        place.set_ylim(min(kept) - room, max(kept) + room)
        place.set_ylabel(unit or "count")
        place.set_title(name, loc="left", fontsize=10)
        place.ticklabel_format(axis="y", style="plain", useOffset=False)
        place.yaxis.get_major_locator().set_params(integer=not unit)
        place.grid(alpha=0.3)
    places[-1].set_xlabel("minutes (grey: warm-up, may be out of scale)")
    texts = [f"{'flat' if figure.is_flat else 'NOT FLAT'}: {figure.text}" for figure in figures]
    picture.suptitle("\n".join(texts), x=0.02, ha="left", fontsize=9)
    picture.tight_layout()
    picture.savefig(path, dpi=90)
    pyplot.close(picture)
    return ""
