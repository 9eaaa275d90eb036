"""Recordings are compared as a look at every sample compares them."""

import json
import math
import os
import subprocess

import numpy as np
import pytest

import kyr

NAN = math.nan


def ratio(error, allowed):
    return error / allowed if allowed > 0 else math.inf if error > 0 else 0.0


class Curve:
    """One of two curves: what it has at a time, and within a time of it."""

    def __init__(self, times, values, holds):
        self.times, self.values, self.holds = times, values, holds

    def at(self, time):
        """Rows of the samples at a time, and the rows before and after it."""
        first, end = np.searchsorted(self.times, [time, np.nextafter(time, np.inf)])
        return int(first), int(end)

    def line(self, before, time):
        if self.values[before] == self.values[before + 1]:
            return self.values[before]
        part = (time - self.times[before]) / (self.times[before + 1] - self.times[before])
        return self.values[before] * (1 - part) + self.values[before + 1] * part

    def ends(self, time):
        """What the curve comes from and goes on with."""
        first, end = self.at(time)
        if self.holds:
            left = first - 1 if end - first < 2 and first else first
            return self.values[left], self.values[end - 1]
        if end > first:
            return self.values[first], self.values[end - 1]
        return (self.line(first - 1, time),) * 2

    def nearest(self, value, time, reach, allowed):
        """The value within a time before and after that is nearest to a value. Where the tolerance
        depends on it, the one that is nearest in terms of that."""
        start, stop = time - reach, time + reach
        first = int(np.searchsorted(self.times, start))
        end = int(np.searchsorted(self.times, stop, side="right"))
        if self.holds:
            values = self.values[max(0, first - 1) : end]
        else:
            values = list(self.values[first:end])
            values += [self.line(first - 1, start)] if 0 < first < len(self.times) else []
            values += [self.line(end - 1, stop)] if 0 < end < len(self.times) else []
        return self.nearest_of(values, value, allowed)

    def nearest_of(self, values, value, allowed):
        known = [each for each in values if not math.isnan(each)]
        if math.isnan(value) and len(known) < len(values) or not known:
            return NAN
        if self.holds and not math.isnan(value):
            above = [each for each in known if each >= value]
            below = [each for each in known if each < value]
            sides = ([min(above)] if above else []) + ([max(below)] if below else [])
            far = {each: abs(each - value) for each in sides}
            return min(sides, key=lambda each: (ratio(far[each], allowed(each)), far[each]))
        return min(known) if math.isnan(value) else min(max(value, min(known)), max(known))

    def partner(self, k, count, value, time, allowed):
        """What to compare with the k-th of so many samples that the other curve has at a time."""
        left, right = self.ends(time)
        if k == count - 1:
            return right
        if k == 0:
            return left
        first, end = self.at(time)
        return self.nearest_of([left, *self.values[first:end], right], value, allowed)


def brute(a, b, atol, rtol, range_tol, time_tol):
    """Rows compared and out, the first time out, the largest error over tolerance."""
    finite = a.values[np.isfinite(a.values)]
    floor = max(atol, range_tol * (finite.max() - finite.min()) if len(finite) else 0)
    reach = time_tol * (a.times[-1] - a.times[0])
    start, stop = max(a.times[0], b.times[0]), min(a.times[-1], b.times[-1])
    compared = out = 0
    first, worst = None, 0.0
    for time in np.unique(np.concatenate([a.times, b.times])):
        if not start <= time <= stop:
            continue
        (i, i_end), (j, j_end) = a.at(time), b.at(time)
        counts = i_end - i, j_end - j
        outs = [0, 0]
        for side, (own, other, begin) in enumerate(((a, b, i), (b, a, j))):
            for k in range(counts[side]):
                value = own.values[begin + k]
                allowed_at = lambda x: max(floor, rtol * abs(value if side == 0 else x))
                if reach > 0:
                    found = other.nearest(value, time, reach, allowed_at)
                elif counts[0] == counts[1]:
                    found = other.values[(j, i)[side] + k]
                else:
                    found = other.partner(k, counts[side], value, time, allowed_at)
                ref, new = (value, found) if side == 0 else (found, value)
                if ref == new or (math.isnan(ref) and math.isnan(new)):
                    continue
                error, allowed = abs(ref - new), max(floor, rtol * abs(ref) if rtol else 0)
                if not math.isfinite(error):
                    error, allowed = math.inf, 0.0
                outs[side] += error > allowed
                worst = max(worst, ratio(error, allowed))
        compared += max(counts)
        out += max(outs)
        first = time if first is None and max(outs) else first
    return compared, out, first, worst


