"""Measures stores and workloads in turn and prints a table for each workload; see README.md."""

import argparse
import json
import pathlib
import shutil
import sys
import tempfile

import csv_files
from harness import CLOCKS, Failure, Summary, cell, check_file_creation, count_files, environment
from harness import markdown_table, run_json, take_turns

HERE = pathlib.Path(__file__).resolve().parent
TITLES = {
    "W1": "200 signals of 100,000 float64 (noise) over one time vector, stored whole",
    "W1q": "W1 as volts of a 12-bit converter: 4096 values that repeat",
    "W1i": "W1 as the converter's numbers, int16",
    "W1m": "20 signals of 100,000 matrices, 3x3 float64",
    "W2": "20 signals of 1,000,000 float64 appended in turn, 1,000 rows at a time; "
          "then windows of 10,000 rows",
    "W3": "5 signals of 1,000,000 float64 and their time, appended sample by sample",
    "W4": "5,000 signals of 200 float64 over one time vector, stored whole",
    "W5": "W1 with 20 distinct signals",
    "W6": "recorded CSV files into a recording, and back to CSV",
    "W7": "1,000 signals of 1,000 float64 and their time, recorded live: a sample of each per "
          "step, flushed every 100 steps",
    "W7l": "W7 with 10,000 signals",
    "W7w": "W7 with 100 signals of 20,000 float64; windows of the last 10,000 rows while they are "
           "recorded",
}
LIVE = ("W7", "W7l", "W7w")
WITH_WINDOWS = ("W2", "W7w")
# What ours costs beyond the other store, which does the least that ours has to do.
PAIRS = (("kyr:default", "bare:dedup"), ("kyr:live+sync", "floor:sync"),
         ("kyr:group+sync", "floor:sync"))


def parse_options():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--workload", help="such as W1,W2; default all")
    parser.add_argument("--store", help="such as kyr:safe,hdf5:chunked; default all. "
                        "The store of --base always runs")
    parser.add_argument("--base", default="floor", help="ratios are to this store; default floor")
    parser.add_argument("--repetitions", type=int, default=5)
    parser.add_argument(
        "--scale", type=float, default=1, help="of the sizes: 0.01 is a quick check"
    )
    parser.add_argument("--clock", choices=CLOCKS, default="elapsed",
                        help="cpu: processor time, for a machine that others use as well")
    parser.add_argument("--best", action="store_true",
                        help="compare the shortest times of the repetitions, not the medians")
    parser.add_argument("--output", help="write the tables to this file, too")
    parser.add_argument("--json", help="write every measurement to this file")
    parser.add_argument("--folder", help="where to store; default build/compare")
    parser.add_argument("--data", default=HERE.parents[1] / "examples/data",
                        help="folder with the CSV files of W6; default examples/data")
    parser.add_argument("--programs", default=HERE.parents[1] / "build/release",
                        help="the build to measure")
    parser.add_argument("--only-kyr", action="store_true",
                        help="only kyr, Arrow alone and the bare system calls")
    options = parser.parse_args()
    options.programs = pathlib.Path(options.programs).resolve()
    options.summary = Summary(options.clock, options.best)
    return options


def find_stores(options, notices):
    """(store, workload) -> command, in the order in which the tables list them."""
    compare = options.programs / "benchmarks/compare"
    programs = [[compare / "kyr_compare"], [compare / "kyr_compare_peers"],
                [sys.executable, "-B", HERE / "peers.py"]]
    found = {}
    for program in programs[:1] if options.only_kyr else programs:
        if not program[-1].exists():
            notices.append(f"{program[-1].name} is not there: its stores are left out.")
            continue
        for store, workloads in run_json(program + ["list"]).items():
            if isinstance(workloads, str):
                notices.append(f"{store} is left out: {workloads}")
                continue
            found.update({(store, workload): program for workload in workloads})
    first = ("floor", "bare", "kyr")

    def rank(item):
        family = item[0][0].split(":")[0]
        return first.index(family) if family in first else len(first)

    return dict(sorted(found.items(), key=rank))


def check_names(kind, names, known):
    for name in names:
        if name not in known:
            sys.exit(f"no {kind} is called {name}; there are {', '.join(sorted(known))}")


def measure(program, store, workload, folder, scale):
    """All phases of one repetition, each in a process of its own."""
    def phase(name):
        return run_json(program + [store, workload, name, folder, str(scale)], environment(folder))

    written = phase("write")
    result = {name: written.pop(name) for name in ("start", "flush", "finish") if name in written}
    result.update(write=written, disk=count_files(folder / "stored"), read=phase("read"))
    if workload in WITH_WINDOWS:
        result.update(phase("window"))
    return result


