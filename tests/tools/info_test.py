"""The description of a recording, and the demonstration."""

import unittest

from tool import ToolTest


class Info(ToolTest):
    def test_from_recording_json_alone(self):
        self.store("time,a [m],b,c\n0,1,1,0.5\n1,2,2,1.5\n", "--compression", "gzip")
        expected = self.info()
        for file in (self.folder / "rec" / "storage").iterdir():
            file.unlink()
        self.assertEqual(self.info(), expected)

    def test_totals_and_sharing(self):
        self.store("time,a [m],b,c\n0,1,1,0.5\n1,2,2,1.5\n", "--compression", "gzip")
        info = self.info()
        a, b, c = info["signals"]
        sizes = {file["id"]: file["bytes"] for file in info["files"]}
        users = {file["id"]: file["signals"] for file in info["files"]}
        storage = self.folder / "rec" / "storage"
        self.assertEqual(sizes, {int(f.stem): f.stat().st_size for f in storage.iterdir()})
        self.assertEqual(a["dataFile"], b["dataFile"])
        self.assertEqual((users[a["timeFile"]], users[a["dataFile"]], users[c["dataFile"]]),
                         (3, 2, 1))
        self.assertEqual(info["totals"], {
            "signals": 3, "files": 3, "bytes": sum(sizes.values()),
            "bytesWithoutSharing": a["bytes"] + b["bytes"] + c["bytes"],
            "bytesSaved": 2 * sizes[a["timeFile"]] + sizes[a["dataFile"]]})
        self.assertEqual((a["unit"], a["type"], c["type"], c["rows"], c["compression"]),
                         ("m", "int64", "double", 2, "gzip"))

    def test_a_signal_that_shares_with_its_own_time(self):
        self.store("time,a\n0.5,0.5\n1,1\n")
        info = self.info()
        self.assertEqual([file["signals"] for file in info["files"]], [1])
        self.assertEqual(info["totals"]["bytesSaved"], info["totals"]["bytes"])

    def test_columns_are_aligned_with_any_names(self):
        self.store('time,"Wärme [°C]",温度温度,"a\nb",long name [m]\n0,1,2,3,4\n')
        lines = self.run_tool("info", "rec").stdout.splitlines()
        self.assertEqual([line.split()[0] for line in lines[:5]], ["id", "0", "1", "2", "3"])
        # East Asian characters are two columns wide.
        columns = {line.index("int64") + sum(c in "温度" for c in line) for line in lines[1:5]}
        self.assertEqual(columns, {lines[0].index("type")})
        self.assertEqual(lines[0].index("unit") - lines[0].index("name"), len("long name") + 2)

    def test_shared_files_are_marked(self):
        self.store("time,a,b\n0,1,1\n1,2,2\n")
        lines = self.run_tool("info", "rec").stdout.splitlines()
        for line in lines[1:3]:
            self.assertRegex(line, r"\d+ \(2\) +\d+ \(2\)$")

    def test_hosts_signals(self):
        self.odd_recording()
        signals = self.signals("odd")
        self.assertEqual(signals["matrix"]["dimensions"], [2, 3])
        self.assertIsNone(signals["count"]["timeFile"])
        self.assertIsNone(signals["count"]["timeSpan"])
        table = self.run_tool("info", "odd").stdout
        for text in ("2x3", "variable matrix", "bus", "binary"):
            self.assertIn(text, table)


class Demo(ToolTest):
    def test_bundled_data(self):
        output = self.run_tool("demo").stdout
        self.assertIn("386 signals", output)
        self.assertIn("equal to the CSV, bit for bit", output)

    def test_own_data_and_folder(self):
        self.write("time,a,b\n0,1,\n1,,-0.0\n2,3,0\n")
        self.assertIn("2 signals", self.run_tool("demo", "rec", "--data", "in.csv").stdout)
        self.run_tool("verify", "rec")
        self.fails("demo", "rec", says=["rec", "--force"])


if __name__ == "__main__":
    unittest.main()