def random_pair(rng):
    """Times and values of two signals that are much alike."""
    n = int(rng.integers(1, 30))
    times = np.sort(rng.choice([rng.integers(0, 12, n) / 2, rng.random(n) * 8]))
    holds = rng.random() < 0.4
    values = np.cumsum(rng.integers(-2, 3, n)).astype(float)
    if not holds:
        values = values + rng.choice([0, 0.25], n)
    other_times, others = times.copy(), values.copy()
    keep = rng.random(n) < rng.choice([1, 0.8])
    if keep.any():
        other_times, others = other_times[keep], others[keep]
    if rng.random() < 0.6:
        others[rng.integers(len(others))] += rng.integers(1, 5)
    if rng.random() < 0.5:
        other_times = np.sort(other_times + rng.choice([-0.5, 0, 0.125, 0.5], len(others)))
    if not holds and rng.random() < 0.3:
        for each in (values, others):
            each[rng.integers(len(each))] = rng.choice([NAN, math.inf, 1e-300])
    dtype = np.int32 if holds else np.float64
    return (times, values.astype(dtype)), (other_times, others.astype(dtype)), holds


def random_tolerances(rng):
    tolerances = {
        "atol": rng.choice([0, 0.25, 1]),
        "rtol": rng.choice([0, 0, 0.125]),
        "range_tol": rng.choice([0, 0, 0.0625]),
        "time_tol": rng.choice([0, 0, 0.03125, 0.25]),
    }
    tolerances = {name: float(value) for name, value in tolerances.items()}
    return tolerances if any(tolerances.values()) else {**tolerances, "atol": 0.5}


def random_rounds(tmp_path, seed, rounds, signals, elements):
    """Compares random pairs both ways. Matrices have their value in each element."""
    rng = np.random.default_rng(seed)
    results = []
    wide = (lambda v: v) if elements == 1 else (lambda v: np.repeat(v[:, None, None], elements, 1))
    for round in range(rounds):
        pairs = {f"s{i}": random_pair(rng) for i in range(signals)}
        tolerances = random_tolerances(rng)
        for side in (0, 1):
            folder = tmp_path / "ab"[side]
            shown = {name: (pair[side][0], wide(pair[side][1])) for name, pair in pairs.items()}
            kyr.save(folder, shown, pack=(round + side) % 2 == 0, replace=round > 0)
        found = kyr.diff(tmp_path / "a", tmp_path / "b", **tolerances)
        for name, (one, other, holds) in pairs.items():
            one, other = (Curve(t, v.astype(float), holds) for t, v in (one, other))
            compared, out, first, worst = brute(one, other, **tolerances)
            each = found[name]
            results.append(out > 0)
            if each.is_known_equal:
                assert out == 0 and worst == 0
                continue
            where = f"round {round}, {name}: {tolerances}, {pairs[name]}"
            assert (each.rows_compared, each.rows_out) == (compared, out), where
            assert each.first_out == first, where
            assert (each.verdict == "equal") == (out == 0 and compared > 0), where
            excess = each.worst.excess if each.worst else 0.0
            assert excess == pytest.approx(worst, rel=1e-12), where
    assert 0.1 < np.mean(results) < 0.9


def test_random_curves_are_compared_as_by_a_look_at_each_sample(tmp_path):
    random_rounds(tmp_path, seed=20261122, rounds=60, signals=12, elements=1)


def test_wide_matrices_are_compared_in_blocks_of_few_rows(tmp_path):
    random_rounds(tmp_path, seed=7, rounds=6, signals=8, elements=16384)


