"""What `kyr sql` prints, run by DuckDB, against what the Python package reads.

check_sql.py KYR SAMPLE_WRITER ODD_RECORDING
"""

import collections
import json
import os
import pathlib
import shutil
import signal
import struct
import subprocess
import sys
import tempfile

import duckdb
import duckdb_cli
import numpy as np

import kyr as package

DUCKDB = pathlib.Path(duckdb_cli.__file__).parent / "duckdb"
ODD_NAMES = [
    "plain", 'q"u"o', "it's", "two\nlines\n.quit\n;", "[b]*{c}?", "a", "A", "time", "RUN",
    "samples", "signals", "Table_1", "table_x", "sqlite_master", "duckdb_tables", "x -- y",
    "späte ü", "SPÄTE Ü", "1.5", "a.b/c\\d", "value", "%s{}",
]  # fmt: skip
TEXTS = "time,text,n\n0,one,1\n1,,2\n2,ä'\\x,3\n"
ODD_FOLDERS = ["a[1]*?", "data=7/storage=3/time=1", "it's \"here\"", "{x,y}**", "back\\slash",
               "two\nlines", "ü"]


def exact(value):
    """Compares bit for bit, NaN included, and tells types apart."""
    if isinstance(value, (list, tuple)):
        return [exact(item) for item in value]
    return struct.pack("<d", value) if isinstance(value, float) else (type(value), value)


def check(what, found, wanted):
    if exact(found) != exact(wanted):
        sys.exit(f"{what}: found {str(found)[:2000]}, expected {str(wanted)[:2000]}")


def run(*command, expect=0, **options):
    result = subprocess.run([*map(str, command)], capture_output=True, text=True, **options)
    assert result.returncode == expect, f"{command}: {result}"
    return result


def quoted(name):
    return '"' + name.replace('"', '""') + '"'


def text_of(sample):
    try:
        return sample.decode()
    except UnicodeDecodeError:
        return "".join(chr(byte) if 32 <= byte <= 126 and byte not in b"'\"\\" else f"\\x{byte:02X}"
                       for byte in sample)


def samples_of(signal):
    """Times, samples and shapes as lists of Python's own values; None for each that is missing."""
    times, values = signal.read()
    shapes = None
    if isinstance(values, package.Samples):
        if signal.dtype != object:
            shapes = [list(sample.shape) for sample in values]
        samples = [bytes(sample) if signal.dtype == object else sample.ravel("F").tolist()
                   for sample in values]
        if signal._info.data_type == 10005 and signal._info.category == 0:
            samples = [text_of(sample) for sample in samples]
    elif values is None:
        samples = [None] * len(times)
    else:
        samples = [row.ravel("F").tolist() if values.ndim > 1 else row.item() for row in values]
    return [None] * len(samples) if times is None else times.tolist(), samples, shapes


class ByPackage:
    """What the views of several recordings have to hold."""

    def __init__(self, runs):
        self.signals = {
            (name, signal.id): (signal, *samples_of(signal))
            for name, folder in runs.items()
            for signal in package.open(folder).values()
        }

    def check(self, ask):
        """Compares all views. `ask` returns the rows of a query."""
        entries = ask("SELECT run, id, signal, name, unit, description, \"rows\", first_time, "
                      "last_time, in_table FROM signals")
        check("signals", sorted(entry[:2] for entry in entries), sorted(self.signals))
        rows_of_views = collections.Counter()
        long = []
        tables = collections.defaultdict(list)
        for run, id, view, *told, table in entries:
            signal, times, values, shapes = self.signals[run, id]
            span = (None, None) if told[-1] is None else signal.span
            count = signal._reader.counts(id)[2]
            check(f"{run} {id}", told,
                  [signal.name, signal.unit, signal.description, count, *span])
            columns = "time, value" if shapes is None else "time, value, shape"
            found = ask(f"SELECT {columns} FROM {quoted(view)} WHERE run = ?", run)
            wanted = [times, values] if shapes is None else [times, values, shapes]
            check(f"{run}, view {view}", found, list(zip(*wanted)))
            rows_of_views[view] += len(found)
            if signal._kind is package._types.Kind.number and signal._info.data_type != 10005:
                if values != [None] * len(values):
                    long += [(run, id, view, t, float(v)) for t, v in zip(times, values)]
            if table is not None:
                tables[table, run].append((times, values))
        for view, count in rows_of_views.items():
            check(f"rows of {view}", ask(f"SELECT count(*) FROM {quoted(view)}"), [(count,)])
        check("samples", sorted(map(exact, ask("FROM samples")), key=repr),
              sorted(map(exact, long), key=repr))
        for (table, run), columns in tables.items():
            found = ask(f"SELECT * EXCLUDE (run) FROM {table} WHERE run = ?", run)
            longest = max((times for times, _ in columns), key=len)
            assert len(found) >= len(longest), f"{table} of {run} has {len(found)} rows"
            check(f"times in {table} of {run}", [row[0] for row in found][:len(longest)], longest)
            wanted = [values + [None] * (len(found) - len(values)) for _, values in columns]
            check(f"{table} of {run}", [row[1:] for row in found], list(zip(*wanted)))
        return tables


