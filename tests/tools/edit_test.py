"""Changing recordings, making new ones of them, and counting what they hold."""

import json
import math
import os
import statistics
import unittest

from tool import ToolTest, rows_of


class EditTest(ToolTest):
    ROWS = 400

    def setUp(self):
        super().setUp()
        self.text = "time,speed [m/s],gear,mode\n" + "".join(
            f"{i / 4:g},{math.sin(i + 1)},{i % 5},{'run' if i % 3 else 'idle'}\n"
            for i in range(self.ROWS))
        self.store(self.text, "--attribute", "model=pump 7")
        self.lines = self.text.splitlines(True)

    def between(self, first, last):
        return "".join([self.lines[0], *self.lines[1 + first:1 + last]])

    def files(self, recording="rec"):
        storage = self.folder / recording / "storage"
        return {file.name: (file.stat().st_ino, file.stat().st_size) for file in storage.iterdir()}


class Set(EditTest):
    def test_texts_change_and_files_do_not(self):
        files = self.files()
        self.run_tool("set", "rec", "speed.unit=km/h", "gear.name=a.b", "mode.description=x=y",
                      "attribute.model=9", "attribute.run={\"a\": 1}")
        self.assertEqual(self.files(), files)
        self.assertEqual(self.cat().splitlines()[0], "time,speed [km/h],a.b,mode")
        self.assertEqual(self.attributes(), {"model": 9, "run": {"a": 1}})
        self.assertEqual(self.signals()["mode"]["description"], "x=y")
        self.run_tool("set", "rec", "a.b.unit=1", "attribute.model=", "attribute.run=")
        self.run_tool("set", "rec", "*e*.description=both")
        self.assertEqual(self.attributes(), {})
        self.assertEqual([self.signals()[name]["description"] for name in ("speed", "a.b", "mode")],
                         ["both", "", "both"])
        self.run_tool("verify", "rec")

    def test_refusals_change_nothing(self):
        before = (self.folder / "rec" / "recording.json").read_bytes()
        for change, says, exit_code in (
            ("speed.unit", "give", 2),
            ("speed.type=int8", "give", 2),
            ("none.unit=m", '"none"', 1),
            ("*e*.name=x", "3 signals", 1),
            ("speed.name=", "give a name", 2),
        ):
            with self.subTest(change):
                self.fails("set", "rec", "gear.unit=1", change, says=[says], exit_code=exit_code)
        self.assertEqual((self.folder / "rec" / "recording.json").read_bytes(), before)


