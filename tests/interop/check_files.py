"""Reads stored files with other programs' Parquet readers and compares every value.

check_files.py SAMPLE_WRITER GOLDEN_RECORDING FORMAT_DOCUMENT

The expected values are computed here, from the rules in recording/SampleSignals.cc and not from
anything that the library wrote. The document's Python programs are run as well.
"""

import itertools
import json
import pathlib
import re
import shutil
import struct
import subprocess
import sys
import tempfile

import duckdb
import polars
import pyarrow
import pyarrow.parquet
import xxhash

TIME = [0.5 * row for row in range(7)]
DIMENSIONS = [[1, 1], [2, 3], [0, 4], [3, 1], [], [2, 2], [1, 5]]
LENGTHS = [1, 6, 0, 3, 1, 4, 5]
SHAPES = ["Scalar", "FixedDim", "VarDim"]
BYTE_TYPES = {
    "ByteString": ["Scalar", "Bus", "VarDimBus"],
    "Binary": ["Scalar", "FixedDim", "VarDim", "Bus", "VarDimBus"],
}
COLUMN_TYPES = {
    "Double": "double", "Single": "float", "Int8": "int8", "UInt8": "uint8", "Int16": "int16",
    "UInt16": "uint16", "Int32": "int32", "UInt32": "uint32", "Boolean": "int8", "Int64": "int64",
    "UInt64": "uint64", "UInt64Alt": "uint64", "UInt32Alt": "uint32", "ByteString": "binary",
    "Binary": "binary",
}  # fmt: skip
CODECS = ["uncompressed", "snappy", "zstd", "gzip", "brotli", "lz4_raw"]
KINDS = [(kind, c) for kind in COLUMN_TYPES for c in BYTE_TYPES.get(kind, SHAPES)]


def elements(kind):
    """Element values of a data type, which are repeated."""
    if kind == "Double":
        return [1.5, float("nan"), 0.0, -0.0, sys.float_info.max, 5e-324, float("-inf")]
    if kind == "Single":
        largest, smallest = struct.unpack("<ff", bytes.fromhex("ffff7f7f01000000"))
        return [1.5, float("nan"), 0.0, -0.0, largest, smallest, float("-inf")]
    if kind == "Boolean":
        return [1, 0, 1, 0, 1, 0, 1]
    column_type = "uint8" if kind in BYTE_TYPES else COLUMN_TYPES[kind]
    bits = int(column_type.removeprefix("u").removeprefix("int"))
    low = 0 if column_type[0] == "u" else -(2 ** (bits - 1))
    high = low + 2**bits - 1
    return [1, 0, high, low, 2, high - 1, low + 1]


def expected_columns(kind, category, shared_time):
    """The columns of the data file: name -> (type, values)."""
    first = KINDS.index((kind, category)) % 7
    source = itertools.islice(itertools.cycle(elements(kind)), first, None)
    variable = category in ("VarDim", "VarDimBus")
    lengths = None
    if variable or kind == "Binary":
        lengths = LENGTHS
    elif category == "FixedDim" or kind == "ByteString":
        lengths = [6 if category == "FixedDim" else 3] * 7
    column_type = COLUMN_TYPES[kind]
    if lengths is None:
        data = list(itertools.islice(source, 7))
    else:
        data = [list(itertools.islice(source, length)) for length in lengths]
        if kind in BYTE_TYPES:
            data = [bytes(sample) for sample in data]
        else:
            column_type = f"list<element: {column_type}>"
    columns = {} if shared_time else {"time": ("double", TIME)}
    columns["data"] = (column_type, data)
    if variable:
        columns["dimension"] = ("list<element: uint64>", DIMENSIONS)
    return columns


def exact(value):
    """Compares bit for bit."""
    if isinstance(value, list):
        return [exact(item) for item in value]
    return struct.pack("<d", value) if isinstance(value, float) else (type(value), value)


def check(what, found, wanted):
    if exact(found) != exact(wanted):
        sys.exit(f"{what}: found {found}, expected {wanted}")


