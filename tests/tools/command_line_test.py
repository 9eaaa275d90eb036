"""Options, exit codes, and what happens to folders that exist already."""

import json
import os
import signal
import subprocess
import time
import unittest

from tool import KYR, ToolTest


class Usage(ToolTest):
    def test_wrong_usage(self):
        self.write("time,a\n0,1\n")
        for arguments in ((), ("nonsense",), ("info",), ("info", "rec", "--nonsense"),
                          ("import", "in.csv"), ("import", "in.csv", ""),
                          ("import", "in.csv", "rec", "--type", "a"),
                          ("import", "in.csv", "rec", "--type", "a=text"),
                          ("import", "in.csv", "rec", "--type", "a=int8", "--type", "a=int16")):
            with self.subTest(arguments):
                self.fails(*arguments, says=[], exit_code=2)
        self.assertEqual(sorted(os.listdir(self.folder)), ["in.csv", "tmp"])

    def test_codecs(self):
        for codec in ("uncompressed", "snappy", "gzip", "brotli", "zstd", "lz4_hadoop"):
            self.store("time,a\n0,1\n", "--compression", codec)
            self.assertEqual(self.signals()["a"]["compression"], codec)
            self.assertEqual(self.cat(), "time,a\n0,1\n")
        for codec in ("lz4", "lz4_frame", "lzo", "bz2", "", "ZIP"):
            self.fails("import", "in.csv", "new", "--compression", codec, says=["lz4_hadoop"],
                       exit_code=2)

    def test_names_that_do_not_exist(self):
        self.write("time,a\n0,1\n")
        self.fails("import", "in.csv", "new", "--time", "b", says=['"b"', "--time"])
        self.fails("import", "in.csv", "new", "--type", "b=int8", says=['"b"', "--type"])
        self.fails("import", "in.csv", "new", "--type", "time=int8", says=['"time"', "double"])
        self.fails("import", "missing.csv", "new", says=["missing.csv", "No such file"])
        self.fails("import", "tmp", "new", says=["tmp", "directory"])

    def test_help_and_version(self):
        for command in ("import", "info", "cat", "verify", "demo"):
            self.assertIn(f"  kyr {command}", self.run_tool(command, "--help").stdout)
        self.assertRegex(self.run_tool("--version").stdout, r"^kyr \d+\.\d+\.\d+\n$")

    def test_trace(self):
        self.write("time,a\n0,1\n")
        for arguments in (("--trace", "trace.json", "import", "in.csv", "one"),
                          ("import", "in.csv", "two", "--trace", "trace.json")):
            self.run_tool(*arguments)
            events = json.loads((self.folder / "trace.json").read_text())
            self.assertEqual({event["ph"] for event in events}, {"B", "E"})
        self.fails("info", "one", "--trace", "no/trace.json", says=["no/trace.json"])


class ExistingFolders(ToolTest):
    def test_a_recording_is_replaced_only_by_force(self):
        self.store("time,before\n0,1\n")
        self.write("time,after\n0,1\n")
        self.fails("import", "in.csv", "rec", says=["rec", "--force"])
        self.assertEqual(self.cat(), "time,before\n0,1\n")
        (self.folder / "rec" / "notes").touch()
        self.run_tool("import", "in.csv", "rec/", "--force")
        self.assertEqual(self.cat(), "time,after\n0,1\n")
        self.assertEqual(sorted(os.listdir(self.folder / "rec")),
                         ["notes", "recording.json", "storage"])

    def test_nothing_else_is_replaced(self):
        self.write("time,a\n0,1\n")
        (self.folder / "other").mkdir()
        (self.folder / "other" / "file").touch()
        (self.folder / "link").symlink_to("nowhere")
        for target in ("other", "link", "in.csv", "missing/rec"):
            for force in ([], ["--force"]):
                self.fails("import", "in.csv", target, *force, says=[target])
        self.assertEqual(os.listdir(self.folder / "other"), ["file"])

    def test_an_empty_folder_is_filled(self):
        self.write("time,a\n0,1\n")
        (self.folder / "empty").mkdir()
        self.run_tool("import", "in.csv", "empty")
        self.run_tool("verify", "empty")

    def test_a_failed_import_leaves_the_old_recording(self):
        self.store("time,before\n0,1\n")
        self.write("time,after\n0,1\n1,x\n")
        self.fails("import", "in.csv", "rec", "--force", "--type", "after=int8", says=["line 3"])
        self.assertEqual(self.cat(), "time,before\n0,1\n")


class Interrupts(ToolTest):
    def test_temporary_files_are_removed(self):
        names = ",".join(f"s{i}" for i in range(3000))
        rows = "".join(f"{t}," + ",".join(f"{t + i}" for i in range(3000)) + "\n" for t in range(9))
        self.write(f"time,{names}\n{rows}")
        tool = subprocess.Popen([KYR, "import", "in.csv", "rec"], cwd=self.folder,
                                env=self.environment())
        while not os.listdir(self.temporary) and tool.poll() is None:
            time.sleep(0.001)
        tool.send_signal(signal.SIGINT)
        self.assertEqual(tool.wait(), -signal.SIGINT)
        self.assertEqual(os.listdir(self.temporary), [])
        self.assertEqual(sorted(os.listdir(self.folder)), ["in.csv", "tmp"])


if __name__ == "__main__":
    unittest.main()
