"""Several signals over one time vector."""

from __future__ import annotations

import collections
import math
import os

from . import _core
from ._samples import Samples
from ._types import Kind

TYPE_CHECKING = False  # Importing the module typing takes long.
if TYPE_CHECKING:
    from typing import Any, Iterable

    import numpy as np

    from ._signal import Signal

METHODS = ("previous", "nearest", "linear")


# Samples of a signal at the times of a table. `valid` tells which samples there are; None for all.
Column = collections.namedtuple("Column", "values valid unit description")


class Table:
    """Signals over one time vector: `time`, and an array for each signal.

    `Recording.table()` makes it.

    ::

        table = r.table(["speed", "torque"], 0, 60, resample=0.01)
        table.time, table["speed"]
        table.to_pandas()

    Where a signal has no sample at a time (before its first one), floating-point numbers are NaN;
    other arrays are masked. Anything that takes Arrow takes a table.
    """

    def __init__(self, time: np.ndarray, columns: dict[str, Column]):
        self.time = time
        self._columns = columns

    @property
    def names(self) -> list[str]:
        """The names of the signals."""
        return list(self._columns)

    @property
    def units(self) -> dict[str, str]:
        """The units of the signals, by name."""
        return {name: column.unit for name, column in self._columns.items()}

    def __len__(self) -> int:
        """The number of times."""
        return len(self.time)

    def __getitem__(self, name: str) -> Any:
        import numpy

        column = self._columns[name]
        if isinstance(column.values, Samples):
            return column.values if column.valid is None else _objects(*column[:2])
        if column.valid is None or column.values.dtype.kind == "f":
            return column.values
        missing = ~column.valid
        shape = column.values.shape
        mask = numpy.broadcast_to(missing.reshape(-1, *[1] * (len(shape) - 1)), shape)
        return numpy.ma.MaskedArray(column.values, mask)

    def to_numpy(self) -> dict[str, Any]:
        """The arrays by name; the times are `time`."""
        return {"time": self.time, **{name: self[name] for name in self._columns}}

    def to_pandas(self):
        """A `pandas.DataFrame` with the times as its index, and the units in `attrs["units"]`.

        Integers and truth values with missing samples get pandas' nullable types. Matrices become
        columns of arrays.
        """
        import pandas

        columns = {name: self._pandas_column(column) for name, column in self._columns.items()}
        frame = pandas.DataFrame(columns, index=pandas.Index(self.time, name="time"))
        frame.attrs["units"] = {name: unit for name, unit in self.units.items() if unit}
        return frame

    def _pandas_column(self, column):
        import pandas

        values = column.values
        if isinstance(values, Samples) or values.ndim > 1:
            return _objects(*column[:2])
        if column.valid is None or values.dtype.kind == "f":
            return values
        kind = pandas.arrays.BooleanArray if values.dtype == bool else pandas.arrays.IntegerArray
        return kind(values.copy(), ~column.valid)

    def to_polars(self):
        """A `polars.DataFrame` with the column `time`. Matrices are arrays, column by column."""
        import polars

        return polars.DataFrame(self)

    def to_arrow(self):
        """A `pyarrow.Table` with the column `time`, and the units in the fields' metadata."""
        import pyarrow

        return pyarrow.table(self)

    def to_xarray(self):
        """An `xarray.Dataset` over the dimension `time`."""
        import xarray

        data = {}
        for name, column in self._columns.items():
            values = column.values
            if isinstance(values, Samples):
                values = _objects(*column[:2])
            elif column.valid is not None and values.dtype.kind != "f":
                values = self[name].astype(float).filled(math.nan)
            data[name] = (dimensions("time", name, values.ndim), values, attributes(column))
        time = ("time", self.time, {"units": "s"})
        return xarray.Dataset(data, {"time": time})

    def __arrow_c_stream__(self, requested_schema=None):
        columns = [("time", "s", self.time, None, None, False)]
        for name, column in self._columns.items():
            columns.append((name, column.unit, *_parts(column.values), column.valid, False))
            if isinstance(column.values, Samples):
                columns[-1] = (*columns[-1][:-1], column.values._are_bytes)
        return _core.stream_of_columns(columns)

    def __arrow_c_schema__(self):
        return _core.schema_of(self.__arrow_c_stream__())

    def __repr__(self):
        return f"<kyr.Table: {len(self)} times of {', '.join(map(repr, self._columns))}>"


def _parts(values):
    """Elements, and how they belong to samples: None, a number of them, or offsets."""
    import numpy

    if isinstance(values, Samples):
        return values.elements, numpy.ascontiguousarray(values.offsets)
    if values.ndim == 1:
        return numpy.ascontiguousarray(values), None
    # Column by column, as they are stored.
    back = values.transpose(0, *range(values.ndim - 1, 0, -1))
    return numpy.ascontiguousarray(back).reshape(-1), math.prod(values.shape[1:])


