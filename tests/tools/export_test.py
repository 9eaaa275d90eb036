"""Exporting tables: their content, what is left out, and what happens to OUT."""

import os
import resource
import signal
import subprocess
import time
import unittest

from tool import EXAMPLES, KYR, ToolTest, rows_of


class ExportTest(ToolTest):
    def export(self, *arguments, recording="rec"):
        """The table as CSV text."""
        return self.run_tool("export", recording, "-", *arguments).stdout

    def told(self, *arguments, recording="rec"):
        """Exports to OUT, which is replaced, and returns the text on standard error."""
        return self.run_tool("export", recording, *arguments, "--force").stderr


class Wide(ExportTest):
    def test_csv_comes_back_as_the_same_recording(self):
        for name in ("building-hvac", "imu"):
            with self.subTest(name):
                (file,) = (EXAMPLES / name).glob("*.csv")
                self.run_tool("import", file, "rec", "--force")
                self.run_tool("export", "rec", f"{name}.csv")
                self.run_tool("import", f"{name}.csv", "again", "--force")
                self.assertEqual(self.cat(recording="again"), self.cat())
                self.assertEqual([(s["name"], s["unit"]) for s in self.info("again")["signals"]],
                                 [(s["name"], s["unit"]) for s in self.info()["signals"]])

    def test_types_in_csv_and_signals_by_name(self):
        self.store("time,a [m],on,b,c\n0,0.1,true,18446744073709551615,1\n"
                   "1,nan,false,0,-1e-300\n2,-inf,true,7,1e300\n")
        self.assertEqual(self.export("b", "a [m]", "on", "a", "3"),
                         "time,b,a [m],on,c\n0,18446744073709551615,0.1,true,1\n"
                         "1,0,nan,false,-1e-300\n2,7,-inf,true,1e+300\n")

    def test_different_times_are_refused_with_a_way_out(self):
        self.store("time,a,b,c\n0,1,2,3\n1,4,,5\n2,6,7,\n")
        self.fails("export", "rec", "out", says=["3 signals", "3 different", "--long",
                                                 "--resample"])
        self.assertEqual(self.export("b"), "time,b\n0,2\n2,7\n")


class Long(ExportTest):
    def test_by_signal_then_time(self):
        self.store("time,b [m],a,on\n0,1,2.5,true\n0,3,4,\n1,5,,false\n")
        rows = '0,"b [m]",1\n0,"b [m]",3\n1,"b [m]",5\n0,"a",2.5\n0,"a",4\n0,"on",1\n1,"on",0\n'
        self.assertEqual(self.export("--long"), "time,signal,value\n" + rows)
        self.odd_recording()
        # Rows are sorted by time. The samples of time 1 keep their order. The time NaN comes last.
        self.assertEqual(self.export("falling", "--long", recording="odd"),
                         'time,signal,value\n1,"falling",2\n1,"falling",4\n2,"falling",1\n'
                         'nan,"falling",3\n')

    def test_integers_that_float64_cannot_hold(self):
        for cells, inexact in (("9007199254740992\n1,4611686018427387904", False),
                               ("9007199254740993\n1,0", True), ("-9007199254740993\n1,0", True),
                               ("9223372036854775807\n1,0", True),
                               ("18446744073709551615\n1,9223372036854775808", True)):
            with self.subTest(cells):
                self.store(f"time,a\n0,{cells}\n")
                self.assertEqual("2^53" in self.told("out", "--long"), inexact)
                self.run_tool("export", "rec", "strict", "--long", "--strict", "--force",
                              expect=1 if inexact else 0)
                self.assertEqual((self.folder / "strict").exists(), not inexact)
                (self.folder / "strict").unlink(missing_ok=True)
                strict = self.run_tool("export", "rec", "-", "--long", "--strict",
                                       expect=1 if inexact else 0)
                self.assertEqual(strict.stdout == "", inexact)

    def test_partitions(self):
        self.store('time,a/b=c%d,"x,\'y{z}",1.5,ü [°]\n0,1,2,3,4\n')
        self.run_tool("export", "rec", "out", "--long", "--partition", "signal")
        self.assertEqual(sorted(os.listdir(self.folder / "out")),
                         ["signal=1.5", "signal=a%2Fb%3Dc%25d", "signal=x,%27y%7Bz}", "signal=ü"])
        self.assertEqual(os.listdir(self.folder / "out" / "signal=ü"), ["part-0.parquet"])
        self.store("time,a,{},__HIVE_DEFAULT_PARTITION__\n0,1,2,3\n".format("n" * 300))
        self.assertIn("too long", self.told("out", "--long", "--partition", "signal"))
        self.assertEqual(sorted(os.listdir(self.folder / "out")),
                         ["signal=%5F_HIVE_DEFAULT_PARTITION__", "signal=a"])


