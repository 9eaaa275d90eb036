"""Runs a document: all its commands and programs in their order, as a reader would.

run_document.py DOCUMENT REPOSITORY

The first word behind a fence is the language of the block, the second one names a file. A block
with a name is written to that file. Others run: `sh` in one shell that begins in the repository,
`python` in the folder of that shell. `text` is what the block before it prints last.
"""

import os
import pathlib
import re
import subprocess
import sys
import tempfile

# They build and test the tree in which this test runs.
NOT_RUN_HERE = re.compile(r"^(scripts/demo|scripts/test)\b.*$", re.MULTILINE)
SHOWN = ("text", "mermaid", "")
FENCE = re.compile(r"^```(\w*) *(\S*)\n(.*?)^```$", re.MULTILINE | re.DOTALL)
END = "END_OF_THE_BLOCK"


def blocks_of(document):
    """Yields line, language, name and text of each block."""
    text = document.read_text(encoding="utf-8")
    for block in FENCE.finditer(text):
        yield text.count("\n", 0, block.start()) + 1, *block.groups()


def commands_of(where, language, name, text, others):
    if name:
        stem = re.escape(pathlib.Path(name).stem)
        if not any(re.search(rf"\b{stem}\b", other) for other in others):
            sys.exit(f"{where}: nothing uses {name}")
        return f"cat > '{name}' <<'{END}'\n{text}{END}\n"
    if language == "sh":
        return NOT_RUN_HERE.sub(r"test -x \1", text)
    if language == "python":
        return f"python3 -B - <<'{END}'\n{text}{END}\n"
    if language in SHOWN:
        return ""
    sys.exit(f"{where}: {language} without a file name: no command can use it")


def main(document, repository):
    document = pathlib.Path(document)
    blocks = list(blocks_of(document))
    script = ["set -euo pipefail\n"]
    wanted = {}
    before = 0
    for line, language, name, text in blocks:
        if language == "text":
            wanted[before] = text
            continue
        before = line
        script.append(f"printf '\\036%d\\n' {line} | tee /dev/stderr\n")
        others = [other[3] for other in blocks if other[0] != line] + ["CMakeLists"]
        script.append(commands_of(f"{document}:{line}", language, name, text, others))
    with tempfile.TemporaryDirectory(prefix="kyr document ") as folder:
        python = pathlib.Path(sys.executable).parent
        environment = {**os.environ, "TMPDIR": folder, "PATH": f"{python}:{os.environ['PATH']}"}
        run = subprocess.run(["bash", "-c", "".join(script)], capture_output=True, text=True,
                             cwd=repository, env=environment)
    printed = dict(part.split("\n", 1) for part in run.stdout.split("\x1e")[1:])
    if run.returncode != 0:
        line = list(printed)[-1] if printed else 0
        sys.exit(f"{document}:{line}: exit code {run.returncode}\n{run.stderr.split(chr(30))[-1]}")
    assert wanted, f"{document}: shows nothing that could be compared"
    for line, text in wanted.items():
        found = printed[str(line)]
        if not found.endswith(text) or found.count("\n") < text.count("\n"):
            sys.exit(f"{document}:{line}: prints\n{found}\nand not\n{text}")
    print(f"{document}: {len(printed)} blocks, {len(wanted)} outputs compared")


main(*sys.argv[1:])
