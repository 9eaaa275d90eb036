"""Stores that are written in Python or driven by it; the same protocol as Main.cc."""

import importlib
import json
import os
import pathlib
import statistics
import sys
import time

import numpy as np

# The build folder's Python package, unless one is installed.
sys.path.append(str(pathlib.Path(__file__).parents[2] / "build/release/python"))

import workloads


class Asammdf:
    """ASAM MDF 4, one channel group for all signals."""
    module, takes = "asammdf", ("W1", "W1q", "W1i", "W4", "W5")

    def write(self, workload, folder, times, signals):
        import asammdf
        with asammdf.MDF(version="4.10") as mdf:
            mdf.append([asammdf.Signal(samples, times, name=f"s{i}")
                        for i, samples in enumerate(signals)], common_timebase=True)
            mdf.save(folder / "signals.mf4", compression=0)

    def read(self, workload, folder):
        import asammdf
        with asammdf.MDF(folder / "signals.mf4") as mdf:
            found = mdf.select([f"s{i}" for i in range(workload.signals)], copy_master=False)
            return found[0].timestamps, [signal.samples for signal in found]


class Kyr:
    """kyr's Python package. W2 appends chunks without flushes; the others save arrays."""
    module, takes = "kyr", ("W1", "W1q", "W1i", "W2", "W4", "W5")

    def write(self, workload, folder, times, signals):
        import kyr
        if not workload.chunk_rows:
            kyr.save(folder / "run", {f"s{i}": (times, x) for i, x in enumerate(signals)},
                     pack=workload.name == "W4", replace=True)
            return
        with kyr.record(folder / "run", flush=None) as recorder:
            writers = [recorder.add(f"s{i}", dtype=x.dtype) for i, x in enumerate(signals)]
            for at in range(0, workload.rows, workload.chunk_rows):
                end = at + workload.chunk_rows
                for writer, samples in zip(writers, signals):
                    writer.append(times[at:end], samples[at:end])

    def read(self, workload, folder):
        import kyr
        with kyr.open(folder / "run") as recording:
            signals = [recording[f"s{i}"].values for i in range(workload.signals)]
            return recording["s0"].time, signals

    def open_window(self, folder, signal):
        import kyr
        return kyr.open(folder / "run")[f"s{signal}"]

    def read_window(self, signal, first, end):
        return signal[first:end]


class H5py:
    """HDF5 through h5py, a data set for each signal; W2 in chunks of 10,000 rows that grow."""
    module, takes = "h5py", ("W1", "W1q", "W1i", "W2", "W4", "W5")

    def write(self, workload, folder, times, signals):
        import h5py
        with h5py.File(folder / "signals.h5", "w") as file:
            if not workload.chunk_rows:
                for i, column in enumerate([times, *signals]):
                    file.create_dataset(f"s{i}", data=column)
                return
            sets = [file.create_dataset(f"s{i}", (0,), x.dtype, maxshape=(None,), chunks=(10_000,))
                    for i, x in enumerate([times, *signals])]
            for at in range(0, workload.rows, workload.chunk_rows):
                end = at + workload.chunk_rows
                for each, column in zip(sets, [times, *signals]):
                    each.resize((end,))
                    each[at:end] = column[at:end]

    def read(self, workload, folder):
        import h5py
        with h5py.File(folder / "signals.h5", "r") as file:
            columns = [file[f"s{i}"][:] for i in range(workload.signals + 1)]
            return columns[0], columns[1:]

    def open_window(self, folder, signal):
        import h5py
        return h5py.File(folder / "signals.h5", "r")[f"s{signal + 1}"]

    def read_window(self, dataset, first, end):
        return dataset[first:end]


class PyArrow:
    """Parquet through pyarrow as it comes: one file for all signals, a column for each."""
    module, takes = "pyarrow", ("W1", "W1q", "W1i", "W4", "W5")

    def write(self, workload, folder, times, signals):
        import pyarrow as pa
        import pyarrow.parquet as pq
        columns = {"time": times, **{f"s{i}": x for i, x in enumerate(signals)}}
        pq.write_table(pa.table(columns), folder / "signals.parquet")

    def read(self, workload, folder):
        import pyarrow.parquet as pq
        table = pq.read_table(folder / "signals.parquet")
        return table["time"].to_numpy(), [table[f"s{i}"].to_numpy()
                                          for i in range(workload.signals)]