class Parts(EditTest):
    def test_cut(self):
        self.run_tool("cut", "rec", "part", "--from", "10", "--to", "20")
        self.assertEqual(self.cat(recording="part"), self.between(40, 81))
        self.assertEqual(self.attributes("part"), {"model": "pump 7"})
        self.run_tool("verify", "part")
        self.run_tool("cut", "rec", "none", "--from", "1000")
        self.assertEqual(self.cat(recording="none"), self.lines[0])
        self.fails("cut", "rec", "part", says=["--force"])
        self.fails("cut", "rec", "new", "--from", "2", "--to", "1", says=["--from"], exit_code=2)
        self.assertEqual(sorted(os.listdir(self.folder)), ["in.csv", "none", "part", "rec", "tmp"])

    def test_signals_that_do_not_change_are_linked(self):
        for options in ([], ["--from", "0"]):
            self.run_tool("cut", "rec", "few", "gear", "mo*", "--force", *options)
            self.assertLess(set(self.files("few").values()), set(self.files().values()))
            self.assertEqual(self.cat(recording="few"), self.cat("gear", "mode"))

    def test_append_puts_parts_together_again(self):
        for window, name in ((["--to", "10"], "head"), (["--from", "10.1"], "tail")):
            self.run_tool("cut", "rec", name, *window)
        self.run_tool("append", "head", "tail", "whole")
        self.assertEqual(self.cat(recording="whole"), self.text)
        self.run_tool("verify", "whole")
        self.fails("append", "tail", "head", "new", says=['"speed"', "before it ends"])
        self.run_tool("set", "tail", "speed.unit=ft")
        self.fails("append", "head", "tail", "new", says=['"speed"', "unit"])

    def test_starts_are_taken_into_account(self):
        for name, second in (("one", "00"), ("two", "07")):
            self.run_tool(
                "import", self.write(f"time,a\n2024-05-01T00:00:{second}.5Z,{second}.5\n"), name
            )
        self.run_tool("append", "one", "two", "both")
        self.assertEqual(self.cat(recording="both"), "time,a\n0.5,0.5\n7.5,7.5\n")
        self.assertEqual(self.cat("--absolute", recording="both").splitlines()[2],
                         "2024-05-01T00:00:07.5Z,7.5")
        self.run_tool("merge", "two", "one", "both", "--force")
        self.assertEqual(
            self.cat(recording="both"), "time,a (id 0),a (id 1)\n-6.5,,0.5\n0.5,7.5,\n"
        )
        self.fails("merge", "one", "rec", "new", says=["start"])
        self.fails("cat", "rec", "--absolute", says=["start"])

    def test_merge(self):
        self.write("time,a,speed\n0.5,1,9007199254740993\n")
        self.run_tool("import", "in.csv", "other")
        self.run_tool("merge", "rec", "other", "both")
        self.assertEqual(self.cat("speed [m/s]", "gear", "mode", recording="both"), self.text)
        self.assertEqual(self.cat("3", "4", recording="both"),
                         "time,a,speed\n0.5,1,9007199254740993\n")
        self.assertLess(set(self.files().values()), set(self.files("both").values()))
        self.run_tool("verify", "both")

    def test_repack(self):
        self.run_tool("record", "in.csv", "live", "--flush-rows", "1", "--attribute", "n=1")
        before = sum(size for _, size in self.files("live").values())
        self.run_tool("repack", "live")
        self.assertLessEqual(sum(size for _, size in self.files("live").values()), before)
        self.assertEqual(self.cat(recording="live"), self.text)
        self.assertEqual(self.attributes("live"), {"n": 1})
        self.run_tool("repack", "live", "--pack", "--compression", "zstd")
        self.assertLess(len(self.files("live")), 4)
        self.assertEqual(self.cat(recording="live"), self.text)
        self.run_tool("repack", "live", "--no-pack")
        self.assertNotIn("pack", "".join(self.files("live")))
        self.run_tool("verify", "live")

    def test_signals_of_any_kind(self):
        self.odd_recording()
        # One signal has more times than samples, which no recording should.
        names = [str(s["id"]) for s in self.info("odd")["signals"] if s["name"] != "uneven"]
        printed = [self.cat(name, "--from", "-1e300", recording="odd") for name in names]
        self.run_tool("cut", "odd", "cut", *names, "--from", "-1e300")
        self.run_tool("merge", "rec", "cut", "merged")
        self.run_tool("repack", "cut")
        self.assertEqual([self.cat(name, recording="cut") for name in names], printed)
        self.assertEqual(len(self.info("merged")["signals"]), len(names) + 3)
        for name in ("cut", "merged"):
            self.run_tool("verify", name)


