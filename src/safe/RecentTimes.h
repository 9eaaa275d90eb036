#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "files/ContentReader.h"
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
    if (find(file, state, times)) return true;
    if (!readFile()) return false;
    if (state.showsEveryChangeSince(now)) keep(file, state, times);
    return true;
  }
  /// The same for times that nobody changes.
  template <typename ReadFile>
  void read(const std::shared_ptr<ContentReader>& content, std::vector<double>& times,
            ReadFile&& readContent) {
    if (find(content, std::nullopt, times)) return;
    readContent();
    keep(content, std::nullopt, times);
  }

 private:
  // More of them are not worth the memory.
  static constexpr std::size_t kMost = std::size_t{1} << 20U;

  bool find(const std::shared_ptr<const void>& source, const std::optional<FileState>& state,
            std::vector<double>& times) const {
    if (source_.lock() != source || !(state_ == state)) return false;
    times = times_;
    return true;
  }
  void keep(const std::shared_ptr<const void>& source, const std::optional<FileState>& state,
            const std::vector<double>& times) {
    if (times.size() > kMost) return;
    source_ = source;
    state_ = state;
    times_ = times;
  }

  std::weak_ptr<const void> source_;
  std::optional<FileState> state_;  // of a file that others may change
  std::vector<double> times_;
};

}  // namespace kyr::parquet
