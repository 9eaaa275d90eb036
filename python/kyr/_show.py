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
