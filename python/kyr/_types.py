"""The types of samples, as recordings number them and as numpy calls them."""

from __future__ import annotations

import math

# Recordings store the numbers on the left. Boolean values are bytes, 0 or 1.
DTYPES = {
    0: "float64",
    1: "float32",
    2: "int8",
    3: "uint8",
    4: "int16",
    5: "uint16",
    6: "int32",
    7: "uint32",
    8: "bool",
    10000: "int64",
    10001: "uint64",
    10002: "uint64",
    10003: "uint32",
    10004: "int8",
}
BYTE_TYPES = (10005, 20000)
SCALAR, FIXED, VARYING, BUS = 0, 1, 2, 3


class Kind:
    """What each sample of a signal is."""

    number = "number"
    matrix = "matrix"  #: of the same shape at every time
    varying = "varying"  #: a matrix whose shape may change
    bytes = "bytes"


def kind_of(data_type: int, category: int) -> Kind:
    if data_type in BYTE_TYPES:
        return Kind.bytes
    return {SCALAR: Kind.number, FIXED: Kind.matrix}.get(category, Kind.varying)


def as_samples(elements, shape):
    """Puts elements into samples of a shape, without a copy.

    A recording has the elements of a matrix column by column, so the first index runs fastest.
    """
    size = math.prod(shape)
    rows = len(elements) // size if size else 0
    samples = elements.reshape(rows, *reversed(shape))
    return samples.transpose(0, *range(len(shape), 0, -1))
