"""Recording rows as they come, and recovering them after a crash."""

import os
import random
import shutil
import signal
import subprocess
import time
import unittest

from tool import KYR, ToolTest, rows_of


class RecordTest(ToolTest):
    def start(self, *arguments, **options):
        process = subprocess.Popen([KYR, "record", *map(str, arguments)], text=True,
                                   stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, cwd=self.folder,
                                   env=self.environment(), **options)
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        return process

    def send(self, process, text):
        process.stdin.write(text)
        process.stdin.flush()

    def wait_for(self, condition):
        end = time.monotonic() + 20
        while not condition():
            self.assertLess(time.monotonic(), end, "waited in vain")
            time.sleep(0.01)


class Record(RecordTest):
    def test_what_is_recorded_is_what_import_stores(self):
        texts = {
            "gaps": "time,a [m],b,c\n0,1,,5.5\n1,, ,\n2,3,,-0.0\n",
            "quotes and line ends": '\xef\xbb\xbf"ti\nme","a ""q"""\r\n\r\n0,"1.5"\r\n1,2.5\r',
            "no rows": "time,a [m],b\n",
            "truth values": "time,a,on\n0,0.5,true\n1,1.5,FALSE\n",
            "repeated times": "time,a\n0,1.5\n0,2\n",
            "other line ends": "time,a\r0,1.5\r1,2\r",
            "large integers": "time,a,b,c\n0,9007199254740993,18446744073709551615,"
                              "-9223372036854775808\n1,-9007199254740993,1,1\n",
        }
        for name, text in texts.items():
            for source in ("in.csv", "-"):
                with self.subTest(name, source=source):
                    self.write(text.encode("latin-1" if name.startswith("quotes") else "utf-8"))
                    self.run_tool("import", "in.csv", "rec", "--force")
                    with open(self.folder / "in.csv") as content:
                        subprocess.run([KYR, "record", source, "new", "--force"], check=True,
                                       stdin=content, cwd=self.folder, capture_output=True)
                    self.run_tool("verify", "new")
                    self.assertEqual(self.cat(recording="new"), self.cat())

    def test_roundings_are_told_once(self):
        for text, line, column, cell in (
                ("t,a,b\n0,0.5,9007199254740993\n1,9007199254740993,1\n2,9007199254740993,2\n", 3,
                 "a", "9007199254740993"),
                ("t,a\n0,1\n9007199254740993,1\n9007199254740995,1\n", 3, "t", "9007199254740993"),
                ("t,a\n0.1234567890123456789,1\n0.12345678901234567891,2\n", 3, "t",
                 "0.12345678901234567891")):
            with self.subTest(text=text):
                result = self.run_tool("record", "-", "rec", "--force", stdin=text)
                (warning,) = result.stderr.splitlines()
                for part in ("rounded", f"line {line}:", f'"{column}"', f'"{cell}"'):
                    self.assertIn(part, warning)
                rows = len(rows_of(self.cat()))
                self.assertEqual(rows, text.count("\n"))
                result = self.run_tool("record", "-", "rec", "--force", "--strict", stdin=text,
                                       expect=1)
                for part in (f"line {line}:", "--strict", f"{line - 2} row"):
                    self.assertIn(part, result.stderr)
                self.assertEqual(len(rows_of(self.cat())), line - 1)

    def test_types_of_the_first_rows(self):
        large = 2**53 + 1
        later = "".join(f"{i},0\n" for i in range(3, 100))
        for cells, kind, says in (
                (["1", "2.5", "3"], "double", []), (["", "NA", "3"], "double", []),
                (["0", str(large), "-5"], "int64", []), (["1", str(2**64 - 1), "5"], "uint64", []),
                (["0.5", str(large), "1"], "double", ["rounded", "line 3"]),
                (["0", "true", "FALSE"], "boolean", []), (["", "idle", "NA"], "text", []),
                (["x", "5", "7"], "text", ["line 3", '"5"', "begins with"]),
                (["5", "x", "7"], None, ["line 3", '"x"', "does not fit double", "--type"]),
                ([*"123", later, str(large)], "double", ["line 102", "rounded", "a=int64"]),
                ([str(large), *"23", later, "0.5"], None, ["line 102", "does not fit int64"])):
            rows = [cell if "\n" in cell else f"{i + (i > 3) * 96},{cell}\n"
                    for i, cell in enumerate(cells)]
            with self.subTest(cells[0] + cells[1], kind=kind):
                told = self.run_tool("record", self.write("t,a\n" + "".join(rows)), "rec",
                                     "--force", expect=0 if kind else 1).stderr
                self.assertEqual(told.count("\n"), 1 if says else 0, told)
                for part in says:
                    self.assertIn(part, told)
                if kind:
                    self.assertEqual(self.signals()["a"]["type"], kind)

    def test_a_failed_recording_is_replaced_by_force(self):
        text = "time,a,note\n0,1,5\n1,2,y\n"
        result = self.run_tool("record", "-", "rec", stdin=text, expect=1)
        for part in ("line 3", '"note"', '"y"', "--skip-bad", "--force"):
            self.assertIn(part, result.stderr)
        self.fails("record", self.write(text), "rec", "--skip-bad", says=["--force"])
        self.run_tool("record", "-", "rec", "--skip-bad", "--force", stdin=text)
        self.assertEqual(self.cat(), "time,a,note\n0,1,5\n1,2,\n")
        self.assertEqual(sorted(os.listdir(self.folder)), ["in.csv", "rec", "tmp"])
        self.fails("record", "missing.csv", "rec", "--force", says=["missing.csv"])
        self.fails("record", self.write("time,a\nx,1\n", "bad.csv"), "rec", "--force",
                   says=["line 2", "rec is left as it was"])
        self.assertEqual(sorted(os.listdir(self.folder)), ["bad.csv", "in.csv", "rec", "tmp"])
        self.run_tool("verify", "rec")
        (self.folder / "rec" / "notes").touch()
        self.fails("record", "in.csv", "rec", "--force", says=["other files"])
        self.assertEqual(self.cat("a"), "time,a\n0,1\n1,2\n")

    def test_types_time_and_codec(self):
        self.run_tool("record", "-", "rec", "--type", "gear=int8", "--time", "t", "--compression",
                      "zstd", stdin="gear,t,v\n1,0.5,2\n-3,1,1e3\n")
        self.assertEqual(self.cat(), "time,gear,v\n0.5,1,2\n1,-3,1000\n")
        gear = self.signals()["gear"]
        self.assertEqual((gear["type"], gear["compression"]), ("int8", "zstd"))

    def test_bad_rows(self):
        cases = (("time,a\n0,1\n1,x\n2,3\n", ["line 3", '"a"', '"x"'], "0,1\n2,3\n", "1 cell"),
                 ("time,a\n0,1\n\n1,2,3\n2,3\n", ["line 4", "3 cells"], "0,1\n2,3\n", "1 row"),
                 ("time,a\n0,1\n,2\n2,3\n", ["line 3", '"time"'], "0,1\n2,3\n", "1 row"),
                 ("time,a\n1,1\n0,2\n2,3\n", ["line 3", "decrease"], "1,1\n2,3\n", "1 row"),
                 ('time,a\n0,1\n"1,2\n2,3\n', ["line 3"], "0,1\n", "0 rows"))
        for number, (text, says, skipping, count) in enumerate(cases):
            with self.subTest(text=text):
                first = skipping.split("\n")[0]
                unclosed = '"1,2' in text
                result = self.run_tool("record", "-", f"rec{number}", stdin=text,
                                       expect=0 if unclosed else 1)
                for what in says:
                    self.assertIn(what, result.stderr)
                self.run_tool("verify", f"rec{number}")
                self.assertEqual(self.cat(recording=f"rec{number}"), f"time,a\n{first}\n")
                result = self.run_tool("record", "-", f"skip{number}", "--skip-bad", stdin=text)
                self.assertIn("left out", result.stderr)
                if not unclosed:
                    self.assertIn(count, result.stderr)
                self.assertEqual(self.cat(recording=f"skip{number}"), f"time,a\n{skipping}")

    def test_the_last_line_without_a_line_feed(self):
        start = "time,a,b\n0,1,2\n"
        for last, kept in (("1,12,3", "1,12,3\n"), ("1,12", ""), ("1,12,x", ""), ('1,12,"3', "")):
            with self.subTest(last):
                result = self.run_tool("record", "-", "rec", "--force", stdin=start + last)
                for part in ("line 3", "no line feed", "is kept" if kept else "is left out"):
                    self.assertIn(part, result.stderr)
                self.assertEqual(self.cat(), start + kept)
        self.assertIn("line 1", self.run_tool("record", "-", "rec", "--force", stdin="t,a").stderr)

    def test_refusals_leave_nothing_behind(self):
        self.write("time\n0\n")
        for arguments, exit_code, says in (
            (["in.csv", "new"], 1, "only one column"),
            (["none.csv", "new"], 1, "none.csv"),
            (["-", "new", "--follow"], 2, "--follow"),
            (["in.csv", "new", "--type", "a=float"], 1, "only one column"),
            (["in.csv", "new", "--sync", "often"], 2, "--sync"),
            (["in.csv", "tmp/.."], 1, "no recording"),
            (["in.csv", "new/rec"], 1, "no folder"),
            (["in.csv", "new", "--strict", "--skip-bad"], 2, "--skip-bad"),
        ):
            with self.subTest(arguments=arguments):
                self.fails("record", *arguments, exit_code=exit_code, says=[says])
                self.assertFalse((self.folder / "new").exists())

    def test_signals_finish_and_save(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            process = self.start("-", f"rec{number}", "--acknowledge", "--flush-rows", "1")
            self.send(process, "time,a\n0,1\n")
            self.assertEqual(process.stdout.readline(), "1\n")
            # The rows are in the pipe when the signal comes.
            process.send_signal(signal.SIGSTOP)
            self.send(process, "1,2\n2,12")
            process.send_signal(number)
            process.send_signal(signal.SIGCONT)
            self.assertEqual(process.wait(20), 0)
            self.assertIn("line 4: only a part", process.stderr.read())
            self.assertEqual(self.cat(recording=f"rec{number}"), "time,a\n0,1\n1,2\n")

    def test_a_file_that_grows(self):
        file = self.write("time,a\n0,1\n1,")
        process = self.start(file, "rec", "--follow", "--acknowledge", "--flush-rows", "1")
        self.assertEqual(process.stdout.readline(), "1\n")
        with open(file, "a") as growing:
            growing.write("2\n")
        self.assertEqual(process.stdout.readline(), "2\n")
        process.terminate()
        self.assertEqual(process.wait(20), 0)
        self.assertEqual(self.cat(), "time,a\n0,1\n1,2\n")


class WhileItRuns(RecordTest):
    def begin(self):
        process = self.start("-", "rec", "--acknowledge", "--flush-rows", "1")
        self.send(process, "time,a [m],b\n0,1,\n")
        self.assertEqual(process.stdout.readline(), "1\n")
        return process

    def test_info_and_cat_read_along(self):
        process = self.begin()
        self.assertEqual(self.cat(), "time,a [m],b\n0,1,\n")
        self.send(process, "1,2,3\n")
        process.stdout.readline()
        self.assertEqual(self.cat("a"), "time,a [m]\n0,1\n1,2\n")
        self.assertEqual(self.info()["state"], "recording...")
        self.assertEqual(self.signals()["a"]["timeSpan"], {"from": 0, "to": 1})
        self.assertIn("recording...", self.run_tool("info", "rec").stdout)
        for command in ("verify", "recover", "gc"):
            self.fails(command, "rec", says=["still being recorded"])
        self.fails("record", self.write("time,a\n"), "rec", "--force",
                   says=["still being recorded"])
        self.fails("export", "rec", "out.csv", says=["still being recorded"])
        process.kill()
        process.wait()
        self.fails("import", "in.csv", "rec", "--force", says=["not finished", "kyr recover rec"])
        self.assertIn("not finished: kyr recover rec", self.run_tool("info", "rec").stdout)
        self.assertEqual(self.cat(), "time,a [m],b\n0,1,\n1,2,3\n")
        self.fails("cat", "rec", "--follow", says=["kyr recover rec"])
        for command in (["set", "rec", "a.unit=km"], ["cut", "rec", "new"], ["sql", "rec"],
                        ["export", "rec", "out.csv"]):
            self.fails(*command, says=["kyr: rec is not finished: kyr recover rec"])
        self.fails("verify", "rec", says=["kyr recover"])
        self.run_tool("recover", "rec")
        self.run_tool("verify", "rec")
        self.assertNotIn("state", self.info())

    def test_cat_follows_to_the_end(self):
        process = self.begin()
        cat = subprocess.Popen([KYR, "cat", "rec", "--follow"], stdout=subprocess.PIPE, text=True,
                               cwd=self.folder, env=self.environment())
        self.addCleanup(cat.communicate)
        self.assertEqual([cat.stdout.readline() for _ in range(2)], ["time,a [m],b\n", "0,1,\n"])
        self.send(process, "1,2,3\n")
        self.assertEqual(cat.stdout.readline(), "1,2,3\n")
        text = "".join(f"{i},{i},{i}\n" for i in range(2, 500))
        process.communicate(text)
        self.assertEqual(cat.stdout.read(), text)
        self.assertEqual(cat.wait(20), 0)
        self.assertEqual(self.cat("--follow"), self.cat())


class Recover(RecordTest):
    def test_losses_are_stated(self):
        process = self.start("-", "rec", "--acknowledge", "--flush-rows", "10")
        self.send(process, "time,a,b\n" + "".join(f"{i / 4},{i},{-i}\n" for i in range(100)))
        while process.stdout.readline() != "100\n":
            pass
        process.kill()
        process.wait()
        file = self.folder / "rec" / "storage" / "live-0.parquet"
        file.write_bytes(file.read_bytes()[:-3000])
        said = self.run_tool("recover", "rec", expect=3).stdout
        kept = self.signals()["b"]["rows"]
        self.assertTrue(0 < kept < 100 and kept % 10 == 0)
        self.assertIn(f'signal 1 "b": {100 - kept} rows lost, {kept} kept', said)
        self.assertEqual(self.signals()["a"]["rows"], kept)
        self.run_tool("verify", "rec")

    def test_nothing_to_be_had(self):
        (self.folder / "rec").mkdir()
        self.fails("recover", "rec", says=["no recording to be had"])
        self.fails("recover", "none", says=["no such folder"])

    def test_a_damaged_description(self):
        self.store("time,a,b\n0,1,0.5\n1,2,1.5\n")
        expected = self.cat()
        description = self.folder / "rec" / "recording.json"
        text = description.read_text()
        description.write_text(text.replace('"timeSpan"', '"timeSpaN"', 1))
        self.fails("cat", "rec", says=["damaged"])
        self.run_tool("recover", "rec", expect=3)
        self.assertEqual(self.cat(), expected)
        description.unlink()
        self.run_tool("recover", "rec", expect=3)
        self.run_tool("verify", "rec")

    def test_garbage_is_removed(self):
        self.store("time,a,b\n0,1,0.5\n1,2,1.5\n")
        stray = self.folder / "rec" / "storage" / "77.parquet"
        stale = self.folder / "rec.saving-0123"
        for file in (stray, self.folder / "rec" / "notes.txt"):
            file.write_text("text")
        stale.mkdir()
        self.assertIn("storage/77", self.run_tool("gc", "rec", "--dry-run", "--stale").stdout)
        self.assertTrue(stray.exists() and stale.exists())
        self.run_tool("gc", "rec")
        self.assertTrue(stale.exists() and not stray.exists())
        self.run_tool("gc", "rec/", "--stale")
        self.assertFalse(stale.exists())
        self.assertTrue((self.folder / "rec" / "notes.txt").exists())
        self.run_tool("verify", "rec")

    def test_a_replaced_recording_is_removed_once_there_is_another(self):
        self.store("time,a\n0,1\n")
        old = self.folder / "rec.replaced-0123456789abcdef"
        shutil.copytree(self.folder / "rec", old)
        (self.folder / "rec").rename(self.folder / "moved")
        said = self.run_tool("gc", "rec", "--stale").stdout
        self.assertIn(f"left alone {old}: it is the recording that was in rec", said)
        (self.folder / "moved").rename(self.folder / "rec")
        (old / "notes").touch()
        self.run_tool("gc", "rec", "--stale")
        self.assertTrue(old.exists())
        (old / "notes").unlink()
        self.assertIn("rec: removed 1 item", self.run_tool("gc", "rec", "--stale").stdout)
        self.assertFalse(old.exists())
        self.run_tool("verify", "rec")


class Crashes(RecordTest):
    """Processes are killed at random moments. Every acknowledged row must come back."""

    SIGNALS = ("a", "b", "c", "d")

    # Two equal signals, one with gaps, and one that differs from the first after a while.
    @staticmethod
    def row(i):
        return [i / 8, i * 0.5, i * 0.5, "" if i % 7 == 3 else i * 2.0,
                i * 0.5 if i < 200 else -i * 1.5]

    def expected(self, rows):
        return [[float(cell) if cell != "" else None for cell in self.row(i)] for i in range(rows)]

    def round(self, number, randomness):
        name = f"run{number}"
        options = randomness.choice((["--flush-rows", "1"], ["--flush-rows", "37"],
                                     ["--flush-seconds", "0.005"],
                                     ["--flush-rows", "11", "--sync", "flush"],
                                     ["--flush-rows", "53", "--compression", "zstd"]))
        process = self.start("-", name, "--acknowledge", *options)
        text = "time," + ",".join(self.SIGNALS) + "\n"
        text += "".join(",".join(map(str, self.row(i))) + "\n" for i in range(3000))
        deadline = time.monotonic() + randomness.uniform(0, 0.25)
        os.set_blocking(process.stdin.fileno(), False)
        data = text.encode()
        while time.monotonic() < deadline:
            size = randomness.randrange(1, 4000)
            try:
                data = data[os.write(process.stdin.fileno(), data[:size]):]
            except BlockingIOError:
                pass
            time.sleep(randomness.choice((0, 0, 0.001)))
        process.kill()
        acknowledged = [int(line) for line in process.stdout.read().splitlines(True)
                        if line.endswith("\n")]
        process.wait()
        return name, max(acknowledged, default=0)

    def test_no_acknowledged_row_is_missing_or_different(self):
        seed = int(os.environ.get("KYR_CRASH_SEED", "20"))
        rounds = int(os.environ.get("KYR_CRASH_ROUNDS", "20"))
        randomness = random.Random(seed)
        acknowledged_in_all = 0
        for number in range(rounds):
            name, acknowledged = self.round(number, randomness)
            with self.subTest(round=number, acknowledged=acknowledged):
                if not (self.folder / name / "recording.live.json").exists():
                    self.assertEqual(acknowledged, 0)
                    continue
                self.fails("cat", name + "/..", says=["not a recording"])
                expect = 0 if acknowledged else None
                result = subprocess.run([KYR, "recover", name], capture_output=True, text=True,
                                        cwd=self.folder)
                if expect is None and result.returncode == 1:
                    continue
                self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
                self.run_tool("verify", name)
                found = [[float(cell) if cell else None for cell in row]
                         for row in rows_of(self.cat(recording=name))[1:]]
                self.assertGreaterEqual(len(found), acknowledged)
                self.assertEqual(found, self.expected(len(found)))
                acknowledged_in_all += acknowledged
        print(f"{rounds} crashes, {acknowledged_in_all} rows acknowledged")
        self.assertGreater(acknowledged_in_all, 0)


if __name__ == "__main__":
    unittest.main()
