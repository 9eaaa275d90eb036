"""CSV as loggers, spreadsheets and simulators write it, compared with what Python's csv reads."""

import base64
import csv
import datetime
import gzip
import io
import math
import pathlib
import unittest

from tool import ToolTest, rows_of

FILES = pathlib.Path(__file__).resolve().parent / "csv"
MISSING = {"", "NA", "N/A", "null", "NULL", "None", "-"}


def number(cell):
    cell = cell.strip().replace(",", ".")
    return "" if cell in MISSING else int(cell) if cell.lstrip("-").isdigit() else float(cell)


def text(cell):
    return cell if cell.strip() else ""


def seconds(cell):
    hours, minutes, rest = cell.split(":")
    return (int(hours) * 60 + int(minutes)) * 60 + float(rest)


def since_ten(cell):
    moment = datetime.datetime.strptime(cell, "%d.%m.%Y %H:%M:%S.%f")
    return (moment - datetime.datetime(2024, 5, 1, 10)).total_seconds()


def zstd(content):
    """A zstd frame of blocks that are not compressed."""
    size = 1 << 17
    blocks = [content[i:i + size] for i in range(0, len(content), size)]
    frame = b"\x28\xb5\x2f\xfd\x00\x58"
    for i, block in enumerate(blocks):
        frame += (len(block) << 3 | (i + 1 == len(blocks))).to_bytes(3, "little") + block
    return frame


class Kind:
    """How Python reads a file, and what the tool has to be told for it."""

    def __init__(self, *options, skip=1, time=0, times=number, others=number, names=None, says="",
                 left_out=(), record=True, **dialect):
        self.options, self.skip, self.time, self.times = options, skip, time, times
        self.others, self.names, self.says, self.dialect = others, names, says, dialect
        self.left_out, self.record = left_out, record

    def expected(self, content):
        rows = [row for row in csv.reader(io.StringIO(content, newline=""), **self.dialect) if row]
        header = self.names
        if header is None:
            header = [cell.strip() for cell in rows[self.skip - 1]]
            if self.time is not None:
                header.insert(0, header.pop(self.time))
                header[0] = "time"
        values = []
        for place, row in enumerate(rows[self.skip:]):
            if place in self.left_out:
                continue
            row = [*row, *[""] * len(header)][:len(header) - (self.time is None)]
            first = place if self.time is None else self.times(row.pop(self.time))
            cells = [self.others[i](cell) if isinstance(self.others, list) else self.others(cell)
                     for i, cell in enumerate(row)]
            if any(cell != "" for cell in cells):
                values.append([first, *cells])
        return header, values


KINDS = {
    "spreadsheet.csv": Kind(delimiter=";", says='separated by ";", and numbers have a decimal'),
    "quoted.csv": Kind(says='separated by ",", and numbers have a decimal comma'),
    "tabs.csv": Kind(delimiter="\t", quotechar="'", says="separated by tabs"),
    "blanks.dat": Kind(delimiter=" ", skipinitialspace=True, says="separated by blanks"),
    "headless.csv": Kind(skip=0, names=["time", "column 2", "column 3"],
                         says="line 1 holds values and no names"),
    "logger.csv": Kind(skip=4, names=["time", "p [kPa]", "T [°C]"]),
    "index.csv": Kind(time=2, names=["time", "column 1", "speed", "gear"],
                      says='times are those of column 3, "Timestamp"'),
    "milliseconds.csv": Kind(times=lambda cell: float(cell + "e-3")),
    "nanoseconds.csv": Kind(times=lambda cell: (int(cell) - 1700000000 * 10**9) / 1e9,
                            says="count from 2023-11-14T22:13:20Z on"),
    "stamps.csv": Kind(times={"2024-05-01T10:00:00.123456789+02:00": 0.123456789,
                              "2024-05-01T08:00:00.12345679Z": 0.12345679,
                              "2024-05-01 08:00:02.5Z": 2.5}.get,
                       says="count from 2024-05-01T08:00:00Z on"),
    "clock.csv": Kind(time=1, times=seconds, names=["time", "a"], says="column 2"),
    "dates.csv": Kind("--time-format", "%d.%m.%Y %H:%M:%S.%f", times=since_ten,
                      says="count from 2024-05-01T10:00:00 on"),
    "integers.csv": Kind(),
    "missing.csv": Kind("--missing", "n.d.", "--type", "a=double",
                        others=lambda cell: "" if cell == "n.d." else number(cell)),
    "texts.csv": Kind(others=[text, text, number]),
    "ragged.csv": Kind("--ragged", "pad"),
    "cut.csv": Kind("--ragged", "stop", left_out=[2], says="line 4: the row has 2 cells"),
    "single.csv": Kind("--no-time", time=None, names=["time", "speed [m/s]"]),
}


