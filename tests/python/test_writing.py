"""What Python records is what is read back, and what does not fit is refused."""

import os

import numpy as np
import pytest

import kyr

TYPES = [
    "float64", "float32", "int8", "uint8", "int16", "uint16", "int32", "uint32", "int64", "uint64",
    "bool",
]  # fmt: skip


def some(dtype, shape):
    values = np.random.default_rng(7).integers(0, 2 if dtype == "bool" else 100, shape)
    return values.astype(dtype)


@pytest.mark.parametrize("dtype", TYPES)
def test_numbers_of_every_type_come_back(tmp_path, dtype):
    times = np.arange(1000) / 8
    numbers, vectors = some(dtype, 1000), some(dtype, (1000, 3))
    matrices, cubes = some(dtype, (1000, 2, 3)), some(dtype, (1000, 2, 3, 4))
    expected = {"numbers": numbers, "vectors": vectors, "matrices": matrices, "cubes": cubes}
    with kyr.record(tmp_path / "run") as recorder:
        for name, values in expected.items():
            signal = recorder.add(name, dtype=dtype, shape=values.shape[1:])
            signal.append(times[0], values[0])
            signal.append(times[1:400], values[1:400])
            for row in range(400, 700):
                signal.append(float(times[row]), values[row].tolist())
            signal.append(times[700:].tolist(), values[700:])
            assert len(signal) == 1000
    recording = kyr.open(tmp_path / "run")
    for name, values in expected.items():
        found = recording[name]
        assert found.dtype == dtype and found.shape == values.shape[1:]
        np.testing.assert_array_equal(found.values, values)
        np.testing.assert_array_equal(found.time, times)
    assert recording.verify() == []


def test_samples_of_any_size_come_back(tmp_path):
    blobs = [b"", b"abc", bytes(300)]
    matrices = [np.arange(6.0).reshape(2, 3), np.zeros((0, 4)), np.array(5.0), np.ones(1)]
    with kyr.record(tmp_path / "run") as recorder:
        recorder.add("blobs", dtype=bytes).append([0, 1, 2], blobs)
        varying = recorder.add("varying", shape=None)
        varying.append(0, matrices[0])
        varying.append([1, 2, 3], matrices[1:])
    recording = kyr.open(tmp_path / "run")
    assert list(recording["blobs"].values) == blobs
    for found, expected in zip(recording["varying"].values, matrices, strict=True):
        np.testing.assert_array_equal(found, expected)
    kyr.save(tmp_path / "again", {name: s.read() for name, s in recording.items()})
    assert list(kyr.open(tmp_path / "again")["blobs"]) == blobs


def test_groups_share_their_times(tmp_path):
    with kyr.record(tmp_path / "run") as recorder:
        axes = recorder.group(["x", "y", "z"], unit="m", units={"z": "km"})
        axes.append(0.0, [1, 2.5, 3])
        axes.append(1.0, np.array([4, 5, 6]))
        axes.append([2.0, 3.0], np.arange(6).reshape(2, 3))
        axes.append([4.0], {"z": [9], "y": [8], "x": [7]})
        with pytest.raises(ValueError, match="2 columns for a group of 3"):
            axes.append(5.0, [1, 2])
        with pytest.raises(TypeError, match="'z': samples are .*, expected are float64"):
            axes.append(5.0, [1, 2, "3"])
    recording = kyr.open(tmp_path / "run")
    assert list(recording["x"]) == [1, 4, 0, 3, 7] and list(recording["z"]) == [3, 6, 2, 5, 9]
    assert recording["y"].time is recording["x"].time and recording["z"].unit == "km"


def test_missing_numbers_are_nan_or_refused(tmp_path):
    times, mask = np.arange(3.0), [False, True, False]
    with kyr.record(tmp_path / "run") as recorder:
        floats, integers = recorder.add("floats"), recorder.add("integers", dtype="int32")
        floats.append(times, np.ma.MaskedArray([1.0, 2, 3], mask))
        integers.append(times, np.ma.MaskedArray([1, 2, 3], False, dtype="int32"))
        with pytest.raises(ValueError, match="'integers': samples are missing, and int32 has"):
            integers.append(times, np.ma.MaskedArray([1, 2, 3], mask, dtype="int32"))
    recording = kyr.open(tmp_path / "run")
    np.testing.assert_array_equal(recording["floats"].values, [1, np.nan, 3])
    assert list(recording["integers"]) == [1, 2, 3]


MISTAKES = {
    "a fraction for an integer": ("int32", (), 1.5, TypeError, "float64, expected are int32"),
    "too large": ("int8", (), 128, ValueError, "128 is beyond the range of int8"),
    "too small for numpy": ("uint64", (), -1, ValueError, "-1 is beyond"),
    "a text": ("float64", (), "1.5", TypeError, "expected are float64"),
    "none": ("float64", (), None, TypeError, "NoneType"),
    "a vector for a number": ("float64", (), [1, 2], ValueError, r"\(2,\), expected is \(\)"),
    "a matrix the other way": ("float64", (2, 3), np.ones((3, 2)), ValueError, r"\(3, 2\)"),
    "a number for a truth value": ("bool", (), 1, TypeError, "expected are bool"),
    "a complex number": ("float64", (), 1j, TypeError, "complex128"),
    "a text for bytes": (bytes, (), "text", TypeError, "a sample is str"),
}