class Mcap:
    """MCAP, uncompressed, a message for each vector or appended chunk."""
    module, takes = "mcap", ("W1", "W1q", "W1i", "W2", "W4", "W5")

    def write(self, workload, folder, times, signals):
        from mcap.writer import CompressionType, Writer
        step = workload.chunk_rows or workload.rows
        with open(folder / "signals.mcap", "wb") as stream:
            writer = Writer(stream, compression=CompressionType.NONE, enable_crcs=False)
            writer.start()
            schema = writer.register_schema("samples", "none", b"")
            columns = [times, *signals]
            channels = [writer.register_channel(f"s{i}", "raw", schema)
                        for i in range(len(columns))]
            for at in range(0, workload.rows, step):
                for channel, column in zip(channels, columns):
                    writer.add_message(channel, at, column[at:at + step].tobytes(), at)
            writer.finish()

    def read(self, workload, folder):
        from mcap.reader import make_reader
        chunks = {}
        with open(folder / "signals.mcap", "rb") as stream:
            for _, channel, message in make_reader(stream).iter_messages():
                chunks.setdefault(channel.topic, []).append(message.data)
        dtype = np.int16 if workload.values == "counts" else np.float64
        columns = [np.frombuffer(b"".join(chunks[f"s{i}"]), dtype if i else np.float64)
                   for i in range(workload.signals + 1)]
        return columns[0], columns[1:]


class McapSamples:
    """MCAP recorded live, a message for each sample, as a signal is read alone."""
    module, takes = "mcap", ("W7",)

    def start(self, workload, folder):
        from mcap.writer import CompressionType, Writer
        self.stream = open(folder / "signals.mcap", "wb")
        self.writer = Writer(self.stream, compression=CompressionType.NONE, enable_crcs=False)
        self.writer.start()
        schema = self.writer.register_schema("samples", "none", b"")
        self.channels = [self.writer.register_channel(f"s{i}", "raw", schema)
                         for i in range(self.count_channels(workload))]

    def count_channels(self, workload):
        return workload.signals + 1

    def append_step(self, step, time_bytes, samples):
        add = self.writer.add_message
        add(self.channels[0], step, time_bytes, step)
        for i, channel in enumerate(self.channels[1:]):
            add(channel, step, samples[8 * i:8 * i + 8], step)

    def flush(self):
        self.stream.flush()

    def finish(self):
        self.writer.finish()
        self.stream.close()

    def read(self, workload, folder):
        return Mcap().read(workload, folder)


class McapSteps(McapSamples):
    """MCAP recorded live, a message for each step."""
    takes = ("W7", "W7l", "W7w")

    def count_channels(self, workload):
        return 2

    def append_step(self, step, time_bytes, samples):
        self.writer.add_message(self.channels[0], step, time_bytes, step)
        self.writer.add_message(self.channels[1], step, samples, step)

    def read(self, workload, folder):
        from mcap.reader import make_reader
        times, steps = [], np.empty((workload.rows, workload.signals))
        with open(folder / "signals.mcap", "rb") as stream:
            for _, channel, message in make_reader(stream).iter_messages():
                if channel.topic == "s0":
                    times.append(message.data)
                else:
                    steps[message.log_time] = np.frombuffer(message.data)
        return np.frombuffer(b"".join(times)), np.ascontiguousarray(steps.T)


class DuckDB:
    """DuckDB, a table with a column for each signal, inserted from NumPy; W4 a row for each."""
    module, takes = "duckdb", ("W1", "W1q", "W1i", "W4", "W5")

    @staticmethod
    def connect(folder):
        import duckdb
        return duckdb.connect(str(folder / "signals.duckdb"))

    def write(self, workload, folder, times, signals):
        with self.connect(folder) as database:
            if workload.name == "W4":
                import pyarrow as pa
                offsets = np.arange(len(signals) + 2, dtype=np.int32) * workload.rows
                rows = pa.ListArray.from_arrays(offsets, np.concatenate([times, *signals]))
                frame = pa.table({"id": np.arange(len(signals) + 1), "samples": rows})
            else:
                frame = {"time": times, **{f"s{i}": x for i, x in enumerate(signals)}}
            database.register("frame", frame)
            database.execute("CREATE TABLE signals AS SELECT * FROM frame")

    def read(self, workload, folder):
        with self.connect(folder) as database:
            if workload.name == "W4":
                rows = database.execute("SELECT samples FROM signals ORDER BY id").to_arrow_table()
                columns = np.split(rows["samples"].combine_chunks().flatten().to_numpy(),
                                   workload.signals + 1)
                return columns[0], columns[1:]
            columns = database.execute("SELECT * FROM signals").fetchnumpy()
            return columns["time"], [columns[f"s{i}"] for i in range(workload.signals)]


class Zarr:
    """Zarr 3, an array for each signal in chunks of 65,536 rows, Zarr's default codec."""
    module, takes = "zarr", ("W1", "W1q", "W1i", "W2", "W5")

    def write(self, workload, folder, times, signals):
        import zarr
        group = zarr.open_group(folder / "signals.zarr", mode="w")
        for i, column in enumerate([times, *signals]):
            array = group.create_array(f"s{i}", shape=column.shape, dtype=column.dtype,
                                       chunks=(min(65_536, workload.rows),))
            array[:] = column

    def read(self, workload, folder):
        import zarr
        group = zarr.open_group(folder / "signals.zarr", mode="r")
        columns = [group[f"s{i}"][:] for i in range(workload.signals + 1)]
        return columns[0], columns[1:]

    def open_window(self, folder, signal):
        import zarr
        return zarr.open_array(folder / "signals.zarr" / f"s{signal + 1}", mode="r")

    def read_window(self, array, first, end):
        return array[first:end]


