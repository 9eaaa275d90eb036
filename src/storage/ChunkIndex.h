#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <unordered_map>
#include <vector>

namespace kyr::parquet {

/// What the id queries answer when no id is known.
constexpr int kNoKnownId = std::numeric_limits<int>::min();

/// The storage ids of one directory: their reference counts and the content that each holds.
/// Pure bookkeeping; touches no file.
class ChunkIndex {
 public:
  bool empty() const noexcept { return counts_.empty(); }
  bool contains(int id) const { return counts_.count(id) > 0; }
  int largestId() const;
  std::vector<int> ids() const;

  /// Add ids found on disk, without a reference; then let the counter rise to the largest id.
  void addFound(const std::vector<int>& ids);

  /// The counter's id, with one reference; an id already known keeps its count.
  int allocate();

  /// \throws std::out_of_range naming an unknown id
  void checkout(int id);

  /// Subtract a reference of a known id. Returns whether it was the last one (or there was none).
  bool release(int id);

  /// Forget the id and its content. A counter that stands on it falls to the largest id left.
  void erase(int id);

  /// The id that holds content of this hash, with one reference more; empty when none does.
  std::optional<int> checkoutContent(std::uint64_t hash);
  void registerContent(std::uint64_t hash, int id);

 private:
  std::unordered_map<int, int> counts_;
  int nextId_ = 0;
  std::unordered_map<std::uint64_t, int> idOfHash_;
  std::unordered_map<int, std::uint64_t> hashOfId_;
};

}  // namespace kyr::parquet