def table_row(store, workload, results, base, summary):
    if isinstance(results, Failure):
        return [store, f"FAILED: {results}"]
    row = [store] + [cell(summary.ratio(results, base, phase), ".2f")
                     for phase in ("write", "read")]
    if workload in LIVE:
        row += [cell(summary.time(results, phase), ".1f", 1e3)
                for phase in ("start", "flush", "finish")]
    if workload in WITH_WINDOWS:
        row += [cell(summary.time(results, phase), ".3f", 1e3) for phase in ("known", "opened")]
    if workload == "W7w":
        row.append(cell(summary.time(results, "refresh"), ".3f", 1e3))
    if workload == "W3" or workload in LIVE:
        values = summary.median(results, "write", "values")
        row.append(cell(summary.time(results, "write"), ".1f", 1e9 / values) if values else "")
    row += [cell(summary.median(results, "disk", "size"), ".1f", 1e-6),
            cell(summary.median(results, "disk", "allocated"), ".1f", 1e-6),
            cell(summary.median(results, "disk", "files"), ".0f")]
    return row + [cell(summary.median(results, phase, "memory"), ".0f", 1e-6)
                  for phase in ("write", "read")]


def workload_table(workload, results, options):
    summary = options.summary
    base = results.get(options.base)
    base = [] if base is None or isinstance(base, Failure) else base
    header = ["store", "write", "read"]
    if workload in LIVE:
        header += ["start [ms]", "flushes [ms]", "finish [ms]"]
    if workload in WITH_WINDOWS:
        header += ["window known [ms]", "window opened [ms]"]
    if workload == "W7w":
        header.append("refresh [ms]")
    if workload == "W3" or workload in LIVE:
        header.append("ns per append")
    header += ["MB", "MB on disk", "files", "peak MB writing", "peak MB reading"]
    lines = [f"## {workload}: {TITLES[workload]}", ""]
    if base:
        lines += [f"Times in units of {options.base}: write {summary.time(base, 'write'):.4f} s, "
                  f"read {summary.time(base, 'read'):.4f} s; {summary}.", ""]
    lines += markdown_table(header, [table_row(store, workload, outcome, base, summary)
                                     for store, outcome in results.items()])
    lines += own_cost(results, summary)
    return "\n".join(lines) + "\n"


def own_cost(results, summary):
    """Ratios of kyr's stores to others than the base."""
    lines = []
    for ours, other in PAIRS:
        if isinstance(results.get(ours), list) and isinstance(results.get(other), list):
            ratios = (f"{phase} {ratio:.2f}" for phase in ("write", "finish", "read")
                      if (ratio := summary.ratio(results[ours], results[other], phase)))
            lines += ["", f"{ours} in units of {other}: {', '.join(ratios)}."]
    return lines


def main():
    options = parse_options()
    notices = []
    found = find_stores(options, notices)
    wanted = options.store.split(",") + [options.base] if options.store else None
    workloads = options.workload.split(",") if options.workload else list(TITLES)
    check_names("workload", workloads, TITLES)
    check_names("store", wanted or [], {store for store, _ in found} | set(csv_files.STORES))
    base_folder = pathlib.Path(options.folder or options.programs.parent / "compare")
    base_folder.mkdir(parents=True, exist_ok=True)
    root = pathlib.Path(tempfile.mkdtemp(prefix="run-", dir=base_folder))
    everything, tables = {}, []
    try:
        for workload in workloads:
            check_file_creation(root / workload, notices)
            if workload == "W6":
                text, results = csv_files.compare(TITLES[workload], root, options, notices)
            else:
                results = take_turns(
                    workload, [store for store, name in found
                               if name == workload and (wanted is None or store in wanted)],
                    root, options, lambda store, folder, name=workload: measure(
                        found[store, name], store, name, folder, options.scale))
                text = workload_table(workload, results, options)
            everything[workload] = results
            if text:
                tables.append(text)
                print(text, flush=True)
    finally:
        shutil.rmtree(root, ignore_errors=True)  # at the very end: see empty_files()
    for notice in notices:
        print(notice)
    failed = [f"{workload} {store}" for workload, results in everything.items()
              for store, result in results.items() if isinstance(result, Failure)]
    if options.output:
        pathlib.Path(options.output).write_text("\n".join(tables + notices) + "\n")
    if options.json:
        pathlib.Path(options.json).write_text(json.dumps(everything, default=str, indent=1) + "\n")
    if failed:
        print("FAILED: " + ", ".join(failed), file=sys.stderr)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