STORES = {"py:kyr": Kyr, "py:h5py": H5py, "py:pyarrow": PyArrow, "py:asammdf": Asammdf,
          "py:mcap": Mcap, "py:mcap:samples": McapSamples, "py:mcap:steps": McapSteps,
          "py:duckdb": DuckDB, "py:zarr": Zarr}


def memory_status(name):
    for line in open("/proc/self/status", encoding="ascii"):
        if line.startswith(name + ":"):
            return 1024 * int(line.split()[1])
    raise RuntimeError(f"/proc/self/status does not tell {name}")


def timed(work):
    cpu, start = time.process_time(), time.perf_counter()
    result = work()
    return result, {"elapsed": time.perf_counter() - start, "cpu": time.process_time() - cpu}


def measured(work):
    """As timed(), with the memory that the work took at its peak, beyond what there was before."""
    with open("/proc/self/clear_refs", "w", encoding="ascii") as peak:
        peak.write("5")
    before = memory_status("VmRSS")
    result, times = timed(work)
    return result, {**times, "memory": memory_status("VmHWM") - before}


def write_live(store, workload, folder, times, steps):
    """As Main.cc: with times of their own for start, all flushes and finish."""
    flushed = []

    def append_all():
        for step, (time_bytes, samples) in enumerate(rows):
            store.append_step(step, time_bytes, samples)
            if (step + 1) % workload.flush_rows == 0:
                flushed.append(timed(store.flush)[1])

    def phases():
        return {"start": timed(lambda: store.start(workload, folder))[1],
                "append": timed(append_all)[1], "finish": timed(store.finish)[1]}

    rows = [(each.tobytes(), samples.tobytes()) for each, samples in zip(times, steps)]
    result, whole = measured(phases)
    result["flush"] = {clock: sum(each[clock] for each in flushed) for clock in ("elapsed", "cpu")}
    return {**whole, **result.pop("append"), **result, "values": steps.size}


def compare(read, expected, what):
    read = np.asarray(read)
    if read.dtype != expected.dtype or not np.array_equal(read.view(f"i{read.itemsize}"),
                                                          expected.view(f"i{read.itemsize}")):
        raise ValueError(f"{what}: other values were read than written")


def read_windows(store, workload, folder):
    times = {"opened": [], "known": []}
    windows = []
    for signal in range(workload.signals):
        values = workload.signal(signal)
        windows += [(signal, first, values[first:first + workload.window_rows].copy())
                    for first in workload.windows(signal)]
    last, opened = None, None
    for signal, first, expected in windows:
        def window(signal=signal, first=first, opened=opened if signal == last else None):
            opened = store.open_window(folder, signal) if opened is None else opened
            return opened, store.read_window(opened, first, first + len(expected))

        (opened, values), taken = timed(window)
        compare(values, expected, f"window of signal {signal}")
        times["known" if signal == last else "opened"].append(taken)
        last = signal
    return {name: {clock: statistics.median(each[clock] for each in taken)
                   for clock in ("elapsed", "cpu")} for name, taken in times.items()}


def write_in_child(write, folder):
    """Once before the clock starts, as Main.cc does it."""
    folder.mkdir(parents=True)
    child = os.fork()
    if child == 0:
        try:
            write(folder)
        finally:
            os._exit(0)
    os.waitpid(child, 0)
    for path in folder.rglob("*"):
        if path.is_file():
            os.truncate(path, 0)


def run_phase(store, workload, phase, folder):
    if phase == "write":
        times = workload.time()
        warm = folder.parent / "warm"
        if workload.flush_rows:
            steps = workload.steps()
            write_in_child(lambda to: write_live(store, workload, to, times, steps), warm)
            return write_live(store, workload, folder, times, steps)
        signals = workload.all_signals()
        write_in_child(lambda to: store.write(workload, to, times, signals), warm)
        return measured(lambda: store.write(workload, folder, times, signals))[1]
    if phase == "read":
        (times, signals), result = measured(lambda: store.read(workload, folder))
        compare(times, workload.time(), "time")
        if len(signals) != workload.signals:
            raise ValueError(f"{len(signals)} signals instead of {workload.signals}")
        for i, samples in enumerate(signals):
            compare(samples, workload.signal(i), f"signal {i}")
        return result
    return read_windows(store, workload, folder) if hasattr(store, "open_window") else {}


def list_stores():
    found = {}
    for name, store in STORES.items():
        try:
            importlib.import_module(store.module)
            found[name] = store.takes
        except ImportError as error:
            found[name] = str(error)
    return found


def main():
    if sys.argv[1:] == ["list"]:
        print(json.dumps(list_stores()))
        return
    name, workload, phase, folder, scale = sys.argv[1:]
    store = STORES[name]
    importlib.import_module(store.module)  # outside the clock
    stored = pathlib.Path(folder, "stored")
    stored.mkdir(parents=True, exist_ok=True)
    print(json.dumps(run_phase(store(), workloads.find(workload, float(scale)), phase, stored)))


if __name__ == "__main__":
    main()
