"""Several signals at once, and what other programs make of them."""

import duckdb
import nanoarrow
import numpy as np
import pandas as pd
import polars as pl
import pyarrow as pa
import pytest
import xarray as xr
from conftest import GOLDEN, run_tool

import kyr


@pytest.fixture(scope="module")
def mixed(tmp_path_factory):
    """Signals of different times and types."""
    folder = tmp_path_factory.mktemp("mixed") / "run"
    kyr.save(
        folder,
        {
            "a": (np.array([0.0, 1, 2, 3]), np.array([0.0, 10, 20, np.nan])),
            "b": (np.array([0.5, 1.5]), np.array([2**62 + 1, -5])),
            "on": (np.array([1.0, 2.5]), np.array([True, False])),
            "m": (np.array([0.0, 2]), np.arange(12.0).reshape(2, 2, 3)),
            "text": (np.array([1.0, 3]), [b"one", b""]),
            "list": (np.array([0.0, 1]), [np.arange(3.0), np.ones((2, 2))]),
        },
        units={"a": "m/s"},
        descriptions={"a": "a speed"},
    )
    return kyr.open(folder)


TAKERS = {
    "pyarrow": lambda source: pa.table(source).to_pydict(),
    "polars": lambda source: pl.DataFrame(source).to_dict(as_series=False),
    "duckdb": lambda source: duckdb.sql("from source").arrow().read_all().to_pydict(),
    "nanoarrow": lambda source: nanoarrow.ArrayStream(source).read_all().to_pylist(),
}


@pytest.mark.parametrize("taker", TAKERS)
def test_every_signal_streams_into(taker):
    for signal in kyr.open(GOLDEN).values():
        taken = TAKERS[taker](signal)
        times, values = signal.read()
        if taker == "nanoarrow":
            taken = {name: [row[name] for row in taken] for name in ("time", "value")}
        assert list(taken.get("time", [])) == list(times)
        for found, expected in zip(taken["value"], values, strict=True):
            if signal.dtype != object:
                expected = np.asarray(expected).ravel("F")
            np.testing.assert_array_equal(found, expected)


@pytest.mark.parametrize("taker", TAKERS)
def test_tables_stream_into(mixed, taker):
    table = mixed.table(["a", "b", "on", "m"], resample="union")
    taken = TAKERS[taker](table)
    if taker == "nanoarrow":
        taken = {name: [row[name] for row in taken] for name in taken[0]}
    assert list(taken["time"]) == [0, 0.5, 1, 1.5, 2, 2.5, 3]
    assert taken["b"] == [None, 2**62 + 1, 2**62 + 1, -5, -5, -5, -5]
    assert taken["on"] == [None, None, True, True, True, False, False]
    np.testing.assert_array_equal(taken["a"], [0, 0, 10, 10, 20, 20, np.nan])
    np.testing.assert_array_equal(taken["m"][0], [0, 3, 1, 4, 2, 5])


def test_schemas_are_told_before_the_rows(mixed):
    assert pa.schema(mixed["m"]) == pa.table(mixed["m"]).schema
    table = mixed.table(["a", "text", "list"], resample="union")
    schema = pa.schema(table)
    assert schema == table.to_arrow().schema and schema.field("text").type == pa.large_binary()
    assert schema.field("a").metadata == {b"unit": b"m/s"}
    assert pa.schema(mixed["a"]).metadata[b"unit"] == b"m/s"


@pytest.mark.parametrize("method", ["previous", "linear"])
@pytest.mark.parametrize("step", ["0.4", "union"])
def test_resampling_is_that_of_the_tool(mixed, tmp_path, method, step):
    out = tmp_path / "out.parquet"
    names = ["a", "b", "on"]
    run_tool("export", mixed.path, out, *names, "--resample", step, "--method", method)
    expected = pd.read_parquet(out, dtype_backend="numpy_nullable")
    times = step if step == "union" else float(step)
    table = mixed.table(names, resample=times, method=method).to_pandas()
    np.testing.assert_array_equal(table.index, expected.iloc[:, 0].astype(float))
    for name, column in zip(names, expected.columns[1:]):
        if method == "linear" and name != "a":
            continue  # the tool interpolates integers as well
        found = table[name].astype(object).where(table[name].notna(), None)
        other = expected[column].astype(object).where(expected[column].notna(), None)
        assert list(found) == list(other), name