@pytest.mark.parametrize("name", MISTAKES)
def test_what_does_not_fit_is_not_appended(tmp_path, name):
    dtype, shape, wrong, error, text = MISTAKES[name]
    with kyr.record(tmp_path / "run") as recorder:
        signal = recorder.add("s", dtype=dtype, shape=shape)
        with pytest.raises(error, match=text):
            signal.append(0.0, wrong)
        with pytest.raises((TypeError, ValueError), match="signal 's': "):
            signal.append([0.0, 1.0], [wrong, wrong])
        assert len(signal) == 0
    assert len(kyr.open(tmp_path / "run")["s"]) == 0


def test_wrong_uses_of_a_recorder(tmp_path):
    with pytest.raises(kyr.Error, match="nowhere"):
        kyr.record(tmp_path / "nowhere" / "run")
    with pytest.raises(ValueError, match="sync = 'often'"):
        kyr.record(tmp_path / "run", sync="often")
    for seconds in (-1, float("nan"), float("inf")):
        with pytest.raises(ValueError, match="flush = .*: expected are seconds, or None"):
            kyr.record(tmp_path / "run", flush=seconds)
    with kyr.record(tmp_path / "run") as recorder:
        signal = recorder.add("speed")
        with pytest.raises(ValueError, match="there is a signal 'speed'"):
            recorder.add("speed")
        with pytest.raises(TypeError, match="dtype = 'complex64'"):
            recorder.add("c", dtype="complex64")
        with pytest.raises(ValueError, match=r"samples of the shape \(3,\), expected is \(2,\)"):
            signal.append([0, 1], [1.0, 2, 3])
        with pytest.raises(ValueError, match="times of the shape"):
            signal.append(np.zeros((2, 2)), np.zeros((2, 2)))
        for date in (np.datetime64("2026"), np.timedelta64(1, "s"), np.array(["2026"], "M8[s]")):
            with pytest.raises(TypeError, match="times are .*64.*, expected are float64"):
                signal.append(date, [1.0])
    for use in (lambda: signal.append(0.0, 1.0), recorder.flush, lambda: recorder.add("x")):
        with pytest.raises(ValueError, match="the recording is finished or closed"):
            use()
    with pytest.raises(kyr.Error, match="not empty"):
        kyr.record(tmp_path / "run")


def test_saving_is_all_or_nothing(tmp_path):
    t, y = np.arange(5.0), np.arange(5)
    kyr.save(tmp_path / "run", {f"s{i}": (t, y + i) for i in range(50)}, pack=True)
    assert len(list((tmp_path / "run/storage").iterdir())) < 5
    assert list(kyr.open(tmp_path / "run")["s7"]) == [7, 8, 9, 10, 11]
    with pytest.raises(kyr.Error, match="run"):
        kyr.save(tmp_path / "run", {"a": (t, y)})
    with pytest.raises(ValueError, match="shape"):
        kyr.save(tmp_path / "run", {"a": (t, y), "b": (t, y[1:])}, replace=True)
    with pytest.raises(ValueError, match="units of unknown signals: 'c'"):
        kyr.save(tmp_path / "new", {"a": (t, y)}, units={"c": "m"})
    assert len(kyr.open(tmp_path / "run")) == 50
    kyr.save(tmp_path / "run", {"a": (t, y)}, units={"a": "m"}, replace=True)
    assert kyr.open(tmp_path / "run")["a"].unit == "m" and kyr.verify(tmp_path / "run") == []
    assert os.listdir(tmp_path) == ["run"]


def test_csv_is_imported_by_the_tool(tmp_path):
    (tmp_path / "in.csv").write_text("time,v [m/s],word\n0,1,x\n1,2,y\n")
    warnings = kyr.import_csv(tmp_path / "in.csv", tmp_path / "run")
    assert warnings == []
    run = kyr.open(tmp_path / "run")
    assert list(run["v"]) == [1, 2] and [bytes(word) for word in run["word"]] == [b"x", b"y"]
    with pytest.raises(kyr.Error, match="run"):
        kyr.import_csv(tmp_path / "in.csv", tmp_path / "run")
    with pytest.raises(kyr.Error, match="no such file|none.csv"):
        kyr.import_csv(tmp_path / "none.csv", tmp_path / "other")


def test_equal_samples_share_files(tmp_path):
    t = np.arange(5000.0)

    def signals(changed):
        return {"a": (t, np.sin(t)), "b": (t, np.cos(t) + changed), "c": (t, t > 7)}

    for i in range(3):
        kyr.save(tmp_path / f"run{i}", signals(i), like=tmp_path / "run0" if i == 2 else None)
    _, second = kyr.dedup([tmp_path / "run0", tmp_path / "run1"])
    assert (second.contents, second.shared, second.left_alone) == (4, 3, "")
    assert second.saved_bytes > 0
    for i in range(3):
        recording = kyr.open(tmp_path / f"run{i}")
        for name, (times, values) in signals(i).items():
            np.testing.assert_array_equal(recording[name].read()[0], times)
            np.testing.assert_array_equal(recording[name].read()[1], values)
        files = [path.stat().st_nlink for path in (tmp_path / f"run{i}" / "storage").iterdir()]
        assert sorted(files) == [1, 3, 3, 3]
    with pytest.raises(kyr.Error, match="nowhere"):
        kyr.save(tmp_path / "run4", signals(4), like=tmp_path / "nowhere")
    assert not (tmp_path / "run4").exists()
