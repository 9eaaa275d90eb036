"""Samples that differ in size."""

from __future__ import annotations

import collections.abc
import operator


class Samples(collections.abc.Sequence):
    """Samples that differ in size, as a sequence: read-only arrays, or `bytes`.

    All elements are in one array, `elements`; sample i has those from `offsets[i]` to
    `offsets[i + 1]`. Slices share it, and so do the arrays; `bytes` are made when you ask for one.
    """

    __slots__ = ("elements", "offsets", "_extents", "_extent_offsets", "_are_bytes")

    def __init__(self, elements, offsets, extents=None, extent_offsets=None, are_bytes=False):
        self.elements = elements
        self.offsets = offsets
        self._extents = extents
        self._extent_offsets = extent_offsets
        self._are_bytes = are_bytes

    def __len__(self):
        return len(self.offsets) - 1

    def __getitem__(self, key):
        if isinstance(key, slice):
            return self._slice(key)
        try:
            row = operator.index(key)
        except TypeError:
            raise TypeError(
                f"samples are selected by a row or a slice of rows, not by {type(key).__name__}"
            ) from None
        if row < 0:
            row += len(self)
        if not 0 <= row < len(self):
            raise IndexError(f"row {key} of {len(self)} samples")
        sample = self.elements[self.offsets[row] : self.offsets[row + 1]]
        if self._are_bytes:
            return sample.tobytes()
        first, last = self._extent_offsets[row : row + 2]
        return sample.reshape(self._extents[first:last][::-1]).T

    def _slice(self, key):
        start, stop, step = key.indices(len(self))
        if step != 1:
            return [self[row] for row in range(start, stop, step)]
        stop = max(start, stop)
        shapes = self._extent_offsets
        return Samples(
            self.elements,
            self.offsets[start : stop + 1],
            self._extents,
            None if self._are_bytes else shapes[start : stop + 1],
            self._are_bytes,
        )

    def _take(self, rows):
        """Samples of these rows, in memory of their own."""
        elements, offsets = _gather(self.elements, self.offsets, rows)
        if self._are_bytes:
            return Samples(elements, offsets, are_bytes=True)
        return Samples(elements, offsets, *_gather(self._extents, self._extent_offsets, rows))

    def __repr__(self):
        kind = "bytes" if self._are_bytes else f"{self.elements.dtype} arrays"
        return f"<kyr.Samples: {len(self)} {kind} of different sizes>"


def _gather(items, offsets, rows):
    """The items of some rows, and where each of these begins."""
    import numpy

    lengths = numpy.diff(offsets)[rows]
    ends = numpy.concatenate([[0], numpy.cumsum(lengths)])
    return items[numpy.repeat(offsets[rows] - ends[:-1], lengths) + numpy.arange(ends[-1])], ends
