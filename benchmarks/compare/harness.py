"""Runs contenders in turn and takes medians of what they measured."""

import collections
import json
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile
import time


CLOCKS = {"elapsed": "elapsed time", "cpu": "processor time"}


class Failure(Exception):
    """One contender cannot be measured; the others can."""


def environment(folder):
    """Programs put temporary files beside what they store, on that disk. They are emptied, too."""
    temporary = folder / "temporary"
    temporary.mkdir(exist_ok=True)
    return {**os.environ, "TMPDIR": str(temporary)}


def run_json(command, env=None):
    """Runs a program that prints a line of JSON."""
    result = subprocess.run(command, capture_output=True, text=True, check=False, env=env)
    if result.returncode != 0:
        lines = result.stderr.strip().splitlines() or [f"exit status {result.returncode}"]
        raise Failure(lines[-1])
    return json.loads(result.stdout.splitlines()[-1])


def count_files(folder):
    """Number of files, their bytes, and the bytes of the blocks that they take."""
    files = size = allocated = 0
    for path in folder.rglob("*"):
        status = path.lstat()
        if not path.is_dir():
            files += 1
            size += status.st_size
            allocated += status.st_blocks * 512
    return {"files": files, "size": size, "allocated": allocated}


def empty_files(folder):
    """Gives the disk back, but deletes no file: see scatter()."""
    for path in folder.rglob("*"):
        if path.is_file():
            os.truncate(path, 0)


def scatter(folder):
    """Lets ext4 put each folder that is made in this one into another part of the disk.

    For minutes after thousands of files were deleted it creates new ones many times slower, where
    those were. Not inside of a folder that has this attribute and a new name."""
    folder.mkdir(parents=True, exist_ok=True)
    subprocess.run(["chattr", "+T", folder], stderr=subprocess.DEVNULL, check=False)


def check_file_creation(folder, notices):
    """Says so when files are created slowly all the same."""
    scatter(folder)
    probe = pathlib.Path(tempfile.mkdtemp(dir=folder))
    start = time.process_time()
    count = 500
    for number in range(count):
        (probe / str(number)).touch()
    microseconds = (time.process_time() - start) / count * 1e6
    if microseconds > 100:
        notices.append(f"Creating a file took {microseconds:.0f} us before {folder.name}, which is "
                       "slow: of what stores many files, a run in some minutes will tell more.")


def take_turns(workload, stores, root, options, measure):
    """Store -> its results, one for each repetition, or a Failure.

    measure(store, folder) has a new folder each time."""
    results = collections.defaultdict(list)
    for repetition in range(options.repetitions):
        # Each repetition begins with another store: no order favours anyone.
        shift = repetition % max(1, len(stores))
        turn = root / f"{workload}-{repetition}"
        scatter(turn)
        for store in stores[shift:] + stores[:shift]:
            if isinstance(results[store], Failure):
                continue
            folder = pathlib.Path(tempfile.mkdtemp(prefix=store.replace(":", "-"), dir=turn))
            if options.scale >= 0.1:
                os.sync()  # so that the disk is not busy with the one before
            start = time.monotonic()
            try:
                results[store].append(measure(store, folder))
            except Failure as failure:
                results[store] = failure
                print(f"{workload} {store}: FAILED: {failure}", file=sys.stderr)
            print(f"  {workload} {repetition + 1}/{options.repetitions} {store} "
                  f"{time.monotonic() - start:.1f} s", file=sys.stderr)
            empty_files(folder)
    return {store: results[store] for store in stores}


class Summary:
    """Medians of the repetitions or, for a machine that others disturb, the shortest times."""

    def __init__(self, clock, best):
        self.clock = clock
        self.best = best

    def __str__(self):
        return f"{'shortest' if self.best else 'median'} of {CLOCKS[self.clock]}"

    @staticmethod
    def median(results, phase, value):
        values = [result[phase][value] for result in results if phase in result]
        return statistics.median(values) if values else None

    def time(self, results, phase):
        times = [result[phase][self.clock] for result in results if phase in result]
        if not times:
            return None
        return min(times) if self.best else statistics.median(times)

    def ratio(self, results, base, phase):
        """The ratio of the shortest times, or the median of the ratios within each repetition."""
        pairs = [(a[phase][self.clock], b[phase][self.clock]) for a, b in zip(results, base)
                 if phase in a and phase in b]
        if not pairs:
            return None
        if self.best:
            return min(a for a, _ in pairs) / min(b for _, b in pairs)
        return statistics.median(a / b for a, b in pairs)


def cell(value, form, scale=1):
    return "" if value is None else format(value * scale, form)


def markdown_table(header, rows):
    lines = [header, ["---"] * len(header), *rows]
    return ["| " + " | ".join(line) + " |" for line in lines]
