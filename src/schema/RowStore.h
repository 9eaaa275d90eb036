#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "schema/ByteBuffer.h"
#include "schema/RowSlice.h"
#include "schema/SampleLayout.h"

namespace kyr::parquet {

/// One appended chunk of samples that was checked against a schema. Borrows the caller's memory.
struct SampleChunk {
  const char* data = nullptr;
  std::size_t elements = 0;  ///< whole elements of the data type that make rows
  std::size_t rows = 0;
  const std::vector<std::vector<std::uint64_t>>* dimensions = nullptr;
  const std::vector<int>* sizes = nullptr;
};

/// Checks raw samples against \p schema and counts their rows.
/// \param width  bytes of an element
/// \throws std::invalid_argument if they do not make rows of the schema
SampleChunk measureChunk(const SampleSchema& schema, const void* data, std::size_t size,
                         std::size_t width,
                         const std::vector<std::vector<std::uint64_t>>& dimensions,
                         const std::vector<int>& sizes);

/// Does what measureChunk() does, but counts samples without elements as rows even if there are no
/// others, and refuses bytes behind the last sample.
SampleChunk measureExactly(const SampleSchema& schema, const void* data, std::size_t size,
                           std::size_t width,
                           const std::vector<std::vector<std::uint64_t>>& dimensions,
                           const std::vector<int>& sizes);

/// The ends of rows, counted from the first one: of their elements (list and blob columns) and of
/// their extents (dimension column).
struct RowShapes {
  std::vector<std::uint64_t> rowEnds;
  std::vector<std::uint64_t> extents;
  std::vector<std::uint64_t> extentEnds;

  void append(const SampleSchema& schema, const SampleChunk& chunk);
};

/// The rows of a chunk in the caller's memory.
/// \param width  bytes of an element
/// \param shapes  receives the ends of the rows; must outlive the slice
RowSlice sliceOf(const SampleSchema& schema, const SampleChunk& chunk, std::size_t width,
                 RowShapes& shapes);

/// A table over the memory of the rows, which must stay unchanged while the table is in use.
std::shared_ptr<::arrow::Table> tableOf(const SampleSchema& schema, const RowSlice& rows);

/// Checks rows that were read from a file, before anybody relies on their columns.
/// \param first  number of the first row, for the error
/// \throws std::invalid_argument if a column is missing or of another type, holds nulls or has not
///         as many values as there are rows, or if a sample has not as many elements as its shape
///         says
void requireSamples(const SampleSchema& schema, const ::arrow::Table& table, std::uint64_t first);

/// Rows in memory, column by column: appending a row costs an append to a few vectors.
class RowStore {
 public:
  /// \param width  bytes of an element of the data type
  RowStore(SampleSchema schema, std::size_t width);

  const SampleSchema& schema() const { return schema_; }
  std::size_t width() const { return width_; }
  std::size_t rows() const { return rows_; }
  void append(const SampleChunk& chunk);
  /// \param rows  of the same schema; not of this store
  void append(const RowSlice& rows);
  /// \param table  of the same schema
  /// \throws std::invalid_argument if it is of another one or holds nulls
  void append(const ::arrow::Table& table);

  /// Bytes of the elements, without the shapes.
  std::size_t elementBytes() const { return elements_.size(); }
  /// Bytes of elements for which there is memory beside those.
  std::size_t spareBytes() const { return elements_.capacity() - elements_.size(); }
  /// Bytes of memory, whether rows fill it or not.
  std::size_t memoryBytes() const {
    const std::size_t numbers =
        shapes_.rowEnds.capacity() + shapes_.extents.capacity() + shapes_.extentEnds.capacity();
    return elements_.capacity() + numbers * sizeof(std::uint64_t);
  }
  /// By how many bytes the memory for elements grows when \p rows are appended.
  std::size_t growthFor(const RowSlice& rows) const { return elements_.growthFor(rows.bytes); }
  /// Adds rows of a flat column with undefined values. The caller fills them in.
  void grow(std::size_t rows);
  /// The values of a flat column.
  char* values() { return elements_.data(); }
  const char* values() const { return elements_.data(); }

  /// Replaces all rows, in the memory that there is. If \p fill throws, no rows are left.
  /// \param fill  appends the elements and the shapes of \p rows rows to the empty columns
  template <typename Fill>
  void refill(std::size_t rows, Fill&& fill) {
    truncate(0);
    fill(elements_, shapes_);
    rows_ = rows;
  }

  RowSlice slice(std::size_t from, std::size_t count) const;
  RowSlice slice(std::size_t from = 0) const { return slice(from, rows_ - from); }

  /// A table over some rows; see tableOf().
  std::shared_ptr<::arrow::Table> table(std::size_t from, std::size_t count) const {
    return tableOf(schema_, slice(from, count));
  }

  /// Removes the first \p rows rows, which were \p batches batches, and keeps memory for one more
  /// batch.
  void dropFront(std::size_t rows, std::size_t batches);
  /// Removes all but the first \p rows rows.
  void truncate(std::size_t rows);

 private:
  std::size_t rows_ = 0;
  ByteBuffer elements_;
  SampleSchema schema_;
  std::size_t width_ = 1;  // bytes of an element; 1 for blobs, whose elements are their bytes
  RowShapes shapes_;
};

/// Rows in memory. Valid while `keeper` lives; without one, until the object that returned them
/// changes.
struct HeldRows {
  RowSlice rows;
  std::shared_ptr<const RowStore> keeper;
};

}  // namespace kyr::parquet