class Resampled(ExportTest):
    def test_grids_and_methods(self):
        self.store("time,a,b,on\n0,1,,\n1,2,10,true\n1,3,,\n2,,,false\n3,,20,\n4,5,,\n")
        head = "time,a,b,on\n"
        for arguments, rows in (
            (("union",), "0,1,,\n1,3,10,true\n2,3,10,false\n3,3,20,false\n4,5,20,false\n"),
            (("2",), "0,1,,\n2,3,10,false\n4,5,20,false\n"),
            (("3",), "0,1,,\n3,3,20,false\n"),
            (("2", "--method", "linear"),
             "0,1,,\n2,3.6666666666666665,15,false\n4,5,,false\n"),
        ):
            with self.subTest(arguments):
                self.assertEqual(self.export("--resample", *arguments), head + rows)
        self.assertIn('"on", is held', self.told("out", "--resample", "1", "--method", "linear"))
        self.fails("export", "rec", "new", "--resample", "1", "--method", "linear", "--strict",
                   says=['"on"', "--strict"])

    def test_the_last_step_reaches_the_end(self):
        self.store("time,a\n0,1\n0.3,4\n")  # 0.3 / 0.1 is less than 3, 3 * 0.1 more than 0.3
        rows = rows_of(self.export("--resample", "0.1", "--method", "linear"))
        self.assertEqual([row[0] for row in rows[1:]], ["0", "0.1", "0.2", "0.3"])
        self.assertEqual(rows[-1][1], "4")
        self.store("time,a\n1600000000,1\n1600000000.1,2\n1600000000.2,3\n1600000000.3,4\n")
        self.assertEqual(self.export("--resample", "0.1"), self.cat())
        self.fails("export", "rec", "-", "--resample", "1e-7", says=["1e-07", "longer steps"])
        times, time = [], 0.0
        for _ in range(1001):
            times.append(time)
            time += 0.01
        self.store("time,a\n" + "".join(f"{t!r},{i}\n" for i, t in enumerate(times)))
        for method in ("previous", "linear"):
            rows = rows_of(self.export("--resample", "0.01", "--method", method))
            self.assertEqual([float(row[1]) for row in rows[1:]], list(range(1001)))
        self.store("time,a\n0,-1e308\n1,1e308\n2,1e308\n")
        rows = rows_of(self.export("--resample", "0.5", "--method", "linear"))
        self.assertEqual([float(row[1]) for row in rows[1:]], [-1e308, 0, 1e308, 1e308, 1e308])

    def test_what_cannot_be_resampled(self):
        self.odd_recording()
        self.fails("export", "odd", "out", "falling", "--resample", "1",
                   says=['"falling"', "--long"])
        self.fails("export", "odd", "out", "late", "--resample", "1e-12", says=["1e-12", "rows"])
        self.assertEqual(rows_of(self.export("late", "17", "--resample", "union",
                                             recording="odd")),
                         [["time", "late", "twin"], ["0", "", "1"], ["1", "", "2"],
                          ["5", "1", "2"], ["6", "2", "2"]])


