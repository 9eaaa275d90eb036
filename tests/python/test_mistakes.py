"""What goes wrong is an exception that says what and where; the interpreter goes on."""

import gc
import os
import pickle
import shutil
import subprocess
import sys
import threading

import numpy as np
import pytest
from conftest import GOLDEN

import kyr

BROKEN_FOLDERS = {
    "missing": (lambda path: None, "no such folder"),
    "a file": (lambda path: path.write_text("x"), "not"),
    "an empty folder": (lambda path: path.mkdir(), "not a recording|recording.json"),
}


@pytest.mark.parametrize("name", BROKEN_FOLDERS)
def test_what_is_no_recording_is_named(tmp_path, name):
    make, text = BROKEN_FOLDERS[name]
    path = tmp_path / "no recording ä"
    make(path)
    with pytest.raises(kyr.Error, match=text) as caught:
        kyr.open(path)
    assert str(path) in str(caught.value) and isinstance(caught.value, OSError)


def test_names_that_are_wrong_find_their_neighbours():
    recording = kyr.open(GOLDEN)
    with pytest.raises(KeyError, match="no signal is called 'Duoble Scalar'.*'Double Scalar'"):
        recording["Duoble Scalar"]
    with pytest.raises(KeyError, match="no signal has the id 77777"):
        recording.by_id(77777)
    with pytest.raises(KeyError, match="by_id"):
        recording[7]
    with pytest.raises(ValueError, match="rows = 0"):
        next(recording["Double Scalar"].chunks(0))
    with pytest.raises(ValueError, match="now"):
        recording["Double Scalar"].read("now", "then")