def by_module(text):
    connection = duckdb.connect()
    connection.execute(text)
    return lambda query, *values: connection.execute(query, values).fetchall()


def record_names(folder):
    with package.record(folder) as recorder:
        for index, name in enumerate(ODD_NAMES):
            unit = "s" if name in ("time", "A") else ""
            recorder.add(name, unit=unit, description=f"'{name}\"").append(
                [0.0, 1.0, float("inf")], [0.5, float("nan"), index])
        recorder.add("never")
        recorder.add("flags", dtype=bool).append([0.25, 1e300], [True, False])
        recorder.add("large", dtype="uint64").append(
            [1 / 3, 0.1], np.array([2**64 - 1, 0], "uint64"))
        recorder.add("small", dtype="int64").append([1.2345678901234567, 5e-324], [-(2**63), 3])
        recorder.add("single", dtype="float32").append([0, 1], np.array([16777216, 0.1], "float32"))
        recorder.add("grid", shape=(2, 3)).append([0.0], np.arange(6.0).reshape(1, 2, 3))
        recorder.add("any", dtype="int16", shape=None).append(0.0, np.ones((2, 0), "int16"))
        recorder.add("blob", dtype=bytes).append([0, 1, 2], [b"", b"\x00\xff", b"'"])


def check_alike(kyr, out):
    """Signals of the same name in two recordings, whose types differ."""
    types = {"whole": ("int32", "float32"), "wide": ("int64", "uint64"),
             "kind": ("bool", "float64"), "kind (numbers)": ("float64", "float64"),
             "rows": ("float64", "float64")}
    numbers = {"int32": 2**31 - 1, "float32": 0.5, "int64": -1, "uint64": 2**64 - 1, "bool": True,
               "float64": 1.5}
    for run in range(2):
        with package.record(out / f"run{run}") as recorder:
            for name, kinds in types.items():
                signal = recorder.add(name if run else name.upper(), dtype=kinds[run])
                if name != "rows" or run:
                    signal.append(float(run), np.dtype(kinds[run]).type(numbers[kinds[run]]))
    text = run_sql(kyr, out / "run0", out / "run1")
    for ask in by_module(text), by_program(text):
        check("mixed", ask("SELECT time, value FROM whole"), [(0.0, 2.0**31 - 1), (1.0, 0.5)])
        check("integers", ask("SELECT value FROM wide"), [(-1,), (2**64 - 1,)])
        check("kinds", ask("SELECT value FROM kind"), [(True,)])
        views = dict(ask("SELECT run || name, signal FROM signals WHERE name ILIKE 'kind%'"))
        check("views", [len(views), len({*views.values()})], [4, 3])
        check("other", ask(f"SELECT value FROM {quoted(views['run1kind'])}"), [(1.5,)])
        check("rows", ask("SELECT run, value FROM rows"), [("run1", 1.5)])
    for run, values in enumerate((np.array([2**31 - 1], "int32"), np.array([0.5], "float32"))):
        package.save(out / f"table{run}", {"x": ([0.0], values), "same": ([0.0], [1.0])})
    for ask in map(lambda f: f(run_sql(kyr, out / "table0", out / "table1")),
                   (by_module, by_program)):
        check("table", ask("SELECT x, run FROM table_1"),
              [(2.0**31 - 1, "table0"), (0.5, "table1")])
        check("tables", ask("SELECT DISTINCT in_table FROM signals"), [("table_1",)])