class Kinds(ToolTest):
    def compare(self, recording, header, values):
        found = rows_of_text(self.cat(recording=recording))
        self.assertEqual(found[0], header)
        self.assertEqual(len(found) - 1, len(values))
        for row, expected in zip(found[1:], values):
            self.assertEqual(len(row), len(expected))
            for cell, value in zip(row, expected):
                same = cell == value if isinstance(value, str) else (
                    int(cell) == value if isinstance(value, int) and abs(value) > 2**53 else
                    float(cell) == value or (math.isnan(float(cell)) and math.isnan(value)))
                self.assertTrue(same, f"{cell!r}, not {value!r}")

    def test_every_cell_comes_back(self):
        self.assertEqual(sorted(KINDS), sorted(file.name for file in FILES.iterdir()))
        for name, kind in KINDS.items():
            header, values = kind.expected((FILES / name).read_bytes().decode())
            for command in ("import", "record"):
                with self.subTest(name, command=command):
                    result = self.run_tool(command, FILES / name, "rec", "--force", *kind.options)
                    self.assertIn(kind.says, result.stderr)
                    self.compare("rec", header, values)
                    self.run_tool("verify", "rec")

    def test_packed_and_in_other_encodings(self):
        content = "time,T [°C]\n0,1.5\n1,2.5\n"
        long = content + "".join(f"{i},{i}.25\n" for i in range(2, 60_000))
        for name, data, options in (
                ("gzip", gzip.compress(long.encode()), []),
                ("two gzip files", gzip.compress(content.encode()) +
                 gzip.compress(long[len(content):].encode()), []),
                ("zstd", zstd(long.encode()), []),
                ("two zstd files", zstd(content.encode()) + zstd(long[len(content):].encode()), []),
                ("latin1", long.encode("latin-1"), ["--encoding", "latin1"]),
                ("latin1 in gzip", gzip.compress(long.encode("latin-1")), ["--encoding", "latin1"]),
                ("utf-16 with mark", long.encode("utf-16"), []),
                ("utf-16 without", long.encode("utf-16-be"), ["--encoding", "UTF-16BE"])):
            file = self.write(data)
            for command in ("import", "record"):
                for source in (str(file), "-"):
                    with self.subTest(name, command=command, source=source):
                        self.run_tool_on(data if source == "-" else b"", command, source, "rec",
                                         "--force", *options)
                        self.assertEqual(self.cat(), long)
        packed = ("KLUv/SBxzQEAlAJ0aW1lLFQgW8KwQ10KMTAwMCwxLjI1CjEwMDEyMzQ1Njc4OSwxLjI1CggEBkDAAQYE"
                  "HGBA3DIG")
        self.store(base64.b64decode(packed))
        self.assertEqual(self.cat(), "time,T [°C]\n" + "".join(f"{i},1.25\n"
                                                              for i in range(1000, 1010)))
        for name, data, options, says in (
                ("cut zstd", zstd(long.encode())[:-9], [], "its end is missing"),
                ("damaged zstd", zstd(long.encode())[:9] + b"x" * 99, [], "unpacked"),
                ("cut", gzip.compress(long.encode())[:-9], [], "its end is missing"),
                ("damaged", gzip.compress(long.encode())[:900] + b"x" * 99, [], "unpacked"),
                ("no such", b"time,a\n", ["--encoding", "klingon"], "no such encoding")):
            with self.subTest(name):
                self.fails("import", self.write(data), "new", *options, says=[says],
                           exit_code=2 if name == "no such" else 1)

    def run_tool_on(self, data, *arguments):
        return self.run_tool(*arguments, stdin=data)

    def test_dialects_are_set_by_hand(self):
        for content, options in (
                ("a+time\n1+0\n2+1\n", ["--delimiter", "+"]), ("sep=;\ntime;a\n0;1\n1;2\n", []),
                ("x\ny\ntime,a\n0,1\n1,2\n", ["--header", "3"]),
                ("x,y\n1,2\ntime,a\n0,1\n1,2\n", ["--skip", "2"]),
                ("0,1\n1,2\n", ["--no-header", "--type", "column 2=int64"]),
                ("time,a\n0,1\n1000,2\n", ["--time-unit", "ms"]),
                ("time,a\n0,1\n1,2\n", ["--time-unit", "s", "--quote", "'"]),
                ("time [h],a\n0,1\n1,2\n", ["--time-unit", "s"]),
                ("b,a\n1e3,0\n2e3,1\n", ["--time", "a"])):
            with self.subTest(content, options=options):
                for command in ("import", "record"):
                    self.run_tool(command, self.write(content), "rec", "--force", *options)
                    found = [list(map(float, row)) for row in rows_of(self.cat())[1:]]
                    scale = 1000 if "e3" in content else 1
                    self.assertEqual(found, [[0, scale], [1, 2 * scale]])
        for options, says in ((["--delimiter", "ab"], "one character"),
                              (["--decimal", "x"], "give"), (["--skip", "-1"], "from 0 on"),
                              (["--no-time", "--time", "t"], "not both"),
                              (["--ragged", "x"], "give"), (["--time-unit", "year"], "give")):
            self.fails("import", "in.csv", "new", *options, says=[says], exit_code=2)

    def test_quiet_tells_warnings_alone(self):
        content = "time;a\n0;1\n1;1e400\n"
        for command in ("import", "record"):
            result = self.run_tool(command, "-", "rec", "--force", "-q", stdin=content)
            self.assertEqual((result.stdout, result.stderr.count("\n")), ("", 1))
            self.assertIn("infinite", result.stderr)

    def test_unusual_numbers(self):
        for content, values in (("time,a\n0,0x1F\n1,0xFFFFFFFFFFFFFFFF\n", ["31", str(2**64 - 1)]),
                                ("time,a,\n0,+1,\n1,.5,\n2,5.,\n3,1E-3,\n",
                                 ["1", "0.5", "5", "0.001"])):
            for command in ("import", "record"):
                told = self.run_tool(command, self.write(content), "rec", "--force").stderr
                self.assertEqual(told, "")
                self.assertEqual([row[1:] for row in rows_of(self.cat())[1:]],
                                 [[value] for value in values])
        rows = "".join(f"{i},1,\n" for i in range(150))
        self.fails("record", self.write(f"time,a,\n{rows}150,2,5\n"), "rec", "-f",
                   says=["line 152", '"5"', "column 3=double"])
        told = self.store("time,a\n1700000000123,1\n").stderr
        self.assertIn("1700000000123 s (--time-unit ms", told)

    def test_names_in_a_comment(self):
        for content in ("# time, a\n0,1\n1,2\n", "% time a\n0 1\n1 2\n"):
            self.assertIn("comment", self.store(content).stderr)
            self.assertEqual(self.cat(), "time,a\n0,1\n1,2\n")

    def test_texts(self):
        content = (FILES / "texts.csv").read_text()
        self.store(content, "--text", "skip")
        self.assertEqual(self.cat(), "time,a\n0,1\n1,2\n2,3\n3,4\n")
        self.store(content)
        self.run_tool("export", "rec", "out.csv", "--resample", "union")
        rows = rows_of_text((self.folder / "out.csv").read_text())
        self.assertEqual(rows[1], ["0", "idle", 'two\nlines, and "quotes"', "1"])
        late = self.store("time,a\n" + "".join(f"{i},{i}\n" for i in range(300_000)) + "300000,x\n")
        self.assertIn('line 300002: column "a" holds "x"', late.stderr)
        self.assertEqual([self.signals()["a"]["type"], self.signals()["a"]["rows"]],
                         ["text", 300_001])
        self.assertTrue(self.cat().endswith("\n299999,299999\n300000,x\n"))
        given = "time,a\n0,007\n1,NA\n"
        self.store(given, "--type", "a=text")
        self.assertEqual(self.cat(), given)

    def test_texts_that_may_be_meant_as_numbers_are_told(self):
        for content, says, values, options in (
                ('time,a\n0,"1,234"\n1,999\n', ["line 2", '"1,234"', "--decimal"],
                 ["1,234", "999"], ["--decimal", ","]),
                ("time;a\n0,5;1.234,5\n1;9,5\n", ["line 2", '"1.234,5"', "thousands"],
                 ["1.234,5", "9,5"], []),
                ("time,a\n0,1'000\n1,x\n", ["line 2", '"1\'000"', "thousands"],
                 ["1'000", "x"], []),
                ("time,a\n0,n.d.\n1,5\n", ['"n.d."', "--missing"], ["n.d.", "5"],
                 ["--missing", "n.d."])):
            file = self.write(content)
            for command in ("import", "record"):
                with self.subTest(content, command=command):
                    told = self.run_tool(command, file, "rec", "--force").stderr.splitlines()[-1]
                    for part in ("warning", '"a"', "text", *says):
                        self.assertIn(part, told)
                    self.assertEqual([row[1] for row in rows_of(self.cat())[1:]], values)
                    if options:
                        told = self.run_tool(command, file, "rec", "--force", *options).stderr
                        self.assertNotIn("warning", told)
                        self.assertIn(self.signals()["a"]["type"], ("double", "int64"))
        self.store("time,a\n0,v1.2\n1,192.168.0.1\n2,x-1\n")
        self.assertEqual(self.run_tool("record", "in.csv", "new").stderr, "")

    def test_columns_of_missing_values_that_become_text(self):
        rows = "".join(f"{i},NA\n" for i in range(300_000))
        content = f"time,a\n{rows}300000,x\n"
        self.store(content)
        self.assertEqual(self.cat(), content)

    def test_a_text_that_ends_early(self):
        for content, line in (("time,a\n0,1\n1,2\n2\n3,4\n", 4),
                              ('time,a\n0,1\n1,2\n"2,3\n4,5\n', 4)):
            for command in ("import", "record"):
                with self.subTest(content, command=command):
                    said = self.run_tool(command, self.write(content), "rec", "--force", "--ragged",
                                         "stop").stderr
                    self.assertIn(f"line {line}", said)
                    self.assertEqual(self.cat(), "time,a\n0,1\n1,2\n")

    def test_wide_files_are_packed(self):
        names = ["time", *(f"s{i}" for i in range(400))]
        content = "\n".join([",".join(names), *(",".join(map(str, range(r, r + 401)))
                                                for r in range(5))]) + "\n"
        self.store(content)
        self.assertLess(len(list((self.folder / "rec" / "storage").iterdir())), 5)
        self.assertEqual(self.cat(), content)
        self.store(content, "--no-pack")
        self.assertGreater(len(list((self.folder / "rec" / "storage").iterdir())), 300)

    def test_attributes(self):
        self.store("time,a\n2024-05-01T10:00:00.5,1\n", "--attribute", "model=pump 7",
                   "--attribute", "runs=[1, 2]")
        expected = {"model": "pump 7", "runs": [1, 2], "start": "2024-05-01T10:00:00"}
        self.assertEqual(self.attributes(), expected)
        self.run_tool("record", "-", "live", "--attribute", "n=1.5", stdin="time,a\n0,1\n")
        self.assertEqual(self.attributes("live"), {"n": 1.5})
        self.assertEqual(len(self.info("live")["attributes"]["history"]), 1)
        history = []
        for text in ("time,a\n0,1\n", "time,a\n0,2\n", "time,a\n0,1\n"):
            self.store(text)
            self.run_tool("set", "rec", "a.unit=m")
            history += self.info()["attributes"]["history"]
        for step in history:
            self.assertEqual((step["tool"], step["source"]), ("kyr import", "in.csv"))
            self.assertRegex(step["version"], r"^\d+\.\d+\.\d+$")
            self.assertRegex(step["source_xxh3_128"], "^[0-9a-f]{32}$")
        self.assertEqual(history[0], history[2])
        self.assertNotEqual(history[0], history[1])
        self.store("time,a\n0,1\n", "--attribute", "history=[]")
        self.assertEqual(self.info()["attributes"]["history"], [])
        self.fails("import", "in.csv", "new", "--attribute", "x", says=["NAME=VALUE"], exit_code=2)


