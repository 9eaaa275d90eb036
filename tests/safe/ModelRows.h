#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "kyr/parquet/SignalTypes.h"

/// Rows of all data types and categories, as a plain model of a pool keeps them.
namespace kyr::test::model {

using Shape = std::vector<std::size_t>;

struct Kind {
  KYRSignalCategory category;
  KYRSignalDataType type;
  std::size_t width;
};

/// All data types and categories.
inline constexpr Kind kKinds[] = {
    {Scalar, Double, 8},    {Scalar, Single, 4},        {Scalar, Int8, 1},
    {Scalar, UInt8, 1},     {Scalar, Int16, 2},         {Scalar, UInt16, 2},
    {Scalar, Int32, 4},     {Scalar, UInt32, 4},        {Scalar, Int64, 8},
    {Scalar, UInt64, 8},    {Scalar, UInt64Alt, 8},     {Scalar, UInt32Alt, 4},
    {Scalar, Boolean, 1},   {Scalar, ByteString, 1},    {Scalar, Binary, 1},
    {FixedDim, UInt16, 2},  {FixedDim, Double, 8},      {FixedDim, Binary, 1},
    {VarDim, Double, 8},    {VarDim, Int32, 4},         {VarDim, UInt8, 1},
    {VarDim, Binary, 1},    {Bus, Binary, 1},           {Bus, ByteString, 1},
    {VarDimBus, Binary, 1}, {VarDimBus, ByteString, 1},
};

struct Row {
  std::string bytes;
  Shape shape;  // of a variable-dimension row
  friend bool operator==(const Row& a, const Row& b) {
    return a.bytes == b.bytes && a.shape == b.shape;
  }
};
using Rows = std::vector<Row>;

inline const Kind& kindOf(int signal) {
  // Neighbours have the same kind, so that they can share.
  return kKinds[static_cast<std::size_t>(signal / 4) % std::size(kKinds)];
}

inline bool isVariable(const Kind& kind) {
  return kind.category == VarDim || kind.category == VarDimBus;
}
inline bool isBlob(const Kind& kind) { return kind.type == Binary || kind.type == ByteString; }

/// Row number \p row of a content. Contents are equal up to a row that depends on their number.
inline Row rowOf(const Kind& kind, unsigned content, std::uint64_t row) {
  const bool differs = row >= content * 3;
  const auto seed = static_cast<unsigned>(row * 7 + (differs ? content * 1000 : 0));
  std::size_t elements = 1;
  Row result;
  if (kind.category == FixedDim) elements = 4;
  if (isBlob(kind)) elements = seed % 5;
  if (isVariable(kind)) {
    result.shape = {seed % 3, 1 + seed % 2};
    if (!isBlob(kind)) elements = result.shape[0] * result.shape[1];
  }
  for (std::size_t i = 0; i < elements * kind.width; ++i) {
    result.bytes.push_back(static_cast<char>((seed * 31 + i * (differs ? 3 : 1)) % 251));
  }
  return result;
}

struct Chunk {
  std::string bytes;
  std::vector<Shape> dims;
  std::vector<int> sizes;
};

inline Chunk chunkOf(const Kind& kind, const Rows& rows) {
  Chunk chunk;
  for (const Row& row : rows) {
    chunk.bytes += row.bytes;
    if (isVariable(kind)) chunk.dims.push_back(row.shape);
    if (isBlob(kind)) chunk.sizes.push_back(static_cast<int>(row.bytes.size()));
  }
  if (kind.category == FixedDim && !isBlob(kind)) chunk.dims = {{2, 2}};
  return chunk;
}

/// Turns what a read gives into rows.
inline Rows rowsOf(const Kind& kind, const std::vector<char>& bytes, const std::vector<Shape>& dims,
                   const std::vector<int>& sizes) {
  Rows rows;
  std::size_t at = 0;
  const bool isFlat = sizes.empty();
  const std::size_t count = isFlat ? bytes.size() / kind.width : sizes.size();
  for (std::size_t i = 0; i < count; ++i) {
    Row row;
    const std::size_t size = (isFlat ? 1 : static_cast<std::size_t>(sizes[i])) * kind.width;
    row.bytes.assign(bytes.data() + at, size);
    at += size;
    if (isVariable(kind)) row.shape = dims.at(i);
    rows.push_back(std::move(row));
  }
  return rows;
}

inline constexpr Kind kTime{Scalar, Double, 8};

}  // namespace kyr::test::model
