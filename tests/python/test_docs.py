"""The code of the manual runs as it stands."""

import pathlib
import re
import tomllib

from conftest import ROOT

import kyr


def test_the_manual_runs(tmp_path, monkeypatch, capsys):
    monkeypatch.chdir(tmp_path)
    text = (ROOT / "docs/python.md").read_text()
    blocks = list(re.finditer(r"^```python\n(.*?)^```", text, re.S | re.M))
    assert len(blocks) >= 11
    names = {"__name__": "manual"}
    for block in blocks:
        line = text[: block.start(1)].count("\n")
        exec(compile("\n" * line + block[1], "docs/python.md", "exec"), names)
    assert "engine.speed" in capsys.readouterr().out
    sections = re.findall(r"^### (\d+)\.", text, re.M)
    assert sections == [str(number) for number in range(1, 11)]


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
