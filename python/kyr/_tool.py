"""The command-line tool `kyr`, which comes with the package."""

from __future__ import annotations

import os
import sys

from ._core import Error

TYPE_CHECKING = False  # Importing the module typing takes long.
if TYPE_CHECKING:
    from typing import Any


def program() -> str:
    """The path of the tool."""
    return os.path.join(os.path.dirname(os.path.abspath(__file__)), "bin", "kyr")


def main() -> None:
    """Becomes the tool. What `kyr` in a terminal does."""
    try:
        os.execv(program(), ["kyr", *sys.argv[1:]])
    except OSError as error:
        sys.exit(f"kyr: the tool is missing from this installation: {error}")


def run(*arguments: Any) -> Any:
    """Runs the tool in a process of its own. What it printed is in `stdout` and `stderr`.

    :raises Error: with the tool's own words
    """
    import subprocess

    try:
        result = subprocess.run(
            [program(), *arguments], capture_output=True, encoding="utf-8", errors="replace"
        )
    except OSError as error:
        raise Error(f"the tool cannot be started: {error}") from None
    if result.returncode != 0:
        messages = _messages(result.stderr)
        raise Error("\n".join(messages) or f"the tool ended with {result.returncode}")
    return result


def _messages(text):
    return [line.removeprefix("kyr: ") for line in text.splitlines() if line.strip()]


def import_csv(
    file: str | os.PathLike[str],
    path: str | os.PathLike[str],
    *,
    pack: bool = False,
    replace: bool = False,
    options: Any = (),
) -> list[str]:
    """Stores the columns of a CSV file as a recording. The tool does it, in a process of its own.

    :param file: a line of names, then a row for each time
    :param path: the folder of the new recording
    :param options: further ones of `kyr import`, such as ["--time", "t", "--delimiter", ";"]
    :return: the tool's warnings, such as columns that hold no numbers
    """
    arguments = ["import", *map(os.fspath, options), *["--pack"] * pack, *["--force"] * replace]
    warnings = run(*arguments, "--", os.fspath(file), os.fspath(path)).stderr
    return _messages(warnings)
