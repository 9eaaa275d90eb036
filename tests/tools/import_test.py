"""Importing CSV files: every value is stored, or refused with its line and column."""

import math
import os
import pathlib
import resource
import struct
import subprocess
import time
import unittest

from tool import EXAMPLES, KYR, ToolTest, rows_of


def bits(cell):
    return struct.pack("<d", float(cell))


class Values(ToolTest):
    def test_every_cell_of_the_examples_comes_back(self):
        for name, options in (
            ("building-hvac", []),
            ("imu", []),
            ("imu", ["--compression", "zstd"]),
        ):
            with self.subTest(name, options=options):
                (file,) = (EXAMPLES / name).glob("*.csv")
                self.run_tool("import", file, "rec", "--force", *options)
                self.run_tool("verify", "rec")
                expected = rows_of(file.read_text())[1:]
                found = rows_of(self.cat())[1:]
                self.assertEqual([list(map(bits, row)) for row in found],
                                 [list(map(bits, row)) for row in expected])

    def test_the_output_imports_as_the_same_recording(self):
        for text in ("time,h [m],v (m/s),on\n0,1,0.5,true\n1,,nan,false\n2,3,-inf,\n",
                     "time,u[a],u[b],x[1],der(h),p (2),k [1],T (degC)\n0,1,2,3,4,5,6,7\n",
                     'time,"a, b [m]","q""x","two\nlines"\n0,1,2,3\n',
                     "time,x,x,x (2),\n0,1,2,3,4\n"):
            with self.subTest(text=text):
                self.store(text)
                described, printed = {**self.info(), "attributes": {}}, self.cat()
                self.store(printed)
                self.assertEqual({**self.info(), "attributes": {}}, described)
                self.assertEqual(self.cat(), printed)

    def test_contents_of_equal_hash_are_kept_apart(self):
        # Small integers often have the same hash in the library, and so have -0 and 0.
        pairs = [(a, b) for a in range(2) for b in range(70)]
        columns = [[f"s{i}" for i in range(len(pairs))], *zip(*pairs)]
        lines = [f"{time},{','.join(map(str, cells))}"
                 for time, cells in zip(("time", 0, 1), columns)]
        for text in ("\n".join(lines) + "\n", "time,a,b\n0,-0.0,0\n1,0.5,0.5\n",
                     "time,a\n0,-0.0\n1,1\n"):
            self.store(text)
            self.run_tool("verify", "rec")
            self.assertEqual(self.cat(), text)

    def test_a_line_as_long_as_several_blocks_of_the_reader(self):
        for note in ("x" * 5_000_000, '"' + "x\n" * 2_000_000 + '"'):
            self.store(f"time,a,note,b\n0,1,{note},2\n1,3,,4\n", "--text", "skip")
            self.assertEqual(self.cat(), "time,a,b\n0,1,2\n1,3,4\n")

    def test_file_forms(self):
        for name, content in {
            "CRLF and byte order mark": b"\xef\xbb\xbftime,a\r\n0,1\r\n1,2\r\n",
            "CR": b"time,a\r0,1\r1,2\r",
            "no line end": b"time,a\n0,1\n1,2",
            "blanks": b" time ,\ta \n 0 , 1\n1,2 \n",
            "quotes": b'"time","a"\n"0","1"\n1,2\n',
            "empty lines": b"\n\ntime,a\n\n0,1\n\n\n1,2\n\n",
            "blank cells": b"time,a,b\n0,1,\t\n1,2,\"  \"\n",
            "comma at the end": b"time,a,\n0,1,\n1,2,\n",
        }.items():
            with self.subTest(name):
                self.store(content)
                self.assertEqual(self.cat("a"), "time,a\n0,1\n1,2\n")

    def test_a_pipe(self):
        for rows in (1, 400_000):
            text = "time,a\n" + "".join(f"{row},{row % 7}\n" for row in range(rows))
            self.run_tool("import", "/dev/stdin", "rec", "--force", stdin=text)
            self.assertEqual(self.cat(), text)


