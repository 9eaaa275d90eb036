#pragma once

#include <cstddef>
#include <functional>
#include <utility>

#include "schema/RowStore.h"

namespace kyr::parquet {

/// The rows of a signal part that are not on disk yet. When a batch is due, they become a table as
/// SignalFormatter::format makes it.
class PartBuffer {
 public:
  /// \param width  bytes of an element of the data type
  PartBuffer(SampleSchema schema, std::size_t width)
      : width_(width), rows_(std::move(schema), width) {}

  const SampleSchema& schema() const { return rows_.schema(); }
  std::size_t rows() const { return rows_.rows(); }

  /// Appends the rows of a measured chunk.
  void append(const SampleChunk& chunk) { rows_.append(chunk); }

  /// Hands all whole batches of \p batchRows rows to \p write, in order, each as a table, and removes
  /// them. If \p write throws, no rows are removed.
  void takeBatches(std::size_t batchRows, const std::function<void(const ::arrow::Table&)>& write);

  /// Hands the remaining rows, if there are any, to \p write as one table, and gives all memory back.
  void takeAll(const std::function<void(const ::arrow::Table&)>& write);

 private:
  std::size_t width_;
  RowStore rows_;
};

}  // namespace kyr::parquet
