"""Recordings that are written."""

from __future__ import annotations

import atexit
import math
import os
import weakref

from . import _core
from ._core import GroupWriter, SignalWriter
from ._types import DTYPES, FIXED, SCALAR, VARYING

TYPE_CHECKING = False  # Importing the module typing takes long.
if TYPE_CHECKING:
    from typing import Any, Iterable, Mapping

_BINARY = 20000
_CODES = {name: code for code, name in reversed(DTYPES.items())}
_open_recorders: Any = weakref.WeakSet()


class Recorder:
    """A recording that is being written. `kyr.record()` makes it.

    ::

        with kyr.record("run43") as w:
            speed = w.add("speed", unit="m/s")
            speed.append(0.0, 1.5)

    Leaving the block finishes the recording. Leaving it with an exception flushes what was appended
    and leaves a recording that can be read, and that `kyr.recover()` finishes. The same holds for
    a program that ends, and, for all rows up to the last flush, for one that is killed.
    """

    def __init__(
        self,
        path: str | os.PathLike[str],
        *,
        flush: float | None = 1.0,
        sync: str | float = "never",
    ):
        """Starts a recording in a new folder. See `kyr.record`."""
        seconds = 0.0 if flush is None else float(flush)
        if not 0 <= seconds < math.inf:
            raise ValueError(f"flush = {flush!r}: expected are seconds, or None")
        if isinstance(sync, str) and sync not in ("never", "flush"):
            raise ValueError(f'sync = {sync!r}: expected is "never", "flush", or seconds')
        mode, interval = (sync, 1.0) if isinstance(sync, str) else ("seconds", float(sync))
        self._path = os.path.abspath(os.fspath(path))
        self._start(_core.Recorder(os.fsencode(path), seconds, mode, interval))

    @classmethod
    def _temporary(cls, folder: bytes, hold_below: int):
        """A recorder to save from. Signals of fewer bytes stay in memory until then."""
        made = cls.__new__(cls)
        made._path = os.fsdecode(folder)
        made._start(_core.Recorder(folder, hold_below))
        return made

    def _start(self, core):
        self._core = core
        self._next_id = 1
        self._names: set[str] = set()
        _open_recorders.add(self)

    @property
    def path(self) -> str:
        """The folder."""
        return self._path

    def add(
        self,
        name: str,
        *,
        unit: str = "",
        description: str = "",
        dtype: Any = "float64",
        shape: tuple[int, ...] | int | None = (),
    ) -> SignalWriter:
        """A new signal to append to.

        :param name: a name that no other signal has
        :param dtype: of the elements, as numpy calls it; `bytes` for blobs
        :param shape: of a sample: () for numbers, (3, 3) for matrices, None for any
        """
        if not isinstance(name, str) or not name:
            raise TypeError(f"name = {name!r}: expected is a text that is not empty")
        if name in self._names:
            raise ValueError(f"{self._path}: there is a signal {name!r} already")
        code, category, extents = _layout(dtype, shape)
        made = self._core.add(self._next_id, name, unit, description, extents, code, category)
        self._next_id += 1
        self._names.add(name)
        return made

    def group(
        self, names: Iterable[str], *, units: Mapping[str, str] | None = None, **options: Any
    ) -> GroupWriter:
        """New signals over one time vector. `append(t, y)` takes a sample for each.

        :param units: by name; or `unit`, the same for all
        :param options: of `add()`
        """
        if isinstance(names, str):
            raise TypeError(f"names = {names!r}: expected are several names")
        units = units or {}
        made = [
            self.add(n, **{**options, **({"unit": units[n]} if n in units else {})}) for n in names
        ]
        return self._core.group(made)

    def flush(self) -> None:
        """Brings all rows to disk; from then on they survive a crash."""
        self._core.flush()

    def finish(self) -> None:
        """Completes the recording and closes it. Nothing can be appended any more."""
        self._core.finish()
        _open_recorders.discard(self)

    def abandon(self) -> None:
        """Flushes and closes, but leaves the recording unfinished; `kyr.recover()` finishes it."""
        self._core.abandon()
        _open_recorders.discard(self)

    @property
    def closed(self) -> bool:
        """Whether nothing can be appended any more."""
        return not self._core.is_open

    def __enter__(self):
        return self

    def __exit__(self, kind, exception, trace):
        if self.closed:
            return
        if exception is None:
            self.finish()
            return
        try:
            self.abandon()
            kept = "What was appended is kept"
        except _core.Error as error:
            kept = f"What was flushed is kept, but the rest is not ({error})"
        exception.add_note(
            f"The recording {self._path!r} is not finished. {kept}; "
            f"kyr.recover({self._path!r}) finishes it."
        )

    def __del__(self):
        if hasattr(self, "_core") and not self.closed:
            import warnings

            warnings.warn(f"{self!r} was not finished", ResourceWarning, source=self)

    def __reduce__(self):
        raise TypeError("a recording that is being written cannot be pickled")

    def __repr__(self):
        state = "closed" if self.closed else "being recorded"
        return f"<kyr.Recorder {self._path!r}: {len(self._names)} signals, {state}>"


@atexit.register
def _abandon_all():
    # Before the interpreter takes the library apart; the flushing threads end.
    for recorder in list(_open_recorders):
        try:
            recorder.abandon()
        except (_core.Error, ValueError):
            pass  # A child of a fork, or a disk that is full: nobody is left to be told.


def _layout(dtype, shape):
    """How a recording calls a type and a shape: type, category, extents."""
    import numpy

    if dtype in (bytes, "bytes", object) or dtype == numpy.dtype(object):
        if shape not in ((), None):
            raise ValueError(f"shape = {shape!r}: a blob has none")
        return _BINARY, SCALAR, []
    kind = numpy.dtype(dtype)
    if kind.name not in _CODES:
        raise TypeError(f"dtype = {dtype!r}: expected is one of {', '.join(_CODES)}, bytes")
    if shape is None:
        return _CODES[kind.name], VARYING, []
    extents = [shape] if isinstance(shape, int) else [int(extent) for extent in shape]
    if any(extent < 0 for extent in extents):
        raise ValueError(f"shape = {shape!r}: an extent is negative")
    return _CODES[kind.name], FIXED if extents else SCALAR, extents