def run_sql(kyr, *arguments):
    return run(kyr, "sql", *arguments).stdout


def by_program(text):
    """The rows that the program finds, which is an older version than the module."""
    names = duckdb.connect()
    names.execute(text)
    names = names.sql("SELECT view_name FROM duckdb_views() WHERE NOT internal "
                      "UNION ALL SELECT 'signals'").fetchall()
    with tempfile.TemporaryDirectory() as folder:
        path = pathlib.Path(folder) / "answers"
        copies = [f"CREATE TABLE answers.{quoted(name)} AS FROM {quoted(name)};\n"
                  for (name,) in names]
        statements = f"{text}\nATTACH '{path}' AS answers;\n{''.join(copies)}"
        run(DUCKDB, "-bail", "-batch", input=statements)
        connection = duckdb.connect()
        connection.execute(f"ATTACH '{path}' AS answers; USE answers")
        return lambda query, *values: connection.execute(query, values).fetchall()


def check_files(kyr, sample_writer, odd_recording, out):
    run(sample_writer, out / "samples")
    run(odd_recording, out / "odd")
    record_names(out / "names")
    run(kyr, "record", "-", out / "texts", "--type", "text=text", input=TEXTS)
    packed = [out / name for name in ("odd", "odd.apart", "odd.sparse", "names", "texts")]
    for folder in packed:
        copy = shutil.copytree(folder, folder.with_name(folder.name + ".packed"))
        run(kyr, "repack", copy, "--pack")
    folders = [*packed, *(folder.with_name(folder.name + ".packed") for folder in packed),
               out / "samples" / "recording", out / "samples" / "streamed", out / "odd.hollow"]
    for folder in folders:
        text = run_sql(kyr, folder)
        wanted = ByPackage({folder.name: folder})
        tables = wanted.check(by_module(text))
        wanted.check(by_program(text))
        assert tables or folder.name not in ("odd", "names.packed"), folder
    together = [out / name for name in ("names", "names.packed", "odd", "odd.packed")]
    ByPackage({folder.name: folder for folder in together}).check(
        by_module(run_sql(kyr, *together)))


def check_folders(kyr, out):
    # What others would match as patterns comes first.
    for index, name in enumerate(["a1xx", "{x,y}zz", *ODD_FOLDERS]):
        (out / name).mkdir(parents=True)
        package.save(out / name / "run", {"x": ([0.0], [float(index)])})
        for ask in map(lambda f: f(run_sql(kyr, out / name / "run")), (by_module, by_program)):
            check(name, ask("FROM x"), [("run", 0.0, float(index))])
    for name in ("back\\slash*", os.fsdecode(b"no utf-8 \xff")):
        shutil.copytree(out / "ü" / "run", out / name)
        assert run(kyr, "sql", out / name, expect=1, errors="replace").stderr.startswith("kyr: ")
    runs = run_sql(kyr, *(out / name / "run" for name in ODD_FOLDERS))
    check("names of runs", by_module(runs)("SELECT DISTINCT run FROM x ORDER BY ALL"),
          sorted((str(out / name / "run"),) for name in ODD_FOLDERS))


def check_long(kyr, out):
    """Times and samples stay together whatever the number of row groups and threads."""
    rows = 700_000
    values = np.random.default_rng(1).random(rows)
    package.save(out / "long", {"x": (np.arange(rows) / 8, values),
                                "y": (np.arange(rows) / 8, np.arange(rows) % 7)})
    ask = by_module(run_sql(kyr, out / "long"))
    ask("SET threads = 8")
    ask("SET preserve_insertion_order = false")
    for view in "table_1", "(SELECT time, value AS x FROM x)":
        at = rows * 2 // 3
        check(view, ask(f"SELECT x FROM {view} WHERE time BETWEEN {at / 8} AND {at / 8 + 1}"),
              [(value,) for value in values[at : at + 9].tolist()])
        found = ask(f"SELECT sum(x * time) FROM {view}")[0][0]
        assert np.isclose(found, values @ (np.arange(rows) / 8), rtol=1e-12), f"{view}: {found}"