class Blocks(ToolTest):
    """Files of more than one block of the reader."""

    ROWS = 300_000

    def store_late(self, time="", **late):
        """Stores columns of small integers with other cells in one row near the end."""
        cells = [[str(row), *(str(row % 2) for _ in late)] for row in range(self.ROWS)]
        cells[-9] = [time or cells[-9][0], *late.values()]
        text = "\n".join(map(",".join, [["time", *late], *cells])) + "\n"
        return cells, self.store(text).stderr

    def test_a_late_cell_decides_on_the_type(self):
        cells, warnings = self.store_late(
            real="0.5", empty="", sign="-0.0", boolean="True", large="18446744073709551615",
            text="x", day="2020-01-01", again="0.5")
        signals = self.signals()
        self.assertEqual({name: signal["type"] for name, signal in signals.items()},
                         {"real": "double", "empty": "int64", "sign": "double",
                          "boolean": "boolean", "large": "uint64", "text": "text", "day": "text",
                          "again": "double"})
        self.assertEqual([line.split('"')[1:4:2] for line in warnings.splitlines()],
                         [["text", "x"], ["day", "2020-01-01"]])
        self.assertIn(f"line {self.ROWS - 7}", warnings)
        self.assertEqual(signals["real"]["dataFile"], signals["again"]["dataFile"])
        found = rows_of(self.cat())[1:]
        truth = {"0": "false", "1": "true", "True": "true"}
        expected = [[*row[:4], truth[row[4]], *row[5:]] for row in cells]
        self.assertEqual(found, expected)

    def test_late_times_of_another_type(self):
        cells, _ = self.store_late(time=f"{self.ROWS - 9}.5", a="1")
        self.assertEqual(rows_of(self.cat())[1:], cells)

    def test_times_that_differ_across_blocks_in_digits_alone(self):
        # A block of 2 MiB holds the line end of the header and 131071 rows of 16 bytes.
        for rows in (131070, 131071, 131072):
            text = "time,a\n" + "0.123456789012,\n" * rows + "0.12345678901200000000000000001,1\n"
            self.assertIn(f"line {rows + 2}:", self.store(text).stderr)

    def test_late_refusals(self):
        for late, says in (({"a": "1,2"}, ["4 cells"]), ({"a": '"x'}, ["not closed"]),
                           ({"time": "x", "a": "1"}, ['"time"', '"x"']),
                           ({"time": "5", "a": "1"}, ['"time"', "5", "decrease"])):
            with self.subTest(late):
                with self.assertRaises(AssertionError) as failure:
                    self.store_late(b="1", **late)
                for text in (f"line {self.ROWS - 7}", *says):
                    self.assertIn(text, str(failure.exception))

    def test_memory_does_not_grow_with_the_file(self):
        peaks = []
        for rows in (150_000, 900_000):
            self.write("time,a,b\n" + "".join(f"{row},{row}.5,{row % 9}\n" for row in range(rows)))
            tool = subprocess.Popen([KYR, "import", "in.csv", "rec", "--force"], cwd=self.folder,
                                    env=self.environment(), stdout=subprocess.DEVNULL)
            _, status, usage = os.wait4(tool.pid, 0)
            tool.returncode = status
            self.assertEqual(status, 0)
            peaks.append(usage.ru_maxrss)
        self.assertLess(peaks[1], peaks[0] * 1.4)


class Gaps(ToolTest):
    def test_signals_with_the_same_gaps_share_their_times(self):
        self.store("time,a,b,c,d\n0,1,,5.5,\n1,,2,,\n2,3,,6.5,\n3,4,5,7.5,\n")
        signals = self.signals()
        self.assertEqual(signals["a"]["timeFile"], signals["c"]["timeFile"])
        self.assertNotEqual(signals["a"]["timeFile"], signals["b"]["timeFile"])
        self.assertEqual([signals[name]["rows"] for name in "abcd"], [3, 2, 3, 0])
        self.assertEqual(signals["b"]["timeSpan"], {"from": 1, "to": 3})
        self.assertEqual(self.cat(), "time,a,b,c,d\n0,1,,5.5,\n1,,2,,\n2,3,,6.5,\n3,4,5,7.5,\n")

    def test_a_file_without_rows_describes_its_signals(self):
        self.store("time,a [m],b\n")
        self.assertEqual(self.cat(), "time,a [m],b\n")
        self.assertEqual(self.signals()["a"]["rows"], 0)