class Statistics(EditTest):
    def test_numbers(self):
        self.store("time,a,b,c\n0,1e9,NA,x\n0.5,1000000001,nan,y\n2,1000000003,inf,z\n")
        stats = json.loads(self.run_tool("stats", "rec", "--json").stdout)
        values = [1e9, 1e9 + 1, 1e9 + 3]
        a, b, c = stats
        self.assertEqual((a["rows"], a["min"], a["max"]), (3, 1e9, 1e9 + 3))
        self.assertAlmostEqual(a["mean"], statistics.mean(values), delta=1e-6)
        self.assertAlmostEqual(a["deviation"], statistics.stdev(values), delta=1e-9)
        self.assertEqual((a["first"], a["last"], a["rate"], a["largestGap"]), (0, 2, 1, 1.5))
        self.assertEqual((b["rows"], b["nan"], b["infinite"]), (2, 1, 1))
        self.assertNotIn("mean", b)
        self.assertEqual((c["rows"], "nan" in c), (3, False))
        table = self.run_tool("stats", "rec", "[ab]*").stdout.splitlines()
        self.assertEqual([line.split()[1] for line in table], ["name", "a", "b"])

    def test_names_and_details(self):
        self.assertEqual(self.run_tool("info", "rec", "--names").stdout, "speed\ngear\nmode\n")
        details = self.run_tool("info", "rec", "g*", "mode").stdout
        for text in (
            "gear [id 1]",
            "mode [id 2]",
            "4 per second",
            "0.25 s",
            "99.75 s long",
            "text",
        ):
            self.assertIn(text, details)
        self.assertIn('model: "pump 7"', self.run_tool("info", "rec").stdout)
        self.assertIn("0 to 99.75 s, 99.75 s long", self.run_tool("info", "rec").stdout)


class Formats(EditTest):
    def test_json(self):
        self.store('time,a,on,"x ""y""",t\n0,1,true,0.5,"é\n"\n1,,false,nan,\n')
        rows = [{"time": 0, "a": 1, "on": True, 'x "y"': 0.5, "t": "é\n"},
                {"time": 1, "on": False, 'x "y"': "nan"}]
        self.assertEqual(json.loads(self.cat("--format", "json")), rows)
        self.assertEqual([json.loads(line) for line in
                          self.cat("--format", "ndjson").splitlines()], rows)
        self.assertEqual(json.loads(self.cat("--format", "json", "--from", "5")), [])
        lines = self.cat("--format", "table", "a", "on").splitlines()
        self.assertEqual(lines, ["time  a     on", "   0  1   true", "   1     false"])

    def test_head_and_tail(self):
        for arguments, first, last in ((["--head", "3"], 0, 3), (["-n", "0"], 0, 0),
                                       (["--tail", "2"], self.ROWS - 2, self.ROWS),
                                       (["--tail", "9999"], 0, self.ROWS),
                                       (["--from", "10", "--head", "2"], 40, 42),
                                       (["--to", "10", "--tail", "2"], 39, 41)):
            with self.subTest(arguments):
                self.assertEqual(self.cat(*arguments), self.between(first, last))
        self.store("time,a,b\n0,1,\n1,,2\n2,3,\n")
        self.assertEqual(self.cat("--tail", "2"), "time,a,b\n1,,2\n2,3,\n")

    def test_moments(self):
        stamps = ["2024-02-28T23:59:59.000000001Z", "2024-03-01T00:00:00.25Z"]
        self.store("time,a\n" + "".join(f"{stamp},{i}\n" for i, stamp in enumerate(stamps)))
        self.assertEqual([row[0] for row in rows_of(self.cat("--absolute"))[1:]], stamps)

    def test_output_by_option(self):
        self.run_tool("export", "rec", "-o", "out.csv", "gear")
        self.assertEqual((self.folder / "out.csv").read_text(), self.cat("gear"))
        self.fails("export", "rec", says=["OUT"], exit_code=2)

    def test_exported_windows(self):
        for shape in ([], ["--resample", "0.25"], ["--long"]):
            for window, first, last in ((["--from", "10", "--to", "20"], 40, 81),
                                        (["--rows", "5:7"], 5, 7), (["--from", "1000"], 0, 0)):
                with self.subTest(shape=shape, window=window):
                    self.run_tool("export", "rec", "out.csv", "gear", "--force", *shape, *window)
                    found = rows_of((self.folder / "out.csv").read_text())[1:]
                    expected = [line.split(",") for line in self.lines[1 + first:1 + last]]
                    self.assertEqual([[float(row[0]), float(row[-1])] for row in found],
                                     [[float(row[0]), float(row[2])] for row in expected])


if __name__ == "__main__":
    unittest.main()
