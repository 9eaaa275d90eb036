"""Exported tables read by Spark in local mode: check_spark.py KYR"""

import math
import os
import pathlib
import subprocess
import sys
import tempfile

import pyspark.sql
from odd_names import NAMES

ROWS = 300


def value(signal, row):
    return math.sin(row * (signal + 1))


def rows_of(signal):
    return range(0, ROWS, signal + 1)


def make_recording(kyr, folder):
    lines = ["time," + ",".join('"' + name.replace('"', '""') + '"' for name in NAMES)]
    for row in range(ROWS):
        cells = [repr(value(i, row)) if row in rows_of(i) else "" for i in range(len(NAMES))]
        lines.append(f"{row / 8}," + ",".join(cells))
    file = folder.with_suffix(".csv")
    file.write_text("\n".join(lines) + "\n", encoding="utf-8")
    subprocess.run([kyr, "import", file, folder], check=True, stdout=subprocess.DEVNULL)


def export(kyr, recording, out, *options):
    subprocess.run([kyr, "export", recording, out, *options], check=True,
                   stdout=subprocess.DEVNULL)
    return str(out)


def check_long(what, table):
    assert dict(table.dtypes) == {"time": "double", "signal": "string", "value": "double"}, what
    sums = table.groupBy("signal").agg({"*": "count", "time": "sum", "value": "sum"}).collect()
    found = {row["signal"]: row for row in sums}
    assert sorted(found) == sorted(NAMES), f"{what}: {sorted(found)}"
    for i, name in enumerate(NAMES):
        row = found[name]
        assert row["count(1)"] == len(rows_of(i)), f"{what}, {name}: {row}"
        for column, wanted in (("time", math.fsum(r / 8 for r in rows_of(i))),
                               ("value", math.fsum(value(i, r) for r in rows_of(i)))):
            assert math.isclose(row[f"sum({column})"], wanted, abs_tol=1e-9), f"{what}: {row}"


def main(kyr, folder):
    recording = folder / "recording"
    make_recording(kyr, recording)
    long = export(kyr, recording, folder / "long.parquet", "--long")
    parts = export(kyr, recording, folder / "parts", "--long", "--partition", "signal")
    wide = export(kyr, recording, folder / "wide.parquet", "plain", "--compression", "zstd")
    spark = (pyspark.sql.SparkSession.builder.master("local[1]")
             .config("spark.ui.enabled", False)
             .config("spark.driver.host", "127.0.0.1")
             .config("spark.driver.bindAddress", "127.0.0.1")
             .config("spark.local.dir", str(folder))
             .config("spark.sql.warehouse.dir", str(folder / "warehouse"))
             .config("spark.sql.shuffle.partitions", 1)
             .config("spark.sql.sources.partitionColumnTypeInference.enabled", False)
             .getOrCreate())
    try:
        spark.sparkContext.setLogLevel("ERROR")
        check_long("long", spark.read.parquet(long))
        check_long("partitions", spark.read.parquet(parts))
        table = spark.read.parquet(wide)
        assert table.dtypes == [("time", "double"), ("plain", "double")], table.dtypes
        wanted = [(row / 8, value(0, row)) for row in range(ROWS)]
        assert [tuple(row) for row in table.collect()] == wanted, "wide"
        # The fast reader of Spark does not know all encodings of stored files.
        spark.conf.set("spark.sql.parquet.enableVectorizedReader", "false")
        stored = [spark.read.parquet(str(file)) for file in (recording / "storage").iterdir()]
        found = sorted(math.fsum(row[0] for row in table.collect()) for table in stored)
        wanted = [math.fsum(value(i, row) for row in rows_of(i)) for i in range(len(NAMES))]
        times = {tuple(rows_of(i)) for i in range(len(NAMES))}
        wanted += [math.fsum(row / 8 for row in rows) for rows in times]
        assert found == sorted(wanted), f"stored: {found}"
    finally:
        spark.stop()


# Java takes the encoding of file names from the locale.
os.environ["LC_ALL"] = "C.UTF-8"
os.environ["PYSPARK_PYTHON"] = sys.executable
with tempfile.TemporaryDirectory() as name:
    main(sys.argv[1], pathlib.Path(name))
