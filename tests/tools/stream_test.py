"""Importing through files that grow by row groups, with the same samples and the same sharing."""

import itertools
import unittest

from tool import EXAMPLES, ToolTest


class Streamed(ToolTest):
    def assert_streams_like_whole_files(self, file, *options):
        self.run_tool("import", file, "whole", "--force")
        self.run_tool("import", file, "rec", "--force", "--stream", *options)
        self.run_tool("verify", "rec")
        self.assertEqual(self.cat(), self.cat(recording="whole"))

    def test_every_cell_of_the_examples_comes_back(self):
        for name, options in (("building-hvac", []),
                              ("building-hvac", ["--chunk", "7", "--batch", "100"]),
                              ("imu", ["--chunk", "1000", "--batch", "4096"])):
            with self.subTest(name, options=options):
                (file,) = (EXAMPLES / name).glob("*.csv")
                self.assert_streams_like_whole_files(file, *options)

    def test_columns_that_begin_alike_are_kept_apart_and_equal_ones_share(self):
        rows = range(40)
        columns = {
            "time": rows,
            "constant": [1] * 40,
            "constant again": [1] * 40,
            "late": [1] * 39 + [2],
            "early": [1] * 9 + [2] * 31,
            "early again": [1] * 9 + [2] * 31,
            "time again": rows,
            "times": [row + 0.5 if row == 39 else row for row in rows],
            "gaps": [1 if row % 3 else "" for row in rows],
            "marker": [-1.0] * 40,
        }
        lines = [",".join(columns), *(",".join(map(str, row)) for row in zip(*columns.values()))]
        file = self.write("\n".join(lines) + "\n")
        for chunk, batch in itertools.product((1, 5, 10, 100), (1, 8, 64)):
            with self.subTest(chunk=chunk, batch=batch):
                self.assert_streams_like_whole_files(file, "--chunk", chunk, "--batch", batch)
                signals = self.signals()
                for name in ("constant", "early"):
                    self.assertEqual(signals[name]["dataFile"],
                                     signals[f"{name} again"]["dataFile"])

    def test_contents_of_equal_hash_are_kept_apart(self):
        pairs = [(a, b) for a in range(2) for b in range(70)]
        lines = ["time," + ",".join(f"s{i}" for i in range(len(pairs))),
                 *(f"{time},{','.join(map(str, row))}" for time, row in enumerate(zip(*pairs)))]
        self.assert_streams_like_whole_files(self.write("\n".join(lines) + "\n"))

    def test_usage(self):
        file = self.write("time,a\n0,1\n")
        for options in (["--chunk", "5"], ["--stream", "--chunk", "0"],
                        ["--stream", "--batch", "1048577"]):
            with self.subTest(options=options):
                self.fails("import", file, "rec", *options, says=[], exit_code=2)


if __name__ == "__main__":
    unittest.main()
