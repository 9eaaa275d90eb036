"""Appends what is more than a number or a plain array. The extension module calls it."""

from __future__ import annotations

import collections.abc
import math

import numpy

from ._samples import Samples
from ._types import BYTE_TYPES, DTYPES, VARYING

TYPE_CHECKING = False  # Importing the module typing takes long.
if TYPE_CHECKING:
    from typing import Any

    from ._core import GroupWriter, SignalWriter


def append_rows(signal: SignalWriter, t: Any, y: Any) -> None:
    """Appends rows of any kind to a signal."""
    times = _numbers(signal, t, numpy.dtype("float64"), "times")
    if times.ndim > 1:
        raise ValueError(
            f"signal {signal.name!r}: times of the shape {times.shape}, expected is (n,)"
        )
    is_single = times.ndim == 0
    times = numpy.ascontiguousarray(times.reshape(-1))
    if signal._data_type in BYTE_TYPES or signal._category == VARYING:
        _append_varying(signal, times, [y] if is_single else y)
        return
    samples = _numbers(signal, y, numpy.dtype(DTYPES[signal._data_type]), "samples")
    expected = tuple(signal._dimensions) if is_single else (len(times), *signal._dimensions)
    if samples.shape != expected:
        raise ValueError(
            f"signal {signal.name!r}: samples of the shape {samples.shape}, expected is {expected}"
        )
    samples = samples.reshape(len(times), *signal._dimensions)
    signal._append_rows(times, _column_by_column(samples))


def _column_by_column(samples):
    """The elements in the order in which recordings have them: the first index runs fastest."""
    return numpy.ascontiguousarray(samples.transpose(0, *range(samples.ndim - 1, 0, -1)))


def _append_varying(signal, times, samples):
    if not isinstance(samples, (Samples, numpy.ndarray)):
        samples = list(samples)
    if len(samples) != len(times):
        raise ValueError(f"signal {signal.name!r}: {len(samples)} samples for {len(times)} times")
    if signal._data_type in BYTE_TYPES:
        rows = [_bytes(signal, sample) for sample in samples]
        shapes = [()] * len(rows)
    else:
        dtype = numpy.dtype(DTYPES[signal._data_type])
        arrays = [_numbers(signal, sample, dtype, "a sample") for sample in samples]
        rows = [numpy.ascontiguousarray(array.T).reshape(-1) for array in arrays]
        shapes = [array.shape for array in arrays]
    for time, row, shape in zip(times.tolist(), rows, shapes):
        signal._append_varying(time, row, shape)


def _bytes(signal, sample):
    try:
        return numpy.frombuffer(sample, "uint8")
    except (TypeError, ValueError, BufferError):
        raise TypeError(
            f"signal {signal.name!r}: a sample is {type(sample).__name__}, expected are bytes"
        ) from None


def _numbers(signal, values, dtype, what):
    """An array of the type, if its numbers fit: no fraction and no sign is lost."""
    if isinstance(values, numpy.ma.MaskedArray):
        values = _unmasked(signal, values, what)
    array = numpy.asarray(values)
    if array.dtype == dtype:
        return array
    kind, wanted = array.dtype.kind, dtype.kind
    if array.size == 0 and kind in "fO":
        return array.astype(dtype)
    if kind not in "biuf" or (kind == "f") > (wanted == "f") or (kind == "b") < (wanted == "b"):
        found = array.dtype if kind != "O" else type(values).__name__
        raise TypeError(f"signal {signal.name!r}: {what} are {found}, expected are {dtype}")
    if wanted in "iu" and array.size:
        limits = numpy.iinfo(dtype)
        low, high = int(array.min()), int(array.max())
        if low < limits.min or high > limits.max:
            wrong = low if low < limits.min else high
            raise ValueError(f"signal {signal.name!r}: {wrong} is beyond the range of {dtype}")
    return array.astype(dtype)


def _unmasked(signal, values, what):
    """Floating-point numbers that are missing become NaN, which other types do not have."""
    if not numpy.ma.is_masked(values):
        return values.data
    if values.dtype.kind != "f":
        raise ValueError(
            f"signal {signal.name!r}: {what} are missing, and {values.dtype} has no NaN"
        )
    return values.filled(math.nan)


def append_to_group(group: GroupWriter, t: Any, y: Any) -> None:
    """Appends rows to all signals of a group, or, if anything does not fit, to none."""
    if isinstance(y, numpy.ndarray) and y.ndim == 1 and numpy.ndim(t) == 0:
        group.append(t, y.tolist())
        return
    signals = group._signals
    if isinstance(y, collections.abc.Mapping):
        missing = {s.name for s in signals} ^ set(y)
        if missing:
            raise ValueError(f"a group needs exactly its signals: see {sorted(missing)}")
        columns = [y[signal.name] for signal in signals]
    elif numpy.ndim(t) == 0:
        columns = list(y)
    else:
        columns = list(numpy.swapaxes(numpy.asarray(y), 0, 1))
    if len(columns) != len(signals):
        raise ValueError(f"{len(columns)} columns for a group of {len(signals)} signals")
    for signal, column in zip(signals, columns):
        _check_rows(signal, t, column)
    for signal, column in zip(signals, columns):
        append_rows(signal, t, column)


def _check_rows(signal, t, y):
    expected = numpy.shape(t)
    if signal._data_type in BYTE_TYPES or signal._category == VARYING:
        return
    found = _numbers(signal, y, numpy.dtype(DTYPES[signal._data_type]), "samples").shape
    if found != (*expected, *signal._dimensions):
        raise ValueError(
            f"signal {signal.name!r}: samples of the shape {found}, expected is "
            f"{(*expected, *signal._dimensions)}"
        )
