"""Runs the example host and reads its table with another program.

check_example.py EXAMPLE_HOST SCRIPT
"""

import math
import pathlib
import subprocess
import sys
import tempfile

import pyarrow.parquet

with tempfile.TemporaryDirectory() as name:
    out = pathlib.Path(name)
    printed = subprocess.run(
        [*sys.argv[1:], out], check=True, capture_output=True, text=True
    ).stdout
    assert "Compression zstd, Dictionary false, DictionaryLimit 1048576, BatchSize 8192" in printed
    assert "streamed: velocity [m/s], 20000 samples" in printed, printed
    with pyarrow.parquet.ParquetFile(out / "table.parquet") as file:
        column = file.metadata.row_group(0).column(1)
        assert column.compression == "ZSTD" and "RLE_DICTIONARY" not in column.encodings, column
        table = file.read()
    assert table.column_names == ["time", "position", "velocity"], table.column_names
    for row in (0, 12345, 19999):
        time, position, velocity = (value[row].as_py() for value in table.columns)
        decay = math.exp(-0.2 * time)
        assert time == row * 1e-3
        assert math.isclose(position, decay * math.cos(5 * time), abs_tol=1e-12)
        slope = -decay * (5 * math.sin(5 * time) + 0.2 * math.cos(5 * time))
        assert math.isclose(velocity, slope, abs_tol=1e-12)
