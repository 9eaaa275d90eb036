#include "safe/BatchDigests.h"

#include <algorithm>
#include <cstddef>

namespace kyr::parquet {

std::optional<XXH128_hash_t> BatchDigests::add(const RowSlice& batch) {
  const std::uint64_t begin = rows();
  batches_.push_back({begin, begin + batch.rows, digestOf(batch)});
  if (batch.ends) return std::nullopt;
  return batches_.back().digest;
}

void BatchDigests::keepHead(const SampleSchema& schema, std::size_t width, const RowSlice& rows) {
  if (head_) return;
  constexpr std::size_t kHeadRows = 64;
  constexpr std::size_t kHeadBytes = 16384;
  std::size_t count = std::min(rows.rows, kHeadRows);
  while (subSlice(rows, 0, count).bytes > kHeadBytes) count /= 2;
  head_.emplace(schema, width);
  head_->append(subSlice(rows, 0, count));
}

const BatchDigests::Batch* BatchDigests::batchOf(std::uint64_t row) const {
  const auto found =
      std::upper_bound(batches_.begin(), batches_.end(), row,
                       [](std::uint64_t at, const Batch& batch) { return at < batch.end; });
  return found == batches_.end() ? nullptr : &*found;
}

}  // namespace kyr::parquet
