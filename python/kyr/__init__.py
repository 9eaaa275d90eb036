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

Errors are `kyr.Error`, which is an OSError; `kyr.DamagedError` tells of damaged files. A wrong name
is a KeyError. What is used after it was closed raises ValueError, as Python's own files do.
"""

from __future__ import annotations

import os as _os

from ._core import DamagedError, Error
from ._recording import Recording
from ._samples import Samples
from ._signal import Signal

__all__ = ["DamagedError", "Error", "Recording", "Samples", "Signal", "open", "verify"]


def open(path: str | _os.PathLike[str], *, checks: bool = True) -> Recording:
    """Opens a recording, finished or still growing. See `Recording`."""
    return Recording(path, checks=checks)


def verify(path: str | _os.PathLike[str]) -> list[str]:
    """Checks every bit of every file. A line for each fault; none for a sound recording."""
    from . import _core

    return _core.verify(_os.fsencode(path))