def check_queries(kyr, out):
    """kyr sql --command, with the program."""
    path = {"PATH": f"{DUCKDB.parent}:{os.environ['PATH']}"}
    environment = {**os.environ, **path, "HOME": str(out)}

    def query(text, *options, expect=0, recording="names", **others):
        return run(kyr, "sql", out / recording, "-c", text, *options, expect=expect,
                   env={**environment, **others})

    for text, wanted in {
        "SELECT value FROM large": "value\n18446744073709551615\n0\n",
        "SELECT 1 AS a; SELECT 'x;' AS b;": "a\n1\nb\nx;\n",
        "SELECT 1 AS a -- and; 'so\" on": "a\n1\n",
        "/* \" */ SELECT count(*) AS n FROM \"q\"\"u\"\"o\"": "n\n3\n",
        "SELECT count(*) AS n FROM LARGE JOIN signals ON signal = 'large'": "n\n2\n",
        "CREATE TABLE t AS FROM samples; SELECT count(*) > 60 AS ok FROM t": "ok\ntrue\n",
        "SELECT count(*) > 20 AS ok FROM duckdb_views() WHERE NOT internal": "ok\ntrue\n",
    }.items():
        check(text, query(text, "--format", "csv").stdout.replace("\r", ""), wanted)
    check("json", json.loads(query("FROM large", "--format", "json").stdout)[1]["time"], 0.1)
    assert "| names |" in query("FROM large", "--format", "markdown").stdout
    assert "18446744073709551615" in query("FROM large").stdout

    for text, word in {"SELECT nothing FROM plain": "nothing", "SELEKT": "SELEKT",
                       "SELECT error('here'); SELECT 1": "here", "FROM no_view": "no_view",
                       "SELECT 'open": "open"}.items():
        failed = query(text, "--format", "csv", expect=1)
        assert word in failed.stderr and not failed.stdout, f"{text}: {failed}"
    missing = query("SELECT 1", expect=1, PATH=str(out))
    check("no duckdb", missing.stderr, "kyr: duckdb, the program that --command needs, cannot be "
          "run: No such file or directory\n")
    check("format alone", run(kyr, "sql", out / "names", "--format", "csv", expect=2).stdout, "")
    check("no query", run(kyr, "sql", out / "names", "-c", "", expect=2).stdout, "")

    only = query("SELECT signal FROM signals ORDER BY ALL", "--format", "csv", "--signal", "table*",
                 "--signal", "[b]*", "--signal", "blob").stdout
    check("patterns", only.split(), ["signal", "blob", "table_x"])
    assert "no_such" in run(kyr, "sql", out / "names", "--signal", "no_such", expect=1).stderr
    with package.record(out / "live") as recorder:
        recorder.add("x").append(0.0, 1.0)
        recorder.flush()
        assert "still being recorded" in run(kyr, "sql", out / "live", expect=1).stderr

    endless = "SELECT range FROM range(1000000000000)"
    command = [kyr, "sql", out / "names", "-c", endless, "--format", "csv"]
    with subprocess.Popen(command, env=environment, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE) as tool:
        tool.stdout.readline()
        tool.stdout.close()
        check("closed output", [tool.wait(60), tool.stderr.read()], [0, b""])
    with subprocess.Popen(command, env=environment, stdout=subprocess.PIPE) as tool:
        tool.stdout.readline()
        tool.terminate()
        while tool.stdout.read(1 << 20):  # until the program has ended as well
            pass
        check("terminated", tool.wait(60), -signal.SIGTERM)


def main(kyr, sample_writer, odd_recording):
    with tempfile.TemporaryDirectory(prefix="kyr sql ") as name:
        out = pathlib.Path(name)
        check_files(kyr, sample_writer, odd_recording, out)
        check_alike(kyr, out)
        check_folders(kyr, out)
        check_long(kyr, out)
        check_queries(kyr, out)


if __name__ == "__main__":
    main(*map(pathlib.Path, sys.argv[1:]))
