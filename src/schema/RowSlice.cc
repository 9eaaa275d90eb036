#include "schema/RowSlice.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "platform/Digest.h"
#include "schema/SampleLayout.h"

namespace kyr::parquet {

void requireShapes(const RowSlice& rows, std::uint64_t first) {
  if (!rows.ends || !rows.extentEnds) return;
  std::uint64_t begin = rows.begin;
  std::uint64_t extentBegin = 0;
  for (std::size_t row = 0; row < rows.rows; ++row) {
    const std::uint64_t found = rows.ends[row] - begin;
    begin = rows.ends[row];
    const std::uint64_t extentEnd = rows.extentEnds[row] - rows.extentBegin;
    const std::uint64_t expected =
        shapeElements(rows.extents + extentBegin, extentEnd - extentBegin);
    extentBegin = extentEnd;
    if (found == expected) continue;
    throw std::invalid_argument(
        fmt::format("sample {} has {} elements, its shape {}", first + row, found, expected));
  }
}

std::size_t bytesIn(const RowSlice& rows) {
  std::size_t numbers = rows.ends ? rows.rows : 0;
  if (rows.extentEnds) numbers += rows.rows + extentsIn(rows);
  return rows.bytes + numbers * sizeof(std::uint64_t);
}

bool areEqual(const RowSlice& a, const RowSlice& b) {
  if (a.rows != b.rows || a.bytes != b.bytes) return false;
  if (a.bytes > 0 && std::memcmp(a.elements, b.elements, a.bytes) != 0) return false;
  const auto haveSameEnds = [&](const std::uint64_t* x, std::uint64_t fromX, const std::uint64_t* y,
                                std::uint64_t fromY) {
    for (std::size_t i = 0; i < a.rows; ++i) {
      if (x[i] - fromX != y[i] - fromY) return false;
    }
    return true;
  };
  if (a.ends && !haveSameEnds(a.ends, a.begin, b.ends, b.begin)) return false;
  if (!a.extentEnds) return true;
  return haveSameEnds(a.extentEnds, a.extentBegin, b.extentEnds, b.extentBegin) &&
         std::equal(a.extents, a.extents + extentsIn(a), b.extents);
}

RowSlice subSlice(const RowSlice& rows, std::size_t from, std::size_t count) {
  RowSlice slice = rows;
  slice.rows = count;
  if (!rows.ends) {
    const std::size_t width = rows.rows == 0 ? 0 : rows.bytes / rows.rows;
    slice.elements += from * width;
    slice.bytes = count * width;
    return slice;
  }
  const auto endOf = [&](std::size_t end) { return end == 0 ? rows.begin : rows.ends[end - 1]; };
  const std::uint64_t elements = endOf(rows.rows) - rows.begin;
  const std::uint64_t width = elements == 0 ? 0 : rows.bytes / elements;
  slice.ends += from;
  slice.begin = endOf(from);
  slice.elements += (slice.begin - rows.begin) * width;
  slice.bytes = (endOf(from + count) - slice.begin) * width;
  if (rows.extentEnds) {
    slice.extentEnds += from;
    slice.extentBegin = from == 0 ? rows.extentBegin : rows.extentEnds[from - 1];
    slice.extents += slice.extentBegin - rows.extentBegin;
  }
  return slice;
}

std::size_t commonRows(const RowSlice& a, const RowSlice& b) {
  if (areEqual(a, b)) return a.rows;
  // The first row that differs is one of [equal, equal + span).
  std::size_t equal = 0;
  for (std::size_t span = a.rows; span > 1;) {
    const std::size_t half = span / 2;
    if (areEqual(subSlice(a, equal, half), subSlice(b, equal, half))) {
      equal += half;
      span -= half;
    } else {
      span = half;
    }
  }
  return equal;
}

XXH128_hash_t digestOf(const RowSlice& rows) {
  // The ends of the rows count as well, except for flat rows.
  XXH128_hash_t digest = digestOfBytes(rows.elements, rows.bytes);
  const auto mix = [&](const std::uint64_t* values, std::size_t count, std::uint64_t base) {
    constexpr std::size_t kStart = 3;
    std::vector<std::uint64_t> text(kStart + count);
    text[0] = digest.low64;
    text[1] = digest.high64;
    text[2] = count;
    for (std::size_t i = 0; i < count; ++i) text[kStart + i] = values[i] - base;
    digest = XXH3_128bits(text.data(), text.size() * sizeof(std::uint64_t));
  };
  if (rows.ends) mix(rows.ends, rows.rows, rows.begin);
  if (rows.extentEnds) {
    mix(rows.extentEnds, rows.rows, rows.extentBegin);
    mix(rows.extents, extentsIn(rows), 0);
  }
  return digest;
}

}  // namespace kyr::parquet