def _objects(samples, valid):
    """An array of samples; None for those that are missing."""
    import numpy

    objects = numpy.empty(len(samples), object)
    for row, sample in enumerate(samples):
        objects[row] = sample if valid is None or valid[row] else None
    return objects


def dimensions(time, name, count):
    """Names of dimensions: the time's, and one for each index of a matrix."""
    return (time, *(f"{name}.{index}" for index in range(count - 1)))


def attributes(signal):
    """What xarray keeps with a variable."""
    texts = {"units": signal.unit, "long_name": signal.description}
    return {key: text for key, text in texts.items() if text}


# ---- making tables -------------------------------------------------------------------------------


def check_resampling(resample, method):
    """The step [s] of a grid; None for the times of all signals."""
    if method not in METHODS:
        raise ValueError(f"method = {method!r}: expected is one of {', '.join(map(repr, METHODS))}")
    if resample == "union":
        return None
    step = float(resample) if not isinstance(resample, (str, bool)) else math.nan
    if not step > 0:
        raise ValueError(f'resample = {resample!r}: expected is a step in seconds, or "union"')
    return step


def bounds(start, stop):
    return (
        -math.inf if start is None else float(start),
        math.inf if stop is None else float(stop),
    )


def table_of(
    signals: dict[str, Signal], start: Any, stop: Any, resample: Any, method: str
) -> Table:
    """A table of the signals between two times."""
    if not signals:
        raise ValueError("a table needs a signal at least")
    for name, signal in signals.items():
        _, has_times, has_samples = signal._extent()
        if not has_times or not has_samples:
            raise ValueError(f"signal {name!r} lacks times or samples, so it fits no table")
    if resample is None:
        return _as_they_are(signals, start, stop)
    step = check_resampling(resample, method)
    recording = next(iter(signals.values())).recording
    ids = [signal.id for signal in signals.values()]
    times, places = _core.resample(recording._reader, ids, step, *bounds(start, stop))
    columns = {
        name: Column(
            *_at(signal, *places[signal.id], method), signal.unit, signal.description
        )
        for name, signal in signals.items()
    }
    return Table(times, columns)


def _as_they_are(signals, start, stop):
    import numpy

    columns = {}
    times = None
    for name, signal in signals.items():
        t, y = signal.read(start, stop)
        if times is None:
            times, first = t, name
        elif not (t is times or numpy.array_equal(t, times)):
            raise ValueError(
                f"{first!r} and {name!r} have different times: give resample=0.01, say, or "
                'resample="union"'
            )
        columns[name] = Column(y, None, signal.unit, signal.description)
    return Table(times, columns)


def _at(signal, before, after, part, is_at_before, method):
    """Samples at places between two samples, and which of them there are."""
    import numpy

    is_linear = method == "linear" and signal.dtype.kind == "f"
    is_linear = is_linear and signal._kind in (Kind.number, Kind.matrix)
    rows = before
    if method == "nearest":
        rows = numpy.where((before < 0) | ((after >= 0) & (part > 0.5)), after, before)
    known = rows[rows >= 0]
    if len(known) == 0:
        valid = numpy.zeros(len(rows), bool)
        return numpy.full((len(rows), *(signal.shape or ())), math.nan, "float64"), valid
    low = int(known.min())
    high = int(max(known.max(), after.max() if is_linear else 0)) + 1
    samples = signal._samples(low, high)
    valid = rows >= 0
    if is_linear:
        valid &= is_at_before.astype(bool) | (after >= 0)
    index = numpy.maximum(rows - low, 0)
    if isinstance(samples, Samples):
        values = samples._take(index)
    else:
        values = samples[index]
        if is_linear:
            values = values.astype("float64")
            next_ = samples[numpy.maximum(after - low, 0)].astype("float64")
            weight = part.reshape(-1, *[1] * (values.ndim - 1))
            with numpy.errstate(invalid="ignore", over="ignore"):
                between = values + (next_ - values) * weight
            is_exact = is_at_before.astype(bool).reshape(weight.shape)
            values = numpy.where(is_exact, values, between)
        if values.dtype.kind == "f":
            values[~valid] = math.nan
    return values, None if valid.all() else valid


def resampled(signal: Signal, step: Any, method: str, start: Any, stop: Any) -> tuple[Any, Any]:
    """Times and samples of one signal on a grid."""
    table = table_of({signal.name: signal}, start, stop, step, method)
    return table.time, table[signal.name]


def chosen(recording, names: str | Iterable[str] | None) -> dict[str, Signal]:
    """Signals by name: those named, or all."""
    if names is None:
        return dict(recording)
    if isinstance(names, (str, os.PathLike)):
        names = [names]
    return {name: recording[name] for name in names}
