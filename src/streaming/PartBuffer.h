#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "kyr/parquet/SignalFormatter.h"
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

/// The rows of a signal part that are not on disk yet, in the plain memory of their columns, so
/// that a row costs an append to a few vectors; they become a table, as SignalFormatter::format
/// makes it, when a batch is due.
class PartBuffer {
 public:
  /// \param width  bytes of an element of the data type
  PartBuffer(SampleSchema schema, std::size_t width);

  const SampleSchema& schema() const { return schema_; }
  std::size_t rows() const { return rows_; }

  /// Check a chunk against \p schema, without keeping it.
  /// \param width  bytes of an element
  /// \throws std::invalid_argument if it does not make rows of the schema
  static SampleChunk measure(const SampleSchema& schema, const void* data, std::size_t size,
                             std::size_t width,
                             const std::vector<std::vector<std::uint64_t>>& dimensions,
                             const std::vector<int>& sizes);

  /// Append the rows of a measured chunk.
  void append(const SampleChunk& chunk);

  /// Hands the rows in tables of \p batchRows rows to \p write, in order, as long as there are that
  /// many; the rest stays. When \p write throws, all rows stay.
  void takeBatches(std::size_t batchRows, const std::function<void(const ::arrow::Table&)>& write);

  /// Hands the rows that are left, if any, to \p write in one table; none stay.
  void takeAll(const std::function<void(const ::arrow::Table&)>& write);

 private:
  std::shared_ptr<::arrow::Table> table(std::size_t from, std::size_t count) const;
  // Drops the first rows and keeps memory for one more of the \p batches batches that they were.
  void drop(std::size_t rows, std::size_t batches);

  SampleSchema schema_;
  std::size_t width_ = 1;  // bytes of an element; 1 for blobs, whose elements are their bytes
  std::size_t rows_ = 0;
  std::vector<char> elements_;
  // Where each row ends, counted from the first row in the buffer: its elements (list and blob
  // columns) and its extents (dimension column).
  std::vector<std::uint64_t> rowEnds_;
  std::vector<std::uint64_t> extents_;
  std::vector<std::uint64_t> extentEnds_;
};

}  // namespace kyr::parquet
