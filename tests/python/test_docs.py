"""The code of the manual runs as it stands."""

import pathlib
import re
import textwrap
import tomllib

import numpy as np
import pytest
from conftest import ROOT

import kyr


@pytest.mark.parametrize("page, least", [("python.md", 10), ("python-simulation.md", 4)])
def test_the_manual_runs(page, least, tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    text = (ROOT / "docs" / page).read_text()
    blocks = list(re.finditer(r"^```python\n(.*?)^```", text, re.S | re.M))
    assert len(blocks) >= least
    names = {"__name__": "manual"}
    for block in blocks:
        line = text[: block.start(1)].count("\n")
        exec(compile("\n" * line + block[1], page, "exec"), names)


def test_the_tutorial_runs(tmp_path, monkeypatch):
    # What help(kyr) shows, on recordings as it names them.
    monkeypatch.chdir(tmp_path)
    t = np.arange(0, 70, 0.5)
    kyr.save("run42", {"speed": (t, t), "torque": (t[::2], -t[::2])}, units={"speed": "m/s"})
    blocks = re.findall(r"::\n\n((?:    .*\n|\n)+)", kyr.__doc__)
    assert len(blocks) == 3
    names = {}
    for block in blocks:
        exec(textwrap.dedent(block), names)
    assert names["speed"].name == "speed" and kyr.open("run44")["speed"].unit == "m/s"


def test_stubs_are_those_of_the_extension():
    from nanobind.stubgen import StubGen

    stubs = StubGen(kyr._core)
    stubs.put(kyr._core)
    kept = ROOT / "python/kyr/_core.pyi"
    assert stubs.get() == kept.read_text(), f"generate {kept} again: scripts/python-stubs"


def test_everything_public_is_explained():
    for name in kyr.__all__:
        thing = getattr(kyr, name)
        assert thing.__doc__, name
        for member, value in vars(thing).items() if isinstance(thing, type) else ():
            if not member.startswith("_") and (callable(value) or isinstance(value, property)):
                explained = value.__doc__ or member in ("closed", "id", "name", "unit")
                assert explained, f"{name}.{member}"


def test_versions_agree():
    project = tomllib.loads((ROOT / "pyproject.toml").read_text())["project"]
    assert f"project(kyr VERSION {project['version']} " in (ROOT / "CMakeLists.txt").read_text()
    assert (pathlib.Path(kyr.__file__).parent / "py.typed").exists()
    assert kyr.__version__ == project["version"]
