"""Exported tables read by pyarrow, DuckDB and Polars: check_exports.py KYR SAMPLE_WRITER

What they must hold is taken from the recordings' own files, as docs/format.md describes them.
"""

import json
import math
import pathlib
import struct
import subprocess
import sys
import tempfile

import duckdb
import polars
import pyarrow
import pyarrow.dataset
import pyarrow.parquet
from odd_names import NAMES

NUMBERS = {"Double", "Single", "Int8", "UInt8", "Int16", "UInt16", "Int32", "UInt32", "Int64",
           "UInt64", "UInt64Alt", "UInt32Alt", "Boolean"}


def exact(value):
    """Compares bit for bit."""
    if isinstance(value, list):
        return [exact(item) for item in value]
    return struct.pack("<d", value) if isinstance(value, float) else value


def check(what, found, wanted):
    if exact(found) != exact(wanted):
        sys.exit(f"{what}: found {found}, expected {wanted}")


def export(kyr, recording, out, *options):
    subprocess.run([kyr, "export", recording, out, *options], check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return out


def signals_of(recording):
    """The entries in recording.json of the signals with samples, with "time" and "data" added."""
    document = json.loads((recording / "recording.json").read_text(encoding="utf-8"))
    found = [{"unit": "", "description": "", "dimensions": [], **signal}
             for signal in document["signals"] if signal["rowCount"] > 0]
    for signal in found:
        def columns(storage_id):
            return pyarrow.parquet.ParquetFile(
                recording / "storage" / f"{storage_id}.parquet").read().to_pydict()
        signal.update(columns(signal["dataStorageId"]))
        if signal["timeStorageId"] is not None:
            signal["time"] = columns(signal["timeStorageId"])["data"]
        if signal["dataType"] == "Boolean":
            signal["data"] = [[item != 0 for item in value] if isinstance(value, list)
                              else value != 0 for value in signal["data"]]
    return found


def numbers_of(signals):
    return [s for s in signals if s["category"] == "Scalar" and s["dataType"] in NUMBERS]


def by_duckdb(path):
    rows = duckdb.sql("SELECT * FROM read_parquet(?)", params=[str(path)])
    return dict(zip(rows.columns, [list(column) for column in zip(*rows.fetchall())]))


def check_fields(what, schema, signals):
    check(f"{what}, time", schema.field("time").metadata, {b"unit": b"s"})
    for signal in signals:
        wanted = {b"unit": signal["unit"], b"description": signal["description"],
                  b"dimensions": "[2,3]" if signal["dimensions"] else ""}
        wanted = {key: text.encode() for key, text in wanted.items() if text}
        check(f"{what}, {signal['name']}", schema.field(signal["name"]).metadata or {}, wanted)


def check_wide(kyr, recording, out):
    signals = signals_of(recording)
    wanted = {"time": signals[0]["time"]}
    for signal in signals:
        wanted[signal["name"]] = signal["data"]
        if "dimension" in signal:
            wanted[signal["name"] + ".dimension"] = signal["dimension"]
    path = export(kyr, recording, out / "wide.parquet", "--force")
    with pyarrow.parquet.ParquetFile(path) as file:
        check_fields("wide.parquet", file.schema_arrow, signals)
        tables = {"pyarrow": file.read().to_pydict()}
    arrow_file = export(kyr, recording, out / "wide.arrow", "--force")
    with pyarrow.ipc.open_file(arrow_file) as file:
        check_fields("wide.arrow", file.schema, signals)
        tables["pyarrow, arrow"] = file.read_all().to_pydict()
    tables["duckdb"] = by_duckdb(path)
    tables["polars"] = polars.read_parquet(path).to_dict(as_series=False)
    tables["polars, arrow"] = polars.read_ipc(arrow_file).to_dict(as_series=False)
    for reader, found in tables.items():
        check(f"wide by {reader}, columns", list(found), list(wanted))
        for name, values in wanted.items():
            check(f"wide by {reader}, {name}", found[name], values)


def check_long(kyr, recording, out):
    signals = numbers_of(signals_of(recording))
    wanted = {"time": [], "signal": [], "value": []}
    for signal in signals:
        wanted["time"] += signal["time"]
        wanted["signal"] += [signal["name"]] * signal["rowCount"]
        wanted["value"] += map(float, signal["data"])
    path = export(kyr, recording, out / "long.parquet", "--long", "--force")
    arrow_file = export(kyr, recording, out / "long.arrow", "--long", "--force")
    schema = pyarrow.parquet.read_schema(path)
    units = {s["name"]: s["unit"] for s in signals if s["unit"]}
    check("long, units", json.loads((schema.field("signal").metadata or {}).get(b"units", "{}")),
          units)
    for reader, found in {
        "pyarrow": pyarrow.parquet.read_table(path).to_pydict(),
        "pyarrow, arrow": pyarrow.ipc.open_file(arrow_file).read_all().to_pydict(),
        "duckdb": by_duckdb(path),
        "polars": polars.read_parquet(path).to_dict(as_series=False),
    }.items():
        check(f"long by {reader}, columns", list(found), list(wanted))
        for name, values in wanted.items():
            check(f"long by {reader}, {name}", found[name], values)


def check_partitions(kyr, recording, out):
    signals = numbers_of(signals_of(recording))
    wanted = {s["name"]: (s["time"], [float(value) for value in s["data"]]) for s in signals}
    folder = export(kyr, recording, out / "parts", "--long", "--partition", "signal", "--force")
    rows = {
        "pyarrow": pyarrow.dataset.dataset(folder, partitioning="hive").to_table().to_pylist(),
        "duckdb": duckdb.sql(
            "SELECT time, value, signal FROM read_parquet(?, hive_partitioning = true, "
            "hive_types_autocast = false)", params=[str(folder / "*" / "*.parquet")]
        ).fetchall(),
        "polars": polars.scan_parquet(folder / "**" / "*.parquet", hive_partitioning=True,
                                      try_parse_hive_dates=False).collect().to_dicts(),
    }
    for reader, found in rows.items():
        series = {name: ([], []) for name in wanted}
        for row in found:
            row = row if isinstance(row, tuple) else (row["time"], row["value"], row["signal"])
            check(f"partitions by {reader}, name {row[2]}", str(row[2]) in series, True)
            series[str(row[2])][0].append(row[0])
            series[str(row[2])][1].append(row[1])
        for name, values in wanted.items():
            check(f"partitions by {reader}, {name}", list(series[name]), list(values))


def check_resampled(kyr, recording, out):
    path = export(kyr, recording, out / "grid.parquet", "--resample", "union", "--method",
                  "linear", "--compression", "zstd", "--force")
    column = pyarrow.parquet.read_metadata(path).row_group(0).column(0)
    check("codec", column.compression, "ZSTD")
    wanted = {"time": [0.0, 1.0, 2.0, 3.0], "late": [None, 5.0, 6.0, None],
              "on": [True, True, False, False], "sparse": [1.0, 2.0, 3.0, 4.0]}
    check("resampled by pyarrow", pyarrow.parquet.read_table(path).to_pydict(), wanted)
    check("resampled by duckdb", by_duckdb(path), wanted)
    check("resampled by polars", polars.read_parquet(path).to_dict(as_series=False), wanted)


def imported(kyr, folder, text):
    folder.with_suffix(".csv").write_text(text, encoding="utf-8")
    subprocess.run([kyr, "import", folder.with_suffix(".csv"), folder], check=True,
                   stdout=subprocess.DEVNULL)
    return folder


def named_recording(kyr, folder):
    """Signals with odd names and units, of different lengths."""
    headers = ['"' + name.replace('"', '""') + ' [m/s]"' for name in NAMES]
    lines = ["time," + ",".join(headers)]
    for row in range(50):
        cells = [repr(math.sin(row * (i + 1))) if row % (i + 1) == 0 else ""
                 for i in range(len(NAMES))]
        lines.append(f"{row / 8}," + ",".join(cells))
    return imported(kyr, folder, "\n".join(lines) + "\n")


def check_encodings(kyr, folder):
    """Reads stored files of every encoding with all three programs."""
    columns = {"time": [row * 0.001 for row in range(3000)],
               "noise": [math.sin(row * row) for row in range(3000)],
               "steps": [math.floor(row / 7) % 50 / 3 for row in range(3000)],
               "count": [row * 1000 + row % 3 for row in range(3000)]}
    lines = [",".join(columns)] + [",".join(map(repr, row)) for row in zip(*columns.values())]
    recording = imported(kyr, folder, "\n".join(lines) + "\n")
    document = json.loads((recording / "recording.json").read_text(encoding="utf-8"))
    files = {signal["name"]: signal["dataStorageId"] for signal in document["signals"]}
    files["time"] = document["signals"][0]["timeStorageId"]
    encodings = set()
    for column, storage_id in files.items():
        path = str(recording / "storage" / f"{storage_id}.parquet")
        chunk = pyarrow.parquet.ParquetFile(path).metadata.row_group(0).column(0)
        encodings.update(chunk.encodings)
        check(f"pyarrow, {column}", pyarrow.parquet.ParquetFile(path).read()["data"].to_pylist(),
              columns[column])
        check(f"Polars, {column}", polars.read_parquet(path)["data"].to_list(), columns[column])
        rows = duckdb.sql(f"SELECT data FROM read_parquet('{path}')").fetchall()
        check(f"DuckDB, {column}", [row[0] for row in rows], columns[column])
    missing = {"PLAIN", "RLE_DICTIONARY", "DELTA_BINARY_PACKED", "BYTE_STREAM_SPLIT"} - encodings
    if missing:
        sys.exit(f"no column was stored as {missing}, only {encodings}")


def main(kyr, sample_writer):
    with tempfile.TemporaryDirectory() as name:
        out = pathlib.Path(name)
        subprocess.run([sample_writer, out / "samples"], check=True)
        named = named_recording(kyr, out / "named")
        for recording in (out / "samples" / "recording", out / "samples" / "streamed"):
            check_wide(kyr, recording, out)
            check_long(kyr, recording, out)
            check_partitions(kyr, recording, out)
        check_encodings(kyr, out / "encodings")
        check_long(kyr, named, out)
        check_partitions(kyr, named, out)
        check_resampled(kyr, imported(kyr, out / "grid", "time,late,on,sparse\n0,,true,1\n"
                                      "1,5,,\n2,6,false,3\n3,,,4\n"), out)


if __name__ == "__main__":
    main(*map(pathlib.Path, sys.argv[1:]))
