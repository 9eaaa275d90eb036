"""Recordings that share the files of what they have in common."""

import os
import shutil
import signal
import subprocess
import time
import unittest

from tool import KYR, ToolTest

STEPS = 400


def table(changed=(), names=None, signals=40):
    """A CSV of several signals over one time vector; `changed` ones have other values."""
    names = names or [f"s{i}" for i in range(signals)]
    lines = [",".join(["time", *names])]
    for row in range(STEPS):
        cells = [row / 8]
        for i in range(signals):
            cells.append((row * (i + 3)) % 101 / 7 + (0.5 if i in changed else 0))
        lines.append(",".join(map(repr, cells)))
    return "\n".join(lines) + "\n"


def bytes_of(*folders):
    """Bytes of files, each counted once however many names it has."""
    files = {}
    for folder in folders:
        for path in (folder / "storage").iterdir():
            state = path.lstat()
            files[state.st_dev, state.st_ino] = state.st_size
    return sum(files.values())


class Dedup(ToolTest):
    def make(self, name, text, *options):
        self.write(text, f"{name}.csv")
        self.run_tool("import", f"{name}.csv", name, "-q", *options)
        return self.folder / name

    def dedup(self, *names, expect=0):
        return self.run_tool("dedup", *names, expect=expect).stdout

    def contents(self, *names):
        return {name: self.cat(recording=name) for name in names}

    def check(self, texts):
        """The recordings are what they were, are sound, and have nothing that they do not need."""
        for name, text in texts.items():
            self.assertEqual(self.cat(recording=name), text, name)
            self.run_tool("verify", name)
            self.assertIn("removed 0 items", self.run_tool("gc", name).stdout)

    def test_what_changed_is_what_is_stored(self):
        for options in ((), ("--pack",)):
            with self.subTest(options):
                runs = [self.make("run0", table(), *options, "--force")]
                alone = bytes_of(runs[0])
                for i in range(1, 8):
                    runs.append(self.make(f"run{i}", table({i, i + 9}), *options, "--force"))
                texts = self.contents(*(run.name for run in runs))
                before = bytes_of(*runs)
                said = self.dedup(*(run.name for run in runs))
                after = bytes_of(*runs)
                self.assertIn(f"8 recordings: {before - after:,} bytes saved", said)
                self.assertLess(after, alone * (1.1 + 7 * 2 / 40 * 1.5))
                self.check(texts)
                inodes = {run: run.stat().st_ino for run in runs}
                again = self.dedup(*(run.name for run in runs))
                self.assertIn("it shares what it can already", again)
                self.assertIn("8 recordings: 0 bytes saved", again)
                self.assertEqual({run: run.stat().st_ino for run in runs}, inodes)

    def test_whatever_signals_are_called_and_however_they_were_written(self):
        self.make("run0", table(), "--pack")
        self.make("renamed", table(names=[f"other {i}" for i in range(40)]), "--pack")
        self.make("files", table())
        self.make("zipped", table(), "--compression", "zstd")
        self.run_tool("record", "run0.csv", "recorded", "--flush-rows", "50", "-q")
        names = ["run0", "renamed", "files", "zipped", "recorded"]
        texts = self.contents(*names)
        said = self.dedup(*names)
        self.assertEqual(said.count("shares 41 of 41 contents"), 4, said)
        self.assertEqual(bytes_of(*(self.folder / name for name in names)),
                         bytes_of(self.folder / "run0"))
        self.check(texts)

    def test_each_recording_goes_its_own_way(self):
        names = [f"run{i}" for i in range(4)]
        for i, name in enumerate(names):
            self.make(name, table({i}), "--pack" if i % 2 else "--no-pack")
        texts = self.contents(*names)
        self.dedup(*names)
        shutil.rmtree(self.folder / "run0")
        del texts["run0"]
        self.check(texts)
        self.run_tool("repack", "run1", "--compression", "zstd")
        self.run_tool("set", "run2", "s3.name=renamed")
        texts["run2"] = texts["run2"].replace("s3,", "renamed,", 1)
        self.check(texts)
        self.make("run3", table({7}), "--force")
        texts["run3"] = self.cat(recording="run3")
        self.check(texts)

    def test_kinds_of_samples(self):
        self.odd_recording()
        for name in ("run0", "run1"):
            shutil.copytree(self.folder / "odd", self.folder / name)
        self.assertIn("run1: shares ", self.dedup("run0", "run1"))
        faults = self.run_tool("verify", "odd", expect=1).stdout
        for name in ("run0", "run1"):
            self.run_tool("diff", "odd", name)
            told = self.run_tool("verify", name, expect=1).stdout
            self.assertEqual(told.count("\n"), faults.count("\n"), told)

    def test_a_damaged_recording_is_left_alone(self):
        for name in ("run0", "run1", "run2"):
            self.make(name, table({1} if name == "run1" else ()), "--pack")
        pack = next((self.folder / "run0" / "storage").glob("pack*"))
        sound = pack.read_bytes()
        pack.write_bytes(sound[:500] + bytes([sound[500] ^ 1]) + sound[501:])
        inode = (self.folder / "run1").stat().st_ino
        result = self.run_tool("dedup", "run0", "run1", "run2", expect=1)
        self.assertIn("pack-0.parquet: its checksum is wrong", result.stderr)
        self.assertEqual((self.folder / "run1").stat().st_ino, inode)
        self.check(self.contents("run1", "run2"))

    def test_what_cannot_share(self):
        self.make("run0", table())
        self.assertIn("run0: left alone: it has nothing in common", self.dedup("run0"))
        self.fails("dedup", "run0", "nowhere", says=["nowhere"])
        live = subprocess.Popen([KYR, "record", "-", "live", "-q"], stdin=subprocess.PIPE,
                                cwd=self.folder, env=self.environment())
        try:
            live.stdin.write(table().encode())
            live.stdin.flush()
            while not (self.folder / "live" / "recording.live.json").exists():
                time.sleep(0.01)
            self.fails("dedup", "run0", "live", says=["live"])
        finally:
            live.communicate()
        self.assertIn("live: shares 41 of 41", self.dedup("run0", "live"))

    def test_like(self):
        first = self.make("run0", table(), "--pack")
        self.write(table({5}), "run1.csv")
        said = self.run_tool("import", "run1.csv", "run1", "--pack", "--like", "run0").stdout
        self.assertIn("run1: shares 40 of 41 contents with run0", said)
        said = self.run_tool("record", "run1.csv", "run2", "--like", "run1").stdout
        self.assertIn("with run1", said)
        self.assertLess(bytes_of(first, self.folder / "run1"), bytes_of(first) * 1.15)
        self.make("plain1", table({5}))
        self.check({name: self.cat(recording="plain1") for name in ("run1", "run2")})
        self.fails("import", "run1.csv", "run3", "--like", "nowhere", says=["nowhere"])
        self.assertFalse((self.folder / "run3").exists())
        self.fails("import", "run1.csv", "run1", "--force", "--like", "run1", exit_code=2,
                   says=["is the recording that is to be made"])

    def test_kills_leave_whole_recordings(self):
        names = [f"run{i}" for i in range(6)]
        for i, name in enumerate(names):
            self.make(name, table({i}), "--pack")
        texts = self.contents(*names)
        for delay in range(1, 9):
            process = subprocess.Popen([KYR, "dedup", *names], cwd=self.folder,
                                       stdout=subprocess.DEVNULL, env=self.environment())
            time.sleep(delay / 400)
            process.send_signal(signal.SIGKILL)
            process.wait()
        for name in names:
            self.run_tool("gc", name, "--stale")
        self.dedup(*names)
        self.check(texts)
        known = {*names, *(f"{name}.csv" for name in names), "tmp"}
        self.assertEqual(set(os.listdir(self.folder)) - known, set())


if __name__ == "__main__":
    unittest.main()
