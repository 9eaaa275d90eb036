"""Recordings as datasets of xarray: `xarray.open_dataset("run42", engine="kyr")`."""

from __future__ import annotations

import os

import numpy
import xarray
from xarray.backends import BackendArray, BackendEntrypoint
from xarray.core import indexing

from ._recording import Recording
from ._table import attributes, dimensions
from ._types import Kind


class _LazySamples(BackendArray):
    """Samples of a signal, which are read when xarray needs them."""

    def __init__(self, signal, is_time=False):
        self.signal = signal
        self.is_time = is_time
        self.dtype = numpy.dtype("float64") if is_time else signal.dtype
        self.shape = (len(signal), *(() if is_time else signal.shape))

    def __getitem__(self, key):
        return indexing.explicit_indexing_adapter(
            key, self.shape, indexing.IndexingSupport.BASIC, self._read
        )

    def _read(self, key):
        return self.signal.time[key[0]] if self.is_time else self.signal[key]


def dataset(recording: Recording, is_lazy: bool) -> xarray.Dataset:
    """All signals that have times and samples. A dimension for each distinct time vector.

    Samples that differ in size are left out; the attribute `left_out` names them.
    """

    def variable(dims, array, attrs):
        data = indexing.LazilyIndexedArray(array) if is_lazy else array[key_of(array)]
        return xarray.Variable(dims, data, attrs)

    def key_of(array):
        return indexing.BasicIndexer((slice(None),) * len(array.shape))

    data, times, left_out = {}, {}, []
    for name, signal in recording.items():
        rows, has_times, has_samples = signal._extent()
        is_array = signal._kind in (Kind.number, Kind.matrix) and rows > 0
        if not is_array or not has_times or not has_samples:
            left_out.append(name)
            continue
        same = recording._reader.times_id(signal.id), rows
        if same not in times:
            dim = "time" if not times else f"time_{len(times) + 1}"
            times[same] = dim, _LazySamples(signal, is_time=True)
        dim = times[same][0]
        array = _LazySamples(signal)
        dims = dimensions(dim, name, len(array.shape))
        data[name] = variable(dims, array, attributes(signal))
    coords = {dim: variable((dim,), array, {"units": "s"}) for dim, array in times.values()}
    attrs = {"left_out": left_out} if left_out else {}
    return xarray.Dataset(data, coords, attrs)


class KyrBackend(BackendEntrypoint):
    """Opens recordings of kyr. Samples are read when they are needed."""

    description = "Recordings of kyr, folders with a recording.json"

    def open_dataset(self, filename_or_obj, *, drop_variables=None):
        recording = Recording(filename_or_obj)
        opened = dataset(recording, is_lazy=True)
        opened.set_close(recording.close)
        return opened.drop_vars(drop_variables or [], errors="ignore")

    def guess_can_open(self, filename_or_obj):
        try:
            return os.path.exists(os.path.join(filename_or_obj, "recording.json"))
        except TypeError:
            return False
