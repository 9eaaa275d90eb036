"""kyr stores recorded signals, and reads them back.

A recording is a folder. A signal is a time vector and a sample for each time.

Read::

    import kyr

    r = kyr.open("run42")               # nothing is loaded yet
    list(r)                             # names of the signals
    speed = r["speed"]
    speed.unit, len(speed), speed.span
    t, y = speed.read()                 # numpy arrays
    t, y = speed.read(10, 20)           # from 10 s to 20 s

Several signals at once::

    table = r.table(["speed", "torque"], 0, 60, resample=0.01)
    table.to_pandas()                   # or to_polars(), to_arrow(), to_xarray(), to_numpy()

Record::

    with kyr.record("run43") as w:
        speed = w.add("speed", unit="m/s")
        for step in range(1000):
            speed.append(step * 0.01, step ** 0.5)

    kyr.save("run44", {"speed": (t, y)}, units={"speed": "m/s"})

Errors are `kyr.Error`, which is an OSError; `kyr.DamagedError` tells of damaged files. A wrong name
is a KeyError. What is used after it was closed raises ValueError, as Python's own files do.
"""

from __future__ import annotations

import os as _os

from . import _core
from ._core import (
    ComparedSample,
    DamagedError,
    Deduplication,
    Error,
    GroupWriter,
    Recovery,
    SignalComparison,
    SignalWriter,
)
from ._diff import Comparison, diff
from ._envelope import Envelope
from ._recording import Recording
from ._samples import Samples
from ._saving import dedup, recover, save
from ._scan import Scan, scan
from ._signal import Signal
from ._table import Table
from ._tool import import_csv
from ._writing import Recorder

__version__ = _core.version

__all__ = [
    "ComparedSample",
    "Comparison",
    "DamagedError",
    "Deduplication",
    "Envelope",
    "Error",
    "GroupWriter",
    "Recorder",
    "Recording",
    "Recovery",
    "Samples",
    "Scan",
    "Signal",
    "SignalComparison",
    "SignalWriter",
    "Table",
    "dedup",
    "diff",
    "import_csv",
    "open",
    "record",
    "recover",
    "save",
    "scan",
    "verify",
]


def open(
    path: str | _os.PathLike[str], *, checks: bool = True, follow_links: bool = False
) -> Recording:
    """Opens a recording, finished or still growing. See `Recording`.

    :param checks: whether everything that is read is compared with its checksum first
    :param follow_links: whether files may be read that symbolic links inside of the folder name
    """
    return Recording(path, checks=checks, follow_links=follow_links)


def record(
    path: str | _os.PathLike[str], *, flush: float | None = 1.0, sync: str | float = "never"
) -> Recorder:
    """Starts a recording in a new folder. See `Recorder`.

    :param flush: seconds between two flushes, by a thread of the library; None for none. What is
        flushed survives a crash of the program, and others can read it
    :param sync: when rows also survive a power cut: "never" for sure, from each "flush" on, or
        every so many seconds
    """
    return Recorder(path, flush=flush, sync=sync)


def verify(path: str | _os.PathLike[str]) -> list[str]:
    """Checks every bit of every file. A line for each fault; none for a sound recording."""
    return _core.verify(_os.fsencode(path))
