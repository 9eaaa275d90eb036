"""Folders made to harm: recordings that were changed, mostly with checksums that fit."""

import copy
import json
import os
import random
import re
import shutil
import struct

import pyarrow as pa
import pyarrow.parquet as pq
import xxhash

NUMBERS = [None, True, -1, 0, 1, 2**31, 2**32, 2**53 + 1, 2**63 - 1, 2**63, 2**64, 1e300, 0.5]
TEXTS = ["", "x", "\u0000", "x" * 70_000, "../outside", "/dev/zero"]
OTHERS = [[], {}, [[]], ["x"], [2**63, 2**63], [0, 2**40]]
VALUES = NUMBERS + TEXTS + OTHERS


def members(value, path=()):
    """The paths of all members of a document, each list's first two items only."""
    items = (
        value.items()
        if isinstance(value, dict)
        else enumerate(value[:2]) if isinstance(value, list) else ()
    )
    for key, item in items:
        yield path + (key,)
        yield from members(item, path + (key,))


def changed(document, path, change):
    result = copy.deepcopy(document)
    owner = result
    for key in path[:-1]:
        owner = owner[key]
    change(owner, path[-1])
    return result


def put(value):
    return lambda owner, key: owner.__setitem__(key, value)


def drop(owner, key):
    del owner[key]


def repeat(owner, key):
    if isinstance(owner, list):
        owner.append(owner[key])


def sealed(document):
    document.pop("xxh3_128", None)
    body = json.dumps(document, separators=(",", ":"), sort_keys=True, ensure_ascii=False)
    document["xxh3_128"] = xxhash.xxh3_128_hexdigest(body.encode("utf-8", "surrogatepass"))
    return json.dumps(document, separators=(",", ":"), sort_keys=True, ensure_ascii=False)


def deep(text, depth=100_000):
    return text.replace('"signals":', '"other":' + "[" * depth + "]" * depth + ',"signals":', 1)


def fitted(folder):
    """Makes sizes and checksums of recording.json those of the files that are there."""
    name = folder / "recording.json"
    document = json.loads(name.read_text())
    listed = [(f"{f['storageId']}.parquet", f) for f in document["files"] if "pack" not in f]
    listed += [(f"pack-{p['pack']}.parquet", p) for p in document.get("packs", [])]
    for file, member in listed:
        path = folder / "storage" / file
        if not path.is_symlink() and path.is_file():
            content = path.read_bytes()
            member["size"] = len(content)
            member["xxh3_128"] = xxhash.xxh3_128_hexdigest(content)
    name.write_text(sealed(document))


def written(name, text):
    return lambda folder: (folder / name).write_text(text, errors="surrogatepass")


RECORD = "<8sIIQQQQQQ16s"
BATCH_HEADER = 88


def records(content):
    """Offset, header, row group and metadata of the batch records of a growing file."""
    at = 4
    while content[at:at + 8] == b"\x8fKYRBAT\n":
        header = struct.unpack_from(RECORD, content, at)
        group, metadata = at + BATCH_HEADER, at + BATCH_HEADER + header[7]
        if header[2] != 0:
            return
        yield at, header, content[group:metadata], content[metadata:metadata + header[8]]
        at = metadata + header[8]


def with_runs(content, index, change):
    """The growing pack up to a batch that claims to have other rows, with a fitting checksum."""
    at, header, group, metadata = list(records(content))[index]
    key = metadata.index(b"kyr.runs") + len(b"kyr.runs")
    length = metadata[key + 1]  # behind the type of the field; longer texts have more bytes of it
    assert length < 128
    text = change(metadata[key + 2:key + 2 + length].decode()).encode()
    size = (
        bytes([len(text) & 0x7F | 0x80, len(text) >> 7]) if len(text) > 127 else bytes([len(text)])
    )
    metadata = metadata[:key + 1] + size + text + metadata[key + 2 + length:]
    start = struct.pack(RECORD, *header[:8], len(metadata), b"")[:64]
    digest = xxhash.xxh3_128_digest(group + metadata + start)
    return content[:at] + start + digest + content[at + 80:at + BATCH_HEADER] + group + metadata


def journal_line(text):
    return text + xxhash.xxh3_128_hexdigest(text.encode())[:16] + "\n"


