#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
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
bool comesBefore(const PackRun& a, const PackRun& b);

/// The runs of a batch as text: "<first>+<count> <id>-<id>,<id>;" for each group. Its length grows
/// with the number of groups, and not with that of contents, where contents grow side by side.
/// \param runs  in the order of comesBefore()
std::string writeRuns(const std::vector<PackRun>& runs);

/// \param rows  of the batch
/// \return nothing if the text is not that of a batch of so many rows
std::optional<std::vector<PackRunGroup>> readRuns(std::string_view text, std::uint64_t rows);

/// Where the rows of each content lie in a pack that grows, batch by batch. Its memory grows with
/// the number of groups of runs.
class PackIndex {
 public:
  /// \param rows  of the batch, which are the sum of those of the groups
  void add(std::vector<PackRunGroup> groups, std::uint64_t rows);

  /// Rows of the pack.
  std::uint64_t rows() const { return rows_; }
  /// Calls \p visit(row, run) with each run of a content, in order, and the pack's row with which
  /// the run begins.
  template <typename Visit>
  void forEachRun(int storageId, Visit&& visit) const {
    for (const Placed& placed : groups_) {
      std::uint64_t row = placed.row;
      for (const auto& [from, to] : placed.group.ids) {
        if (storageId >= from && storageId <= to) {
          row += static_cast<std::uint64_t>(storageId - from) * placed.group.count;
          visit(row, PackRun{storageId, placed.group.first, placed.group.count});
          break;
        }
        row += (static_cast<std::uint64_t>(to - from) + 1) * placed.group.count;
      }
    }
  }

 private:
  struct Placed {
    std::uint64_t row;
    PackRunGroup group;
  };

  std::vector<Placed> groups_;
  std::uint64_t rows_ = 0;
};

}  // namespace kyr::parquet
