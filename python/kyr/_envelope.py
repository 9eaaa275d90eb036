"""What a plot of some columns shows of a signal."""

from __future__ import annotations

import collections
import math
import operator

from ._types import Kind

TYPE_CHECKING = False  # Importing the module typing takes long.
if TYPE_CHECKING:
    from typing import Any

    from ._signal import Signal

_FIELDS = 11  # numbers of a column, as _core gives them


class Envelope(collections.namedtuple("Envelope", "t min max first last rows nans line")):
    """The columns of a window that have rows, as arrays of equal length.

    `t` is the time of the first row of each column [s]; `min` and `max` leave NaN out, `first` and
    `last` may be NaN; `rows` and `nans` are counts. `line` is the pair of times and values to draw:
    up to four corners of each column, and the rows beside the window.
    """

    __slots__ = ()


def element_number(signal: Signal, element: int | tuple[int, ...]) -> int:
    """The place of an element in memory, where the first index runs fastest."""
    if not isinstance(element, tuple):
        number = operator.index(element)
        if number < 0:
            raise IndexError(f"element {number} of signal {signal.name!r}: they count from 0")
        return number
    shape = signal.shape
    if shape is None or len(element) != len(shape):
        raise IndexError(f"element {element} of signal {signal.name!r}, whose shape is {shape}")
    number, stride = 0, 1
    for index, extent in zip(element, shape):
        if not 0 <= index < extent:
            raise IndexError(f"element {element} of signal {signal.name!r}, whose shape is {shape}")
        number += index * stride
        stride *= extent
    return number


def window_of(signal: Signal, start: float | None, stop: float | None) -> tuple[float, float]:
    """The window [s], by default that of all rows; of row numbers if there are no times."""
    span = signal.span or (0.0, float(max(len(signal) - 1, 0)))
    most = float(1e308)
    low = span[0] if start is None else float(start)
    high = span[1] if stop is None else float(stop)
    if math.isnan(low) or math.isnan(high) or low > high:
        raise ValueError(f"start = {start}, stop = {stop}: no time lies between them")
    return max(-most, min(low, most)), max(-most, min(high, most))


def envelope_of(
    signal: Signal,
    start: float | None,
    stop: float | None,
    columns: int,
    element: int | tuple[int, ...],
) -> Envelope:
    if signal._kind is Kind.bytes:
        raise TypeError(f"signal {signal.name!r} has bytes and no numbers to plot")
    low, high = window_of(signal, start, stop)
    number = element_number(signal, element)
    numbers, beside = signal._reader.envelope(signal.id, low, high, columns, number)
    table = numbers.reshape(-1, _FIELDS)
    _, rows, nans, first_t, first, min_t, least, max_t, most, last_t, last = table.T
    line = _line(first_t, first, min_t, least, max_t, most, last_t, last, beside)
    counts = (rows.astype("uint64"), nans.astype("uint64"))
    return Envelope(first_t, least, most, first, last, *counts, line)


def _line(first_t, first, min_t, least, max_t, most, last_t, last, beside) -> Any:
    import numpy

    is_min_first = ~(min_t > max_t)
    has_none = numpy.isnan(least)  # all values of the column are NaN
    t = [
        first_t,
        numpy.where(has_none, first_t, numpy.where(is_min_first, min_t, max_t)),
        numpy.where(has_none, last_t, numpy.where(is_min_first, max_t, min_t)),
        last_t,
    ]
    y = [
        first,
        numpy.where(is_min_first, least, most),
        numpy.where(is_min_first, most, least),
        last,
    ]
    t = numpy.stack(t, axis=1).ravel()
    y = numpy.stack(y, axis=1).ravel()
    is_new = numpy.ones(len(t), dtype=bool)
    is_new[1:] = (t[1:] != t[:-1]) | (
        (y[1:] != y[:-1]) & ~(numpy.isnan(y[1:]) & numpy.isnan(y[:-1]))
    )
    t, y = t[is_new], y[is_new]
    before, after = beside[:2], beside[2:]
    if not math.isnan(before[0]):
        t, y = numpy.insert(t, 0, before[0]), numpy.insert(y, 0, before[1])
    if not math.isnan(after[0]):
        t, y = numpy.append(t, after[0]), numpy.append(y, after[1])
    return t, y
