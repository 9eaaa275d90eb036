"""Envelopes, and plots on matplotlib that are read anew when they are zoomed."""

import math

import numpy as np
import pytest

import kyr


@pytest.fixture
def recording(tmp_path):
    t = np.arange(0, 1000, 0.1)
    y = np.sin(t)
    y[1234] = 50
    y[5000:5010] = np.nan
    steps = (t // 10 % 4).astype("int16")
    kyr.save(
        tmp_path / "run",
        {"speed": (t, y), "gear": (t, steps), "torque": (t, -y)},
        units={"speed": "m/s", "torque": "N.m"},
    )
    with kyr.open(tmp_path / "run") as r:
        yield r


def test_an_envelope_keeps_peaks_and_counts(recording):
    t, y = recording["speed"].read()
    e = recording["speed"].envelope(columns=100)
    assert len(e.t) == 100 and e.rows.sum() == 10_000 and e.nans.sum() == 10
    assert np.nanmax(e.max) == 50 and np.nanmin(e.min) == np.nanmin(y)
    edges = np.searchsorted(t, e.t)
    assert np.array_equal(e.first, y[edges], equal_nan=True)
    for i, (a, b) in enumerate(zip(edges, [*edges[1:], len(t)])):
        assert e.max[i] == np.nanmax(y[a:b]) and e.min[i] == np.nanmin(y[a:b])
    line_t, line_y = e.line
    assert np.all(np.diff(line_t) >= 0)
    assert set(line_t) <= set(t) and np.isnan(line_y).any()


def test_a_close_look_shows_the_rows_and_their_neighbours(recording):
    t, y = recording["speed"].read()
    line_t, line_y = recording["speed"].envelope(100.05, 100.95).line
    assert np.array_equal(line_t, t[1000:1011]) and np.array_equal(line_y, y[1000:1011])
    line_t, _ = recording["speed"].envelope(100.01, 100.02).line
    assert np.array_equal(line_t, t[1000:1002])


def test_elements_of_matrices_count_as_numpy_does(tmp_path):
    y = np.arange(2 * 6, dtype=float).reshape(2, 2, 3)
    kyr.save(tmp_path / "run", {"m": ([0, 1], y)})
    with kyr.open(tmp_path / "run") as r:
        for index in np.ndindex(2, 3):
            assert (
                r["m"].envelope(element=index).line[1].tolist() == y[(slice(None), *index)].tolist()
            )
        with pytest.raises(IndexError):
            r["m"].envelope(element=(2, 0))
        with pytest.raises(IndexError, match="from 0"):
            r["m"].envelope(element=-1)
        with pytest.raises(ValueError, match="6 elements"):
            r["m"].envelope(element=6)


@pytest.mark.parametrize(
    "arguments", [(5, 1), (math.nan, 1), (0, 1, 0), (0, 1, 100_000)], ids=str
)
def test_windows_that_are_none_are_refused(recording, arguments):
    with pytest.raises(ValueError):
        recording["speed"].envelope(*arguments)


def test_plots_are_read_anew_when_they_are_zoomed(recording):
    matplotlib = pytest.importorskip("matplotlib")
    matplotlib.use("Agg")
    ax = recording["speed"].plot(color="red")
    (line,) = ax.lines
    assert line.get_label() == "speed [m/s]" and line.get_color() == "red"
    assert len(line.get_xdata()) < 5000 and np.nanmax(line.get_ydata()) == 50
    ax.set_xlim(200, 201)
    t, y = recording["speed"].read(199.85, 201.15)
    assert np.array_equal(line.get_xdata(), t) and np.array_equal(line.get_ydata(), y)
    recording["torque"].plot(ax)
    assert len(ax.lines) == 2
    plots = recording.plot(["speed", "gear", "torque"])
    assert [p.get_ylabel() for p in plots] == ["m/s", "", "N.m"]
    assert plots[1].lines[0].get_drawstyle() == "steps-post"
    plots[0].set_xlim(3, 4)
    assert plots[2].lines[0].get_xdata().max() < 5, "the others follow"
    plots[0].figure.canvas.draw()
    recording.close()
    plots[0].set_xlim(5, 6)


def test_notebooks_show_a_small_curve(tmp_path):
    nan, inf = math.nan, math.inf
    values = {
        "<i>&": [1.0, 2.0, 3.0],
        "gap": [1.0, nan, 3.0],
        "alone": [7.0, nan, inf],
        "nothing": [nan, nan, nan],
        "wide": [-1e308, 1e308, 0.0],
        "note": [b"a", b"b", b"c"],
    }
    kyr.save(tmp_path / "run", {name: ([0, 1, 2], y) for name, y in values.items()})
    with kyr.open(tmp_path / "run") as r:
        shown = {name: r[name]._repr_html_() for name in r}
    assert "<i>&" not in shown["<i>&"] and "&lt;i&gt;&amp;" in shown["<i>&"]
    pieces = {
        name: text.split('d="')[-1].count("M") for name, text in shown.items() if "<svg" in text
    }
    assert pieces == {"<i>&": 1, "gap": 2, "alone": 1, "wide": 1}
    assert not any("nan" in text.split("<svg")[-1] for text in shown.values() if "<svg" in text)


def test_bytes_have_no_plot(tmp_path):
    kyr.save(tmp_path / "run", {"note": ([0, 1], [b"a", b"b"])})
    with kyr.open(tmp_path / "run") as r:
        with pytest.raises(TypeError, match="note"):
            r["note"].plot()
