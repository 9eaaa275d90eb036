"""Every example in a help text runs as it is written."""

import os
import re
import shutil
import signal
import subprocess
import time
import unittest

from tool import KYR, ToolTest

# Programs in the examples that are not ours, as far as the machine lacks them.
STANDINS = {"duckdb": "cat > /dev/null", "simulator": "cat run.csv", "jq": "cat > /dev/null",
            "man": "cat > /dev/null"}


def examples_in(text):
    lines = re.split(r"^Examples?:\n", text, flags=re.MULTILINE)[-1].splitlines()
    return [line.strip() for line in lines if line.startswith("  ")]


def serves(example):
    return "kyr view" in example and "--html" not in example


class Examples(ToolTest):
    def setUp(self):
        super().setUp()
        rows = "".join(f"{i / 10},{i * 1.5},{i % 7},{i % 5}\n" for i in range(300))
        for name in ("run.csv", "log.csv"):
            self.write("Time (s),speed [m/s],torque,gear\n" + rows, name)
        for name in ("run", "run42"):
            self.run_tool("import", "run.csv", name)
        programs = self.folder / "programs"
        programs.mkdir()
        (programs / "kyr").symlink_to(KYR)
        for name, script in STANDINS.items():
            if not shutil.which(name):
                (programs / name).write_text("#!/bin/sh\n" + script + "\n")
                (programs / name).chmod(0o755)
        self.path = {"PATH": f"{programs}:{os.environ['PATH']}"}

    def help_texts(self):
        overview = self.run_tool("help").stdout
        commands = overview.split("Commands:\n")[1].split("\n\n")[0].splitlines()
        self.assertGreater(len(commands), 10)
        return [overview, *(self.run_tool("help", line.split()[0]).stdout for line in commands)]

    def start(self, example, folder):
        return subprocess.Popen(["bash", "-o", "pipefail", "-c", example], text=True, cwd=folder,
                                env={**self.environment(), **self.path, "HOME": str(self.folder)},
                                stdout=subprocess.PIPE if serves(example) else subprocess.DEVNULL,
                                stderr=subprocess.PIPE, start_new_session=True)

    def check(self, example):
        folder = self.folder / "work"
        shutil.rmtree(folder, ignore_errors=True)
        folder.mkdir()
        for name in ("run.csv", "log.csv"):
            shutil.copy(self.folder / name, folder)
        if "--like" in example or not re.search(r"kyr (import|record|demo)", example):
            for name in ("run", "run42"):
                shutil.copytree(self.folder / name, folder / name)
        process = self.start(example, folder)
        if "kyr record" in example and "--follow" in example:
            # It waits for more rows until the user stops it.
            while not (folder / "run42" / "recording.live.json").exists():
                self.assertIsNone(process.poll())
                time.sleep(0.01)
            os.killpg(process.pid, signal.SIGINT)
        if serves(example):
            self.assertIn("127.0.0.1", process.stdout.readline() or process.stderr.read())
            self.assertIn("Ctrl-C", process.stdout.readline())
            os.killpg(process.pid, signal.SIGINT)
        error = process.communicate(timeout=60)[1]
        self.assertEqual((process.returncode, error), (0, ""), example)

    def test_they_run(self):
        for text in self.help_texts():
            examples = examples_in(text)
            self.assertTrue(any("kyr" in example for example in examples), text)
            for example in examples:
                with self.subTest(example):
                    self.check(example)

    def test_lines_fit_a_terminal(self):
        for text in self.help_texts():
            for line in text.splitlines():
                self.assertLessEqual(len(line), 100, line)


if __name__ == "__main__":
    unittest.main()
