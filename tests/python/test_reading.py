"""What is read is what was recorded: compared with CSV, with pyarrow and with the tool."""

import csv
import io
import json
import math

import numpy as np
import pyarrow.parquet as pq
import pytest
from conftest import GOLDEN, run_tool

import kyr
from kyr._types import BYTE_TYPES

WAYS = [(), ("--pack",), ("--stream", "--batch", "1000")]


@pytest.mark.parametrize("options", WAYS, ids=lambda options: " ".join(options) or "plain")
@pytest.mark.parametrize("name", ["imu", "hvac"])
def test_every_value_is_that_of_the_csv(imported, csv_columns, name, options):
    columns = csv_columns(name)
    texts = list(columns.values())[1:]
    recording = kyr.open(imported(name, *options))
    # The tool takes names and units out of the heads, but leaves the order as it is.
    kept = [text for text in texts if any(cell and cell[0] in "-+.0123456789" for cell in text)]
    assert len(recording) == len(kept) > 0
    for signal, text in zip(recording.values(), kept):
        times, values = signal.read()
        expected = np.array([float(cell) for cell in text if cell])
        np.testing.assert_array_equal(values, expected, err_msg=signal.name)
        assert len(times) == len(values) == len(signal)
        assert not times.flags.writeable and not values.flags.writeable


def test_every_type_is_what_pyarrow_reads():
    recording = kyr.open(GOLDEN)
    described = json.loads((GOLDEN / "recording.json").read_text())["signals"]
    compared = 0
    for info in described:
        signal = recording.by_id(info["id"])
        if info["dataStorageId"] is None:
            assert len(signal) == 0
            continue
        table = pq.read_table(GOLDEN / "storage" / str(info["dataStorageId"]))
        samples = table.column("data").to_pylist()
        times, values = signal.read()
        assert len(values) == len(times) == len(samples)
        for row, sample in enumerate(samples):
            if signal.dtype == object:
                assert values[row] == signal[row] == (sample or b"")
                continue
            flat = np.asarray(values[row]).ravel("F")
            np.testing.assert_array_equal(flat, np.array(sample, signal.dtype).ravel())
            if signal.shape is None:
                shape = table.column("dimension").to_pylist()[row]
                assert values[row].shape == tuple(shape)
            compared += 1
    assert compared > 200


def test_matrices_are_where_the_tool_prints_them():
    # The tool prints "1 2 3;4 5 6" for a matrix of two rows.
    signal = kyr.open(GOLDEN)["Int32 FixedDim"]
    rows = list(csv.reader(io.StringIO(run_tool("cat", GOLDEN, signal.name))))[1:]
    matrices = [[row.split() for row in cells[1].split(";")] for cells in rows]
    assert signal.shape == (2, 3) and len(rows) == len(signal) == 7
    np.testing.assert_array_equal(signal.values, np.array(matrices).astype(int))
    assert signal.values.strides == (24, 4, 8)  # the columns of a matrix lie one after the other


def test_rows_are_selected_as_with_numpy(imported):
    signal = kyr.open(imported("imu"))["Gyroscope X"]
    whole = np.array(signal.values)
    keys = [5, -1, np.int64(7), slice(3, 9), slice(-5, None), slice(None, None, 1000)]
    keys += [slice(20, 2, -3), slice(9, 3), slice(None, None, -1), slice(10**9, None), ...]
    keys += [[1, 5, 5, -2], np.arange(40, 20, -1), whole > whole.mean(), (slice(2, 4),)]
    for key in keys:
        np.testing.assert_array_equal(signal[key], whole[key], err_msg=str(key))
    for row in (len(signal), -len(signal) - 1):
        with pytest.raises(IndexError, match=f"row {row} of signal 'Gyroscope X'"):
            signal[row]
    matrices = kyr.open(GOLDEN)["UInt16 FixedDim"]
    for key in [(3, 1, 2), (slice(1, 4), 0), (..., 1), (-1,), (slice(None), slice(None), 2)]:
        np.testing.assert_array_equal(matrices[key], matrices.values[key])
    assert list(signal) == list(whole)


