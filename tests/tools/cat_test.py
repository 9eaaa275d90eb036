"""Printing signals as CSV."""

import os
import random
import re
import resource
import subprocess
import unittest

from tool import KYR, ToolTest


class Selection(ToolTest):
    def setUp(self):
        super().setUp()
        self.store("time,a [m],b,1\n0,10,20,30\n1,11,21,31\n")

    def test_by_name_id_and_header_in_the_order_given(self):
        for arguments, header in ((("b", "a"), "b,a [m]"), (("2",), "1"), (("a [m]",), "a [m]"),
                                  # This is the name of one signal and the id of another.
                                  (("1",), "1"), (("a", "a"), "a [m],a [m]")):
            with self.subTest(arguments=arguments):
                self.assertEqual(self.cat(*arguments).splitlines()[0], "time," + header)
        self.fails("cat", "rec", "a", "c", says=['"c"', "kyr info"])

    def test_no_key_of_an_object_is_there_twice(self):
        self.store("time,time,a\n0,1,2\n")
        self.assertEqual(self.cat(), "time,time,a\n0,1,2\n")
        self.assertEqual(self.cat("--format", "ndjson"), '{"time":0,"time (id 0)":1,"a":2}\n')

    def test_only_the_files_of_the_signals_are_read(self):
        files = {s["name"]: s["dataFile"] for s in self.info()["signals"]}
        (self.folder / "rec" / "storage" / f"{files['b']}.parquet").unlink()
        self.assertEqual(self.cat("a"), "time,a [m]\n0,10\n1,11\n")
        self.fails("cat", "rec", says=[f"storage/{files['b']}", "missing"])


class Windows(ToolTest):
    def test_rows_and_times(self):
        self.store("time,a\n-1,1\n0,2\n1,3\n1,4\n2.5,5\n")
        for arguments, values in (
            (("--from", "0"), "2345"),
            (("--to", "1"), "1234"),
            (("--from", "1", "--to", "1"), "34"),
            (("--from", "-1", "--to", "-0.5"), "1"),
            (("--from", "3"), ""),
            (("--rows", "1:3"), "23"),
            (("--rows", "3:"), "45"),
            (("--rows", ":2"), "12"),
            (("--rows", ":"), "12345"),
            (("--rows", "2:2"), ""),
            (("--rows", "4:99"), "5"),
        ):
            with self.subTest(arguments):
                lines = self.cat(*arguments).splitlines()
                self.assertEqual(lines[0], "time,a")
                self.assertEqual("".join(line.split(",")[1] for line in lines[1:]), values)

    def test_nonsense_is_wrong_usage(self):
        self.store("time,a\n0,1\n")
        for arguments in (("--rows", "1"), ("--rows", "2:1"), ("--rows", "-1:2"), ("--rows", "a:b"),
                          ("--from", "2", "--to", "1"), ("--from", "nan"), ("--from", "x"),
                          ("--from", "1", "--rows", "1:2"), ("--head", "-1"), ("--tail", "1.5")):
            with self.subTest(arguments):
                self.fails("cat", "rec", *arguments, says=[arguments[0]], exit_code=2)


class LargeRecordings(ToolTest):
    """Rows are read where they lie: memory does not grow with the recording, no file is written."""

    ROWS = 1_500_000
    MEGABYTES = 20  # less than one of the columns needs

    def setUp(self):
        super().setUp()
        # Signal b has other times than a.
        self.write("time,a,b\n" + "".join(
            f"{i},{i * 7919 % 1000003 / 7!r},{i if i % 2 else ''}\n" for i in range(self.ROWS)))
        self.run_tool("import", "in.csv", "rec")

    def test_windows_and_merged_rows(self):
        files = sorted((self.folder / "rec").rglob("*"))
        for file in files:
            file.chmod(0o555 if file.is_dir() else 0o444)
        (self.folder / "rec").chmod(0o555)
        least = self.peak("info", "rec")[0]
        last = self.ROWS - 1
        for arguments, rows, end in (
                (("a", "--rows", f"{last}:"), 1, last), (("a", "--from", f"{last}"), 1, last),
                (("--from", f"{last - 1}", "--to", f"{last}"), 2, last),
                (("--rows", f"{last - 2}:{last}"), 2, last - 1), ((), self.ROWS, last)):
            with self.subTest(arguments):
                megabytes, text = self.peak("cat", "rec", *arguments)
                self.assertLess(megabytes, least + self.MEGABYTES)
                self.assertEqual(text.count("\n"), rows + 1)
                self.assertTrue(text.rsplit("\n", 2)[1].startswith(f"{end},"))
        self.assertEqual(sorted((self.folder / "rec").rglob("*")), files)


