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
    import subprocess

    arguments = [program(), "import", *map(os.fspath, options)]
    arguments += ["--pack"] * pack + ["--force"] * replace + ["--", os.fspath(file), os.fspath(path)]
    try:
        result = subprocess.run(arguments, capture_output=True, text=True, errors="replace")
    except OSError as error:
        raise Error(f"the tool cannot be started: {error}") from None
    lines = [line.removeprefix("kyr: ") for line in result.stderr.splitlines() if line.strip()]
    if result.returncode != 0:
        raise Error("\n".join(lines) or f"the tool ended with {result.returncode}")
    return lines