def read_duckdb(path):
    rows = duckdb.sql("SELECT * FROM read_parquet(?)", params=[str(path)])
    values = [list(column) for column in zip(*rows.fetchall())]
    return dict(zip(rows.columns, values))


def check_file(path, columns):
    with pyarrow.parquet.ParquetFile(path) as file:
        types = {field.name: str(field.type) for field in file.schema_arrow}
        assert types == {name: kind for name, (kind, _) in columns.items()}, f"{path}: {types}"
        assert file.schema_arrow.metadata is None, path
        by_pyarrow = file.read().to_pydict()
    for reader, found in {
        "pyarrow": by_pyarrow,
        "duckdb": read_duckdb(path),
        "polars": polars.read_parquet(path).to_dict(as_series=False),
    }.items():
        check(f"{path} by {reader}, columns", list(found), list(columns))
        for name, (_, values) in columns.items():
            check(f"{path} by {reader}, {name}", found[name], values)


def check_storage(folder, records, streamed, extension=""):
    files = {}
    for record in records:
        kind, category = KINDS[record["signalId"] - 1]
        (time_id,), (data_id,) = record["timeStorageId"], record["dataStorageId"]
        shared_time = streamed or record["signalId"] % 2 == 1
        check(f"time file of {kind} {category}", time_id != -554114, shared_time)
        if shared_time:
            files[time_id] = {"data": ("double", TIME)}
        files[data_id] = expected_columns(kind, category, shared_time)
    check(f"{folder}", sorted(path.name for path in folder.iterdir()),
          sorted(f"{storage_id}{extension}" for storage_id in files))
    for storage_id, columns in files.items():
        check_file(folder / f"{storage_id}{extension}", columns)


def check_table(folder, document):
    """signals.parquet says what recording.json says, also to those who read many recordings."""
    path = folder / "signals.parquet"
    check("table", xxhash.xxh3_128_hexdigest(path.read_bytes()), document["signals_xxh3_128"])
    files = {file["storageId"]: file for file in document["files"]}
    wanted = []
    for signal in document["signals"]:
        row = {"id": signal["id"], "name": signal["name"], "unit": signal.get("unit", ""),
               "description": signal.get("description", ""), "data_type": signal["dataType"],
               "category": signal["category"], "dimensions": signal.get("dimensions", []),
               "rows": signal["rowCount"]}
        row["from"], row["to"] = signal["timeSpan"] or (None, None)
        for part, prefix in (("data", ""), ("time", "time_")):
            storage_id = signal[f"{part}StorageId"]
            file = files.get(storage_id, {})
            if part == "data":
                row["min"], row["max"] = (
                    None if bound not in file else float(file[bound])
                    for bound in ("minimum", "maximum")
                )
            pack = file.get("pack")
            name = f"pack-{pack}" if pack is not None else str(storage_id)
            row[f"{prefix}digest"] = file.get("content_xxh3_128")
            row[f"{prefix}file"] = f"storage/{name}.parquet" if file else None
            row[f"{prefix}first_row"] = file.get("firstRow", 0) if file else None
            row[f"{prefix}storage"] = storage_id
        wanted.append(row)
    check("table by pyarrow", pyarrow.parquet.read_table(path).to_pylist(), wanted)
    check("table by polars", polars.read_parquet(path).to_dicts(), wanted)
    found = duckdb.sql(f"SELECT * EXCLUDE filename FROM "
                       f"read_parquet('{folder.parent}/*/signals.parquet', filename = true) "
                       f"WHERE filename = '{path}' ORDER BY id")
    rows = [dict(zip(found.columns, row)) for row in found.fetchall()]
    check("table by duckdb", rows, wanted)