class Memory(ExportTest):
    """Tables are written in pieces, so that memory does not grow with them."""

    def test_wide_tables(self):
        rows, columns = 150_000, 100  # 120 MB of numbers
        self.write("time," + ",".join(f"x{n}" for n in range(columns)) +
                   "".join(f"\n{time}{',1' * columns}" for time in (0, rows - 1)))
        self.run_tool("import", "in.csv", "rec")
        least = self.peak("info", "rec")[0]
        # A row group is in memory until it is complete.
        for out, most in (("out.csv", 80), ("out.arrow", 80), ("out.parquet", 130)):
            for method in ("previous", "linear"):
                with self.subTest(out=out, method=method):
                    megabytes, _ = self.peak("export", "rec", out, "--resample", "1", "--method",
                                             method, "--force")
                    self.assertLess(megabytes, least + most)
        self.run_tool("import", "out.csv", "rec", "--force")
        least = self.peak("info", "rec")[0]
        for out in ("out.csv", "out.arrow"):
            self.assertLess(self.peak("export", "rec", out, "--force")[0], least + 80)
        self.assertEqual(self.info()["signals"][0]["rows"], rows)


class Losses(ExportTest):
    def test_what_is_left_out_is_named(self):
        self.odd_recording()
        always = {"count": "no times", "count too": "no times", "uneven": "3 times but 2 samples"}
        numbers = {"matrix": "matrices", "growing": "matrices", "flags": "matrices",
                   "blob": "blobs"}
        for arguments, losses in ((("out", "--long"), {**always, **numbers}),
                                  (("out.csv", "17", "matrix", "blob"),
                                   {"matrix": "matrices", "blob": "blobs"}),
                                  (("out", "matrix", "growing", "flags", "blob", "17"), {})):
            with self.subTest(arguments):
                self.run_tool("export", "odd", *arguments, "--strict", "--force",
                              expect=1 if losses else 0)
                told = [line for line in self.told(*arguments, recording="odd").splitlines()
                        if "warning: " in line]
                self.assertEqual(len(told), len(losses))
                for name, reason in losses.items():
                    self.assertTrue(any(f'"{name}"' in line and reason in line for line in told))
        self.fails("export", "odd", "new", "count", says=["no signal is left", "kyr info"])

    def test_names_become_unique(self):
        self.odd_recording()
        header = self.export("17", "18", "7 [m]", recording="odd").splitlines()[0]
        self.assertEqual(header, "time,twin (17),twin (18),7 [m] []")
        self.assertIn("twin (18)", self.told("out", "17", "18", recording="odd"))
        self.store("t,time [h],Time\n0,1,2\n", "--time", "t")
        self.assertEqual(self.export().splitlines()[0], "time,time [h],Time")

    def test_damage_is_not_exported(self):
        self.store("time,a\n0,1\n1,2\n")
        file = self.folder / "rec" / "storage" / f"{self.signals()['a']['dataFile']}.parquet"
        sound = file.read_bytes()
        middle = len(sound) // 2
        for content in (sound[:-9], sound[:middle] + bytes([sound[middle] ^ 1]) +
                        sound[middle + 1:], b""):
            file.write_bytes(content)
            for shape in ((), ("--long",), ("--resample", "1")):
                self.fails("export", "rec", "out", *shape, says=[f"storage/{file.name}", "damaged"])
        file.unlink()
        self.fails("export", "rec", "out", says=[f"storage/{file.name}", "missing"])
        self.assertFalse((self.folder / "out").exists())


