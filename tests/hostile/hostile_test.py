"""Recordings made to harm: mutations of our own, with checksums that fit, through every door.

hostile_test.py DOORS SECONDS [KYR]: DOORS is kyr_hostile_doors, which has all doors of the library.
With KYR, the doors are the commands of that tool. A fault is a door that ends by a signal, a
sanitizer's report, too late or without a word, or that changes what lies outside the folder.
"""

import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

from corpus import Corpus

# What is later than this does not end. All doors together take a busy machine with sanitizers 30 s
# where a folder has 600 growing packs.
SECONDS_TO_END = 120


def environment():
    options = "allocator_may_return_null=1:detect_leaks=0:" + os.environ.get("ASAN_OPTIONS", "")
    return os.environ | {"ASAN_OPTIONS": options, "UBSAN_OPTIONS": "print_stacktrace=1"}


class Commands:
    """The commands of the tool."""

    def __init__(self, kyr, temp):
        csv = temp / "in.csv"
        csv.write_text("time,a\n0,1\n0.5,2\n")
        reading = [["info", "FOLDER"], ["cat", "FOLDER"], ["verify", "FOLDER"],
                   ["export", "FOLDER", temp / "out.csv", "--force"], ["plot", "FOLDER", "0", "2"],
                   ["view", "FOLDER", "--html", temp / "out.html", "--force"]]
        changing = [
            ["verify", "--follow-links", "FOLDER"],
            ["gc", "FOLDER"],
            ["gc", "FOLDER", "--stale"],
            ["recover", "FOLDER"],
        ]
        writing = [
            ["import", csv, "FOLDER", "--force"],
            ["record", csv, "FOLDER", "--force"],
            ["verify", "FOLDER"],
        ]
        self.commands = [[kyr, *command] for command in reading + changing + reading + writing]

    def enter(self, folder):
        """What went wrong, if anything did."""
        for command in self.commands:
            command = [folder if part == "FOLDER" else part for part in command]
            try:
                result = subprocess.run(
                    command,
                    capture_output=True,
                    timeout=SECONDS_TO_END,
                    stdin=subprocess.DEVNULL,
                    env=environment(),
                )
            except subprocess.TimeoutExpired:
                return f"{command[1]} does not end"
            if result.returncode not in (0, 1, 3) or (
                result.returncode != 0 and not result.stderr + result.stdout
            ):
                error = result.stderr.decode(errors='replace')[:2000]
                return f"{command[1]} ended with {result.returncode}: {error}"
        return None


class Doors:
    """The program that enters folders, started again when it ends."""

    def __init__(self, program):
        self.program = program
        self.process = None
        self.log = tempfile.TemporaryFile()

    def enter(self, folder):
        """What went wrong, if anything did."""
        if self.process is None:
            self.log.truncate(0)
            self.process = subprocess.Popen(
                [self.program],
                stdin=subprocess.PIPE,
                stdout=subprocess.PIPE,
                stderr=self.log,
                text=True,
                env=environment(),
            )
        self.process.stdin.write(f"{folder}\n")
        self.process.stdin.flush()
        door = ""
        late = threading.Event()
        process = self.process

        def end():
            late.set()
            process.send_signal(signal.SIGABRT)

        watch = threading.Timer(SECONDS_TO_END, end)
        watch.start()
        try:
            for line in self.process.stdout:
                if line.startswith("done "):
                    return None
                door = line.strip().rsplit(": ", 1)[-1]
        finally:
            watch.cancel()
        status = self.process.wait()
        self.process = None
        self.log.seek(0)
        report = self.log.read().decode(errors="replace")
        where = re.findall(
            r"SUMMARY.*|runtime error.*|what\(\).*|#\d+ 0x\S+ in (?:kyr|\(anon).*", report
        )
        ended = "does not end" if late.is_set() else f"ended with {status}"
        return f"{door} {ended}: " + "; ".join(where[:6])


def make_outside(outside, bases):
    """Files that are not the recording's, but could be: one cut off, one that nobody names."""
    shutil.rmtree(outside, ignore_errors=True)
    shutil.copytree(bases / "live" / "storage", outside)
    shutil.copy(bases / "finished" / "storage" / "0.parquet", outside / "77.parquet")
    for name in ("recording.live.json", "recording.journal"):
        shutil.copy(bases / "live" / name, outside)
    for name in ("finished/recording.json", "packed/storage/pack-0.parquet"):
        if (bases / name).exists():
            shutil.copy(bases / name, outside)
    (outside / "file").write_bytes(b"not yours")
    with open(outside / "0.parquet", "ab") as file:
        file.write(b"half a batch")


def content_of(folder):
    return {path.name: path.read_bytes() for path in folder.iterdir()}


def main():
    program, seconds = sys.argv[1], float(sys.argv[2])
    memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
    with tempfile.TemporaryDirectory(prefix="kyr-hostile-", dir=memory) as temp:
        temp = pathlib.Path(temp)
        bases, outside = temp / "bases", temp / "outside"
        bases.mkdir()
        subprocess.run([program, "--make", bases], check=True)
        make_outside(outside, bases)
        canary = content_of(outside)
        corpus = Corpus(bases, outside)
        if len(sys.argv) > 3:
            doors = Commands(sys.argv[3], temp)
            made = (
                list(corpus.places())
                + list(corpus.packs())
                + [case for case in corpus.documents() if "nested" in case[0]]
            )
        else:
            doors = Doors(program)
            made = (
                list(corpus.documents())
                + list(corpus.places())
                + list(corpus.columns())
                + list(corpus.packs())
            )
        corpus.random.shuffle(made)
        end = time.monotonic() + seconds
        entered, faults = 0, []
        for kinds in (made, corpus.bytes()):
            for name, base, change in kinds:
                if time.monotonic() > end:
                    break
                folder = temp / "run"
                shutil.rmtree(folder, ignore_errors=True)
                shutil.copytree(bases / base, folder)
                change(folder)
                fault = doors.enter(folder)
                if content_of(outside) != canary:
                    fault = "what lies outside was changed"
                    make_outside(outside, bases)
                entered += 1
                if fault:
                    faults.append(f"{name}: {fault}")
                    print(faults[-1], flush=True)
        print(f"{entered} folders of {len(made)} made and more at random, {len(faults)} faults")
        sys.exit(1 if faults else 0)


if __name__ == "__main__":
    main()
