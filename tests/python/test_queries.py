"""DuckDB on a recording, and the rows of many recordings as one stream."""

import shutil
import sys

import duckdb
import nanoarrow
import numpy as np
import polars as pl
import pyarrow as pa
import pytest
from conftest import GOLDEN

import kyr


@pytest.fixture(scope="module")
def runs(tmp_path_factory):
    """Three recordings of different kinds."""
    folder = tmp_path_factory.mktemp("queried") / "runs"
    folder.mkdir()
    (folder / "notes").mkdir()
    (folder / "list.txt").write_text("no recording")
    t = np.arange(100_000) / 8
    kyr.save(folder / "a", {"x": (t, t * 3), "on": ([0.0, 1], [True, False]), "x[1]": ([0.5], [9])})
    kyr.save(folder / "b", {f"small {i}": ([0.0, 1], [i, i + 0.5]) for i in range(300)}, pack=True)
    with kyr.record(folder / "c") as w:
        w.add("x", dtype="uint64").append([0.0], np.array([2**64 - 1], "uint64"))
        w.add("m", shape=(2,)).append(0.0, np.ones(2))
        w.add("blob", dtype=bytes).append(0.0, b"x")
        w.add("never")
    return folder


def rows_of(path, wanted=lambda name: True):
    """What a scan has of a recording."""
    rows = []
    for signal in kyr.open(path).values():
        if signal.shape == () and signal.dtype != object and wanted(signal.name):
            times, values = signal.read()
            times = [None] * len(values) if times is None else times.tolist()
            numbers = zip(times, map(float, values.tolist()))
            rows += [(path.name, signal.id, signal.name, *pair) for pair in numbers]
    return rows


TAKERS = {
    "pyarrow": lambda s: [tuple(row.values()) for row in pa.table(s).to_pylist()],
    "polars": lambda s: pl.DataFrame(s).rows(),
    "duckdb": lambda s: duckdb.sql("from s").fetchall(),
    "nanoarrow": lambda s: [
        tuple(row.values()) for row in nanoarrow.ArrayStream(s).read_all().to_pylist()
    ],
}


@pytest.mark.parametrize("taker", TAKERS)
def test_scans_stream_into(runs, taker):
    scan = kyr.scan(f"{runs}/*")
    wanted = [row for name in "abc" for row in rows_of(runs / name)]
    assert TAKERS[taker](scan) == wanted
    assert TAKERS[taker](scan) == wanted  # again, from the beginning
    assert pa.schema(scan) == pa.table(scan).schema


def test_queries_find_rows_of_many_runs(runs):
    scan = kyr.scan(runs / "?")
    query = "select run, max(value) from scan where signal = 'x' group by run order by run"
    found = duckdb.sql(query)
    assert found.fetchall() == [("a", 99_999 / 8 * 3), ("c", 2.0**64)]
    found = pl.DataFrame(scan).filter(pl.col("run") == "b").group_by("signal").len()
    assert len(found) == 300 and found["len"].sum() == 600


def test_batches_are_neither_large_nor_many(runs):
    batches = list(pa.RecordBatchReader.from_stream(kyr.scan(f"{runs}/*")))
    assert [batch.num_rows for batch in batches] == [65536, 100_604 - 65536]


SELECTIONS = {
    "a name": ("x", lambda name: name == "x"),
    "a name that looks like a pattern": ("x[1]", lambda name: name == "x[1]"),
    "names and patterns": (["o?", "small 1*"], lambda name: name == "on" or name[:7] == "small 1"),
    "what overlaps": (["small 1", "*1", "small 1"], lambda n: n.endswith("1") and n != "x[1]"),
    "no names": ([], lambda name: False),
    "what no recording has": ("y", lambda name: False),
}


@pytest.mark.parametrize("name", SELECTIONS)
def test_signals_are_chosen(runs, name):
    names, wanted = SELECTIONS[name]
    found = TAKERS["pyarrow"](kyr.scan([f"{runs}/[ab]", runs / "c"], names))
    assert found == [row for run in "abc" for row in rows_of(runs / run, wanted)]


