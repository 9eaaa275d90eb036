"""Options, exit codes, and what happens to folders that exist already."""

import json
import os
import re
import shutil
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
                          ("import", "in.csv", "rec", "--type", "a=letters"),
                          ("import", "in.csv", "rec", "--type", "a=int8", "--type", "a=int16")):
            with self.subTest(arguments):
                self.fails(*arguments, says=[], exit_code=2)
        self.assertEqual(sorted(os.listdir(self.folder)), ["in.csv", "tmp"])

    def test_unknown_words_and_the_nearest_known_ones(self):
        for line, unknown, nearest in (
                ("imprt in.csv rec", "imprt", "import"), ("exprot rec out", "exprot", "export"),
                ("help recrod", "recrod", "record"), ("--vrsion", "--vrsion", "--version"),
                ("info rec --jsn", "--jsn", "--json"), ("import --tme=t in.csv", "--tme", "--time"),
                ("--trce f info rec", "--trce", "--trace"),
                ("info rec -json", "-json", "--json"),
                ("import in.csv rec --set Dictonary=true", "Dictonary", "Dictionary"),
                ("nonsense", "nonsense", ""), ("verify rec --nonsense", "--nonsense", ""),
                ("verify rec more", "more", ""), ("", "command", "")):
            with self.subTest(line):
                error = self.run_tool(*line.split(), expect=2).stderr
                self.assertIn(unknown + " ", error.replace(":", " "))
                suggestion = f"did you mean {nearest}?" if nearest else ""
                self.assertIn(suggestion, error)
                self.assertEqual("did you mean" in error, bool(nearest), error)

    def test_what_is_wrong_is_said_in_plain_words(self):
        for line, says in (
                ("info", "FOLDER is missing"), ("import in.csv", "FOLDER is missing"),
                ("import a b --chunk 5", "--chunk needs --stream"),
                ("import a b --stream --chunk 0", "--chunk: give a number above 0, not 0"),
                ("record - b --flush-rows x", "--flush-rows: give a number above 0, not x"),
                ("record - b --sync now", "--sync: give never, flush, seconds, not now"),
                ("record - b --strict --skip-bad", "give --skip-bad or --strict, not both"),
                ("cat a --from", "--from: give a value"), ("cat a --to x", "x: give a number"),
                ("import a b --time c --time d", "--time: give it once")):
            with self.subTest(line):
                self.fails(*line.split(), says=[says], exit_code=2)

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
        for command in ("import", "info", "cat", "export", "verify", "demo"):
            text = self.run_tool(command, "--help").stdout
            self.assertIn(f"  kyr {command}", text)
            self.assertEqual(self.run_tool("help", command).stdout, text)
        self.assertEqual(self.run_tool("help").stdout, self.run_tool("--help").stdout)
        for option in ("--version", "-v"):
            self.assertRegex(self.run_tool(option).stdout, r"^kyr \d+\.\d+\.\d+\n$")

    def test_settings_go_through_the_hosts_methods(self):
        self.write("time,a\n" + "".join(f"{t},{t % 3}\n" for t in range(1000)))
        sizes = {}
        for name, settings in {"plain": ("Dictionary=false", "Compression=uncompressed"),
                               "default": (),
                               "small": ("Compression=zstd", "BatchSize=100")}.items():
            arguments = [part for setting in settings for part in ("--set", setting)]
            self.run_tool("import", "in.csv", name, *arguments)
            self.assertEqual(self.cat(recording=name), (self.folder / "in.csv").read_text())
            self.run_tool("verify", name)
            sizes[name] = self.info(name)["totals"]["bytes"]
        self.assertLess(sizes["small"], sizes["plain"])
        self.assertLess(sizes["default"], sizes["plain"])
        for says, *settings in (
                ("zip", "Compression=zip"), ("lz4_hadoop", "Compression=lzo"),
                ("lz4_hadoop", "Compression=lz4_frame"), ("1 to", "BatchSize=0"),
                ("1 to", "DictionaryLimit=2.5"), ("true or false", "Dictionary=1"),
                ("SharedTimeColumn", "Nonsense=1"), ("Compression=VALUE", "Compression"),
                ("twice", "BatchSize=1", "BatchSize=2")):
            arguments = [part for setting in settings for part in ("--set", setting)]
            self.fails("import", "in.csv", "new", *arguments, says=[says], exit_code=2)
        for command in ("import", "record"):
            self.fails(command, "in.csv", "new", "--set", "SharedTimeColumn=false",
                       says=["share their times"], exit_code=2)
        self.assertFalse((self.folder / "new").exists())
        table = self.run_tool("options").stdout
        for setting in ("Compression +uncompressed", "Dictionary +true", "DictionaryLimit +1048576",
                        "BatchSize +4096", "SharedTimeColumn +true"):
            self.assertRegex(table, setting)

    def test_completion_and_manual_know_every_option(self):
        manual = self.run_tool("manual").stdout.replace("\\-", "-")
        (self.folder / "completion").write_text(self.run_tool("completion", "bash").stdout)
        complete = """source completion; COMP_WORDBREAKS=$'\\n ='
                      COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _kyr
                      echo "${COMPREPLY[@]}" """
        def completed(*words):
            return subprocess.run(["bash", "-c", complete, "-", *words], cwd=self.folder, text=True,
                                  capture_output=True, check=True).stdout.split()
        for command in completed("kyr", "")[:-3]:
            text = self.run_tool(command, "--help").stdout
            self.assertIn(f"kyr {command} [OPTIONS]", manual)
            options = set(re.findall(r"^  (?:-\w, )?(--[a-z-]+)", text, re.MULTILINE))
            self.assertEqual(set(completed("kyr", command, "-")), options | {"--trace"})
            for option in options - {"--help"}:
                self.assertRegex(manual, rf"\n\.B (-\w, )?{option}\b")
        self.assertEqual(completed("kyr", "--trace", "x", "imp"), ["import"])
        self.assertEqual(completed("kyr", "help", "imp"), ["import"])
        for line, words in (
            ("import --compression z", "zstd"),
            ("import --compression = z", "zstd"),
            ("export --format = p", "parquet"),
            ("export --format =", "parquet arrow csv"),
            ("export --set Compression = z", "zstd"),
            ("export --set Comp", "Compression="),
            ("export --set = Dictionary = t", "true"),
            ("export --set BatchSize = 1", ""),
            ("export --partition s", "signal"),
            ("--trace = f export --lon", "--long"),
        ):
            with self.subTest(line):
                self.assertEqual(completed("kyr", *line.split()), words.split())
        self.assertIn("Needs --long", manual)
        for shell in ("zsh", "fish"):
            script = self.run_tool("completion", shell).stdout
            for command in completed("kyr", "")[:-3]:
                self.assertIn(command, script)
            (self.folder / "script").write_text(script)
            if shutil.which(shell):
                subprocess.run([shell, "-n", "script"], cwd=self.folder, check=True)
        if shutil.which("fish"):
            for line, words in (("kyr help st", "stats"), ("kyr completion z", "zsh"),
                                ("kyr import --ragged p", "pad"), ("kyr appe", "append")):
                found = subprocess.run(["fish", "-c", f"source script; complete -C'{line}'"],
                                       cwd=self.folder, check=True, capture_output=True, text=True)
                self.assertEqual(found.stdout.split("\t")[0].strip(), words)
        self.fails("completion", "tcsh", says=["tcsh", "bash", "zsh"], exit_code=2)

    def test_trace(self):
        self.write("time,a\n0,1\n")
        for arguments in (("--trace", "trace.json", "import", "in.csv", "one"),
                          ("import", "in.csv", "two", "--trace", "trace.json")):
            self.run_tool(*arguments)
            events = json.loads((self.folder / "trace.json").read_text())
            self.assertEqual({event["ph"] for event in events}, {"B", "E"})
        for shape in ((), ("--long",)):
            self.run_tool("export", "one", "out", "--force", *shape, "--trace", "trace.json")
            events = json.loads((self.folder / "trace.json").read_text())
            self.assertLessEqual({"read", "write"}, {event["name"] for event in events})
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
                         ["notes", "recording.json", "signals.parquet", "storage"])

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
        while len(os.listdir(self.folder)) == 2 and tool.poll() is None:
            time.sleep(0.001)
        tool.send_signal(signal.SIGINT)
        self.assertEqual(tool.wait(), -signal.SIGINT)
        self.assertEqual(os.listdir(self.temporary), [])
        self.assertEqual(sorted(os.listdir(self.folder)), ["in.csv", "tmp"])


if __name__ == "__main__":
    unittest.main()