class Corpus:
    """Folders, each a mutation of a recording."""

    def __init__(self, bases, outside):
        self.bases = bases
        self.outside = outside
        self.random = random.Random(1)

    def documents(self):
        for base, name in (
            ("finished", "recording.json"),
            ("packed", "recording.json"),
            ("live", "recording.live.json"),
        ):
            document = json.loads((self.bases / base / name).read_text())
            document.pop("xxh3_128")
            for path in members(document):
                for change in [drop, repeat] + [put(value) for value in VALUES]:
                    text = sealed(changed(document, path, change))
                    yield f"{base} {path}", base, written(name, text)
            text = deep(json.dumps(document))
            yield f"{base} nested", base, written(name, text)

    def places(self):
        """Other things than files in their places."""

        def link(target):
            return lambda path: (
                path.unlink() if path.is_file() else shutil.rmtree(path),
                path.symlink_to(target),
            )

        def pipe(path):
            path.unlink()
            os.mkfifo(path)

        def folder(path):
            path.unlink()
            path.mkdir()

        def cut(size):
            return lambda path: path.write_bytes(path.read_bytes()[:size])

        def link_out(path):
            link(self.outside / path.name)(path)

        changes = {
            "link out": link_out,
            "link to a device": link("/dev/tty"),
            "link to zeros": link("/dev/zero"),
            "link to itself": link("x"),
            "pipe": pipe,
            "folder": folder,
            "missing": lambda path: path.unlink(),
            "empty": cut(0),
            "10 bytes": cut(10),
            "half": lambda path: cut(path.stat().st_size // 2)(path),
            "doubled": lambda path: path.write_bytes(path.read_bytes() * 2),
        }
        for base in ("finished", "packed", "live"):
            for file in sorted((self.bases / base).rglob("*")):
                if file.is_file():
                    place = file.relative_to(self.bases / base)
                    for name, change in changes.items():
                        at = lambda folder, c=change, p=place: c(folder / p)
                        yield f"{base} {place} {name}", base, at
            for target in (self.outside, self.outside / "file", "/"):
                for place in ("storage", "lost"):
                    def replace(folder, place=place, target=target):
                        if (folder / place).is_dir():
                            (folder / place).rename(folder / "moved")
                        (folder / place).symlink_to(target)
                    yield f"{base} {place} is {target}", base, replace

                    def replace_without_description(folder, replace=replace):
                        replace(folder)
                        for name in ("recording.json", "recording.live.json"):
                            (folder / name).unlink(missing_ok=True)
                    what = f"{base} {place} is {target}, no description"
                    yield what, base, replace_without_description

    def columns(self):
        """Sound Parquet files that do not fit what is said of them."""
        numbers = {
            name: pa.array([1, 2, 3] * 7, type)
            for name, type in {
                "int8": pa.int8(),
                "int64": pa.int64(),
                "double": pa.float64(),
                "float": pa.float32(),
                "bool": pa.bool_(),
            }.items()
            if name != "bool"
        }
        numbers["bool"] = pa.array([True, False, True] * 7)
        numbers["nulls"] = pa.array([1.0, None, 2.0] * 7)
        numbers["no rows"] = pa.array([], pa.float64())
        numbers["text"] = pa.array(["a", "b", "c"] * 7)
        numbers["blobs"] = pa.array([b"a", b"", b"ccc"] * 7)
        numbers["lists"] = pa.array([[1, 2], [], [3]] * 7, pa.list_(pa.int8()))
        numbers["lists with nulls"] = pa.array([[1, None], None, [3]] * 7, pa.list_(pa.float32()))
        numbers["lists of lists"] = pa.array([[[1]], [], [[2], []]] * 7)
        numbers["structs"] = pa.array([{"a": 1}] * 21)
        shapes = {
            "shapes": pa.array([[2, 1]] * 21, pa.list_(pa.uint64())),
            "large shapes": pa.array(
                [[2**40, 0], [2**63, 2**63], [2**64 - 1]] * 7, pa.list_(pa.uint64())
            ),
            "other shapes": pa.array([["a"]] * 21),
            "no lists": pa.array([1] * 21),
            "null shapes": pa.array([None] * 21, pa.list_(pa.uint64())),
        }
        tables = {name: pa.table({"data": column}) for name, column in numbers.items()}
        tables |= {
            f"lists, {name}": pa.table({"data": numbers["lists"], "dimension": column})
            for name, column in shapes.items()
        }
        tables |= {
            f"time {name}": pa.table({"time": column, "data": numbers["double"]})
            for name, column in numbers.items()
            if len(column) == 21
        }
        tables |= {
            "no name": pa.table({"": numbers["double"]}),
            "twice": pa.Table.from_arrays([numbers["double"]] * 2, ["data", "data"]),
            "storage": pa.table(
                {"storage": pa.array([0] * 21, pa.int32()), "data": numbers["double"]}
            ),
            "nothing": pa.table({}),
        }
        for base in ("finished", "packed", "live"):
            for file in sorted((self.bases / base / "storage").iterdir()):
                for name, table in tables.items():
                    def write(folder, file=file, table=table):
                        pq.write_table(table, folder / "storage" / file.name, row_group_size=5)
                        if (folder / "recording.json").exists():
                            fitted(folder)
                    yield f"{base} {file.name} holds {name}", base, write

    def packs(self):
        """Growing packs that claim to have rows of other contents, or are too many."""
        storage = self.bases / "live" / "storage"
        packs = sorted(path.name for path in storage.iterdir() if path.name.startswith("live-"))
        ids = range(12)
        texts = {
            "no rows": "",
            "all ids": f"0+1 0-{2**31 - 1};",
            "too many": f"0+{2**64 - 1} 0;",
            "far": f"{2**64 - 6}+5 0;",
            "negative": "-1+5 0;",
            "none": "0+0 0;",
            "twice": "0+5 0,0;",
            "down": "0+1 5-1;",
            "long": "0+1 0;" * 700,
        }
        changes = {name: lambda old, text=text: text for name, text in texts.items()}
        for id in ids:
            changes[f"of {id}"] = lambda old, id=id: re.sub(r" [^;]*;", f" {id};", old)
        for first in (0, 5, 9, 11, 14, 2**40, 2**64 - 2):
            changes[f"from {first}"] = lambda old, first=first: re.sub(r"\d+\+", f"{first}+", old)
        for name in packs:
            content = (storage / name).read_bytes()
            for index in range(1, len(list(records(content)))):
                for what, change in changes.items():
                    forged = with_runs(content, index, change)
                    for place in (name, "live-77.parquet"):
                        put = lambda folder, f=forged, p=place: (
                            folder / "storage" / p
                        ).write_bytes(f)
                        yield f"live {name} {what} as {place}", "live", put
            for other in packs:
                put = lambda folder, n=name, o=other: shutil.copy(
                    storage / o, folder / "storage" / n
                )
                yield f"live {name} is {other}", "live", put

            def many(folder, name=name):
                for number in range(100, 700):
                    os.link(
                        folder / "storage" / name, folder / "storage" / f"live-{number}.parquet"
                    )
            yield f"live {name} 600 times", "live", many
        lines = [
            f"2 9 {parts} {rows} "
            for parts in (2, 12, 2**26)
            for rows in (5, 100, 2**40, 2**63, 2**64 - 1)
        ]
        for line in lines:
            yield f"live {line}", "live", lambda folder, w=journal_line(line): (
                folder / "recording.journal"
            ).write_text(w)
        for sequence in (1, 2**60):
            start = f"{sequence} 9 {2**26}"
            claims = "".join(journal_line(f"{start} {rows} ") for rows in range(30_000))
            yield f"live 30000 lines of {sequence}", "live", lambda folder, c=claims: (
                folder / "recording.journal"
            ).write_text(c)
        yield "live sparse journal", "live", lambda folder: os.truncate(
            folder / "recording.journal", 100 << 30
        )

    def bytes(self):
        """Bytes of files changed at random, without end."""
        while True:
            base = self.random.choice(("finished", "packed", "live"))
            file = self.random.choice(sorted((self.bases / base / "storage").iterdir()))
            content = bytearray(file.read_bytes())
            footer = self.random.random() < 0.7 and len(content) > 300
            for _ in range(self.random.choice((1, 1, 2, 8))):
                at = self.random.randrange(
                    max(0, len(content) - 300) if footer else 0, len(content)
                )
                content[at] = self.random.choice(
                    (0, 1, 0x7F, 0x80, 0xFF, content[at] ^ (1 << self.random.randrange(8)))
                )
            keeps = self.random.random() < 0.8

            def write(folder, file=file, content=bytes(content), keeps=keeps):
                (folder / "storage" / file.name).write_bytes(content)
                if not keeps:
                    (folder / "recording.json").unlink(missing_ok=True)
                elif (folder / "recording.json").exists():
                    fitted(folder)
            yield f"{base} {file.name} changed", base, write
