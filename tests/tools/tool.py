"""Runs the tool and makes files for it. All tests of the command line use this."""

import csv
import json
import os
import pathlib
import resource
import subprocess
import tempfile
import unittest

KYR = os.environ["KYR"]
ODD_RECORDING = os.environ["KYR_ODD_RECORDING"]
EXAMPLES = pathlib.Path(__file__).resolve().parents[2] / "examples" / "data"


class ToolTest(unittest.TestCase):
    """Each test has its own folder, with a folder for temporary files in it."""

    def setUp(self):
        temporary = tempfile.TemporaryDirectory(prefix="kyr test ")
        self.addCleanup(temporary.cleanup)
        self.folder = pathlib.Path(temporary.name)
        self.temporary = self.folder / "tmp"
        self.temporary.mkdir()

    def environment(self):
        return {**os.environ, "TMPDIR": str(self.temporary)}

    def run_tool(self, *arguments, expect=0, stdin=None):
        if isinstance(stdin, bytes):
            (self.folder / "stdin").write_bytes(stdin)
            with open(self.folder / "stdin", "rb") as content:
                return self.checked(subprocess.run([KYR, *map(str, arguments)], text=True,
                                                 capture_output=True, env=self.environment(),
                                                 cwd=self.folder, stdin=content), expect)
        return self.checked(subprocess.run([KYR, *map(str, arguments)], capture_output=True,
                                         text=True, env=self.environment(), cwd=self.folder,
                                         input=stdin), expect)

    def checked(self, result, expect):
        self.assertEqual(
            result.returncode, expect, f"{result.args}\n{result.stdout}{result.stderr}"
        )
        self.assertEqual(os.listdir(self.temporary), [], "temporary files are left")
        return result

    def peak(self, *arguments):
        """Runs the tool without a folder for temporary files, and returns the peak of its memory in
        megabytes and what it prints."""
        with open(self.folder / "out", "w+", encoding="utf-8") as out:
            tool = subprocess.Popen([KYR, *arguments], stdout=out, cwd=self.folder,
                                    env={**os.environ, "TMPDIR": "/nonexistent"})
            _, status, usage = os.wait4(tool.pid, 0)
            tool.returncode = os.waitstatus_to_exitcode(status)
            self.assertEqual(tool.returncode, 0, arguments)
            out.seek(0)
            return usage.ru_maxrss / 1024, out.read()

    def limited(self, limit, size, *arguments):
        """Runs the tool with a limit of its resources."""
        return subprocess.run([KYR, *map(str, arguments)], capture_output=True, text=True,
                              cwd=self.folder, env=self.environment(), check=False,
                              preexec_fn=lambda: resource.setrlimit(limit, (size, size)))

    def fails(self, *arguments, says, exit_code=1):
        """Runs the tool, which must fail. Its last line must hold each text of `says`."""
        error = self.run_tool(*arguments, expect=exit_code).stderr.splitlines()[-1]
        self.assertTrue(error.startswith("kyr: "), error)
        for text in says:
            self.assertIn(text, error)

    def write(self, text, name="in.csv"):
        path = self.folder / name
        path.write_bytes(text if isinstance(text, bytes) else text.encode())
        return path

    def store(self, text, *options):
        """Imports a CSV text as the recording `rec`, which is replaced."""
        return self.run_tool("import", self.write(text), "rec", "--force", *options)

    def cat(self, *arguments, recording="rec"):
        return self.run_tool("cat", recording, *arguments).stdout

    def info(self, recording="rec"):
        return json.loads(self.run_tool("info", recording, "--json").stdout)

    def attributes(self, recording="rec"):
        """What was said of the recording, without the history that the tool adds."""
        attributes = self.info(recording).get("attributes", {})
        attributes.pop("history", None)
        return attributes

    def signals(self, recording="rec"):
        return {signal["name"]: signal for signal in self.info(recording)["signals"]}

    def odd_recording(self):
        subprocess.run([ODD_RECORDING, "odd"], check=True, cwd=self.folder, env=self.environment())


def rows_of(text):
    return list(csv.reader(text.splitlines()))