def check_recording(folder, version, streamed=False):
    """Returns the records, which only version 1 has."""
    text = (folder / "recording.json").read_text(encoding="utf-8")
    document = json.loads(text)
    compact = re.sub(r'("(?:[^"\\]|\\.)*")|\s+', lambda token: token[1] or "", text)
    body = compact.removesuffix(f',"xxh3_128":"{document["xxh3_128"]}"}}') + "}"
    check("checksum", document["xxh3_128"], xxhash.xxh3_128_hexdigest(body.encode()))
    check("format", [document["format"], document["formatVersion"]], ["kyr recording", version])
    extension = ".parquet" if version > 2 else ""
    for file in document["files"]:
        content = (folder / "storage" / f"{file['storageId']}{extension}").read_bytes()
        wanted = [len(content), 7, xxhash.xxh3_128_hexdigest(content)]
        check(f"file {file}", [file["size"], file["rowCount"], file["xxh3_128"]], wanted)

    if version == 1:
        records = json.loads(document["records"])
    else:
        records = [{"signalId": signal["id"], "dataStorageId": [signal["dataStorageId"]],
                    "timeStorageId": [-554114 if signal["timeStorageId"] is None
                                      else signal["timeStorageId"]]}
                   for signal in document["signals"] if signal["rowCount"] > 0]
        check_table(folder, document)
    ids = {record["signalId"]: record for record in records}
    check("signals", [signal["id"] for signal in document["signals"]], [*range(1, 48), 1000])
    empty = document["signals"].pop()
    for member in ("timeSpan", "timeStorageId", "dataStorageId"):
        check(f"unwritten signal, {member}", empty[member], None)
    for index, (signal, (kind, category)) in enumerate(zip(document["signals"], KINDS)):
        record = ids[index + 1]
        (time_id,), (data_id,) = record["timeStorageId"], record["dataStorageId"]
        wanted = {
            "id": index + 1, "name": f"{kind} {category}", "unit": "°C",
            "description": 'line 1\nline "2"', "dataType": kind, "category": category,
            "dimensions": [2, 3] if category == "FixedDim" else [], "rowCount": 7,
            "compression": CODECS[index % 6], "timeSpan": [0.0, 3.0],
            "timeStorageId": time_id if time_id != -554114 else None, "dataStorageId": data_id,
        }  # fmt: skip
        # Version 3 leaves out what goes without saying.
        for member, value in {"dimensions": [], "compression": "uncompressed"}.items():
            if version > 2 and wanted[member] == value:
                del wanted[member]
        assert signal == wanted, f"{signal}, expected {wanted}"
    check_storage(folder / "storage", records, streamed, extension)
    return records


def check_packed(folder, version):
    """Reads a packed recording with programs that only know Parquet."""
    text = (folder / "recording.json").read_text(encoding="utf-8")
    document = json.loads(text)
    body = text.rsplit(',"xxh3_128":', 1)[0] + "}"
    check("checksum", document["xxh3_128"], xxhash.xxh3_128_hexdigest(body.encode()))
    check("version", document["formatVersion"], version)
    packs = {}
    for pack in document["packs"]:
        path = folder / "storage" / f"pack-{pack['pack']}.parquet"
        check("pack", pack["xxh3_128"], xxhash.xxh3_128_hexdigest(path.read_bytes()))
        packs[pack["pack"]] = path, pyarrow.parquet.read_table(path).to_pydict()
    files = {file["storageId"]: file for file in document["files"]}
    check("files", {path.name for path in (folder / "storage").iterdir()},
          {path.name for path, _ in packs.values()})
    for signal, (kind, category) in zip(document["signals"], KINDS):
        file = files[signal["dataStorageId"]]
        path, rows = packs[file["pack"]]
        inside = slice(file["firstRow"], file["firstRow"] + file["rowCount"])
        check("ids", set(rows["storage"][inside]), {file["storageId"]})
        query = f"SELECT * FROM read_parquet(?) WHERE storage = {file['storageId']}"
        found = duckdb.sql(query, params=[str(path)])
        by_duckdb = dict(zip(found.columns, (list(column) for column in zip(*found.fetchall()))))
        for name, (_, values) in expected_columns(kind, category, True).items():
            check(f"{kind} {category} {name} by pyarrow", rows[name][inside], values)
            check(f"{kind} {category} {name} by duckdb", by_duckdb[name], values)


