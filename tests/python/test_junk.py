"""Arguments that make no sense are exceptions, and never the end of the interpreter."""

import random
import time

import numpy as np
import pytest
from conftest import GOLDEN

import kyr

NUMBERS = [0, 1, -1, 2**31, 2**63, -(2**63), 2**64, 2**200, 0.5, -0.0, 1e308]
NUMBERS += [float("nan"), float("inf")]
TEXTS = ["", "Double Scalar", "*", "[", "\\", "\ud800", "a\0b", "union", "linear", b"", b"\xff\0"]
OBJECTS = [None, True, ..., NotImplemented, object(), int, slice(None, 10**30, -3)]
OBJECTS += [memoryview(b"abc")]
SCALARS = [np.datetime64("2026"), np.timedelta64(1, "s"), np.float64(1), np.int32(2)]
SCALARS += [np.void(b"ab")]
DTYPES = ["f8", "f4", "i1", "u2", "i4", "i8", "u8", "?", ">f8", "c16", "f2", "O", "S3", "U4"]
DTYPES += ["M8[ns]"]
SHAPES = [(), (0,), (1,), (3,), (1000,), (3, 1), (2, 3), (0, 4), (3, 2, 3)]
EXPECTED = (kyr.Error, ValueError, TypeError, LookupError, ArithmeticError, MemoryError)
EXPECTED += (BufferError,)
METHODS = {
    kyr.Recording: ["__getitem__", "by_id", "select", "table", "get"],
    kyr.Signal: ["read", "__getitem__", "resample", "chunks", "envelope", "__arrow_c_stream__",
                 "__array__"],
    kyr.Samples: ["__getitem__"],
    kyr.Table: ["__getitem__", "__arrow_c_stream__"],
    kyr.Recorder: ["add", "group"],
    kyr.SignalWriter: ["append"],
    kyr.GroupWriter: ["append"],
}


class Liar:
    """A sequence whose length is not that of what it gives."""

    def __len__(self):
        return 10**12

    def __getitem__(self, row):
        raise IndexError(row)


def junk(rng, depth=0):
    kind = rng.randrange(9)
    if kind < 4:
        return rng.choice([NUMBERS, TEXTS, OBJECTS, SCALARS][kind])
    if kind == 4 and depth < 2:
        return [junk(rng, depth + 1) for _ in range(rng.randrange(4))]
    if kind == 5 and depth < 2:
        return {"x": junk(rng, depth + 1), "y": junk(rng, depth + 1)}
    if kind == 6:
        return Liar()
    array = np.zeros(rng.choice(SHAPES), rng.choice(DTYPES))
    backwards = array[::-1] if array.ndim else array
    return rng.choice([array, array.T, backwards, np.ma.MaskedArray(array)])


def made(rng, folder):
    """Objects of every public class, some of them with layouts that nobody has."""
    recorder = kyr.record(folder, flush=0.001)
    yield from (recorder, recorder.group(["x", "y"]))
    for index in range(6):
        shape = rng.choice([(), (3,), (2, 3), (0,), None, (10**6, 10**6), (2**40,)])
        dtype = rng.choice(["f8", "f4", "i8", "u1", "bool", bytes])
        yield recorder.add(f"s{index}", dtype=dtype, shape=() if dtype is bytes else shape)
    recording = kyr.open(GOLDEN)
    signals = list(recording.values())
    yield from (recording, recording.table("Double Scalar"), *rng.sample(signals, 8))
    yield recording["Double VarDim"].values


@pytest.mark.parametrize("seed", range(4))
@pytest.mark.filterwarnings("ignore")
def test_junk_is_refused(seed, tmp_path):
    rng = random.Random(seed)
    objects = list(made(rng, tmp_path / "run"))
    deadline = time.monotonic() + 2
    refused = 0
    while time.monotonic() < deadline:
        target = rng.choice(objects)
        method = getattr(target, rng.choice(METHODS[type(target)]))
        try:
            result = method(*(junk(rng) for _ in range(rng.randrange(4))))
            if hasattr(result, "__next__"):
                next(result, None)
        except EXPECTED:
            refused += 1
    assert refused > 100
    # What was taken is read back.
    objects[0].abandon()
    for signal in kyr.open(tmp_path / "run").values():
        assert len(signal.values) == len(signal)
