"""A recording: its signals by name."""

from __future__ import annotations

import collections
import collections.abc
import os

from . import _core, _show
from ._plot import plot_signals
from ._signal import Signal
from ._table import Table, chosen, table_of
from ._tool import run
from ._types import Kind
from ._weak import WeakValues

TYPE_CHECKING = False  # Importing the module typing takes long.
if TYPE_CHECKING:
    from typing import Any, Iterable, Iterator


class NoSuchSignal(KeyError):
    """A KeyError whose text is a sentence."""

    def __str__(self):
        return self.args[0]


class Recording(collections.abc.Mapping):
    """The signals of a recording by name, read where its files are.

    Nothing is loaded until asked for.

    ::

        with kyr.open("run42") as r:
            list(r); len(r); "speed" in r
            t, y = r["speed"].read(0, 10)

    Where several signals have the same name, the unit or the id is added to the key. A recording
    that still grows can be opened, too; `refresh()` takes note of what came.

    Any number of threads may use one recording; they read one after the other. Open it once for
    each thread to read at the same time. A recording is pickled as its path.
    """

    def __init__(
        self, path: str | os.PathLike[str], *, checks: bool = True, follow_links: bool = False
    ):
        """Opens a recording.

        :param path: its folder
        :param checks: whether everything that is read is compared with its checksum first
        :param follow_links: whether files may be read that symbolic links inside of the folder
            name
        """
        name = os.fspath(path)
        if isinstance(name, bytes):
            name = os.fsdecode(name)
        for parameter, given in (("checks", checks), ("follow_links", follow_links)):
            if not isinstance(given, bool):
                raise TypeError(f"{parameter} = {given!r}: True or False is expected")
        # Absolute, so that it is still right in another process or after os.chdir().
        self._path = os.path.abspath(name)
        self._options = {"checks": checks, "follow_links": follow_links}
        self._reader = _core.Reader(os.fsencode(name), checks, follow_links)
        self._ids: list[int] | None = None  # those of a selection
        self._time_cache = WeakValues()
        self._list()

    def _list(self):
        self._changes = self._reader.changes
        infos = {info.id: info for info in self._reader.signals()}
        if self._ids is not None:
            infos = {i: infos[i] for i in self._ids}
        # Another thread may look a name up meanwhile, so what a name leads to comes first.
        self._infos = infos
        self._signals = WeakValues()
        self._names = _unique_names(infos.values())
        self._by_name = {name: i for i, name in self._names.items()}

    def _signal(self, id):
        # Kept weakly: the signal keeps the recording, whose files close when the last of both goes.
        signal = self._signals.get(id)
        if signal is None:
            signal = self._signals.keep(id, Signal(self, self._infos[id]))
        return signal

    # ---- the mapping ---------------------------------------------------------------------------

    def __getitem__(self, name: str) -> Signal:
        try:
            return self._signal(self._by_name[name])
        except KeyError:
            raise NoSuchSignal(self._why_missing(name)) from None

    def __iter__(self) -> Iterator[str]:
        return iter(self._by_name)

    def __len__(self) -> int:
        return len(self._by_name)

    def __contains__(self, name: object) -> bool:
        return name in self._by_name

    __hash__ = object.__hash__

    def __eq__(self, other: object) -> bool:
        return self is other

    def _why_missing(self, name):
        if not isinstance(name, str):
            return f"{self._path}: signals are found by name, or with by_id(), not by {name!r}"
        same = [self._names[i] for i, info in self._infos.items() if info.name == name]
        if same:
            return (
                f"{self._path}: several signals are called {name!r}: {', '.join(map(repr, same))}"
            )
        import difflib

        near = difflib.get_close_matches(name, self._by_name, 3, 0.5) or [
            known for known in self._by_name if name and name.lower() in known.lower()
        ][:3]
        hint = f"; near it are {', '.join(map(repr, near))}" if near else ""
        return f"{self._path}: no signal is called {name!r}{hint}"

    def by_id(self, id: int) -> Signal:
        """The signal of that number."""
        try:
            return self._signal(id)
        except KeyError:
            raise NoSuchSignal(f"{self._path}: no signal has the id {id!r}") from None

    def select(self, *patterns: str, unit: str | None = None) -> Recording:
        """A recording of fewer signals: those whose names match a pattern, and that have the unit.

        Patterns are as in a shell: `*`, `?`, `[a-z]`, `[!a-z]`, and a backslash before a special
        character. The files stay open until all that share them are closed or gone.
        """
        ids = set(self._infos)
        if patterns:
            ids &= {i for pattern in patterns for i in self._reader.matching(pattern)}
        chosen = self.__class__.__new__(self.__class__)
        chosen.__dict__.update(self.__dict__)
        fits = (info.id for info in self._infos.values() if unit in (None, info.unit))
        chosen._ids = [i for i in fits if i in ids]
        chosen._list()
        return chosen

    def table(
        self,
        names: str | Iterable[str] | None = None,
        start: float | None = None,
        stop: float | None = None,
        resample: float | str | None = None,
        method: str = "previous",
    ) -> Table:
        """Signals over one time vector, between two times [s], both ends included.

        :param names: of the signals; all without them
        :param resample: None if the signals have the same times; a step [s]; or "union" for all
            times that any of them has
        :param method: "previous" sample, "nearest", or "linear" between two; what is not
            floating-point takes the previous sample then
        """
        return table_of(chosen(self, names), start, stop, resample, method)

    def plot(self, names: list[str] | None = None, **style: Any) -> list[Any]:
        """Draws signals with matplotlib, with a plot for each unit. They are drawn again whenever
        you zoom. Returns the axes.

        :param names: of the signals; all that have numbers if None
        """
        if names is None:
            signals = [signal for signal in self.values() if signal._kind is not Kind.bytes]
        else:
            signals = [self[name] for name in names]
        return plot_signals(signals, style)

    def to_xarray(self):
        """An `xarray.Dataset` of all signals, with a dimension for each distinct time vector."""
        from ._xarray import dataset

        return dataset(self, is_lazy=False)

    def duckdb(self, connection: Any = None) -> Any:
        """A connection to DuckDB with views of the signals, which read the files where they are.

        ::

            r.duckdb().sql("select max(value) from speed where time < 10")

        Each signal has a view under its name, with the columns run, time and value; `samples` has
        all scalar numbers, `table_1` and so on the signals that share times, and `signals` tells of
        each signal. `kyr sql --help` has the rest. DuckDB compares nothing with checksums.

        :param connection: gets the views and is returned; a new one without it
        """
        if connection is None:
            try:
                import duckdb
            except ImportError as error:
                text = "Recording.duckdb() needs the module duckdb, which pip installs"
                raise ImportError(text, name="duckdb") from error
            connection = duckdb.connect()
        infos = {info.id: info for info in self._reader.signals()}
        options = []
        if self._ids is not None:
            # A number may be the name of another signal.
            names = {info.name for info in infos.values()}
            texts = [infos[i].name if str(i) in names else str(i) for i in self._ids]
            options = [f"--signal={text}" for text in texts]
            if not options:
                raise ValueError(f"{self._path}: no signal is selected")
        connection.execute(run("sql", *options, "--", self._path).stdout)
        return connection

    # ---- the whole recording -------------------------------------------------------------------

    @property
    def path(self) -> str:
        """The folder."""
        return self._path

    @property
    def span(self) -> tuple[float, float] | None:
        """Smallest and largest time [s] of all signals; None without times."""
        spans = [span for span in map(self._reader.time_span, self._infos) if span]
        if not spans:
            return None
        return min(span[0] for span in spans), max(span[1] for span in spans)

    @property
    def state(self) -> str:
        """ "finished", "being recorded", or "not finished" if its writer is gone."""
        return self._reader.state

    @property
    def is_live(self) -> bool:
        """Whether the recording is being written."""
        return self.state == "being recorded"

    def refresh(self) -> bool:
        """Takes note of rows and signals that came since. True if there is anything new."""
        self._reader.refresh()
        # Selections share the reader, and any of them may have refreshed it.
        is_new = self._reader.changes != self._changes
        if is_new:
            self._list()
        return is_new

    def verify(self) -> list[str]:
        """Checks every bit of every file. A line for each fault; none for a sound recording."""
        return _core.verify(os.fsencode(self._path))

    def close(self) -> None:
        """Closes the files. Arrays that were read stay. Selections of this recording close, too."""
        self._reader.close()

    @property
    def closed(self) -> bool:
        """Whether `close()` was called."""
        return self._reader.closed

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self.close()

    def __reduce__(self):
        return _reopen, (self.__class__, self._path, self._options, self._ids)

    def _times(self, id, start, stop):
        if start != 0:
            return self._reader.read_times(id, start, stop).view("float64")
        # Signals that share their times share the array.
        key = self._reader.times_id(id), stop
        times = self._time_cache.get(key)
        if times is None:
            times = self._reader.read_times(id, 0, stop).view("float64")
            times = self._time_cache.keep(key, times)
        return times

    def __repr__(self):
        if self.closed:
            return f"<kyr.Recording {self._path!r}, closed>"
        return _show.table_text(self)

    def _repr_html_(self):
        return repr(self) if self.closed else _show.table_html(self)


def _reopen(cls, path, options, ids):
    recording = cls(path, **options)
    if ids is not None:
        recording._ids = [i for i in ids if i in recording._infos]
        recording._list()
    return recording


def _unique_names(infos):
    """The names of signals by id, made unique: the unit is added, or else the id."""
    infos = list(infos)
    uses = collections.Counter(info.name for info in infos)
    spellings = collections.Counter(f"{info.name} [{info.unit}]" for info in infos)
    names = {}
    taken = {name for name, count in uses.items() if count == 1 and name}
    for info in infos:
        name = info.name
        if uses[name] > 1 or not name:
            name = f"{info.name} [{info.unit}]"
            if not info.name or not info.unit or spellings[name] > 1 or name in taken:
                name = info.name or "signal"
                while True:
                    name += f" ({info.id})"
                    if name not in taken:
                        break
            taken.add(name)
        names[info.id] = name
    return names
