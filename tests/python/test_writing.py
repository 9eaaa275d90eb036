"""What Python records is what is read back, whatever becomes of the program."""

import os
import signal as signals
import subprocess
import sys
import threading
import time

import numpy as np
import pytest

import kyr

TYPES = [
    "float64", "float32", "int8", "uint8", "int16", "uint16", "int32", "uint32", "int64", "uint64", "bool",
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
    for use in (lambda: signal.append(0.0, 1.0), recorder.flush, lambda: recorder.add("x")):
        with pytest.raises(ValueError, match="the recording is finished or closed"):
            use()
    with pytest.raises(kyr.Error, match="not empty"):
        kyr.record(tmp_path / "run")


def test_an_exception_leaves_what_was_appended(tmp_path):
    with pytest.raises(ZeroDivisionError) as caught:
        with kyr.record(tmp_path / "run", flush=None) as recorder:
            signal = recorder.add("speed")
            for step in range(10):
                signal.append(step, 1 / (5 - step))
    assert "kyr.recover(" in caught.value.__notes__[0]
    recording = kyr.open(tmp_path / "run")
    assert recording.state == "not finished" and len(recording["speed"]) == 5
    report = kyr.recover(tmp_path / "run")
    assert not report.has_losses and [s.rows_kept for s in report.signals] == [5]
    assert recording.refresh() and recording.state == "finished"
    np.testing.assert_array_equal(recording["speed"].values, 1 / (5 - np.arange(5)))
    assert kyr.recover(tmp_path / "run").was_complete


def run_python(code, *arguments):
    return subprocess.Popen([sys.executable, "-B", "-c", code, *map(str, arguments)],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)  # fmt: skip


ENDS = {
    # what the program does at its end, and whether it may say so
    "returns": ("pass", 0),
    "exits": ("sys.exit(3)", 3),
    "fails": ("raise ValueError", 1),
    "is killed after a flush": ("w.flush(); os.kill(os.getpid(), 9)", -9),
}


@pytest.mark.parametrize("name", ENDS)
def test_a_program_that_ends_loses_nothing(tmp_path, name):
    end, status = ENDS[name]
    code = (
        "import kyr, os, sys\nw = kyr.record(sys.argv[1], flush=1000)\ns = w.add('s')\n"
        f"for i in range(5000): s.append(i, i)\nw.itself = w\n{end}"
    )
    program = run_python(code, tmp_path / "run")
    program.communicate(timeout=60)
    assert program.returncode == status
    assert list(kyr.open(tmp_path / "run")["s"]) == list(range(5000))
    kyr.recover(tmp_path / "run")
    assert kyr.verify(tmp_path / "run") == []


def test_a_killed_program_loses_what_the_thread_had_not_flushed(tmp_path):
    code = (
        "import kyr, sys, time\nw = kyr.record(sys.argv[1], flush=0.05)\ns = w.add('s')\n"
        "s.append(0, 1); print('started', flush=True); time.sleep(100)"
    )
    program = run_python(code, tmp_path / "run")
    assert program.stdout.readline() == "started\n"
    deadline = time.monotonic() + 20
    while True:
        try:
            if len(kyr.open(tmp_path / "run")["s"]) == 1:
                break
        except (kyr.Error, KeyError):
            pass  # no flush yet
        assert time.monotonic() < deadline
        time.sleep(0.02)
    program.send_signal(signals.SIGKILL)
    program.communicate()
    assert list(kyr.open(tmp_path / "run")["s"]) == [1]


FORK = """
import kyr, os, sys
w = kyr.record(sys.argv[1], flush=0.001)
s = w.add("s")
s.append(0.0, 1.0)
for _ in range(20):
    if os.fork() == 0:
        try:
            s.append(1.0, 2.0)
        except kyr.Error as error:
            ok = "forked" in str(error)
        del s, w
        sys.exit(0 if ok else 1)
    assert os.wait()[1] == 0
    s.append(float(_), 2.0)
w.finish()
assert len(kyr.open(sys.argv[1])["s"]) == 21
"""


def test_children_of_a_fork_leave_the_recording_alone(tmp_path):
    program = run_python(FORK, tmp_path / "run")
    output = program.communicate(timeout=60)
    assert program.returncode == 0, output
    assert kyr.verify(tmp_path / "run") == []


def test_threads_append_while_others_flush(tmp_path):
    with kyr.record(tmp_path / "run", flush=0.001) as recorder:
        made = [recorder.add(f"s{i}", dtype="int64") for i in range(4)]

        def append(signal):
            for row in range(3000):
                signal.append(row, row)
                if row % 1000 == 0:
                    recorder.flush()

        threads = [threading.Thread(target=append, args=(s,)) for s in made for _ in range(2)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
    for signal in kyr.open(tmp_path / "run").values():
        np.testing.assert_array_equal(np.sort(signal.values), np.repeat(np.arange(3000), 2))


def test_a_full_disk_is_an_error_and_nothing_is_lost_or_doubled(tmp_path):
    # A limit on the size of files stands for the full disk.
    code = """
import kyr, sys, resource, signal
import numpy as np
signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
values = np.random.default_rng(1).random(300_000)
w = kyr.record(sys.argv[1], flush=None)
s = w.add("s")
soft, hard = resource.getrlimit(resource.RLIMIT_FSIZE)
resource.setrlimit(resource.RLIMIT_FSIZE, (400_000, hard))
failed = 0
for start in range(0, len(values), 10_000):
    part = values[start:start + 10_000]
    before = len(s)
    try:
        s.append(np.arange(start, start + 10_000.0), part)
    except kyr.Error:
        failed += 1
        if len(s) == before:
            values[start:] = -1
            break
resource.setrlimit(resource.RLIMIT_FSIZE, (soft, hard))
assert failed > 0
rows = len(s)
w.finish()
found = kyr.open(sys.argv[1])["s"]
assert len(found) == rows, (len(found), rows)
assert (found.values == values[:rows]).all() and (found.time == np.arange(rows)).all()
"""
    program = run_python(code, tmp_path / "run")
    output = program.communicate(timeout=60)
    assert program.returncode == 0, output


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
    assert any("word" in line for line in warnings)
    assert list(kyr.open(tmp_path / "run")["v"]) == [1, 2]
    with pytest.raises(kyr.Error, match="run"):
        kyr.import_csv(tmp_path / "in.csv", tmp_path / "run")
    with pytest.raises(kyr.Error, match="no such file|none.csv"):
        kyr.import_csv(tmp_path / "none.csv", tmp_path / "other")
