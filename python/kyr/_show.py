"""How recordings and signals show themselves."""

from __future__ import annotations

from . import _core

_SHOWN = 20
_HEADS = ("name", "unit", "type", "shape", "rows")


def table_text(recording) -> str:
    """A heading, and a line for each signal; of many, the first and the last ones."""
    rows = [_HEADS, *(cells for cells in _rows(recording))]
    widths = [max(len(row[i]) for row in rows) for i in range(len(_HEADS))]
    lines = []
    for row in rows:
        cells = [cell.ljust(width) for cell, width in zip(row[:-1], widths)]
        lines.append("  " + "  ".join([*cells, row[-1].rjust(widths[-1])]))
    return "\n".join([f"{heading(recording)}:", *lines])


def table_html(recording) -> str:
    """The same as a table for notebooks."""
    import html

    def line(cells, tag):
        return "<tr>" + "".join(f"<{tag}>{html.escape(cell)}</{tag}>" for cell in cells) + "</tr>"

    body = "".join(line(cells, "td") for cells in _rows(recording))
    head = f"<p>{html.escape(heading(recording))}</p>"
    return f"{head}<table><thead>{line(_HEADS, 'th')}</thead><tbody>{body}</tbody></table>"


def signal_html(signal) -> str:
    """What a signal is and a small curve of it, for notebooks."""
    import html

    name, unit, kind, size, rows = _cells(signal.name, signal)
    facts = ", ".join(each for each in (kind, size, f"{rows} rows") if each)
    title = f"<b>{html.escape(name)}</b> {html.escape(f'[{unit}]' if unit else '')}"
    return f"<p>{title}: {html.escape(facts)}<br>{_curve(signal)}</p>"


def _curve(signal, width=600, height=80) -> str:
    """An SVG picture; nothing for bytes, for damaged signals, and where all rows would be read."""
    most_rows = 4_000_000
    try:
        if signal.dtype == object or not 0 < len(signal) <= most_rows:
            return ""
        t, y = signal.envelope(columns=width // 2).line
    except _core.DamagedError:
        return ""
    import numpy

    is_finite = numpy.isfinite(t) & numpy.isfinite(y)
    if not is_finite.any():
        return ""
    low, high = y[is_finite].min(), y[is_finite].max()
    first, last = t[is_finite].min(), t[is_finite].max()
    x = (t / 2 - first / 2) / ((last / 2 - first / 2) or 1) * width
    y = height - 2 - (y / 2 - low / 2) / ((high / 2 - low / 2) or 1) * (height - 4)
    path, begins = [], True
    for place, level, is_shown in zip(x.tolist(), y.tolist(), is_finite.tolist()):
        if is_shown:
            path.append(f"{'M' if begins else 'L'}{place:.1f} {level:.1f}")
        begins = not is_shown
    return (
        f'<svg width="{width}" height="{height}"><path d="{"".join(path)}" fill="none" '
        'stroke="#0072b2" stroke-width="1.2" stroke-linecap="round"/></svg>'
    )


def heading(recording) -> str:
    state = "" if recording.state == "finished" else f", {recording.state}"
    count = len(recording)
    return f"kyr recording {recording.path}: {count} signal{'s' * (count != 1)}{state}"


def _rows(recording):
    signals = list(recording.items())
    left_out = len(signals) - _SHOWN if len(signals) > _SHOWN + 1 else 0
    for name, signal in signals[: _SHOWN // 2 if left_out else None]:
        yield _cells(name, signal)
    if left_out:
        yield (f"... {left_out} more ...", "", "", "", "")
        for name, signal in signals[-_SHOWN // 2 :]:
            yield _cells(name, signal)


def _cells(name, signal):
    try:
        shape, rows = signal.shape, str(len(signal))
    except _core.DamagedError:
        shape, rows = None, "damaged"
    kind = "bytes" if signal.dtype == object else signal.dtype.name
    size = "varying" if shape is None else "x".join(map(str, shape))
    return name, signal.unit, kind, "" if kind == "bytes" else size, rows
