"""What differs between two recordings."""

from __future__ import annotations

import os

from . import _core
from ._core import SignalComparison

TYPE_CHECKING = False  # Importing the module typing takes long.
if TYPE_CHECKING:
    from typing import Any, Iterable, Iterator, Mapping

    from ._recording import Recording


class Comparison:
    """What `kyr.diff()` found. It is true if nothing differs, so that a test may say::

        d = kyr.diff("reference", "new", rtol=1e-3)
        assert d, d
        d.failed                    # the signals that are not equal, the worst first
        d["speed"].worst.time
        d.to_pandas()
    """

    def __init__(self, reference: str, other: str, signals: list[SignalComparison]):
        self.reference = reference
        self.other = other
        #: Those that are not equal first, the worst of them first.
        self.signals = signals

    @property
    def failed(self) -> list[SignalComparison]:
        """The signals that are not equal, the worst first."""
        return [signal for signal in self.signals if signal.verdict != "equal"]

    @property
    def equal(self) -> bool:
        """Whether all signals are."""
        return not self.failed

    def __bool__(self) -> bool:
        return self.equal

    def __len__(self) -> int:
        """The number of signals."""
        return len(self.signals)

    def __iter__(self) -> Iterator[SignalComparison]:
        return iter(self.signals)

    def __getitem__(self, name: str) -> SignalComparison:
        """A signal by its name in the reference, or in the other recording if it is only there."""
        for signal in self.signals:
            if signal.name == name:
                return signal
        raise KeyError(name)

    def to_dict(self) -> dict[str, list[Any]]:
        """A list for each column of `to_pandas()`, by its name."""
        worst = [signal.worst for signal in self.signals]
        columns: dict[str, list[Any]] = {
            name: [getattr(signal, name) for signal in self.signals]
            for name in ("name", "verdict", "rows_compared", "rows_out", "first_out", "ends_differ")
        }
        for name in ("error", "tolerance", "excess", "time", "reference", "other"):
            columns[name] = [None if sample is None else getattr(sample, name) for sample in worst]
        return columns

    def to_pandas(self):
        """A `pandas.DataFrame` with a row for each signal, those that are not equal first.

        `error` and what follows are those of the worst sample.
        """
        import pandas

        return pandas.DataFrame(self.to_dict()).set_index("name")

    def __repr__(self):
        failed = len(self.failed)
        what = "all equal" if failed == 0 else f"{failed} not equal"
        return f"<kyr.Comparison: {self.reference!r}, {self.other!r}: {len(self)} signals, {what}>"

    def __str__(self):
        most = 50
        failed = self.failed
        lines = [_line(signal) for signal in failed[:most]]
        if len(failed) > most:
            lines.append(f"... and {len(failed) - most} more")
        ends = [signal.name for signal in self if signal.ends_differ and signal.verdict == "equal"]
        if ends:
            others = " and others" if len(ends) > 1 else ""
            lines.append(f"{ends[0]}{others} begin or end at different times")
        count = f"{len(failed)} of {len(self)} signals not equal"
        return "\n".join([f"{self.reference}, {self.other}: {count}", *lines])


def _line(signal):
    """What one signal differs by."""
    parts = [signal.verdict]
    parts += [
        f"{what} {one!r}, {other!r}"
        for what, (one, other) in signal.differences.items()
        if what != "description"
    ]
    if signal.rows_out:
        rows = f"{signal.rows_out} of {signal.rows_compared} rows"
        parts.append(f"{rows} from {signal.first_out:g} on")
    if signal.worst is not None:
        worst = signal.worst
        values = f"{worst.reference!r}, {worst.other!r}"
        parts.append(f"error {worst.error:g} at {worst.time:g}: {values}")
    for rows, where in (
        (signal.rows_only_in_reference, "reference"),
        (signal.rows_only_in_other, "other"),
    ):
        if rows:
            parts.append(f"{rows} rows only in {where}")
    return f"  {signal.name}: {', '.join(parts)}"


def diff(
    a: str | os.PathLike[str] | Recording,
    b: str | os.PathLike[str] | Recording,
    *,
    atol: float = 0.0,
    rtol: float = 0.0,
    range_tol: float = 0.0,
    time_tol: float = 0.0,
    same_ends: bool = False,
    map: Mapping[str, str] | None = None,
    signals: Iterable[str] | None = None,
    ignore: Iterable[str] = (),
    follow_links: bool = False,
) -> Comparison:
    """Compares two recordings, of which the first is the reference. See `Comparison`.

    Without tolerances, signals are equal if they have the same times and bits. With one, they are
    curves, and each sample passes if the other curve comes near enough.

    :param atol: what values may differ by, in the unit of the signal
    :param rtol: as a part of the reference value
    :param range_tol: as a part of the range of the reference signal
    :param time_tol: how far away the other curve may be, as a part of the time span of the signal
    :param same_ends: whether curves that begin or end at different times differ
    :param map: names in `b` by names in `a`, where they are not the same
    :param signals: names and patterns of the signals to compare; all unless given
    :param ignore: names and patterns of the signals that are left out
    """
    paths = [os.fspath(getattr(each, "path", each)) for each in (a, b)]
    for parameter, given in (("signals", signals), ("ignore", ignore)):
        if isinstance(given, str):
            raise TypeError(f"{parameter} = {given!r}: a list of names is expected")
    found = _core.compare(
        os.fsencode(paths[0]),
        os.fsencode(paths[1]),
        (atol, rtol, range_tol, time_tol),
        same_ends,
        dict(map or {}),
        [] if signals is None else list(signals),
        list(ignore),
        follow_links,
    )
    return Comparison(*(os.fsdecode(path) for path in paths), found)
