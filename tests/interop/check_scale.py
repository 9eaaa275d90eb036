"""The query of docs/scale.md over 200 recordings, by Spark: check_scale.py KYR DOCUMENT"""

import math
import os
import pathlib
import re
import subprocess
import sys
import tempfile

RUNS = 200
ROWS = 50
SIGNALS = 12


def value(run, signal, row):
    return math.sin(row * (signal + 1)) + (run / 8 if (run + signal) % 4 == 0 else 0)


def make_runs(kyr, folder):
    """Recordings with packs and with files, some of which share them."""
    for run in range(RUNS):
        lines = ["time," + ",".join(f"s{i}" for i in range(SIGNALS))]
        for row in range(ROWS):
            cells = [repr(value(run, i, row)) for i in range(SIGNALS)]
            lines.append(",".join([repr(row / 4 + run % 3), *cells]))
        file = folder / "run.csv"
        file.write_text("\n".join(lines) + "\n", encoding="utf-8")
        options = ["--pack"] * (run % 5 > 0) + ["--like", folder / "runs" / "r000"] * (run % 2)
        subprocess.run([kyr, "import", "-q", file, folder / "runs" / f"r{run:03d}", *options],
                       check=True, stdout=subprocess.DEVNULL)


def main(kyr, document, folder):
    (folder / "runs").mkdir()
    make_runs(kyr, folder)
    program = re.search(r"^```python query_runs.py\n(.*?)^```$",
                        pathlib.Path(document).read_text(encoding="utf-8"), re.M | re.S)[1]
    (folder / "query_runs.py").write_text(program, encoding="utf-8")
    (folder / "check.py").write_text(
        "from pyspark.sql import SparkSession\n"
        "builder = SparkSession.builder.master('local[2]').config('spark.ui.enabled', False)\n"
        "for address in ('host', 'bindAddress'):\n"
        "    builder = builder.config(f'spark.driver.{address}', '127.0.0.1')\n"
        "builder.config('spark.sql.shuffle.partitions', 2).getOrCreate()\n"
        "exec(open('query_runs.py').read())\n"
        "for row in result.collect():\n"
        "    print('ROW', row[0].rsplit('/', 1)[1], row[1], repr(row[2]), repr(row[3]))\n",
        encoding="utf-8")
    found = subprocess.run([sys.executable, "check.py", "runs", "s3"], cwd=folder, check=True,
                           stdout=subprocess.PIPE, text=True).stdout
    rows = [line.split()[1:] for line in found.splitlines() if line.startswith("ROW ")]
    assert len(rows) == RUNS, found
    for run, (name, count, largest, at) in enumerate(rows):
        values = [value(run, 3, row) for row in range(ROWS)]
        wanted = [f"r{run:03d}", ROWS, max(values), values.index(max(values)) / 4 + run % 3]
        assert [name, int(count), float(largest), float(at)] == wanted, (rows[run], wanted)


os.environ["LC_ALL"] = "C.UTF-8"
os.environ["PYSPARK_PYTHON"] = sys.executable
with tempfile.TemporaryDirectory() as name:
    main(sys.argv[1], sys.argv[2], pathlib.Path(name))
