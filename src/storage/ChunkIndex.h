#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <unordered_map>
#include <vector>

namespace kyr::parquet {

/// The answer of the id queries if no id is known.
constexpr int kNoKnownId = std::numeric_limits<int>::min();

/// The storage ids of one directory: their reference counts and the content that each holds.
/// It keeps books only and touches no file.
class ChunkIndex {
 public:
  bool empty() const noexcept { return counts_.empty(); }
  bool contains(int id) const { return counts_.count(id) > 0; }
  int largestId() const;
  std::vector<int> ids() const;

  /// Adds ids that were found on disk, without a reference, and raises the counter to the largest
  /// id.
  void addFound(const std::vector<int>& ids);

  /// Allocates the counter's id with one reference. An id that is known already keeps its count.
  int allocate();

  /// Adds a reference.
  /// \throws std::out_of_range naming an unknown id
  void checkout(int id);

  /// Subtracts a reference of a known id. Returns whether none is left.
  bool release(int id);

  /// Forgets the id and its content. If the counter has that id, it falls to the largest id left.
  void erase(int id);

  /// Adds a reference to the id with content of this hash and returns it; empty if there is none.
  std::optional<int> checkoutContent(std::uint64_t hash);
  void registerContent(std::uint64_t hash, int id);

 private:
  std::unordered_map<int, int> counts_;
  int nextId_ = 0;
  std::unordered_map<std::uint64_t, int> idOfHash_;
  std::unordered_map<int, std::uint64_t> hashOfId_;
};

}  // namespace kyr::parquet