@pytest.mark.parametrize("options", WAYS, ids=lambda options: " ".join(options) or "plain")
def test_windows_and_chunks_are_parts_of_the_whole(imported, options):
    signal = kyr.open(imported("imu", *options))["Gyroscope X"]
    times, values = signal.read()
    assert signal.span == (times.min(), times.max())
    middle = times[len(times) // 2]
    for start, stop in [(None, middle), (middle, None), (middle, middle), (middle - 1, middle + 1)]:
        inside = (times >= (start or -math.inf)) & (times <= (stop or math.inf))
        window = signal.read(start, stop)
        np.testing.assert_array_equal(window[0], times[inside])
        np.testing.assert_array_equal(window[1], values[inside])
    assert [len(part) for part in signal.read(1e9, 2e9)] == [0, 0]
    chunks = list(signal.chunks(777))
    assert max(len(t) for t, _ in chunks) == 777
    np.testing.assert_array_equal(np.concatenate([y for _, y in chunks]), values)
    np.testing.assert_array_equal(np.concatenate([t for t, _ in chunks]), times)


def test_what_is_kept_is_shared(imported):
    recording = kyr.open(imported("imu"))
    x, y = recording["Gyroscope X"], recording["Gyroscope Y"]
    assert x.values is not None and x.time is not None
    values, times = x.values, x.time
    assert x.values is values and y.time is times  # one time vector for both
    recording.close()
    assert values.sum() and times.sum()  # arrays outlive the recording


def test_samples_of_varying_size_share_their_memory():
    recording = kyr.open(GOLDEN)
    samples = recording["Double VarDim"].values
    assert isinstance(samples, kyr.Samples)
    assert [sample.shape for sample in samples][:3] == [(1, 1), (2, 3), (0, 4)]
    assert samples[4].shape == ()  # an empty shape is one element
    part = samples[1:5]
    assert len(part) == 4 and np.shares_memory(part[0], samples.elements)
    np.testing.assert_array_equal(part[-1], samples[4])
    assert [sample.shape for sample in samples[::-2]] == [s.shape for s in list(samples)[::-2]]
    assert list(recording["Binary Scalar"].chunks(2))[1][1][0] == recording["Binary Scalar"][2]


def test_a_recording_is_a_mapping(imported):
    recording = kyr.open(imported("imu"))
    assert list(recording) == list(recording.keys()) and len(recording) == 9
    assert "Gyroscope X" in recording and "gyroscope x" not in recording and 3 not in recording
    first = recording[next(iter(recording))]
    assert recording.by_id(first.id) is first and recording.get("no") is None
    chosen = recording.select("Gyro*")
    assert list(chosen) == ["Gyroscope X", "Gyroscope Y", "Gyroscope Z"]
    assert len(chosen.select("*X", "*Y")) == 2 and len(recording.select(unit="no unit")) == 0
    assert dict(chosen.items())["Gyroscope X"].name == "Gyroscope X"


def test_names_are_made_unique_and_equal_samples_known(tmp_path):
    # Hosts may give several signals one name.
    with kyr.record(tmp_path / "run") as recorder:
        for id, (name, unit) in enumerate([("v", "m/s"), ("v", "km/h"), ("w", ""), ("w", "")], 1):
            signal = recorder._core.add(id, name, unit, "", [], 0, 0)
            signal.append([0, 1], [1, 2 + id % 2])
    recording = kyr.open(tmp_path / "run")
    assert list(recording) == ["v [m/s]", "v [km/h]", "w (3)", "w (4)"]
    assert recording["v [m/s]"].same_as == ["w (3)"]
    assert recording.select("v").by_id(1).same_as == []
    with pytest.raises(KeyError, match="several signals are called 'v': 'v .m/s.'"):
        recording["v"]


def test_a_live_recording_grows_at_refresh(tmp_path):
    # The tool records in a process of its own, and flushes when it is told to finish.
    import os
    import subprocess
    import time

    folder = tmp_path / "live"
    writer = subprocess.Popen(
        [os.environ["KYR"], "record", "-", folder], stdin=subprocess.PIPE, stderr=subprocess.PIPE
    )
    writer.stdin.write(b"time,x\n" + b"".join(b"%d,%d\n" % (i, i * i) for i in range(10)))
    writer.stdin.flush()
    deadline = time.monotonic() + 20
    recording = None
    while recording is None or len(recording) == 0 or len(recording["x"]) < 10:
        assert time.monotonic() < deadline, "no rows came"
        time.sleep(0.05)
        try:
            recording = recording or kyr.open(folder)
            recording.refresh()
        except kyr.Error:
            pass  # not there yet
    assert recording.is_live
    signal = recording["x"]
    chosen = recording.select("x")
    before = signal.values
    writer.stdin.write(b"10,100\n")
    writer.communicate(timeout=20)
    assert len(signal) == 10 and signal.values is before
    assert chosen.refresh() and recording.refresh() and not recording.refresh()
    assert not recording.is_live and chosen["x"].values[-1] == 100
    np.testing.assert_array_equal(recording["x"].values, np.arange(11) ** 2)
    assert len(before) == 10


def test_types_are_known_to_both_sides():
    # A new type in the library must get its place in the package.
    for signal in kyr.open(GOLDEN).values():
        assert (signal.dtype == object) == (signal._info.data_type in BYTE_TYPES)
        assert signal.name.split()[0].lower().startswith(("never", *KNOWN[signal.dtype.name]))


KNOWN = {
    "float64": ["double"],
    "float32": ["single"],
    "bool": ["boolean"],
    "object": ["binary", "bytestring"],
    **{f"{sign}int{bits}": [f"{sign}int{bits}"] for sign in ("", "u") for bits in (8, 16, 32, 64)},
}
