"""The same workloads as Workload.cc, as NumPy arrays."""

import dataclasses

import numpy as np


@dataclasses.dataclass
class Workload:
    name: str
    signals: int
    rows: int
    values: str = "noise"
    chunk_rows: int = 0  # 0: each vector is stored whole
    window_rows: int = 0
    distinct: int = 0  # 0: all of them
    flush_rows: int = 0  # 0: nothing is recorded live

    def time(self):
        return 0.001 * np.arange(self.rows, dtype=np.float64)

    def signal(self, number):
        seed = number % self.distinct if self.distinct else number
        if self.values == "noise":
            return (random_bits(seed, self.rows) >> np.uint64(11)).astype(np.float64) * 2.0**-52 - 1
        counts = converted(seed, self.rows)
        if self.values == "counts":
            return counts
        return counts.astype(np.float64) * 5 / 4096 - 2.5

    def all_signals(self):
        return [self.signal(number) for number in range(self.signals)]

    def steps(self):
        """A sample of each signal, step after step."""
        return np.ascontiguousarray(np.transpose(self.all_signals()))

    def windows(self, signal):
        """First rows of the windows to read, the first of which opens the file."""
        middle = (self.rows - self.window_rows) // 2
        return [middle + (7919 * i + 37 * signal) % (self.rows // 4) for i in range(6)]


def random_bits(seed, count):
    x = np.arange(count, dtype=np.uint64) + np.uint64((seed << 32) + 0x9E3779B97F4A7C15)
    x = (x ^ (x >> np.uint64(30))) * np.uint64(0xBF58476D1CE4E5B9)
    x = (x ^ (x >> np.uint64(27))) * np.uint64(0x94D049BB133111EB)
    return x ^ (x >> np.uint64(31))


def converted(seed, count):
    period = 20_000 + 7 * seed
    phase = (np.arange(count) % period) / period * 2 - 1
    wave = 4 * phase * (1 - np.abs(phase))
    bits = random_bits(seed, count)
    noise = sum((bits >> np.uint64(3 * i)) & np.uint64(7) for i in range(4)).astype(np.float64) - 14
    return (np.floor(2048 + 1500 * wave) + noise).astype(np.int16)


ALL = [
    Workload("W1", 200, 100_000),
    Workload("W1q", 200, 100_000, "quantised"),
    Workload("W1i", 200, 100_000, "counts"),
    Workload("W2", 20, 1_000_000, chunk_rows=1_000, window_rows=10_000),
    Workload("W4", 5_000, 200),
    Workload("W5", 200, 100_000, distinct=20),
    Workload("W7", 1_000, 1_000, flush_rows=100),
    Workload("W7l", 10_000, 1_000, flush_rows=100),
    Workload("W7w", 100, 20_000, window_rows=10_000, flush_rows=100),
]


def find(name, scale):
    workload = next(dataclasses.replace(each) for each in ALL if each.name == name)
    if name == "W4" or workload.flush_rows:
        workload.signals = max(100, round(workload.signals * scale))
    else:
        workload.rows = max(100, round(workload.rows * scale))
    if not workload.flush_rows:
        workload.window_rows = min(workload.window_rows, workload.rows // 4)
    return workload
