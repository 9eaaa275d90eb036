"""Runs contenders in turn and takes medians of what they measured."""

import collections
import json
import os
import statistics
import subprocess
import sys
import time


class Failure(Exception):
    """One contender cannot be measured; the others can."""


def run_json(command):
    """Runs a program that prints a line of JSON."""
    result = subprocess.run(command, capture_output=True, text=True, check=False)
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
    """Gives the disk back, but deletes no file: creating files is slow for minutes after that."""
    for path in folder.rglob("*"):
        if path.is_file():
            os.truncate(path, 0)


def take_turns(workload, stores, repetitions, root, measure):
    """Store -> its results, one for each repetition, or a Failure.

    measure(store, folder) has a new folder each time."""
    results = collections.defaultdict(list)
    for repetition in range(repetitions):
        # Each repetition begins with another store: no order favours anyone.
        shift = repetition % max(1, len(stores))
        for store in stores[shift:] + stores[:shift]:
            if isinstance(results[store], Failure):
                continue
            folder = root / f"{workload}-{repetition}" / store.replace(":", "-")
            folder.mkdir(parents=True)
            os.sync()  # so that the disk is not busy with the one before
            start = time.monotonic()
            try:
                results[store].append(measure(store, folder))
            except Failure as failure:
                results[store] = failure
                print(f"{workload} {store}: FAILED: {failure}", file=sys.stderr)
            print(f"  {workload} {repetition + 1}/{repetitions} {store} "
                  f"{time.monotonic() - start:.1f} s", file=sys.stderr)
            empty_files(folder)
    return {store: results[store] for store in stores}


def median_of(results, phase, value):
    values = [result[phase][value] for result in results if phase in result]
    return statistics.median(values) if values else None


def median_ratio(results, base, phase, clock):
    """Median over the repetitions of the time in units of the base's in the same repetition."""
    pairs = zip(results, base)
    ratios = [a[phase][clock] / b[phase][clock] for a, b in pairs if phase in a and phase in b]
    return statistics.median(ratios) if ratios else None


def cell(value, form, scale=1):
    return "" if value is None else format(value * scale, form)


def markdown_table(header, rows):
    lines = [header, ["---"] * len(header), *rows]
    return ["| " + " | ".join(line) + " |" for line in lines]