class Damage(ToolTest):
    def test_the_rest_stays_readable(self):
        rows = 400_000
        noise = random.Random(1)
        self.store("time,a\n" + "".join(f"{i},{noise.random()!r}\n" for i in range(rows)))
        expected = self.cat("--rows", f"{rows - 2}:")
        file = self.folder / "rec" / "storage" / f"{self.signals()['a']['dataFile']}.parquet"
        content = bytearray(file.read_bytes())
        self.assertGreater(len(content), 4 * 262_144)
        content[len(content) // 2] ^= 1
        file.write_bytes(content)
        self.assertEqual(self.cat("--rows", f"{rows - 2}:"), expected)
        for arguments in (("cat", "rec", "--rows", f"{rows // 2}:{rows // 2 + 1}"), ("cat", "rec"),
                          ("export", "rec", "out")):
            error = self.run_tool(*arguments, expect=1).stderr
            lost = re.fullmatch(
                r"kyr: .*storage/\d+\.parquet: .*rows (\d+) to (\d+) cannot be read\n", error
            )
            self.assertIsNotNone(lost, error)
            self.assertLessEqual(int(lost[1]), rows // 2)
            self.assertLess(rows // 2, int(lost[2]))


class Merging(ToolTest):
    def test_repeats_of_a_time_pair_up(self):
        text = "time,a,b,c\n0,1,,\n1,2,5,\n1,3,,8\n1,4,7,\n2,,,9\n"
        self.store(text)
        # The second samples of time 1 stand in one row, wherever they were in the file.
        self.assertEqual(self.cat(), "time,a,b,c\n0,1,,\n1,2,5,8\n1,3,7,\n1,4,,\n2,,,9\n")
        self.assertEqual(self.cat("c", "b"), "time,c,b\n1,8,5\n1,,7\n2,9,\n")
        self.assertEqual(self.cat("--rows", "1:3"), "time,a,b,c\n1,2,5,8\n1,3,7,\n")
        self.assertEqual(self.cat("--from", "2"), "time,a,b,c\n2,,,9\n")

    def test_times_beside_the_samples(self):
        self.odd_recording()
        self.assertEqual(self.cat("a", "b", recording="odd.apart"),
                         "time,a,b\n0,1,4\n0.5,2,5\n2,3,6\n")
        self.assertEqual(self.cat("--from", "0.5", recording="odd.apart"),
                         "time,a,b,late\n0.5,2,5,7\n2,3,6,\n3,,,8\n")
        self.assertIsNone(self.signals("odd.apart")["a"]["timeFile"])


class OtherSignals(ToolTest):
    """Signals that only hosts can make, not CSV files."""

    def setUp(self):
        super().setUp()
        self.odd_recording()

    def check(self, arguments, expected):
        self.assertEqual(self.cat(*arguments, recording="odd"), expected)

    def test_matrices_and_blobs(self):
        self.check(["matrix", "growing", "flags", "blob"],
                   "time,matrix,growing,flags,blob\n"
                   '0,"1 3 5;2 4 6","1 2","true false",aGk=\n'
                   '1,"0.1 1e+300 inf;-0.0 nan 7","3 5;4 6","false true",AP94\n')

    def test_samples_without_elements(self):
        # Their shapes claim 2^40 rows and 3 rows.
        self.assertEqual(self.cat(recording="odd.hollow"), 'time,hollow\n0,""\n1,""\n')

    def test_without_time_samples_are_counted(self):
        self.check(["count", "count too"], "row,count,count too\n0,0.1,-1\n1,16777216,2\n2,3,\n")
        self.check(["count", "--from", "1", "--to", "1"], "row,count\n1,16777216\n")
        self.fails("cat", "odd", "count", "matrix", says=["times"])

    def test_times_in_no_order_all_appear(self):
        self.check(["falling"], "time,falling\n2,1\n1,2\nnan,3\n1,4\n")
        self.check(["falling", "17", "late"],
                   "time,falling,twin,late\n0,,1,\n1,,2,\n2,1,,\n1,2,,\n5,,,1\n6,,,2\n"
                   "nan,3,,\n1,4,,\n")

    def test_names(self):
        self.fails("cat", "odd", "twin", says=["17", "18", '"twin"'])
        self.check(["18"], "time,twin\n0,3\n1,4\n")
        # A plain "7 [m]" would be imported as the signal "7" in metres.
        self.check(["7 [m]"], "time,7 [m] []\n0,5\n1,6\n")

    def test_times_and_samples_that_do_not_match_are_refused(self):
        self.fails("cat", "odd", "uneven", says=['"uneven"', "3 times", "2 samples"])


class Output(ToolTest):
    def setUp(self):
        super().setUp()
        self.store("time,a\n" + "".join(f"{i},{i}.5\n" for i in range(200_000)))

    def test_a_reader_that_goes_is_no_failure(self):
        for read_end, write_end in (os.pipe(), os.openpty()):
            tool = subprocess.Popen([KYR, "cat", "rec"], stdout=write_end, cwd=self.folder,
                                    stderr=subprocess.PIPE, env=self.environment())
            os.close(write_end)
            self.assertEqual(os.read(read_end, 6), b"time,a")
            os.close(read_end)
            self.assertEqual(tool.communicate()[1], b"")
            self.assertEqual(tool.returncode, 0)

    def test_streams_that_are_closed_get_no_file(self):
        before = {file: file.read_bytes() for file in (self.folder / "rec").rglob("*")
                  if file.is_file()}
        for command in ("cat rec", "cat missing", "import in.csv new", "export rec out.csv"):
            subprocess.run(f"{KYR} {command} <&- >&- 2>&-", shell=True, cwd=self.folder,
                           env=self.environment(), check=False)
        self.assertEqual({file: file.read_bytes() for file in before}, before)
        self.assertEqual(self.cat(recording="new"), self.cat())
        self.assertEqual((self.folder / "out.csv").read_text(), self.cat())

    def test_without_threads_the_text_is_the_same(self):
        """Threads get the largest stack that a process may have, for which there is no memory."""
        tool = self.limited(resource.RLIMIT_STACK, 1 << 46, "cat", "rec")
        self.assertEqual(tool.returncode, 0, tool.stderr)
        self.assertEqual(tool.stdout, self.cat())

    def test_a_full_disk_is_a_failure(self):
        with open("/dev/full", "wb") as full:
            tool = subprocess.run([KYR, "cat", "rec"], stdout=full, stderr=subprocess.PIPE,
                                  cwd=self.folder, env=self.environment(), check=False)
        self.assertEqual(tool.returncode, 1)
        self.assertIn(b"No space left", tool.stderr)


if __name__ == "__main__":
    unittest.main()
