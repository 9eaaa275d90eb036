"""W6: recorded CSV files into a recording, and back to CSV, beside programs that do the same."""

import importlib
import importlib.util
import json
import os
import pathlib
import subprocess
import sys
import time

from harness import Failure, cell, count_files, environment, markdown_table, take_turns

TOTAL_BYTES = 100_000_000
SMALLEST = 1_000_000  # of a file that is worth repeating


class Arrow:
    """pyarrow, one Parquet file."""
    module = "pyarrow"

    def write(self, source, folder):
        from pyarrow import csv, parquet
        parquet.write_table(csv.read_csv(source), folder / "table.parquet")

    def read(self, folder, target):
        from pyarrow import csv, parquet
        # ParquetFile takes files with two columns of one name, too.
        csv.write_csv(parquet.ParquetFile(folder / "table.parquet").read(), target)


class DuckDB:
    """DuckDB, one Parquet file."""
    module = "duckdb"

    def write(self, source, folder):
        import duckdb
        duckdb.sql(f"COPY (FROM read_csv('{source}')) TO '{folder}/table.parquet'")

    def read(self, folder, target):
        import duckdb
        duckdb.sql(f"COPY (FROM '{folder}/table.parquet') TO '{target}'")


PEERS = {"py:pyarrow": Arrow, "py:duckdb": DuckDB}
STORES = ["floor", "kyr:import", "kyr:import-stream", *PEERS]


def rows_of(source):
    """The time of each row, and the rest of it."""
    with open(source, encoding="utf-8") as lines:
        next(lines)
        for line in lines:
            time_text, _, rest = line.rstrip("\n").partition(",")
            if rest:
                yield float(time_text), rest


def repeated(source, target, size):
    """The rows of a file again and again, with times that go on, until it has that many bytes.

    Line by line: a process that has been large passes its peak memory on to its children."""
    times = [at for at, _ in rows_of(source)]
    span = times[-1] - times[0] + (times[1] - times[0])
    with open(source, encoding="utf-8") as lines, open(target, "w", encoding="utf-8") as stream:
        stream.write(next(lines))
        turn = 0
        while stream.tell() < size:
            stream.writelines(f"{at + turn * span:.9f},{rest}\n" for at, rest in rows_of(source))
            turn += 1


def make_sources(data, root, scale):
    found = sorted(path for path in pathlib.Path(data).rglob("*.csv")
                   if path.stat().st_size >= SMALLEST)
    sources = []
    for path in found:
        sources.append(root / f"{path.stem}.csv")
        repeated(path, sources[-1], scale * TOTAL_BYTES / len(found))
    return sources


def measured(command, output, env):
    """Runs a program: its times, unless it tells them itself, and its peak memory."""
    start = time.perf_counter()
    with open(output, "wb") as target:
        process = subprocess.Popen(command, stdout=target, stderr=subprocess.PIPE, env=env)
        errors = process.stderr.read()
        _, status, usage = os.wait4(process.pid, 0)
    elapsed = time.perf_counter() - start
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        raise Failure(errors.decode(errors="replace").strip().splitlines()[-1])
    times = {"elapsed": elapsed, "cpu": usage.ru_utime + usage.ru_stime}
    told = output.read_text(encoding="ascii") if __file__ in command else ""
    if told:
        times = json.loads(told)
    return {**times, "memory": usage.ru_maxrss * 1024}


def compare_tables(source, target):
    """Compares every number. Programs may change names, so these are not compared."""
    from pyarrow import csv
    expected, read = csv.read_csv(source), csv.read_csv(target)
    if (read.num_rows, read.num_columns) != (expected.num_rows, expected.num_columns):
        sys.exit(f"{source.name}: {read.num_rows} rows of {read.num_columns} columns came back, "
                 f"expected {expected.num_rows} of {expected.num_columns}")
    for index, name in enumerate(expected.column_names):
        columns = [table.column(index) for table in (expected, read)]
        if not columns[0].cast("float64").equals(columns[1].cast("float64")):
            sys.exit(f"{source.name}: column {name} came back with other values")


