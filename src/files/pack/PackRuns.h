#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kyr::parquet {

/// The key of a batch's metadata under which the runs are.
constexpr const char* kPackRunsKey = "kyr.runs";

/// Rows of one content that follow each other in a pack.
struct PackRun {
  int storageId = 0;
  std::uint64_t first = 0;  ///< row of the content
  std::uint64_t count = 0;
};

/// Runs of the same rows of several contents, one content after the other.
struct PackRunGroup {
  std::uint64_t first = 0;
  std::uint64_t count = 0;
  /// First and last storage id of ids that follow each other, ascending.
  std::vector<std::pair<int, int>> ids;
};

/// The order in which a batch has its runs: contents that grow side by side, and so add the same
/// rows each time, follow each other by their ids.
inline bool comesBefore(const PackRun& a, const PackRun& b) {
  if (a.first != b.first) return a.first < b.first;
  return a.count != b.count ? a.count < b.count : a.storageId < b.storageId;
}

/// The runs of a batch as text: "<first>+<count> <id>-<id>,<id>;" for each group. Its length grows
/// with the number of groups, and not with that of contents, where contents grow side by side.
/// \param runs  in the order of comesBefore()
std::string writeRuns(const std::vector<PackRun>& runs);

/// \param rows  of the batch
/// \return nothing if the text is not that of a batch of so many rows
std::optional<std::vector<PackRunGroup>> readRuns(std::string_view text, std::uint64_t rows);

/// Where the rows of each content lie in a pack that grows, batch by batch. Its memory grows with
/// the number of groups of runs, and finding a content with the number of its own runs, and of
/// groups of very many contents.
class PackIndex {
 public:
  /// \param rows  of the batch, which are the sum of those of the groups
  void add(const std::vector<PackRunGroup>& groups, std::uint64_t rows);

  /// Rows of the pack.
  std::uint64_t rows() const { return rows_; }
  /// Calls \p visit(row, run) with each run of a content, in order, and the pack's row with which
  /// the run begins.
  template <typename Visit>
  void forEachRun(int storageId, Visit&& visit) const {
    const auto found = groupsOf_.find(storageId);
    const std::vector<std::uint32_t>& own = found == groupsOf_.end() ? none_ : found->second;
    for (auto large = large_.begin(), small = own.begin();
         large != large_.end() || small != own.end();) {
      const bool isLarge = small == own.end() || (large != large_.end() && *large < *small);
      visitRunIn(groups_[isLarge ? *large++ : *small++], storageId, visit);
    }
  }

 private:
  // Groups of more contents are not noted for each of them.
  static constexpr std::uint64_t kSmall = 256;

  struct Group {
    std::uint64_t row;
    std::uint64_t first;
    std::uint64_t count;
    std::size_t ids;  // where they begin in ids_
    std::size_t idCount;
  };

  template <typename Visit>
  void visitRunIn(const Group& group, int storageId, Visit& visit) const {
    std::uint64_t row = group.row;
    for (std::size_t i = group.ids; i < group.ids + group.idCount; ++i) {
      const auto& [from, to] = ids_[i];
      if (storageId >= from && storageId <= to) {
        row += static_cast<std::uint64_t>(storageId - from) * group.count;
        visit(row, PackRun{storageId, group.first, group.count});
        return;
      }
      row += (static_cast<std::uint64_t>(to - from) + 1) * group.count;
    }
  }

  std::vector<Group> groups_;
  std::vector<std::pair<int, int>> ids_;
  std::vector<std::uint32_t> large_;  // indices of groups
  std::unordered_map<int, std::vector<std::uint32_t>> groupsOf_;
  std::vector<std::uint32_t> none_;
  std::uint64_t rows_ = 0;
};

}  // namespace kyr::parquet
