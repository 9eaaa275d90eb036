"""
What the package kyr is made of: readers and writers over kyr's library.

Private. Programs use the package, whose classes stand on these.
"""

from collections.abc import Mapping, Sequence
from typing import Annotated, overload

import numpy
from numpy.typing import NDArray
from typing_extensions import CapsuleType

from kyr import DamagedError as DamagedError, Error as Error


version: str = '0.1.0'

class SignalInfo:
    """What a recording tells about a signal."""

    @property
    def id(self) -> int: ...

    @property
    def name(self) -> str: ...

    @property
    def unit(self) -> str: ...

    @property
    def description(self) -> str: ...

    @property
    def dimensions(self) -> list[int]: ...

    @property
    def data_type(self) -> int: ...

    @property
    def category(self) -> int: ...

class Reader:
    """Reads the signals of a recording where its files are."""

    def __init__(self, folder: bytes, checks: bool = True, follow_links: bool = False) -> None: ...

    def close(self) -> None: ...

    @property
    def closed(self) -> bool: ...

    @property
    def state(self) -> str:
        """"finished", "being recorded" or "not finished\""""

    def refresh(self) -> bool:
        """Take note of what a live recording got. True if anything is new."""

    @property
    def changes(self) -> int:
        """How often refresh() found anything new."""

    def signals(self) -> list[SignalInfo]:
        """The signals by ascending id."""

    def matching(self, pattern: str) -> list[int]:
        """Ids of the signals whose names match a pattern of the shell's kind."""

    def with_same_samples(self, id: int) -> list[int]:
        """Ids of the signals that share the samples."""

    def times_id(self, id: int) -> int:
        """The first of the signals that share the times."""

    def counts(self, id: int) -> tuple[int, int, int]:
        """The numbers of pairs, of times, and of samples."""

    def elements_per_sample(self, id: int) -> int: ...

    def time_span(self, id: int) -> tuple[float, float] | None:
        """Smallest and largest time [s]; None without times."""

    def read_times(self, id: int, start: int, stop: int) -> Annotated[NDArray[numpy.uint8], dict(shape=(None,), order='C', writable=False)]:
        """Bytes of the times of rows [start, stop), 8 each."""

    def read_elements(self, id: int, start: int, stop: int) -> Annotated[NDArray[numpy.uint8], dict(shape=(None,), order='C', writable=False)]:
        """Bytes of samples [start, stop), which have equally many elements."""

    def read_varying(self, id: int, start: int, stop: int) -> tuple[Annotated[NDArray[numpy.uint8], dict(shape=(None,), order='C', writable=False)], Annotated[NDArray[numpy.int64], dict(shape=(None,), order='C', writable=False)], Annotated[NDArray[numpy.int64], dict(shape=(None,), order='C', writable=False)], Annotated[NDArray[numpy.int64], dict(shape=(None,), order='C', writable=False)]]:
        """
        Samples [start, stop) of any size: bytes, offsets in elements, and for samples with
        shapes their extents and offsets of these.
        """

    def rows_between(self, id: int, start: float, stop: float) -> list[tuple[int, int]]:
        """Ranges of rows whose times [s] lie in a window, both ends included."""

    def envelope(self, id: int, start: float, stop: float, columns: int, element: int) -> tuple[Annotated[NDArray[numpy.float64], dict(shape=(None,), order='C', writable=False)], list[float]]:
        """
        The numbers of the columns that have rows, and of the rows beside the window.
        """

    def stream(self, id: int, start: int, stop: int, max_rows: int) -> CapsuleType:
        """Rows [start, stop) as a capsule of Arrow's C stream interface."""

def schema_of(stream: CapsuleType) -> CapsuleType:
    """The schema of such a stream, as a capsule."""

def resample(reader: Reader, ids: Sequence[int], step: float | None, start: float, stop: float) -> tuple:
    """
    Times [s] of a grid between two times, both ends included, and for each signal four
    arrays: the sample before each time (-1 for none), the one after it, where the time
    lies between them (0 to 1), and whether it is that of the sample before.
    """

def stream_of_columns(columns: Sequence[tuple[str, str, Annotated[NDArray, dict(order='C', device='cpu', writable=False)], object, object, bool]]) -> CapsuleType:
    """
    Arrays as a capsule of Arrow's C stream interface. Each column is a tuple: name, unit,
    elements, elements of each sample (None, a number, or offsets), which samples there
    are (None for all), whether samples are bytes.
    """

class ComparedSample:
    """An element of a sample, and what the other curve has there."""

    @property
    def time(self) -> float:
        """[s]; the row number for signals without times."""

    @property
    def row(self) -> int:
        """Of the reference, the latest at or before the time."""

    @property
    def other_row(self) -> int:
        """Of the other signal, likewise."""

    @property
    def element(self) -> int:
        """In the order of memory."""

    @property
    def reference(self) -> float:
        """NaN for blobs."""

    @property
    def other(self) -> float:
        """NaN for blobs."""

    @property
    def error(self) -> float:
        """Infinite if one of both is no finite number."""

    @property
    def tolerance(self) -> float:
        """The one that holds there."""

    @property
    def excess(self) -> float:
        """
        Error over tolerance: above 1 if it is out; infinite without tolerance.
        """

