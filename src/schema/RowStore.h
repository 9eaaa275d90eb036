#pragma once

#include <xxhash.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "schema/ByteBuffer.h"
#include "schema/SampleLayout.h"

namespace kyr::parquet {

/// One appended chunk as it came, checked against a schema.
struct SampleChunk {
  const char* data = nullptr;
  std::size_t elements = 0;  ///< whole elements of the data type
  std::size_t bytes = 0;     ///< bytes of the rows, without what follows them
  std::size_t rows = 0;
  const std::vector<std::vector<std::uint64_t>>* dimensions = nullptr;
  const std::vector<int>* sizes = nullptr;
};

/// Check raw samples against \p schema, without keeping them.
/// \param width  bytes of an element
/// \throws std::invalid_argument if they do not make rows of the schema
SampleChunk measureChunk(const SampleSchema& schema, const void* data, std::size_t size,
                         std::size_t width,
                         const std::vector<std::vector<std::uint64_t>>& dimensions,
                         const std::vector<int>& sizes);

/// As measureChunk(), but samples without elements are rows also where there are no others, and
/// bytes beyond the last sample are refused.
SampleChunk measureExactly(const SampleSchema& schema, const void* data, std::size_t size,
                           std::size_t width,
                           const std::vector<std::vector<std::uint64_t>>& dimensions,
                           const std::vector<int>& sizes);

/// A run of rows in somebody's memory.
struct RowSlice {
  std::size_t rows = 0;
  const char* elements = nullptr;
  std::size_t bytes = 0;
  // Where rows end, as counted by their owner, and where the first one begins; null for flat
  // columns and for schemas without dimensions.
  const std::uint64_t* ends = nullptr;
  std::uint64_t begin = 0;
  const std::uint64_t* extents = nullptr;  ///< of the first row on
  const std::uint64_t* extentEnds = nullptr;
  std::uint64_t extentBegin = 0;
};

/// Where rows end, counted from the first one: their elements (list and blob columns) and their
/// extents (dimension column).
struct RowShapes {
  std::vector<std::uint64_t> rowEnds;
  std::vector<std::uint64_t> extents;
  std::vector<std::uint64_t> extentEnds;

  void append(const SampleSchema& schema, const SampleChunk& chunk);
};

/// The rows of a chunk, where they lie.
/// \param width  bytes of an element
/// \param shapes  keeps where they end
RowSlice sliceOf(const SampleSchema& schema, const SampleChunk& chunk, std::size_t width,
                 RowShapes& shapes);

/// A table over the rows' memory, which must stay as it is while the table is in use.
std::shared_ptr<::arrow::Table> tableOf(const SampleSchema& schema, const RowSlice& rows);

/// Bytes that a RowStore of the rows takes.
std::size_t bytesIn(const RowSlice& rows);

/// Rows [from, from + count) of a run.
RowSlice subSlice(const RowSlice& rows, std::size_t from, std::size_t count);

/// How many rows at the beginning of two runs of the same length are equal.
std::size_t commonRows(const RowSlice& a, const RowSlice& b);

/// Whether two runs of rows of one schema are equal, bit for bit and with all shapes.
bool areEqual(const RowSlice& a, const RowSlice& b);

/// Of the rows, 128 bits; the same however they were divided into chunks.
XXH128_hash_t digestOf(const RowSlice& rows);

/// Rows in the plain memory of their columns, so that a row costs an append to a few vectors.
class RowStore {
 public:
  /// \param width  bytes of an element of the data type
  RowStore(SampleSchema schema, std::size_t width);

  const SampleSchema& schema() const { return schema_; }
  std::size_t rows() const { return rows_; }
  void append(const SampleChunk& chunk);
  /// \param rows  of the same schema; not of this store
  void append(const RowSlice& rows);
  /// \param table  of the same schema
  void append(const ::arrow::Table& table);

  /// Bytes of the elements alone.
  std::size_t elementBytes() const { return elements_.size(); }
  /// Adds rows of a flat column, whose values the caller fills in.
  void grow(std::size_t rows);
  /// Of a flat column.
  char* values() { return elements_.data(); }

  RowSlice slice(std::size_t from, std::size_t count) const;
  RowSlice slice(std::size_t from = 0) const { return slice(from, rows_ - from); }

  /// As tableOf().
  std::shared_ptr<::arrow::Table> table(std::size_t from, std::size_t count) const {
    return tableOf(schema_, slice(from, count));
  }

  /// Drops the first rows and keeps memory for one more of the \p batches batches that they were.
  void dropFront(std::size_t rows, std::size_t batches);
  /// Drops what is behind the first rows.
  void truncate(std::size_t rows);

 private:
  SampleSchema schema_;
  std::size_t width_ = 1;  // bytes of an element; 1 for blobs, whose elements are their bytes
  std::size_t rows_ = 0;
  ByteBuffer elements_;
  RowShapes shapes_;
};

/// Rows in memory that somebody keeps there: whoever it is that owns the object that they are of, or
/// \p keeper.
struct HeldRows {
  RowSlice rows;
  std::shared_ptr<const RowStore> keeper;
};

}  // namespace kyr::parquet
