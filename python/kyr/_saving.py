"""Recordings that are saved or finished in one step."""

from __future__ import annotations

import os

from . import _core
from ._samples import Samples
from ._writing import Recorder

TYPE_CHECKING = False  # Importing the module typing takes long.
if TYPE_CHECKING:
    from typing import Any, Iterable, Mapping


_PACK_BELOW = 1 << 20  # bytes of a signal


def save(
    path: str | os.PathLike[str],
    signals: Mapping[str, tuple[Any, Any]],
    *,
    units: Mapping[str, str] | None = None,
    descriptions: Mapping[str, str] | None = None,
    pack: bool = False,
    replace: bool = False,
    like: str | os.PathLike[str] | None = None,
) -> None:
    """Saves arrays as a recording, in one step: afterwards it is there, or nothing is.

    :param signals: times [s] and samples by name: `{"speed": (t, y)}`. Samples are arrays of n
        numbers or of n matrices, or sequences of arrays or `bytes`
    :param units: by name
    :param pack: many small signals share files, which is smaller and quicker
    :param replace: a recording that is there is replaced
    :param like: a recording whose files are shared where samples or times are equal; see `dedup()`
    """
    for given, what in ((units, "units"), (descriptions, "descriptions")):
        unknown = sorted(set(given or {}) - set(signals))
        if unknown:
            raise ValueError(f"{what} of unknown signals: {', '.join(map(repr, unknown))}")
    likes = [] if like is None else [os.fsencode(like)]
    _core.deduplicate(likes, [])  # tells before the work what is wrong with them
    folder = _core.WorkingFolder(os.fsencode(path))
    try:
        pack_below = _PACK_BELOW if pack else 0
        recorder = Recorder._temporary(folder.path, pack_below)
        try:
            for name, pair in signals.items():
                t, y, dtype, shape = _described(name, pair)
                recorder.add(
                    name,
                    unit=(units or {}).get(name, ""),
                    description=(descriptions or {}).get(name, ""),
                    dtype=dtype,
                    shape=shape,
                ).append(t, y)
            recorder._core.save_to(os.fsencode(path), pack_below, replace)
        finally:
            recorder.abandon()
    finally:
        folder.remove()
    if likes:
        _core.deduplicate(likes, [os.fsencode(path)])


def _described(name, pair):
    """Times, samples, and the type and shape that these show."""
    import numpy

    try:
        t, y = pair
    except (TypeError, ValueError):
        raise TypeError(f"signal {name!r}: expected is a pair of times and samples") from None
    times = numpy.asarray(t).reshape(-1)
    if isinstance(y, Samples):
        return times, y, "bytes" if y._are_bytes else y.elements.dtype, None
    if not isinstance(y, numpy.ndarray):
        y = list(y)
        if y and all(isinstance(sample, (bytes, bytearray, memoryview)) for sample in y):
            return times, y, "bytes", None
        if len({numpy.shape(sample) for sample in y}) > 1:
            return times, y, numpy.result_type(*y), None
    y = numpy.asarray(y)
    return times, y, y.dtype, y.shape[1:]


def recover(path: str | os.PathLike[str]) -> _core.Recovery:
    """Makes a recording of what its writer left. Tells what is there and what was lost."""
    return _core.recover(os.fsencode(path))


def dedup(paths: Iterable[str | os.PathLike[str]]) -> list[_core.Deduplication]:
    """Lets recordings share the files of what they have in common. The first ones keep theirs.

    Each recording is replaced in one step, or left as it was. It may be changed or deleted without
    regard to the others. What went wrong is raised; recordings before the one that failed are done.

    :param paths: folders of finished recordings on one file system
    :return: what became of each of them
    """
    return _core.deduplicate([], [os.fsencode(path) for path in paths])
