#pragma once

#include <xxhash.h>

#include <cstddef>
#include <cstdint>

namespace kyr::parquet {

/// A run of rows in memory that others own.
struct RowSlice {
  std::size_t rows = 0;
  const char* elements = nullptr;
  std::size_t bytes = 0;  ///< of the elements
  /// The end of the elements of each row, counted as the owner of the memory counts elements; null
  /// for flat columns. The first row begins at `begin`.
  const std::uint64_t* ends = nullptr;
  std::uint64_t begin = 0;
  /// The extents of all rows, beginning with the first one, and their ends; null for schemas
  /// without dimensions.
  const std::uint64_t* extents = nullptr;
  const std::uint64_t* extentEnds = nullptr;
  std::uint64_t extentBegin = 0;
};

/// The number of extents of all rows of a schema with dimensions.
inline std::size_t extentsIn(const RowSlice& rows) {
  return rows.rows == 0 ? 0 : rows.extentEnds[rows.rows - 1] - rows.extentBegin;
}

/// Checks rows of a schema with shapes.
/// \param first  number of the first row, for the error
/// \throws std::invalid_argument if a list has not as many elements as its shape says
void requireShapes(const RowSlice& rows, std::uint64_t first);

/// Bytes that a RowStore of the rows takes.
std::size_t bytesIn(const RowSlice& rows);

/// Rows [from, from + count) of a run.
RowSlice subSlice(const RowSlice& rows, std::size_t from, std::size_t count);

/// The number of equal rows at the beginning of two runs of the same length.
std::size_t commonRows(const RowSlice& a, const RowSlice& b);

/// Whether two runs of rows of one schema are equal bit for bit, shapes included.
bool areEqual(const RowSlice& a, const RowSlice& b);

/// A 128-bit digest of the rows and their shapes. It does not depend on how the rows were divided
/// into chunks.
XXH128_hash_t digestOf(const RowSlice& rows);

}  // namespace kyr::parquet
