"""kyr brings its own Arrow. Beside the Arrow of pyarrow, of any version, both work."""

import os
import pathlib
import re
import subprocess
import sys

import pytest
from conftest import GOLDEN, ROOT

# Deserialising options goes through tables of the library that were once shared by all Arrows in a
# process: one of them then called into the other.
BOTH = """
import sys
first, second = sys.argv[2].split()
def load(name):
    if name == "kyr":
        import kyr
    else:
        import pyarrow, pyarrow.compute, pyarrow.parquet
load(first)
load(second)
import kyr, pyarrow as pa, pyarrow.compute as pc, pyarrow.parquet as pq, io, gc, os
recording = kyr.open(sys.argv[1])
for _ in range(3):
    for options in (pc.CastOptions(pa.int32()), pc.ScalarAggregateOptions(min_count=2)):
        assert type(options).deserialize(options.serialize()) == options
    assert list(recording["Double Scalar"].time) == [i / 2 for i in range(7)]
    reader = pa.RecordBatchReader.from_stream(recording["Int32 VarDim"])
    del recording
    gc.collect()
    table = reader.read_all()
    assert table.num_rows == 7
    file = io.BytesIO()
    pq.write_table(table, file)
    assert pq.read_table(file).sort_by("time").equals(table)
    pa.table({"a": [2, 1, 2]}).group_by("a").aggregate([("a", "sum")])
    try:
        kyr.open("/nowhere")
    except kyr.Error:
        recording = kyr.open(sys.argv[1])
print(pa.__version__, flush=True)
# pyarrow 22 alone aborts now and then while a process ends, on a busy machine.
os._exit(0)
"""
OURS = r"/(libkyr_|kyr/_core)\S+ \[0\]"
MIXED = re.compile(rf"/pyarrow/\S+ \[0\] to \S+{OURS}|{OURS} to \S+/pyarrow/")
VERSIONS = {"15": ROOT / "build/pyarrow/15", "22": ROOT / "build/pyarrow/22", "newest": None}


@pytest.mark.parametrize("order", ["kyr pyarrow", "pyarrow kyr"])
@pytest.mark.parametrize("version", VERSIONS)
def test_both_work_whichever_comes_first(version, order, tmp_path):
    paths = [os.environ["PYTHONPATH"]]
    if VERSIONS[version] is not None:
        assert VERSIONS[version].is_dir(), "scripts/setup gets it"
        paths.insert(0, str(VERSIONS[version]))
    result = subprocess.run(
        [sys.executable, "-B", "-c", BOTH, str(GOLDEN), order],
        capture_output=True,
        text=True,
        timeout=60,
        env={
            **os.environ,
            "PYTHONPATH": os.pathsep.join(paths),
            "LD_DEBUG": "bindings",
            "LD_DEBUG_OUTPUT": str(tmp_path / "bindings"),
        },
    )
    assert result.returncode == 0, f"{result.returncode}: {result.stderr}"
    # Whether a mixed pair crashes depends on what is called; so the linker's own words count.
    mixed = [line for path in tmp_path.iterdir() for line in open(path) if MIXED.search(line)]
    assert mixed == []
    assert version == "newest" or result.stdout.startswith(version)


def test_nothing_of_the_extension_is_seen_by_others():
    import kyr._core

    def symbols(path):
        output = subprocess.run(
            ["readelf", "--dyn-syms", "-W", path], check=True, capture_output=True, text=True
        )
        return [line.split() for line in output.stdout.splitlines() if " UND " not in line]

    extension = symbols(kyr._core.__file__)
    assert [line[7] for line in extension if len(line) > 7 and line[3] == "FUNC"] == [
        "PyInit__core"
    ]
    libraries = list((pathlib.Path(kyr.__file__).parent / "lib").glob("*.so*"))
    assert len(libraries) >= 2
    for library in libraries:
        assert library.name.startswith("libkyr_")
        if library.name == "libkyr_parquet_serialization.so":
            continue  # the tool's
        assert not [line for line in symbols(library) if "UNIQUE" in line]