def program_of(document, name):
    """A program that the document has in a block with that name."""
    text = document.read_text(encoding="utf-8")
    return re.search(rf"```python {re.escape(name)}\n(.*?)```", text, re.DOTALL)[1]


def check_example(document, recording):
    scope = {}
    exec(program_of(document, "read_signal.py"), scope)
    for kind, category in KINDS:
        time, data = scope["read_signal"](recording, f"{kind} {category}")
        check("example, time", time, TIME)
        check("example, data", data, expected_columns(kind, category, True)["data"][1])
    signals = json.loads((recording / "recording.json").read_text(encoding="utf-8"))["signals"]
    empty = [signal["name"] for signal in signals if signal["dataStorageId"] is None]
    check("signals without samples", [scope["read_signal"](recording, name) for name in empty],
          [([], [])])


def check_checker(document, recording):
    """The document's program that checks a recording names each file with a changed bit."""
    program = program_of(document, "check_recording.py")

    def faults(folder):
        command = [sys.executable, "-c", program, folder]
        found = subprocess.run(command, capture_output=True, text=True)
        assert "Traceback" not in found.stderr, found.stderr
        return found.returncode, found.stderr

    check(f"faults of {recording}", faults(recording), (0, ""))
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name) / "damaged"
        shutil.copytree(recording, folder)
        files = sorted((folder / "storage").iterdir())
        for path in [*files[:: max(1, len(files) // 5)], folder / "recording.json"]:
            content = path.read_bytes()
            # A letter of a description, so that the document is JSON still.
            at = content.index(b"line 1") if path.suffix == ".json" else len(content) // 2
            path.write_bytes(content[:at] + bytes([content[at] ^ 1]) + content[at + 1 :])
            code, text = faults(folder)
            assert code == 1 and path.name in text, f"{path} is damaged: {code} {text}"
            path.write_bytes(content)


def check_adoption(sample_writer, folder):
    """Checks that kyr finds files of other programs by content, numbers them and reads rows."""
    folder.mkdir()
    for name, rows, group, codec in (("3", 5, 2, "none"), ("10.parquet", 4, 3, "zstd"),
                                     ("notes", 4, 100, "snappy")):
        table = pyarrow.table({"data": [float(row) + rows / 8 for row in range(rows)]})
        pyarrow.parquet.write_table(table, folder / name, row_group_size=group, compression=codec)
    (folder / "7").write_text("no Parquet file")
    found = subprocess.run([sample_writer, "--adopt", folder], check=True, capture_output=True,
                           text=True).stdout.splitlines()
    wanted = ["3 3 0.625 1.625 2.625 3.625 4.625 | 2.625 3.625",
              "10 10.parquet 0.5 1.5 2.5 3.5 | 2.5 3.5",
              "11 notes 0.5 1.5 2.5 3.5 | 2.5 3.5"]
    assert found == wanted, f"{found}, expected {wanted}"


def main(sample_writer, golden, document):
    check_recording(golden, 1)
    check_packed(golden.with_name("golden-v2"), 2)
    check_checker(document, golden)
    with tempfile.TemporaryDirectory() as name:
        out = pathlib.Path(name)
        check_adoption(sample_writer, out / "adopted")
        subprocess.run([sample_writer, out], check=True)
        for kind in ("recording", "streamed"):
            records = check_recording(out / kind, 3, kind == "streamed")
            check_storage(out / "storage" / kind, records, kind == "streamed")
        check_packed(out / "packed", 3)
        check_table(out / "packed", json.loads((out / "packed/recording.json").read_text("utf-8")))
        for kind in ("recording", "packed"):
            check_example(document, out / kind)
        check_checker(document, out / "packed")


main(*map(pathlib.Path, sys.argv[1:]))