def test_methods_and_windows_of_one_signal(mixed):
    times, values = mixed["a"].resample(0.25, "linear", 0.5, 1.25)
    assert list(times) == [0.5, 0.75, 1, 1.25] and list(values) == [5, 7.5, 10, 12.5]
    assert list(mixed["b"].resample(0.25, "nearest")[1]) == [2**62 + 1] * 3 + [-5] * 2
    matrices = mixed["m"].resample(1, "linear")[1]
    np.testing.assert_array_equal(matrices[1], mixed["m"].values.mean(axis=0))
    window = mixed.table(["on", "b"], 0.4, 1.2, resample="union")
    assert list(window.time) == [0.5, 1.0]
    assert window["on"].mask.tolist() == [True, False] and window["b"].tolist() == [2**62 + 1] * 2
    blobs = mixed.table("text", resample=1.0)
    assert list(blobs["text"]) == [b"one", b"one", b""]
    late = mixed.table(["a", "text"], resample="union")
    assert late["text"].tolist() == [None, b"one", b"one", b""]
    lists = mixed.table(["list"], resample=0.5)["list"]
    assert [sample.shape for sample in lists] == [(3,), (3,), (2, 2)]


def test_tables_become_frames_and_datasets(mixed):
    table = mixed.table(["a", "b", "on", "m"], resample="union")
    frame = table.to_pandas()
    assert frame.index.name == "time" and frame.attrs == {"units": {"a": "m/s"}}
    assert frame["b"].dtype == "Int64" and frame["on"].dtype == "boolean"
    assert frame["b"].tolist()[1:] == [2**62 + 1] * 2 + [-5] * 4 and frame["m"][0].shape == (2, 3)
    assert table.to_polars()["b"].to_list()[0] is None
    assert set(table.to_numpy()) == {"time", "a", "b", "on", "m"}
    dataset = table.to_xarray()
    assert dataset["m"].dims == ("time", "m.0", "m.1") and np.isnan(dataset["b"][0])
    assert dataset["a"].attrs == {"units": "m/s", "long_name": "a speed"}


def test_recordings_become_datasets(mixed):
    with xr.open_dataset(mixed.path, engine="kyr") as lazy:
        assert lazy.attrs["left_out"] == ["text", "list"]
        assert len(lazy.coords) == 4
        np.testing.assert_array_equal(lazy["m"].isel({"m.1": 2}), mixed["m"].values[:, :, 2])
        part = lazy["a"].sel(time=slice(1, 2))
        np.testing.assert_array_equal(part, [10, 20])
        xr.testing.assert_identical(lazy.load(), mixed.to_xarray())
    everything = kyr.open(GOLDEN).to_xarray()
    assert everything["UInt64 FixedDim"].dtype == np.uint64
    assert everything["UInt64 FixedDim"].shape == (7, 2, 3)


MISTAKES = {
    "different times": (lambda r: r.table(["a", "b"]), ValueError, "'a' and 'b' .* resample"),
    "no such signal": (lambda r: r.table(["a", "B"]), KeyError, "no signal is called 'B'"),
    "a step of zero": (lambda r: r["a"].resample(0), ValueError, "resample = 0"),
    "a step that is a text": (lambda r: r["a"].resample("fine"), ValueError, "'fine'.*union"),
    "an unknown method": (lambda r: r["a"].resample(1, "cubic"), ValueError, "'linear'"),
    "an endless grid": (lambda r: r["a"].resample(1e-12), ValueError, "a"),
    "nothing": (lambda r: r.select("no").table(), ValueError, "needs a signal"),
}


@pytest.mark.parametrize("name", MISTAKES)
def test_mistakes_are_named(mixed, name):
    use, error, text = MISTAKES[name]
    with pytest.raises(error, match=text):
        use(mixed)


def test_streams_outlive_what_they_are_of(mixed):
    stream = pa.RecordBatchReader.from_stream(kyr.open(mixed.path)["a"])
    table = pa.table(kyr.open(mixed.path).table(["a"]))
    assert stream.read_all()["value"].to_pylist()[:3] == table["a"].to_pylist()[:3] == [0, 10, 20]
