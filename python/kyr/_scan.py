"""Rows of many recordings as one stream."""

from __future__ import annotations

import collections
import os

from . import _core

TYPE_CHECKING = False  # Importing the module typing takes long.
if TYPE_CHECKING:
    from typing import Iterable


class Scan:
    """The rows of all scalar numbers of many recordings. `kyr.scan()` makes it.

    Anything that takes Arrow takes a scan, as often as it likes: `from s` in DuckDB,
    `polars.DataFrame(s)`, `pyarrow.table(s)`. Rows are read block by block while they are taken,
    and a recording is opened when its turn comes. The columns:

    - `run`: the name of the folder, or the path as given where several folders have the same name
    - `id`, `signal`: the number and the name of the signal
    - `time` [s]: missing if the signal has no times
    - `value`: as float64, to which integers beyond 2**53 are rounded; truth values are 0 and 1
    """

    def __init__(self, paths: list[str], names: list[str] | None):
        self._paths = paths
        self._names = names
        bases = [os.path.basename(os.path.abspath(path)) for path in paths]
        uses = collections.Counter(bases)
        self._runs = [
            (base if uses[base] == 1 else path, os.fsencode(os.path.abspath(path)))
            for base, path in zip(bases, paths)
        ]

    @property
    def paths(self) -> list[str]:
        """The folders of the recordings, in the order in which they are read."""
        return list(self._paths)

    def __arrow_c_stream__(self, requested_schema=None):
        """The rows through Arrow's C stream interface."""
        return _core.scan(self._runs, self._names)

    def __arrow_c_schema__(self):
        """The schema of that stream."""
        return _core.schema_of(_core.scan([], None))

    def __repr__(self):
        of = "all signals" if self._names is None else ", ".join(map(repr, self._names))
        return f"<kyr.Scan: {len(self._paths)} recordings, {of}>"


def scan(
    runs: str | os.PathLike[str] | Iterable[str | os.PathLike[str]],
    names: str | Iterable[str] | None = None,
) -> Scan:
    """The rows of many recordings as one stream. Nothing is opened yet. See `Scan`.

    ::

        s = kyr.scan("runs/*", "speed")
        duckdb.sql("select run, max(value) from s group by run")

    :param runs: a folder; a pattern as in a shell, which stands for the recordings that it matches;
        or several of them
    :param names: of signals, or patterns; all without them. A recording that has none of them has
        no rows
    """
    if isinstance(runs, (str, os.PathLike)):
        runs = [runs]
    paths = [path for given in runs for path in _paths_of(os.fspath(given))]
    if isinstance(names, str):
        names = [names]
    if names is not None:
        names = list(names)
        for name in names:
            if not isinstance(name, str):
                raise TypeError(f"names: signals are found by name, not by {name!r}")
    return Scan(paths, names)


def _paths_of(given):
    import glob  # Slow to import.

    path = os.fsdecode(given)
    if os.path.exists(path) or not glob.has_magic(path):
        if not _core.is_recording(os.fsencode(path)):
            raise _core.Error(f"{path}: there is no recording")
        return [path]
    found = [p for p in sorted(glob.glob(path)) if _core.is_recording(os.fsencode(p))]
    if not found:
        raise _core.Error(f"{path}: no recording matches")
    return found