class SignalComparison:
    """What became of a signal."""

    @property
    def name(self) -> str: ...

    @property
    def other_name(self) -> str:
        """Empty if it is not there."""

    @property
    def id(self) -> int | None: ...

    @property
    def other_id(self) -> int | None:
        """None if it is only in the reference."""

    @property
    def verdict(self) -> str:
        """
        "equal", "differs", "not comparable", "only in reference", "only in other".
        """

    @property
    def differences(self) -> dict[str, tuple[str, str]]:
        """
        What is said of the signal and differs, such as its unit: reference and other.
        """

    @property
    def is_known_equal(self) -> bool:
        """Nothing had to be read."""

    @property
    def is_by_row(self) -> bool:
        """Rows were compared one by one."""

    @property
    def rows(self) -> int:
        """Of the reference."""

    @property
    def other_rows(self) -> int:
        """Of the other signal."""

    @property
    def rows_compared(self) -> int:
        """Places where either signal has a sample."""

    @property
    def rows_out(self) -> int:
        """Of these."""

    @property
    def rows_only_in_reference(self) -> int:
        """Times that only the reference has."""

    @property
    def rows_only_in_other(self) -> int:
        """Times that only the other signal has."""

    @property
    def worst(self) -> ComparedSample | None:
        """Largest error over tolerance; None if equal."""

    @property
    def first_out(self) -> float | None:
        """[s], or a row number."""

    @property
    def span(self) -> tuple[float, float] | None:
        """First and last time of the reference [s]."""

    @property
    def other_span(self) -> tuple[float, float] | None:
        """Of the other signal."""

    @property
    def compared_span(self) -> tuple[float, float] | None:
        """What both have."""

    @property
    def ends_differ(self) -> bool:
        """Whether spans or numbers of rows differ."""

def compare(reference: bytes, other: bytes, tolerances: tuple[float, float, float, float], same_ends: bool, names: Mapping[str, str], signals: Sequence[str], ignored: Sequence[str], follow_links: bool) -> list[SignalComparison]:
    """
    Compares the signals of two recordings, those that differ first. The tolerances are
    those of values, absolute, relative and by range, and that of times.
    """

class RecoveredSignal:
    """What became of a signal."""

    @property
    def id(self) -> int: ...

    @property
    def name(self) -> str: ...

    @property
    def rows_kept(self) -> int: ...

    @property
    def rows_lost(self) -> int:
        """Of those that the last flush stored."""

    @property
    def seconds_lost(self) -> float | None:
        """[s]; None if the times are lost."""

class Recovery:
    """What became of a recording not finished."""

    @property
    def was_complete(self) -> bool:
        """There was nothing to do."""

    @property
    def signals(self) -> list[RecoveredSignal]:
        """By ascending id."""

    @property
    def notes(self) -> list[str]:
        """What else was lost or had to be guessed."""

    @property
    def has_losses(self) -> bool:
        """Whether anything is missing that a flush had stored."""

    def __repr__(self) -> str: ...

class Deduplication:
    """What a recording shares with others."""

    @property
    def contents(self) -> int:
        """Contents of the recording."""

    @property
    def shared(self) -> int:
        """Contents in files that other recordings have, too."""

    @property
    def saved_bytes(self) -> int: ...

    @property
    def left_alone(self) -> str:
        """Why the recording stayed as it was; empty if it did not."""

    def __repr__(self) -> str: ...

def deduplicate(like: Sequence[bytes], folders: Sequence[bytes]) -> list[Deduplication]:
    """Lets the folders share files with those of like, and with each other."""

def verify(folder: bytes) -> list[str]:
    """One line per fault; none for a sound recording."""

def recover(folder: bytes) -> Recovery:
    """Makes a recording of what its writer left."""

def scan(runs: Sequence[tuple[str, bytes]], names: Sequence[str] | None) -> CapsuleType:
    """
    The scalar numbers of recordings as a capsule of Arrow's C stream interface. A
    recording is a name and a folder; names are those of signals, or patterns, or None.
    """

def is_recording(folder: bytes) -> bool:
    """Whether a folder holds a recording, finished or not."""

class SignalWriter:
    """A signal that is being recorded. `Recorder.add()` makes it."""

    def append(self, t: object, y: object) -> None:
        """
        Appends a row, or many.

        :param t: a time [s], or an array of times
        :param y: a sample, or an array of as many samples as times: shape (n,) for numbers, (n, rows,
            columns) for matrices, a sequence of samples if these differ in size
        :raises TypeError, ValueError: if the signal's type or shape does not fit; nothing is appended
        :raises kyr.Error: if a file cannot be written. Rows that were appended before, and perhaps this
            call's, stay in memory for the next try; `len()` tells how many there are
        """

    def __len__(self) -> int: ...

    @property
    def id(self) -> int: ...

    @property
    def name(self) -> str: ...

    @property
    def unit(self) -> str: ...

class GroupWriter:
    """
    Signals that are recorded over one time vector. `Recorder.group()` makes it.
    """

    def append(self, t: object, y: object) -> None:
        """
        Appends a row to every signal, or many.

        :param t: a time [s], or an array of n times
        :param y: a sample for each signal, in the order of the names; for an array of times, an array of
            the shape (n, signals), or arrays of n samples by name
        """

    def __len__(self) -> int: ...

class Recorder:
    """Writes a recording while it grows."""

    @overload
    def __init__(self, folder: bytes, flush_seconds: float, sync: str, sync_seconds: float) -> None: ...

    @overload
    def __init__(self, folder: bytes, hold_below: int) -> None:
        """For save_to() alone: nothing survives a crash."""

    def add(self, id: int, name: str, unit: str, description: str, dimensions: Sequence[int], data_type: int, category: int) -> SignalWriter: ...

    def group(self, signals: Sequence[SignalWriter]) -> GroupWriter: ...

    def flush(self) -> None: ...

    def finish(self) -> None: ...

    def abandon(self) -> None: ...

    def save_to(self, folder: bytes, pack_below: int, replaces: bool) -> None: ...

    @property
    def is_open(self) -> bool: ...

class WorkingFolder:
    """For the files of a recording to be."""

    def __init__(self, folder: bytes) -> None: ...

    @property
    def path(self) -> bytes: ...

    def remove(self) -> None: ...
