#pragma once

#include <cstddef>
#include <functional>
#include <utility>

#include "schema/RowStore.h"

namespace kyr::parquet {

/// The rows of a signal part that are not on disk yet; they become a table, as
/// SignalFormatter::format makes it, when a batch is due.
class PartBuffer {
 public:
  /// \param width  bytes of an element of the data type
  PartBuffer(SampleSchema schema, std::size_t width)
      : width_(width), rows_(std::move(schema), width) {}

  const SampleSchema& schema() const { return rows_.schema(); }
  std::size_t rows() const { return rows_.rows(); }

  /// Append the rows of a measured chunk.
  void append(const SampleChunk& chunk) { rows_.append(chunk); }

  /// Hands the rows in tables of \p batchRows rows to \p write, in order, as long as there are that
  /// many; the rest stays. When \p write throws, all rows stay.
  void takeBatches(std::size_t batchRows, const std::function<void(const ::arrow::Table&)>& write);

  /// Hands the rows that are left, if any, to \p write in one table; none stay, and no memory.
  void takeAll(const std::function<void(const ::arrow::Table&)>& write);

 private:
  std::size_t width_;
  RowStore rows_;
};

}  // namespace kyr::parquet
