"""Checks what the documents say of the tree: links lead somewhere, and names are in the code.

No line of any source is too long.

check_documents.py REPOSITORY
"""

import pathlib
import re
import subprocess
import sys

MAX_COLUMNS = 100
SOURCES = (".h", ".cc", ".py", ".cmake", ".toml", "CMakeLists.txt")
PROGRAMS = ("scripts/", ".ci/", "benchmarks/compare/run")
CODE = ["src", "include", "tools", "tests", "examples", "benchmarks", "cmake", "scripts"]
# Names that are not ours, and placeholders.
FOREIGN = {"SIGINT", "SIGTERM", "SIGHUP", "SIGKILL", "RLIMIT_NOFILE", "REQUIRED", "OPTIONAL", "OUT"}


def anchors_of(text):
    """The anchors that a viewer makes of headings."""
    for heading in re.findall(r"^#+ (.*)$", text, re.MULTILINE):
        yield re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-")


def check_links(document, text):
    for link in re.findall(r"\]\(([^)\s]+)\)", text):
        if "://" in link:
            continue
        name, _, anchor = link.partition("#")
        target = (document.parent / name) if name else document
        if not target.exists():
            yield f"leads to {link}, which is not there"
        elif anchor and anchor not in anchors_of(target.read_text(encoding="utf-8")):
            yield f"leads to {link}, but there is no such heading"


def check_lines(text):
    for number, line in enumerate(text.splitlines(), 1):
        if len(line) > MAX_COLUMNS and not line.startswith("|"):
            yield f"line {number} has {len(line)} columns, more than {MAX_COLUMNS}"


def names_of_files(root):
    """Those of the repository; where it is none, those of the folders that it would have."""
    listed = subprocess.run(["git", "ls-files"], cwd=root, capture_output=True, text=True)
    if listed.stdout:
        return listed.stdout.split()
    found = [path for folder in CODE for path in (root / folder).rglob("*") if path.is_file()]
    return [path.relative_to(root).as_posix() for path in [*found, *root.glob("*.*")]]


def check_sources(root):
    for name in names_of_files(root):
        if name.startswith(PROGRAMS) or name.endswith(SOURCES):
            for fault in check_lines((root / name).read_text(encoding="utf-8")):
                yield f"{name} {fault}"


def check_names(text, words):
    """Names in code spans: Class, Class::member, function(), bOption, folder/of/the/tree."""
    prose = re.sub(r"^```.*?^```$", "", text, flags=re.MULTILINE | re.DOTALL)
    for span in re.findall(r"(?<!`)`([^`\n]+)`(?!`)", prose):
        names = re.fullmatch(r"(\w+)((?:::\w+)*)(?:\(\))?", span)
        if not names or span in FOREIGN:
            continue
        is_name = re.match(r"[A-Z]\w*[a-z]", span) or "::" in span or span.endswith("()")
        for name in re.findall(r"\w+", span) if is_name else ():
            if name not in words:
                yield f"names {span}, which is not in the code"


def check_paths(root, text):
    folders = "|".join(["docs", *CODE])
    for path in re.findall(rf"`((?:{folders})/[\w/.-]+)`", text):
        if not (root / path).exists():
            yield f"names the path {path}, which is not there"


def main(root):
    root = pathlib.Path(root)
    listed = subprocess.run(["git", "ls-files", "*.md"], cwd=root, capture_output=True, text=True)
    documents = [root / name for name in listed.stdout.split()] or [
        root / "README.md", root / "CONTRIBUTING.md", *sorted((root / "docs").glob("*.md"))]
    words = set()
    for folder in CODE:
        for path in (root / folder).rglob("*"):
            if path.suffix in (".h", ".cc", ".py", ".txt", ".cmake"):
                words.add(path.stem)
                words.update(re.findall(r"\w+", path.read_text(encoding="utf-8")))
    faults = [*check_sources(root)]
    for document in documents:
        text = document.read_text(encoding="utf-8")
        for check in (check_links(document, text), check_lines(text), check_names(text, words),
                      check_paths(root, text)):
            faults += [f"{document.relative_to(root)} {fault}" for fault in check]
    sys.exit("\n".join(faults) if faults else 0)


main(*sys.argv[1:])
