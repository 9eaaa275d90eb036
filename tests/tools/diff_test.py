"""What differs between two recordings."""

import json
import math
import shutil
import subprocess
import unittest

from tool import KYR, ToolTest


class Diff(ToolTest):
    def setUp(self):
        super().setUp()
        self.make("a")

    def make(self, name, speed=0.0, rows=100, unit="m/s", extra="", shift=0):
        lines = [f"time,speed [{unit}],gear,text{',' + extra if extra else ''}"]
        for i in range(rows):
            v = math.sin(i / 10) + (speed if i >= 50 else 0)
            more = f",{i}" if extra else ""
            lines.append(f"{i / 10},{v!r},{(i + shift) // 20},{'off' if i < 30 else 'on'}{more}")
        self.write("\n".join(lines) + "\n", f"{name}.csv")
        self.run_tool("import", f"{name}.csv", name, "--force")

    def diff(self, *arguments, expect):
        return self.run_tool("diff", "a", "b", *arguments, expect=expect).stdout

    def json(self, *arguments, expect):
        return json.loads(self.diff("--json", *arguments, expect=expect))

    def test_equal_recordings(self):
        # However the rows were stored, and whatever else is there.
        for options in ((), ("--pack",), ("--no-pack", "--stream", "--batch", 7)):
            with self.subTest(options):
                self.run_tool("import", "a.csv", "b", "--force", *options)
                text = self.diff(expect=0)
                self.assertEqual(text.splitlines()[0], "A is a, B is b. 3 signals: 3 equal.")
                for tolerance in ((), ("--atol", 1)):
                    found = self.json("--all", *tolerance, expect=0)["signals"]
                    self.assertEqual([each["knownEqual"] for each in found], [True] * 3)
                # What is equal is not read: nobody misses its files.
                shutil.rmtree(self.folder / "b" / "storage")
                self.diff(expect=0)

    def test_a_line_for_each_signal_the_worst_first(self):
        self.make("b", speed=0.25, rows=80, extra="new", shift=1)
        lines = self.diff("--atol", 0.125, expect=1).splitlines()
        self.assertEqual([line.split()[0] for line in lines[:4]], ["name", "gear", "speed", "new"])
        # By how much of the tolerance, error, at, A, B, first out, rows out.
        self.assertEqual(lines[1].split()[1:10], "8 1 1.9 0 1 1.9 4 of 80".split())
        self.assertEqual(lines[2].split()[1:3] + lines[2].split()[6:10],
                         "2 0.25 5 30 of 80".split())
        self.assertIn("only in B", lines[3])
        self.assertIn("A to 9.9 s, B to 7.9 s", lines[2])
        self.assertEqual(lines[5], "A is a, B is b. 4 signals: 1 equal, 2 differ, 1 only in B.")
        self.assertIn('Ends differ for 1 equal signal, compared where both are: "text"', lines[6])
        self.assertEqual(lines[7], "Tolerance of values: 0.125; of times: none.")
        self.assertIn("... and 2 more", self.diff("--atol", 0.125, "--limit", 1, expect=1))

    def test_json_has_all_digits(self):
        self.make("b", speed=0.25)
        found = self.json("--rtol", 0.1, "--ignore", "text", expect=1)
        self.assertEqual((found["equal"], found["tolerances"]["rtol"]), (False, 0.1))
        self.assertEqual(found["counts"], {"equal": 1, "differs": 1, "not comparable": 0,
                                           "only in reference": 0, "only in other": 0})
        (speed,) = found["signals"]
        worst = speed["worst"]
        # The sample that is nearest to 0.
        row = min(range(50, 100), key=lambda i: abs(math.sin(i / 10)))
        self.assertEqual((worst["row"], worst["reference"]), (row, math.sin(row / 10)))
        self.assertEqual(worst["error"], abs(worst["reference"] - worst["other"]))
        self.assertAlmostEqual(worst["errorOverTolerance"],
                               0.25 / (0.1 * abs(math.sin(row / 10))), places=9)
        self.assertEqual((speed["rowsOut"], speed["firstOut"]), (50, 5.0))
        # There is no JSON for what is infinitely worse than allowed.
        self.assertIsNone(self.json(expect=1)["signals"][0]["worst"]["errorOverTolerance"])

    def test_names(self):
        self.make("b", unit="km/h")
        self.run_tool("set", "b", "gear.name=stage")
        self.assertIn('unit "m/s", "km/h"', self.diff("--rtol", 1, expect=1))
        self.diff("--map", "gear=stage", "--ignore", "sp*", expect=0)
        self.diff("--map", "gear=stage", "--signals", "gear", "--signals", "t*", expect=0)
        for arguments, exit_code, says in (
                (("--map", "gear"), 2, "OLD=NEW"),
                *((("--atol", text), 2, "--atol: give a finite number from 0 on, not " + text)
                  for text in ("-1", "nan", "inf", "1e-400", "x")),
                (("--map", "gear=nothing"), 3, '"nothing"'), (("--signals", "none"), 3, '"none"')):
            with self.subTest(arguments):
                self.fails("diff", "a", "b", *arguments, says=[says], exit_code=exit_code)

    def test_what_cannot_be_compared_is_a_failure(self):
        self.fails("diff", "a", "nothing", says=["nothing"], exit_code=3)
        self.make("b", speed=1)
        for file in (self.folder / "b" / "storage").iterdir():
            file.write_bytes(b"PAR1")
        self.fails("diff", "a", "b", says=["storage"], exit_code=3)

    def test_whoever_reads_may_go(self):
        self.make("b", speed=1)
        with subprocess.Popen([KYR, "diff", "a", "b"], stdout=subprocess.PIPE,
                              cwd=self.folder) as tool:
            tool.stdout.close()
            self.assertEqual(tool.wait(), 1)

    def test_the_page_has_both_curves_and_the_tolerance(self):
        self.make("b", speed=0.25)
        self.run_tool("set", "b", "speed.name=v")
        options = ("--map", "speed=v", "--atol", 0.125, "--html", "page.html")
        self.diff(*options, expect=1)
        page = (self.folder / "page.html").read_text()
        data = json.loads(page.split('id="data">')[1].split("</script>")[0])
        self.assertEqual([[signal["name"] for signal in run["signals"]] for run in data["runs"]],
                         [["speed"], ["speed"]])
        points = list(data["points"].values())
        self.assertEqual(["tolerance" in each for each in points], [True, False])
        self.fails("diff", "a", "b", *options, says=["page.html"], exit_code=3)
        self.diff(*options, "--force", expect=1)

    def test_memory_is_bounded(self):
        rows = "".join(f"{i},{i % 7},{i % 5}\n" for i in range(1_500_000))
        self.write("time,x,y\n" + rows, "a.csv")
        self.write("time,x,y\n" + rows.replace("1000000,1,0", "1000000,1.5,0"), "b.csv")
        for name in "ab":
            self.run_tool("import", f"{name}.csv", name, "--force")
        # All rows of one signal, times included, are 24 MB.
        small, _ = self.peak("info", "a")
        for tolerance in (0, 0.00001):
            run = self.limited_peak("diff", "a", "b", "--atol", "0.25", "--time-tol", tolerance)
            self.assertLess(run - small, 40)

    def limited_peak(self, *arguments):
        """The peak of memory in megabytes of a comparison that finds something."""
        import os
        with subprocess.Popen([KYR, *map(str, arguments)], stdout=subprocess.DEVNULL,
                              cwd=self.folder) as tool:
            _, status, usage = os.wait4(tool.pid, 0)
            tool.returncode = os.waitstatus_to_exitcode(status)
        self.assertEqual(tool.returncode, 1)
        return usage.ru_maxrss / 1024


if __name__ == "__main__":
    unittest.main()