class Types(ToolTest):
    def test_inferred(self):
        for cells, expected in {
            ("1", "-2"): "int64",
            ("1", "2.5"): "double",
            ("nan", "NaN"): "double",
            ("true", "False"): "boolean",
            ("tRUE", " 1 "): "boolean",
            ("0x1F", "-3"): "int64",
            ("18446744073709551615", "0"): "uint64",
            ("18446744073709551615", ""): "uint64",
            ("1e19", "1"): "double",
        }.items():
            with self.subTest(cells=cells):
                self.store("time,a\n" + "".join(f"{i},{cell}\n" for i, cell in enumerate(cells)))
                self.assertEqual(self.signals()["a"]["type"], expected)
                found = [row[1] for row in rows_of(self.cat())[1:]]
                if expected == "uint64":
                    self.assertEqual(found, [cell for cell in cells if cell])

    def test_given(self):
        for name, cells, printed in (
            ("double", ("1", "1e-400"), ("1", "0")),
            ("single", ("0.1", "1e-50"), ("0.1", "0")),
            ("int8", ("-128", "127"), None),
            ("uint8", ("0", "255"), None),
            ("int16", ("-32768", "32767"), None),
            ("uint16", ("0", "65535"), None),
            ("int32", ("-2147483648", "2147483647"), None),
            ("uint32", ("0", "4294967295"), None),
            ("int64", ("-9223372036854775808", "9223372036854775807"), None),
            ("uint64", ("0", "18446744073709551615"), None),
            ("int16", ("1.0", "+1e3"), ("1", "1000")),
            ("boolean", ("0.0", "TRUE"), ("false", "true")),
        ):
            with self.subTest(type=name, cells=cells):
                self.store(f"time,a [m]\n0,{cells[0]}\n1,\n2,{cells[1]}\n", "--type", f"a={name}")
                self.assertEqual(self.signals()["a"]["type"], name)
                found = [row[1] for row in rows_of(self.cat())[1:]]
                self.assertEqual(found, list(printed or cells))

    def test_what_does_not_fit_is_refused_with_its_line(self):
        for name, cell in (("int8", "128"), ("uint8", "-1"), ("int32", "0.5"), ("int64", "1e19"),
                           ("uint64", "18446744073709551616"), ("boolean", "2"),
                           ("int16", "x"), ("uint16", "nan")):
            with self.subTest(type=name, cell=cell):
                self.write(f"time,a\r\n0,1\r\n\r\n1,{cell}\r\n")
                self.fails("import", "in.csv", "new", "--type", f"a={name}",
                           says=["line 4", '"a"', cell, name])
                self.assertFalse((self.folder / "new").exists())


class Names(ToolTest):
    def test_units(self):
        for header, name, unit in (
            ("h [m]", "h", "m"), ("h(m)", "h", "m"), ("p (kg/(m s))", "p", "kg/(m s)"),
            ("k [1]", "k", "1"), ("der(h)", "der(h)", ""), ("x[3]", "x[3]", ""),
            ("x (2)", "x (2)", ""), ("x[1,2]", "x[1,2]", ""), ("[m]", "[m]", ""),
            ("h []", "h", ""), ("ü [°C]", "ü", "°C"),
        ):
            with self.subTest(header=header):
                self.store(f'time,"{header}"\n0,1\n')
                self.assertEqual([(name, unit)],
                                 [(s["name"], s["unit"]) for s in self.info()["signals"]])

    def test_names_twice(self):
        self.store("time,x [m],x (2),x [s],,\n0,1,2,3,4,\n")
        self.assertEqual(self.cat(), "time,x [m],x (2),x (3) [s],column 4\n0,1,2,3,4\n")

    def test_the_time_column(self):
        for name in ("Time", "Time (s)"):
            self.store("a,Time (s),time\n5,0,7\n6,1,8\n", "--time", name)
            self.assertEqual(self.cat(), "time,a,time\n0,5,7\n1,6,8\n")
        warning = self.store("t [turns],a\n0,1\n").stderr
        self.assertIn('"turns"', warning)