def test_damaged_bytes_name_file_and_rows(golden_copy):
    recording = kyr.open(golden_copy)
    file = golden_copy / "storage" / "3"
    bytes_ = bytearray(file.read_bytes())
    bytes_[len(bytes_) // 3] ^= 1
    file.write_bytes(bytes_)
    with pytest.raises(kyr.DamagedError, match="storage/3"):
        recording["Double VarDim"].read()
    assert len(recording["Single Scalar"].values) == 7
    assert any("storage/3" in fault for fault in recording.verify())
    assert kyr.verify(GOLDEN) == []


def test_a_folder_that_goes_away_is_an_error_or_is_read(golden_copy):
    recording = kyr.open(golden_copy)
    before = recording["Int8 Scalar"].values
    shutil.rmtree(golden_copy)
    np.testing.assert_array_equal(recording["Int8 Scalar"].values, before)
    with pytest.raises(kyr.Error, match=str(golden_copy)):
        recording["Int64 Scalar"].read()


def test_closed_recordings_say_so():
    with kyr.open(GOLDEN) as recording:
        signal = recording["Double Scalar"]
        chunks = signal.chunks(2)
        next(chunks)
    assert recording.closed and "closed" in repr(recording) and "closed" in repr(signal)
    recording.close()
    uses = [signal.read, lambda: signal[0], lambda: signal.values, lambda: len(signal)]
    uses += [lambda: next(chunks), recording.refresh, lambda: signal.span, lambda: recording.state]
    uses += [signal.__arrow_c_stream__, lambda: recording.select("*"), lambda: signal.time]
    for use in uses:
        with pytest.raises(ValueError, match="the recording is closed"):
            use()
    assert signal.name == "Double Scalar" and "Double Scalar" in recording


def test_links_are_followed_if_that_is_asked_for_also_after_pickling(golden_copy):
    file = golden_copy / "storage" / "3"
    elsewhere = file.rename(golden_copy.with_name("3"))
    file.symlink_to(elsewhere)
    with pytest.raises(kyr.Error, match="storage/3"):
        kyr.open(golden_copy)["Double VarDim"].read()
    following = pickle.loads(pickle.dumps(kyr.open(golden_copy, follow_links=True)))
    assert len(following["Double VarDim"].read()[0]) == 7


def test_recordings_and_signals_are_pickled_as_their_path():
    chosen = pickle.loads(pickle.dumps(kyr.open(GOLDEN).select("Double*", "Int8*")))
    assert len(chosen) == 6
    signal = pickle.loads(pickle.dumps(chosen["Int8 Scalar"]))
    np.testing.assert_array_equal(signal.values, chosen["Int8 Scalar"].values)
    error = pickle.loads(pickle.dumps(kyr.DamagedError("text")))
    assert isinstance(error, kyr.DamagedError) and str(error) == "text"


def test_objects_go_in_any_order():
    class Subclass(kyr.Recording):
        pass

    for keep in ("signal", "times", "chunks", "stream"):
        recording = Subclass(GOLDEN)
        recording.itself = recording
        signal = recording["Double Scalar"]
        kept = {
            "signal": lambda: signal,
            "times": lambda: signal.time,
            "chunks": lambda: signal.chunks(1),
            "stream": lambda: signal.__arrow_c_stream__(),
        }[keep]()
        del recording, signal
        gc.collect()
        if keep in ("times", "chunks"):
            assert len(list(kept)) == 7
        if keep == "signal":
            assert type(kept.recording) is Subclass and len(kept) == 7
        del kept
        gc.collect()


def test_ten_thousand_opens_leave_nothing():
    def used():
        with open("/proc/self/statm") as file:
            return int(file.read().split()[1]) * 4096

    def read_once():
        recording = kyr.open(GOLDEN)
        recording["Double Scalar"].read()
        recording["Int8 VarDim"].read()
        recording["Single FixedDim"].__arrow_c_stream__()

    descriptors = lambda: len(os.listdir("/proc/self/fd"))
    for _ in range(500):
        read_once()
    gc.collect()
    before = used(), descriptors()
    for _ in range(10_000):
        read_once()
    gc.collect()
    assert descriptors() == before[1]
    assert used() - before[0] < 8 << 20


def test_threads_take_turns(imported):
    recording = kyr.open(imported("imu"))
    expected = {name: signal.values.sum() for name, signal in recording.items()}
    failures = []

    def read(seed):
        try:
            for turn in range(60):
                name = list(expected)[(seed + turn) % len(expected)]
                if kyr.open(recording.path)[name].values.sum() != expected[name]:
                    failures.append(name)
                if recording[name][:].sum() != expected[name]:
                    failures.append(name)
        except Exception as error:
            failures.append(error)

    threads = [threading.Thread(target=read, args=(i,)) for i in range(8)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert failures == []


def test_a_recording_may_close_while_others_read(imported):
    recording = kyr.open(imported("imu"))
    signals = list(recording.values())
    seen = []

    def read(number):
        try:
            while True:
                assert len(signals[number].read()[1]) > 10_000
        except ValueError as error:
            seen.append(str(error))

    threads = [threading.Thread(target=read, args=(number,)) for number in range(4)]
    for thread in threads:
        thread.start()
    signals[5].read()
    recording.close()
    for thread in threads:
        thread.join()
    assert len(seen) == 4 and all("is closed" in text for text in seen)


def test_files_close_with_the_last_reference():
    before = len(os.listdir("/proc/self/fd"))
    gc.disable()
    try:
        signal = kyr.open(GOLDEN)["Double Scalar"]
        assert len(signal.values) == 7 and len(os.listdir("/proc/self/fd")) > before
        del signal
        assert len(os.listdir("/proc/self/fd")) == before
    finally:
        gc.enable()


def run_python(code, *arguments, **environment):
    return subprocess.run(
        [sys.executable, "-B", "-c", code, *map(str, arguments)],
        capture_output=True,
        text=True,
        timeout=60,
        env={**os.environ, **environment},
    )


FORK = """
import os, sys, threading, kyr
recording = kyr.open(sys.argv[1])
signal = recording["Double Scalar"]
recording["Int8 Scalar"][:]  # imports numpy, which no fork may interrupt
stop = threading.Event()
def read():
    while not stop.is_set():
        recording["Int8 Scalar"][:]
threads = [threading.Thread(target=read, daemon=True) for _ in range(3)]
for thread in threads: thread.start()
for _ in range(30):
    child = os.fork()
    if child == 0:
        recording["Int64 Scalar"].read()
        os._exit(0 if len(signal.values) == 7 else 1)
    assert os.waitpid(child, 0)[1] == 0
stop.set()
for thread in threads: thread.join()
"""


@pytest.mark.filterwarnings("ignore::DeprecationWarning")
def test_children_of_a_fork_read_on():
    result = run_python(FORK, GOLDEN)
    assert result.returncode == 0, result.stderr


def test_two_readers_end_with_the_interpreter():
    # Nothing is closed, and a cycle keeps it until the very end.
    code = "import kyr, sys; r = kyr.open(sys.argv[1]); r.me = r; t = r['Double Scalar'].chunks(1)"
    result = run_python(code + "; next(t); sys.keep = r, t", GOLDEN)
    assert result.returncode == 0 and result.stderr == ""


def test_the_import_brings_nothing_slow():
    slow = ["numpy", "typing", "json", "subprocess", "inspect", "re", "warnings", "dataclasses"]
    code = "import sys; before = set(sys.modules); import kyr; print(*set(sys.modules) - before)"
    assert not set(run_python(code).stdout.split()) & set(slow)
