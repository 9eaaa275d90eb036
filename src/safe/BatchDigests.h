#pragma once

#include <xxhash.h>

#include <cstdint>
#include <optional>
#include <vector>

#include "schema/RowStore.h"

namespace kyr::parquet {

/// What stays in memory of rows that went to disk, so that other rows are compared with them
/// without reading: a digest of each batch, and the first few rows.
class BatchDigests {
 public:
  struct Batch {
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
    XXH128_hash_t digest{};
  };

  /// Adds the batch that follows.
  /// \return the digest of its elements, if it has no other values
  std::optional<XXH128_hash_t> add(const RowSlice& batch);
  /// Keeps copies of the first few rows, if there are none yet: most contents that begin alike
  /// differ soon.
  /// \param rows  from row 0 on
  void keepHead(const SampleSchema& schema, std::size_t width, const RowSlice& rows);

  /// Rows of all batches.
  std::uint64_t rows() const { return batches_.empty() ? 0 : batches_.back().end; }
  /// The batch that holds the row; null if it is not known.
  const Batch* batchOf(std::uint64_t row) const;
  /// The first few rows; null if they are not known.
  const RowStore* head() const { return head_ ? &*head_ : nullptr; }

 private:
  std::vector<Batch> batches_;
  std::optional<RowStore> head_;
};

}  // namespace kyr::parquet