class Refusals(ToolTest):
    def test_each_names_the_line(self):
        for name, text, says in (
            ("too many cells", "t,a\n\n0,1\n\n\n1,2,3\n", ["line 6", "3 cells", "2"]),
            ("too few cells", "t,a,b\r\n0,1,2\r\n1,2\r\n", ["line 3", "2 cells", "3"]),
            ("behind lines in quotes", 't,a,b\n0,1,"x\r\ny\nz"\n1,2\n', ["line 5"]),
            ("open quote", 't,a,b\n0,1,2\n1,2,"x\n2,3,4\n', ["line 3", "quotation"]),
            ("falling time", "t,a\r0,1\r2,1\r\r1,1\r", ["line 5", '"t"', "1", "2"]),
            ("no time", "t,a\n0,1\n,2\n", ["line 3", '"t"']),
            ("time nan", "t,a\n0,1\nnan,2\n", ["line 3", '"t"', "nan"]),
            ("time inf", "t,a\n0,1\ninf,2\n", ["line 3", '"t"', "inf"]),
            ("time text", "t,a\n0,1\nx,2\n", ["line 3", '"t"', '"x"']),
            ("time boolean", "t,a\ntrue,1\n", ["line 2", '"t"']),
            ("empty file", "", ["empty"]),
            ("empty lines alone", "\r\n\r\n", ["empty"]),
            ("header in Latin-1", "t,T [°C]\n0,1\n".encode("latin-1"), ["line 1", "UTF-8"]),
        ):
            with self.subTest(name):
                self.write(text)
                self.fails("import", "in.csv", "new", says=["in.csv", *says])
                self.assertFalse((self.folder / "new").exists())

    def test_repeated_times_are_fine(self):
        self.store("t,a\n0,1\n0,2\n0,3\n")
        self.assertEqual(self.cat(), "time,a\n0,1\n0,2\n0,3\n")

    def test_columns_of_text_that_are_left_out_are_named(self):
        text = 't,a,note,day,b\n0,1,5,2020-01-01,2\n1,1,"two\nlines",2020-01-02,3\n'
        warnings = self.store(text, "--text", "skip").stderr.splitlines()
        self.assertEqual(len(warnings), 2)
        self.assertIn('line 3: column "note"', warnings[0])
        self.assertIn('line 2: column "day"', warnings[1])
        self.assertEqual(self.cat(), "time,a,b\n0,1,2\n1,1,3\n")
        self.assertEqual(self.signals()["b"]["id"], 3)

    def test_roundings_are_told(self):
        for text, line, column, cell in (
                ("t,a\n0,18446744073709551615\n1,-1\n", 2, "a", "18446744073709551615"),
                ("t,a\n0,1\n1,18446744073709551617\n", 3, "a", "18446744073709551617"),
                ("t,a\n0,9007199254740993\n1,0.5\n", 2, "a", "9007199254740993"),
                ("t,a\n0,0.5\n1,9007199254740992\n2,9007199254740993\n", 4, "a",
                 "9007199254740993"),
                ("t,a\n9007199254740992,1\n9007199254740993,1\n", 3, "t", "9007199254740993"),
                ("t,a\n0.5,1\n1396293888886000001,1\n", 3, "t", "1396293888886000001"),
                ("t,a\n18446744073709551615,1\n", 2, "t", "18446744073709551615"),
                ("t,a\n0.1234567890123456789,1\n0.12345678901234567891,2\n", 3, "t",
                 "0.12345678901234567891")):
            with self.subTest(text=text):
                (warning,) = self.store(text).stderr.splitlines()
                for part in ("rounded", f"line {line}:", f'"{column}"', f'"{cell}"'):
                    self.assertIn(part, warning)
                self.fails("import", "in.csv", "new", "--strict", says=["rounded"])
        for text in ("t,a\n0,9007199254740994\n0.0,0.5\n", "t,a\n9007199254740994,1\n",
                     "t,a\n0.50,1\n5e-1,1\n"):
            self.assertEqual(self.store(text, "--strict").stderr, "")