def test_equal_names_and_missing_times(runs, tmp_path):
    other = shutil.copytree(runs / "c", tmp_path / "c")
    scan = kyr.scan([runs / "c", other, GOLDEN])
    table = pa.table(scan)
    assert scan.paths == [str(runs / "c"), str(other), str(GOLDEN)]
    assert set(table["run"].to_pylist()) == {*scan.paths[:2], "golden-v1"}
    golden = [row for row in TAKERS["pyarrow"](scan) if row[0] == "golden-v1"]
    assert repr(golden) == repr(rows_of(GOLDEN))  # with NaN
    with kyr.record(tmp_path / "live") as w:
        w.add("level").append([0.0, 1.0], [1.0, 2.0])
        w.flush()
        assert pa.table(kyr.scan(tmp_path / "live"))["value"].to_pylist() == [1, 2]


def test_a_recording_is_opened_when_its_turn_comes(runs, tmp_path):
    for name in "ab":
        shutil.copytree(runs / "a", tmp_path / name)
    scan = kyr.scan(tmp_path / "*")
    shutil.rmtree(tmp_path / "b")
    reader = pa.RecordBatchReader.from_stream(scan)
    assert reader.read_next_batch().num_rows == 65536
    with pytest.raises(OSError, match="b: no such folder"):
        reader.read_all()


def test_damage_is_named(runs, tmp_path):
    folder = shutil.copytree(runs / "a", tmp_path / "a")
    largest = max((folder / "storage").iterdir(), key=lambda file: file.stat().st_size)
    content = bytearray(largest.read_bytes())
    content[len(content) // 2] ^= 1
    largest.write_bytes(content)
    with pytest.raises(OSError, match=f"storage/{largest.name}"):
        pa.table(kyr.scan(folder))


MISTAKES = {
    "no recording": (lambda runs: kyr.scan(runs), kyr.Error, "runs: there is no recording"),
    "nothing there": (lambda runs: kyr.scan(runs / "d"), kyr.Error, "runs/d"),
    "nothing matches": (lambda runs: kyr.scan(runs / "n*"), kyr.Error, r"runs/n\*: no recording"),
    "a number": (lambda runs: kyr.scan(runs / "a", [7]), TypeError, "by name, not by 7"),
}


@pytest.mark.parametrize("name", MISTAKES)
def test_mistakes_are_named(runs, name):
    use, error, text = MISTAKES[name]
    with pytest.raises(error, match=text):
        use(runs)


def test_duckdb_has_views_of_a_recording(runs):
    recording = kyr.open(runs / "a")
    connection = recording.duckdb()
    assert connection.sql("select max(value) from x where time < 10").fetchall() == [(79 / 8 * 3,)]
    assert connection.sql("select value from \"on\"").fetchall() == [(True,), (False,)]
    own = duckdb.connect()
    assert kyr.open(runs / "c").duckdb(own) is own
    assert own.sql("select value from x").fetchall() == [(2**64 - 1,)]


def test_duckdb_has_views_of_what_was_selected(tmp_path):
    with kyr.record(tmp_path / "run") as w:
        for name in ("2", "b", "-c\n", "4"):
            w.add(name).append(0.0, 1.0)
    recording = kyr.open(tmp_path / "run")
    for patterns in (["b", "-*"], ["2"], ["4"], ["*"]):
        chosen = recording.select(*patterns)
        found = chosen.duckdb().sql("select name from signals order by id").fetchall()
        assert [name for (name,) in found] == list(chosen)
    with pytest.raises(ValueError, match="no signal is selected"):
        recording.select("no").duckdb()
    recording.close()
    with pytest.raises(ValueError, match="closed"):
        recording.duckdb()


def test_duckdb_says_what_it_lacks(runs, tmp_path, monkeypatch):
    with kyr.record(tmp_path / "live") as w:
        w.add("x").append(0.0, 1.0)
        w.flush()
        with pytest.raises(kyr.Error, match="live is still being recorded"):
            kyr.open(tmp_path / "live").duckdb()
    monkeypatch.setitem(sys.modules, "duckdb", None)
    with pytest.raises(ImportError, match="needs the module duckdb"):
        kyr.open(runs / "a").duckdb()
