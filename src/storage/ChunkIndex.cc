#include "storage/ChunkIndex.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

namespace kyr::parquet {

int ChunkIndex::largestId() const {
  int largest = kNoKnownId;
  for (const auto& entry : counts_) largest = std::max(largest, entry.first);
  return largest;
}

std::vector<int> ChunkIndex::ids() const {
  std::vector<int> result;
  result.reserve(counts_.size());
  for (const auto& entry : counts_) result.push_back(entry.first);
  return result;
}

void ChunkIndex::addFound(const std::vector<int>& ids) {
  for (const int id : ids) counts_.emplace(id, 0);
  // The counter goes to the largest id itself, not past it: the next allocation returns that id
  // again, and its write goes to the existing file. Hosts that reopen directories rely on these
  // ids. Pinned by SerializerWorker.ReopenedDirectoryContinuesAtItsLargestId.
  if (!counts_.empty()) nextId_ = std::max(nextId_, largestId());
}

int ChunkIndex::allocate() {
  const int id = nextId_;
  nextId_ = id + 1;
  counts_.emplace(id, 1);
  return id;
}

void ChunkIndex::checkout(int id) {
  const auto found = counts_.find(id);
  if (found == counts_.end()) {
    throw std::out_of_range(fmt::format("storage id {} is not known", id));
  }
  ++found->second;
}

bool ChunkIndex::release(int id) { return counts_.at(id)-- <= 1; }

void ChunkIndex::erase(int id) {
  counts_.erase(id);
  if (nextId_ == id) nextId_ = largestId();
  // An id without registered content counts as one with hash 0.
  idOfHash_.erase(hashOfId_[id]);
  hashOfId_.erase(id);
}

std::optional<int> ChunkIndex::checkoutContent(std::uint64_t hash) {
  const auto found = idOfHash_.find(hash);
  if (found == idOfHash_.end()) return std::nullopt;
  ++counts_[found->second];
  return found->second;
}

void ChunkIndex::registerContent(std::uint64_t hash, int id) {
  idOfHash_[hash] = id;
  hashOfId_[id] = hash;
}

}  // namespace kyr::parquet