class Storing(ToolTest):
    """Where an import works, what it writes, and what it leaves."""

    ROWS = 200_000

    def start(self, *arguments, **options):
        return subprocess.Popen([KYR, "import", *map(str, arguments)], cwd=self.folder,
                                env=self.environment(), **options)

    def bytes_written(self, *arguments):
        """What a process gave the system to write, but for what it printed."""
        tool = self.start(*arguments, stdout=subprocess.PIPE)
        os.waitid(os.P_PID, tool.pid, os.WEXITED | os.WNOWAIT)
        try:
            counts = pathlib.Path(f"/proc/{tool.pid}/io").read_text().splitlines()
        except PermissionError:
            self.skipTest("the system does not tell what a process wrote")
        printed = len(tool.communicate()[0])
        self.assertEqual(tool.returncode, 0)
        return int(dict(line.split(": ") for line in counts)["wchar"]) - printed

    def test_each_byte_is_written_once(self):
        noise = "".join(f"{row},{math.sin(row)},{math.cos(row)}\n" for row in range(self.ROWS))
        steps = "".join(f"{row},{row // 90_000},1\n" for row in range(4 * self.ROWS))
        for text in (noise, steps):
            file = self.write("time,a,b\n" + text)
            for options in ([], ["--stream"], ["--pack=10000000"]):
                with self.subTest(options, rows=text.count("\n")):
                    written = self.bytes_written(file, "rec", "--force", *options)
                    stored = sum(entry.stat().st_size for entry in
                                 (self.folder / "rec").rglob("*") if entry.is_file())
                    self.assertLess(written, 1.05 * stored)
                    self.run_tool("verify", "rec")

    def test_a_file_that_may_not_grow(self):
        self.write("time,a\n" + "".join(f"{row},{math.sin(row)}\n" for row in range(self.ROWS)))
        for options in (("import", "in.csv", "rec"), ("import", "in.csv", "rec", "--stream"),
                        ("import", "in.csv", "rec", "--pack"),
                        ("record", "in.csv", "rec", "--force")):
            with self.subTest(options):
                tool = self.limited(resource.RLIMIT_FSIZE, 99_999, *options)
                self.assertEqual(tool.returncode, 1)
                self.assertRegex(tool.stderr, "kyr: .*File too large")
                self.assertEqual(list(self.folder.glob("rec*")),
                                 [self.folder / "rec"] if options[0] == "record" else [])

    def test_needs_no_temporary_files(self):
        file = self.write("time,a\n0,1\n")
        subprocess.run([KYR, "import", file, "rec"], check=True, cwd=self.folder,
                       env={**os.environ, "TMPDIR": "/nonexistent"}, stdout=subprocess.DEVNULL)
        self.assertEqual(self.cat(), "time,a\n0,1\n")

    def test_a_recording_made_meanwhile_stays(self):
        pipe = self.folder / "pipe"
        os.mkfifo(pipe)
        tool = self.start(pipe, "rec", stderr=subprocess.PIPE, text=True)
        with open(pipe, "w") as end:
            end.write("time,a\n0,1\n")
            self.run_tool_beside("import", self.write("time,b\n0,2\n"), "rec")
        self.assertIn("is a recording already", tool.communicate()[1])
        self.assertEqual(tool.returncode, 1)
        self.assertEqual(self.cat(), "time,b\n0,2\n")
        self.assertEqual(sorted(os.listdir(self.folder)), ["in.csv", "pipe", "rec", "tmp"])

    def run_tool_beside(self, *arguments):
        subprocess.run([KYR, *map(str, arguments)], check=True, cwd=self.folder,
                       stdout=subprocess.DEVNULL)

    def test_what_a_killed_import_leaves_is_collected(self):
        pipe = self.folder / "pipe"
        os.mkfifo(pipe)
        for target in ("rec", "other"):
            tool = self.start(pipe, target)
            with open(pipe, "w") as end:
                end.write("time,a\n")
                end.flush()
                while not list(self.temporary.glob("kyr-tmp-*/pipe.csv")):
                    time.sleep(0.001)
                if target == "rec":
                    out = subprocess.run([KYR, "gc", "rec", "--stale"], cwd=self.folder,
                                         env=self.environment(), check=True, text=True,
                                         capture_output=True).stdout
                    self.assertRegex(out, "left alone .*kyr-tmp-.*: a process uses it")
                tool.kill()
                tool.wait()
            self.assertEqual(len(os.listdir(self.temporary)), 1)
            subprocess.run([KYR, "gc", target, "--stale"], cwd=self.folder, check=True,
                           env=self.environment(), stdout=subprocess.DEVNULL)
            self.assertEqual(os.listdir(self.temporary), [])

        rows = "".join(f"{row},{math.sin(row)}\n" for row in range(4 * self.ROWS))
        tool = self.start(self.write("time,a\n" + rows), "rec")
        while not list(self.folder.glob("rec.importing-*/shared/*")):
            time.sleep(0.001)
        self.assertIn("a process uses it", self.run_tool("gc", "rec", "--stale").stdout)
        tool.kill()
        tool.wait()
        self.assertIn("rec.importing-", self.run_tool("gc", "rec", "--stale", "--dry-run").stdout)
        self.assertIn("removed", self.run_tool("gc", "rec", "--stale").stdout)
        self.assertEqual(sorted(os.listdir(self.folder)), ["in.csv", "pipe", "tmp"])


if __name__ == "__main__":
    unittest.main()