class Outputs(ExportTest):
    def setUp(self):
        super().setUp()
        self.store("time,a\n0,1\n1,2\n")

    def entries(self):
        return sorted(os.listdir(self.folder))

    def test_nothing_is_replaced_by_accident(self):
        partition = ("--long", "--partition", "signal")
        for out, options in (("file.csv", ()), ("folder", partition)):
            self.run_tool("export", "rec", out, *options)
            self.fails("export", "rec", out, *options, says=[out, "--force"])
            (self.folder / out).chmod(0o740)
            self.run_tool("export", "rec", out, *options, "--force")
        self.assertEqual((self.folder / "file.csv").stat().st_mode & 0o777, 0o740)
        before = self.entries()
        (self.folder / "folder" / "mine").touch()
        for out, options in (
            ("folder", partition),
            ("folder", ()),
            ("rec", partition),
            ("file.csv", (*partition, "--format", "parquet")),
            ("rec/recording.json", ("--format", "csv")),
            ("rec/storage/0.parquet", ()),
            ("no/where", ()),
        ):
            with self.subTest(out=out, options=options):
                self.fails("export", "rec", out, *options, "--force", says=[out])
        self.run_tool("verify", "rec")
        self.assertTrue((self.folder / "folder" / "mine").exists())
        self.assertEqual(self.entries(), before)

    def test_wrong_usage(self):
        for arguments in (("--resample", "0"), ("--resample", "x"), ("--resample", ""),
                          ("--method", "linear"), ("--partition", "signal"),
                          ("--partition", "time", "--long"), ("--long", "--resample", "1"),
                          ("--format", "xml"), ("--format", "csv", "--compression", "zstd"),
                          ("--format", "arrow", "--compression", "snappy"),
                          ("--compression", "lzo"), ("--set", "SharedTimeColumn=false"),
                          ("--format", "csv", "--long", "--partition", "signal")):
            with self.subTest(arguments):
                self.fails("export", "rec", "out", *arguments, says=[], exit_code=2)
        for out in ("x.tsv", "x.csv.gz", "x.XLSX"):
            self.fails("export", "rec", out, says=[out, "--format"], exit_code=2)
        for out, says in (("-", "csv"), ("", "OUT"), ("new/", "file")):
            self.fails("export", "rec", out, "--format", "parquet", says=[says], exit_code=2)
        self.assertEqual(self.entries(), ["in.csv", "rec", "tmp"])

    def test_endings_and_long_names(self):
        for out, start in (("x.CSV", b"time"), ("x.Arrow", b"ARROW1"), ("ü" * 127, b"PAR1"),
                           ("n" * 247 + ".parquet", b"PAR1")):
            self.run_tool("export", "rec", out)
            self.assertTrue((self.folder / out).read_bytes().startswith(start))

    def test_a_folder_without_permission(self):
        (self.folder / "locked").mkdir(mode=0o555)
        self.folder.chmod(0o755)
        other = {"user": 65534} if os.geteuid() == 0 else {}
        for out, options in (("x.csv", ()), ("x.parquet", ()), ("x.arrow", ()),
                             ("x", ("--long", "--partition", "signal"))):
            try:
                tool = subprocess.run([KYR, "export", "rec", f"locked/{out}", *options],
                                      capture_output=True, text=True, cwd=self.folder, check=False,
                                      env=self.environment(), **other)
            except PermissionError:
                self.skipTest("the build is in a folder that only root may enter")
            self.assertEqual((tool.returncode, tool.stderr),
                             (1, f"kyr: locked/{out} cannot be made: Permission denied\n"))

    def test_a_full_disk_leaves_nothing(self):
        self.store("time,a\n" + "".join(f"{i},{i * 7919 % 10007}.5\n" for i in range(20_000)))
        for options in ((), ("--format", "arrow"), ("--format", "csv"), ("--long",),
                        ("--long", "--partition", "signal")):
            with self.subTest(options):
                tool = self.limited(resource.RLIMIT_FSIZE, 9999, "export", "rec", "out", *options)
                self.assertEqual(tool.returncode, 1)
                self.assertIn("cannot be written", tool.stderr)
                self.assertIn("File too large", tool.stderr)
                self.assertEqual(self.entries(), ["in.csv", "rec", "tmp"])

    def test_an_interrupted_export_leaves_nothing(self):
        self.store("time," + ",".join("abcdef") + "\n" +
                   "".join(f"{i},{'1.5,' * 5}2\n" for i in range(200_000)))
        partitions = ("--long", "--partition", "signal")
        for options in (("--format", "csv", "--long"), partitions, ("--compression", "brotli")):
            with self.subTest(options):
                tool = subprocess.Popen([KYR, "export", "rec", "out", *options], cwd=self.folder,
                                        env=self.environment())
                # Wait until the file has content, or the folder has a partition.
                while tool.poll() is None and not any(
                        file.is_dir() and any(file.iterdir()) or
                        file.is_file() and file.stat().st_size > 0
                        for file in self.folder.glob("out.exporting-*")):
                    time.sleep(0.001)
                for _ in range(2):
                    tool.send_signal(signal.SIGINT)
                    time.sleep(0.01)
                self.assertEqual(tool.wait(), -signal.SIGINT)
                self.assertEqual(self.entries(), ["in.csv", "rec", "tmp"])


if __name__ == "__main__":
    unittest.main()