class Refusals(ToolTest):
    def test_each_says_what_to_do(self):
        for content, options, says in (
                ("time,a\n0,1\n1\n", [], ["line 3", "1 cell", "--ragged"]),
                ("time\n0\n1\n", [], ["only one column", "--no-time"]),
                ("day,a\nmonday,1\n", [], ["line 2", '"day"', "--time-format", "--time "]),
                ("time,a\n2024-05-01,1\nx,2\n", [], ["line 3", '"time"', "ISO 8601"]),
                ("time [ms],a\n0,1\nx,2\n", [], ["line 3", '"time"', "--time-format"]),
                ("time,a\n3024-05-01,1\n", ["--time-format", "iso"], ["line 2", "1678 to 2261"]),
                ("time,a\n10:00:00,1\n10:60:00,2\n", [], ["line 3", "hh:mm:ss"]),
                ("time,a\n2024-05-01T10:00:00Z,1\n2024-05-01T10:00:01,2\n", [],
                 ["line 3", '"time"', "no zone"]),
                ("Run 5, of May\n\ntime,a\n0,1\n1,2\n", [], ["line 3", '"time"', "--header"]),
                ("time,a\n0,1\n1,2\n".encode("utf-16-le"), [], ["line 1", "--encoding"]),
                ("time,a\n0,1\n", ["--time", "t"], ["no column", '"t"', '"time", "a"']),
                ("time,a\n0,1\n", ["--type", "b=int8"], ["no signal", '"b"', '"a"']),
                ("time,a\n0,1\ninf,2\n", [], ["line 3", '"time"', "finite", "--no-time"]),
                ("\n\n", [], ["in.csv is empty"]),
                ("time,a\n0,x\n", ["--text", "skip"], ["no column is left", "--text store"]),
                ("time,a\n01.02.2024,1\n", ["--time-format", "%Y-%m-%d"], ["line 2", "%Y-%m-%d"]),
                ("time,a\n1,1\n0,2\n", [], ["line 3", "decrease", "--no-time"]),
                ("time,a\n1,1\n,2\n", [], ["line 3", "needs a time", "--time"]),
                ("time,a\n0,\xe9\n".encode("latin-1"), [], ["line 2", '"a"', "--encoding"]),
                ("time,\xe9\n0,1\n".encode("latin-1"), [], ["line 1", "--encoding"]),
                ("time,a\n0,1\n", ["--skip", "9"], ["no row from line"]),
                ("time,a\n0,x\n", ["--type", "a=int8"], ["line 2", '"x"', "int8", "--type"])):
            for command in ("import", "record"):
                with self.subTest(content, command=command):
                    result = self.run_tool(command, self.write(content), "new", "--force", *options,
                                           expect=1)
                    for part in says:
                        self.assertIn(part, result.stderr)

        self.fails("import", self.write('time,a\n0,1\n1,"2\n'), "other",
                   says=["line 3", "not closed"])
        self.fails("record", self.write('time,a\n0,1\n1,"2' + "x" * (17 << 20)), "new", "-f",
                   says=["line 3", "16 MiB", "kyr import"])

    def test_losses_are_told_and_refused_by_strict(self):
        for content, says in (
                ("time,a\n0,1e400\n1,2\n", ["line 2", '"a"', "infinite"]),
                ("time_ns,a\n1700000000000000000,1\n1900000000000000001,2\n",
                 ["line 3", '"time_ns"', "rounded"]),
                ("time,a\n0,1\n1,1e-400\n", ["line 3", '"a"', "stored as 0"]),
                ("time,a\n1700000000.123456789,1\n1700000000.2,2\n",
                 ["line 2", '"time"', "rounded", "--time-format unix"]),
                ("time,a\n0,0.5\n1,9007199254740993\n", ["line 3", '"a"', "rounded"])):
            for command in ("import", "record"):
                with self.subTest(content, command=command):
                    file = self.write(content)
                    told = self.run_tool(command, file, "new", "--force").stderr
                    refused = self.run_tool(command, file, "new", "--force", "--strict",
                                            expect=1).stderr
                    for part in says:
                        self.assertIn(part, told)
                        self.assertIn(part, refused)


def rows_of_text(content):
    return list(csv.reader(io.StringIO(content, newline="")))


if __name__ == "__main__":
    unittest.main()
