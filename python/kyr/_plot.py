"""Plots on matplotlib that read what they show, and no more."""

from __future__ import annotations

from ._types import Kind

TYPE_CHECKING = False  # Importing the module typing takes long.
if TYPE_CHECKING:
    from typing import Any

    from ._signal import Signal

_INTEGERS_AND_BOOL = "iub"  # kinds of numpy, drawn as steps


def _pyplot() -> Any:
    try:
        import matplotlib.pyplot
    except ImportError as error:
        raise ImportError("plot() needs matplotlib: pip install matplotlib") from error
    return matplotlib.pyplot


def _columns_of(axes) -> int:
    return max(100, min(8000, int(axes.get_window_extent().width)))


class _LiveLine:
    """A line that is read anew when its axes show another window."""

    def __init__(self, axes, signal: Signal, element, style):
        self.signal = signal
        self.element = element
        self.window = None
        t, y = self.points(axes, None, None)
        if signal.dtype.kind in _INTEGERS_AND_BOOL:
            style = {"drawstyle": "steps-post", **style}
        unit = f" [{signal.unit}]" if signal.unit else ""
        # matplotlib leaves names that begin with "_" out of legends, and "$" begins a formula.
        name = signal.name.replace("$", r"\$")
        (self.line,) = axes.plot(t, y, **{"label": f"{name}{unit}".lstrip("_"), **style})
        # matplotlib forgets methods whose object nobody else keeps, but no functions.
        axes.callbacks.connect("xlim_changed", lambda changed: self.update(changed))

    def points(self, axes, start, stop):
        columns = _columns_of(axes)
        return self.signal.envelope(start, stop, columns=columns, element=self.element).line

    def update(self, axes):
        window = (*sorted(axes.get_xlim()), _columns_of(axes))
        is_gone = self.line.axes is None or self.signal.recording.closed
        if window == self.window or is_gone:
            return
        self.window = window
        self.line.set_data(*self.points(axes, *window[:2]))


def _require_numbers(signal: Signal) -> None:
    if signal._kind is Kind.bytes:
        raise TypeError(f"signal {signal.name!r} has bytes and no numbers to plot")


def plot_signal(signal: Signal, axes: Any, element: Any, style: dict[str, Any]) -> Any:
    _require_numbers(signal)
    if axes is None:
        _, axes = _pyplot().subplots()
        axes.set_xlabel("time [s]" if signal.span else "row")
        axes.set_ylabel(signal.unit)
    elif not hasattr(axes, "get_xlim"):
        raise TypeError(f"ax = {axes!r}: axes of matplotlib are expected, or None")
    _LiveLine(axes, signal, element, style)
    axes.legend(loc="upper right")
    return axes


def plot_signals(signals: list[Signal], style: dict[str, Any]) -> list[Any]:
    """A plot for each unit, over the same times."""
    if not signals:
        raise ValueError("there is no signal to plot")
    for signal in signals:
        _require_numbers(signal)
    units = list(dict.fromkeys(signal.unit for signal in signals))
    _, grid = _pyplot().subplots(len(units), sharex=True, squeeze=False)
    plots = list(grid[:, 0])
    for signal in signals:
        plot_signal(signal, plots[units.index(signal.unit)], 0, style)
    for plot, unit in zip(plots, units):
        plot.set_ylabel(unit)
    plots[-1].set_xlabel("time [s]")
    return plots
