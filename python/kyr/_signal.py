"""One signal of a recording."""

from __future__ import annotations

import operator
import weakref

from . import _core, _show
from ._envelope import Envelope, envelope_of
from ._plot import plot_signal
from ._samples import Samples
from ._table import bounds, resampled
from ._types import DTYPES, Kind, as_samples, kind_of

TYPE_CHECKING = False  # Importing the module typing takes long.
if TYPE_CHECKING:
    from typing import Any, Iterator

    import numpy as np

    from ._recording import Recording

_ALL = 2**64 - 1
_NO_SHAPE: Any = object()


class Signal:
    """A signal of a recording: a time vector, and a sample for each time.

    It is a handle, which loads nothing by itself.

    ::

        t, y = s.read()            # everything, as numpy arrays
        t, y = s.read(10, 20)      # from 10 s to 20 s, both ends included
        s[1000:2000]               # samples by row, as with a numpy array
        s.time, s.values           # the same, whole

    Arrays are read-only. Samples of n rows have the shape (n,) for numbers and (n, rows, columns)
    for matrices. Samples that differ in size come as a `Samples` sequence, blobs as one of `bytes`.
    A row counts if it has a time and a sample; a signal with times alone, or samples alone, has
    `None` in place of what it lacks.

    Anything that takes Arrow takes a signal: `polars.DataFrame(s)`, `pyarrow.table(s)`, or `from s`
    in DuckDB. The columns are `time` and `value`; matrices are lists there, column by column.
    """

    __slots__ = ("_recording", "_info", "_kind", "_shape", "_values", "__weakref__")

    def __init__(self, recording: Recording, info: _core.SignalInfo):
        self._recording = recording
        self._info = info
        self._kind = kind_of(info.data_type, info.category)
        self._shape = _NO_SHAPE
        self._values: Any = None

    # ---- what it is ----------------------------------------------------------------------------

    @property
    def recording(self) -> Recording:
        """The recording that the signal is of."""
        return self._recording

    @property
    def id(self) -> int:
        """The number of the signal, which no other one in the recording has."""
        return self._info.id

    @property
    def name(self) -> str:
        """The name as recorded. Several signals may have the same."""
        return self._info.name

    @property
    def unit(self) -> str:
        """The unit, such as "m/s"; empty if unknown or none."""
        return self._info.unit

    @property
    def description(self) -> str:
        """Free text; may be empty."""
        return self._info.description

    @property
    def dtype(self) -> np.dtype:
        """The type of an element; `object` if each sample is `bytes`."""
        import numpy

        return numpy.dtype(DTYPES.get(self._info.data_type, object))

    @property
    def shape(self) -> tuple[int, ...] | None:
        """The shape of a sample: () for numbers, None if it differs from sample to sample."""
        if self._shape is _NO_SHAPE:
            shape = self._find_shape()
            if shape == (0,) and self._kind is Kind.matrix:
                return shape  # Nobody told it, and no sample shows it yet.
            self._shape = shape
        return self._shape

    def _find_shape(self):
        if self._kind is Kind.number:
            return ()
        if self._kind is not Kind.matrix:
            return None
        if self._info.dimensions:
            return tuple(self._info.dimensions)
        return (self._reader.elements_per_sample(self.id),)

    def __len__(self) -> int:
        """The number of rows."""
        return self._reader.counts(self._info.id)[0]

    @property
    def span(self) -> tuple[float, float] | None:
        """Smallest and largest time [s]; None without times."""
        return self._reader.time_span(self.id)

    @property
    def same_as(self) -> list[str]:
        """Names of the other signals that share this one's samples, because they are equal."""
        names = self._recording._names
        same = self._reader.with_same_samples(self.id)
        return [names[i] for i in same if i != self.id and i in names]

    # ---- reading -------------------------------------------------------------------------------

    def read(self, start: float | None = None, stop: float | None = None) -> tuple[Any, Any]:
        """Times [s] and samples between two times [s], both ends included; without them, all."""
        extent = self._extent()
        parts = [self._rows(*rows, extent) for rows in self._ranges(start, stop, extent)]
        if len(parts) == 1:
            return parts[0]
        if not parts:
            return self._rows(0, 0, extent)
        return _join([t for t, _ in parts]), _join([y for _, y in parts])

    def chunks(
        self, rows: int = 65536, start: float | None = None, stop: float | None = None
    ) -> Iterator[tuple[Any, Any]]:
        """Walks through times and samples, so many rows at a time. Memory: two chunks."""
        if rows < 1:
            raise ValueError(f"rows = {rows}: a chunk has at least one row")
        extent = self._extent()
        for first, last in self._ranges(start, stop, extent):
            for row in range(first, last, rows):
                yield self._rows(row, min(last, row + rows), extent)

    def resample(
        self,
        step: float | str,
        method: str = "previous",
        start: float | None = None,
        stop: float | None = None,
    ) -> tuple[Any, Any]:
        """Times and samples on a grid of times.

        :param step: distance of the times [s], which start with the signal's first one
        :param method: "previous" sample, "nearest", or "linear" between two; what is not
            floating-point takes the previous sample then
        """
        return resampled(self, step, method, start, stop)

    # ---- looking at it ------------------------------------------------------------------------

    def envelope(
        self,
        start: float | None = None,
        stop: float | None = None,
        columns: int = 1000,
        element: int | tuple[int, ...] = 0,
    ) -> Envelope:
        """What a plot of so many columns shows between two times: first, last, smallest and largest
        value of each column, so that no peak is lost. See `Envelope`.

        Only windows of up to 4 million rows are read. The first longer one reads all rows and keeps
        up to 50 MB for the signal, the next ones take milliseconds.

        :param start, stop: the window [s], both ends included; all rows without them. Row numbers
            for a signal without times
        :param element: of matrices: a place in memory, or an index for each dimension
        """
        return envelope_of(self, start, stop, columns, element)

    def plot(self, ax: Any = None, *, element: int | tuple[int, ...] = 0, **style: Any) -> Any:
        """Draws the signal with matplotlib, and again whenever you zoom. Returns the axes.

        :param ax: axes to draw in; new ones if None
        :param style: what `Axes.plot` takes, such as `color="red"`
        """
        return plot_signal(self, ax, element, style)

    # ---- rows ---------------------------------------------------------------------------------

    @property
    def time(self) -> np.ndarray | None:
        """All times [s]. Kept as long as you keep the array; signals may share it."""
        rows, has_times, _ = self._extent()
        return self._times(0, rows) if has_times else None

    @property
    def values(self) -> Any:
        """All samples. Kept as long as you keep them."""
        count, _, has_samples = self._extent()
        if self._values is not None and self._values[0] == count:
            values = self._values[1]()
            if values is not None:
                return values
        values = self._samples(0, count) if has_samples else None
        if values is not None and not isinstance(values, Samples):
            self._values = (count, weakref.ref(values))
        return values

    def __getitem__(self, key: Any) -> Any:
        """Samples by row: `s[5]`, `s[-1]`, `s[10:20]`, `s[::100]`, `s[5, 0, 2]`, `s[mask]`."""
        first, rest = (key[0], key[1:]) if isinstance(key, tuple) and key else (key, ())
        if isinstance(first, slice):
            samples = self._slice(first)
            return samples[(slice(None), *rest)] if rest else samples
        try:
            row = operator.index(first)
        except TypeError:
            return self.values[key]  # a mask, an array of rows, or "..."
        count, _, has_samples = self._extent()
        if not -count <= row < count:
            raise IndexError(f"row {row} of signal {self.name!r}, which has {count}")
        if not has_samples:
            raise TypeError(f"signal {self.name!r} has times alone: see .time")
        row %= count
        samples = self._samples(row, row + 1)
        return samples[(0, *rest)] if rest else samples[0]

    def __iter__(self) -> Iterator[Any]:
        for _, samples in self.chunks():
            yield from samples

    def __array__(self, dtype=None, copy=None):
        import numpy

        return numpy.array(self.values, dtype=dtype, copy=copy)

    def _slice(self, rows):
        total, _, has_samples = self._extent()
        if not has_samples:
            return None
        start, stop, step = rows.indices(total)
        count = len(range(start, stop, step))
        if count == 0:
            return self._samples(0, 0)
        last = start + (count - 1) * step
        samples = self._samples(min(start, last), max(start, last) + 1)
        return samples if step == 1 else samples[::step]

    def _extent(self):
        """The number of rows, whether they have times, and whether they have samples."""
        rows, times, samples = self._reader.counts(self._info.id)
        return rows, times > 0 or samples == 0, samples > 0 or times == 0

    def _ranges(self, start, stop, extent):
        rows, has_times, _ = extent
        if start is None and stop is None:
            return [(0, rows)]
        if not has_times:
            raise ValueError(f"signal {self.name!r} has no times: select its rows, as s[10:20]")
        return self._reader.rows_between(self.id, *bounds(start, stop))

    def _rows(self, start, stop, extent):
        _, has_times, has_samples = extent
        return (
            self._times(start, stop) if has_times else None,
            self._samples(start, stop) if has_samples else None,
        )

    def _times(self, start, stop):
        return self._recording._times(self.id, start, stop)

    def _samples(self, start, stop):
        reader = self._reader
        if self._kind in (Kind.number, Kind.matrix):
            elements = reader.read_elements(self.id, start, stop).view(DTYPES[self._info.data_type])
            return elements if self._kind is Kind.number else as_samples(elements, self.shape)
        elements, offsets, extents, extent_offsets = reader.read_varying(self.id, start, stop)
        if self._kind is Kind.bytes:
            return Samples(elements, offsets, are_bytes=True)
        elements = elements.view(DTYPES[self._info.data_type])
        return Samples(elements, offsets, extents, extent_offsets)

    # ---- others --------------------------------------------------------------------------------

    def __arrow_c_stream__(self, requested_schema=None):
        """The rows through Arrow's C stream interface: columns `time` and `value`."""
        return self._reader.stream(self.id, 0, _ALL, 65536)

    def __arrow_c_schema__(self):
        """The schema of that stream."""
        return _core.schema_of(self._reader.stream(self.id, 0, 0, 1))

    @property
    def _reader(self):
        return self._recording._reader

    def __reduce__(self):
        return _signal_of, (self._recording, self.id)

    def _repr_html_(self):
        import html

        return html.escape(repr(self)) if self._recording.closed else _show.signal_html(self)

    def __repr__(self):
        if self._recording.closed:
            return f"<kyr.Signal {self.name!r} of a closed recording>"
        unit = f" [{self.unit}]" if self.unit else ""
        try:
            rows, shape = len(self), self.shape
        except _core.Error as error:
            return f"<kyr.Signal {self.name!r}{unit}: {error}>"
        kind = "bytes" if self._kind is Kind.bytes else str(self.dtype)
        if kind != "bytes" and shape != ():
            kind += " of varying shape" if shape is None else f" of shape {shape}"
        return f"<kyr.Signal {self.name!r}{unit}: {rows} rows of {kind}>"


def _signal_of(recording, signal_id):
    return recording.by_id(signal_id)


def _join(parts):
    import numpy

    if parts[0] is None:
        return None
    if isinstance(parts[0], Samples):
        return [sample for part in parts for sample in part]
    joined = numpy.concatenate(parts)
    joined.flags.writeable = False
    return joined
