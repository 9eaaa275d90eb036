"""Whatever becomes of a program that records, what it flushed is there, once and in order."""

import signal as signals
import subprocess
import sys
import threading
import time

import numpy as np
import pytest
from conftest import GOLDEN

import kyr


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


INTERRUPTED = {
    "reading": "while True: s.read()",
    "walking": "while True: list(s.chunks(2))",
    "resampling": "while True: s.resample(0.001, 'linear')",
    "recording": "for i in range(1, 10**9): x.append(i, i)",
    "recording many rows": "for i in range(1, 10**9): x.append([i, i + 0.5], [i, i])",
    "flushing": "while True: w.flush()",
}


@pytest.mark.parametrize("name", INTERRUPTED)
def test_ctrl_c_ends_at_once(tmp_path, name):
    code = (
        "import kyr, sys\nwith kyr.record(sys.argv[1], flush=0.01) as w:\n"
        " s = kyr.open(sys.argv[2])['Double Scalar']; x = w.add('x'); x.append(0, 0)\n"
        f" s.read(); print('started', flush=True)\n {INTERRUPTED[name]}"
    )
    program = run_python(code, tmp_path / "run", GOLDEN)
    assert program.stdout.readline() == "started\n"
    time.sleep(0.1)
    program.send_signal(signals.SIGINT)
    error = program.communicate(timeout=20)[1]
    assert program.returncode == -signals.SIGINT and "KeyboardInterrupt" in error
    assert "kyr.recover(" in error  # the note
    assert not kyr.recover(tmp_path / "run").has_losses
    assert kyr.open(tmp_path / "run")["x"][0] == 0


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
