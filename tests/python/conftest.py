"""What the tests of the Python package share: recordings that the tool or C++ made."""

import csv
import os
import pathlib
import subprocess

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
GOLDEN = ROOT / "tests/data/golden-v1"


def run_tool(*arguments):
    return subprocess.run(
        [os.environ["KYR"], *map(str, arguments)], check=True, capture_output=True, text=True
    ).stdout


EXAMPLES = {
    "imu": "imu/sensor_data.csv",
    "hvac": "building-hvac/results_initialize_advance.csv",
}


@pytest.fixture(scope="session")
def imported(tmp_path_factory):
    """Gives the folder of an example, imported once per way of storing it."""
    made = {}

    def folder(name, *options):
        key = (name, *options)
        if key not in made:
            made[key] = tmp_path_factory.mktemp("imported") / name
            run_tool("import", ROOT / "examples/data" / EXAMPLES[name], made[key], *options)
        return made[key]

    return folder


@pytest.fixture
def golden_copy(tmp_path):
    """A copy of the recording with all types, to damage."""
    import shutil

    return pathlib.Path(shutil.copytree(GOLDEN, tmp_path / "golden"))


@pytest.fixture
def csv_columns():
    """Columns of an example as text, by their heads."""

    def columns(name):
        with open(ROOT / "examples/data" / EXAMPLES[name], encoding="utf-8-sig") as file:
            rows = list(csv.reader(file))
        return {head.strip(): [row[i] for row in rows[1:]] for i, head in enumerate(rows[0])}

    return columns