def test_long_curves_are_compared_as_by_a_look_at_each_sample(tmp_path):
    rng = np.random.default_rng(3)
    times = np.arange(150_000.0)
    values = np.sin(times / 1000)
    keep = rng.random(len(times)) < 0.9
    keep[[0, -1]] = True
    others = values[keep] + 0.01 * (rng.random(keep.sum()) < 0.001)
    kyr.save(tmp_path / "a", {"x": (times, values)})
    kyr.save(tmp_path / "b", {"x": (times[keep], others)})
    out = np.abs(np.interp(times, times[keep], others) - values) > 1e-3
    signal = kyr.diff(tmp_path / "a", tmp_path / "b", atol=1e-3)["x"]
    assert (signal.rows_compared, signal.rows_out) == (len(times), out.sum())
    assert signal.first_out == times[out][0] and out.sum() > 100
    # Within 4 s, the curve has all values between the smallest and the largest one.
    reach = 4
    spread = np.lib.stride_tricks.sliding_window_view
    padded = np.pad(np.interp(times, times[keep], others), reach, mode="edge")
    windows = spread(padded, 2 * reach + 1)
    low, high = windows.min(axis=1), windows.max(axis=1)
    out = (values < low - 1e-3) | (values > high + 1e-3)
    padded = np.pad(values, reach, mode="edge")
    windows = spread(padded, 2 * reach + 1)
    mine = others - np.clip(others, windows.min(axis=1)[keep], windows.max(axis=1)[keep])
    out[np.flatnonzero(keep)[np.abs(mine) > 1e-3]] = True
    signal = kyr.diff(tmp_path / "a", tmp_path / "b", atol=1e-3, time_tol=reach / times[-1])["x"]
    assert (signal.rows_out, signal.first_out) == (out.sum(), times[out][0])


def test_what_it_tells(tmp_path):
    t = np.arange(4.0)
    kyr.save(tmp_path / "a", {"x": (t, t), "gone": (t, t), "u": (t, t)}, units={"u": "m"})
    kyr.save(tmp_path / "b", {"x": (t[:3], t[:3] + [0, 0, 0.5]), "u": (t, t)}, units={"u": "km"})
    found = kyr.diff(kyr.open(tmp_path / "a"), tmp_path / "b", atol=0.25)
    assert not found and not found.equal and len(found) == 3
    assert [signal.name for signal in found.failed] == ["x", "u", "gone"]
    assert found["u"].differences == {"unit": ("m", "km")}
    worst = found["x"].worst
    assert (worst.time, worst.error, worst.tolerance, worst.excess) == (2, 0.5, 0.25, 2)
    assert found["x"].compared_span == (0, 2) and found["x"].ends_differ
    text = str(found)
    for part in ("3 of 3", "1 of 3 rows from 2 on", "unit 'm', 'km'", "gone: only in reference"):
        assert part in text
    assert repr(found).endswith("3 signals, 3 not equal>")
    frame = found.to_pandas()
    assert frame.loc["x", "error"] == 0.5 and frame.loc["gone", "verdict"] == "only in reference"

    equal = kyr.diff(tmp_path / "a", tmp_path / "b", signals=["x"], atol=0.5)
    assert equal and "x begin or end at different times" in str(equal)
    assert not kyr.diff(tmp_path / "a", tmp_path / "b", signals=["x"], atol=0.5, same_ends=True)
    with pytest.raises(ValueError, match="atol is nan"):
        kyr.diff(tmp_path / "a", tmp_path / "b", atol=NAN)
    with pytest.raises(TypeError, match="a list of names"):
        kyr.diff(tmp_path / "a", tmp_path / "b", signals="x")
    with pytest.raises(KeyError):
        found["y"]


def test_live_recordings_are_compared_as_of_their_last_flush(tmp_path):
    t = np.arange(100.0)
    kyr.save(tmp_path / "a", {"x": (t, t)})
    with kyr.record(tmp_path / "b", flush=None) as recorder:
        signal = recorder.add("x")
        signal.append(t[:50], t[:50])
        recorder.flush()
        signal.append(t[50:], -t[50:])
        found = kyr.diff(tmp_path / "a", tmp_path / "b", rtol=1e-9)
        assert found and found["x"].rows_compared == 50 and found["x"].ends_differ
    assert kyr.diff(tmp_path / "a", tmp_path / "b", rtol=1e-9)["x"].first_out == 50


def test_the_tool_tells_the_same(tmp_path):
    t = np.arange(10.0)
    kyr.save(tmp_path / "a", {"x": (t, t), "y": (t, t)})
    kyr.save(tmp_path / "b", {"x": (t, t + 0.1 * (t > 6)), "y": (t, t)})
    found = kyr.diff(tmp_path / "a", tmp_path / "b", atol=0.05)
    run = subprocess.run(
        [os.environ["KYR"], "diff", tmp_path / "a", tmp_path / "b", "--atol", "0.05", "--json"],
        capture_output=True,
        text=True,
    )
    assert run.returncode == 1
    (signal,) = json.loads(run.stdout)["signals"]
    assert signal["rowsOut"] == found["x"].rows_out == 3
    assert signal["worst"]["errorOverTolerance"] == found["x"].worst.excess
