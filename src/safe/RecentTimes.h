#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "safe/FinishedFile.h"

namespace kyr::parquet {

/// The times that were read last, for the other signals that have the same ones.
///
/// They belong to the open file that they were read from, as long as nobody changes it, and are
/// forgotten when it is closed.
class RecentTimes {
 public:
  /// Replaces \p times by all times in the file.
  /// \param readFile  does so where they are not known, and returns whether it did
  template <typename ReadFile>
  bool read(const std::shared_ptr<FinishedFile>& file, std::vector<double>& times,
            ReadFile&& readFile) {
    const std::int64_t now = nowByTheClock();
    const FileState state = file->currentState();
    if (file_.lock() == file && state_ == state) {
      times = times_;
      return true;
    }
    if (!readFile()) return false;
    if (times.size() <= kMost && state.showsEveryChangeSince(now)) {
      file_ = file;
      state_ = state;
      times_ = times;
    }
    return true;
  }

 private:
  // More of them are not worth the memory.
  static constexpr std::size_t kMost = std::size_t{1} << 20U;

  std::weak_ptr<FinishedFile> file_;
  std::optional<FileState> state_;  // of the file
  std::vector<double> times_;
};

}  // namespace kyr::parquet