def commands(store, source, folder, target, kyr):
    """The commands that import and export, each with the file of its standard output."""
    stored = folder / "stored" / source.stem
    log = folder / "log"
    if store == "floor":  # cp
        stored.mkdir()
        copy = ["cp", "--reflink=never"]
        return ((copy + [source, stored / source.name], log),
                (copy + [stored / source.name, target], log))
    if store in PEERS:
        stored.mkdir()
        driver = [sys.executable, "-B", __file__, store]
        return (driver + ["write", source, stored], log), (driver + ["read", stored, target], log)
    options = ["--stream"] if store.endswith("stream") else []
    return ([kyr, "import", *options, source, stored], log), ([kyr, "cat", stored], target)


def measure(store, folder, sources, kyr):
    (folder / "stored").mkdir()
    env = environment(folder)
    result = {phase: {"elapsed": 0, "cpu": 0, "memory": 0} for phase in ("write", "read")}
    for source in sources:
        target = folder / f"{source.stem}.back.csv"
        for phase, (command, output) in zip(result, commands(store, source, folder, target, kyr)):
            times = measured(command, output, env)
            for clock in ("elapsed", "cpu"):
                result[phase][clock] += times[clock]
            result[phase]["memory"] = max(result[phase]["memory"], times["memory"])
        # Runs in another process: one that has been large passes its peak memory on.
        measured([sys.executable, "-B", __file__, "", "compare", source, target], folder / "log",
                 env)
    result["disk"] = count_files(folder / "stored")
    return result


def installed(peer, notices):
    if importlib.util.find_spec(PEERS[peer].module):
        return True
    notices.append(f"W6 without {peer}: it is not installed")
    return False


def compare(title, root, options, notices):
    """The table, and the results by store."""
    peers = [peer for peer in PEERS if installed(peer, notices)]
    if "py:pyarrow" not in peers:
        notices.append("W6 is left out: what comes back is compared with pyarrow.")
        return "", {}
    sources = make_sources(options.data, root, options.scale)
    if not sources:
        notices.append(f"W6 is left out: no CSV file of {SMALLEST} bytes in {options.data}")
        return "", {}
    stores = [store for store in STORES if store not in PEERS or store in peers]
    if options.store:
        stores = [each for each in stores if each in options.store.split(",") or each == "floor"]
    results = take_turns("W6", stores, root, options, lambda store, folder: measure(
        store, folder, sources, options.programs / "tools/kyr"))
    size = sum(source.stat().st_size for source in sources)
    base = results["floor"]
    summary = options.summary
    rows = []
    for store, outcome in results.items():
        if isinstance(outcome, Failure):
            rows.append([store, f"FAILED: {outcome}"])
            continue
        rows.append([store] + [cell(summary.ratio(outcome, base, phase), ".1f")
                               for phase in ("write", "read")]
                    + [cell(size / summary.time(outcome, phase), ".0f", 1e-6)
                       for phase in ("write", "read")]
                    + [cell(summary.median(outcome, "disk", "size"), ".1f", 1e-6),
                       cell(summary.median(outcome, "disk", "files"), ".0f")]
                    + [cell(summary.median(outcome, phase, "memory"), ".0f", 1e-6)
                       for phase in ("write", "read")])
    header = [
        "program",
        "import",
        "export",
        "import [MB CSV/s]",
        "export [MB CSV/s]",
        "MB",
        "files",
        "peak MB importing",
        "peak MB exporting",
    ]
    names = ", ".join(source.stem for source in sources)
    lines = [f"## W6: {title}", "", f"{size * 1e-6:.0f} MB of CSV: {names}. Times in units of cp, "
             f"{summary}, of whole processes, but of the Python ones without their start.", ""]
    return "\n".join(lines + markdown_table(header, rows)) + "\n", results


def main():
    """STORE write SOURCE FOLDER, STORE read FOLDER TARGET, or "" compare SOURCE TARGET."""
    store, phase, first, second = sys.argv[1:]
    if phase == "compare":
        compare_tables(pathlib.Path(first), pathlib.Path(second))
        return
    peer = PEERS[store]()
    importlib.import_module(peer.module)  # outside the clock
    cpu, start = time.process_time(), time.perf_counter()
    getattr(peer, phase)(pathlib.Path(first), pathlib.Path(second))
    print(json.dumps({"elapsed": time.perf_counter() - start, "cpu": time.process_time() - cpu}))


if __name__ == "__main__":
    main()
