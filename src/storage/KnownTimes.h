#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/DiskFile.h"

namespace kyr::parquet {

/// The times that were read last of a file, for the other signals that share it.
///
/// The file stays open, so that the system gives its number to no other file: whether its name
/// still stands for it is certain, also where others delete, replace or make files of that name. A
/// file that was changed so shortly before it was read that another change might leave it with the
/// same size and time is read each time.
class KnownTimes {
 public:
  /// Replaces \p values by the times in the file.
  /// \param readFile  does so, given the open file, and returns whether it did
  /// \throws std::system_error naming the file if it cannot be opened or read
  template <typename ReadFile>
  bool read(const std::filesystem::path& path, std::vector<double>& values, ReadFile&& readFile) {
    if (file_ && FileState::ofName(path) == state_) {
      values = values_;
      return true;
    }
    file_.reset();
    const std::int64_t now = nowByTheClock();
    auto file = std::make_shared<const DiskFile>(path, DiskFile::Mode::readOnly);
    const FileState state = file->state();
    if (!readFile(file)) return false;
    if (values.size() <= kMost && state.showsEveryChangeSince(now)) {
      values_ = values;
      state_ = state;
      file_ = std::move(file);
    }
    return true;
  }

  /// Closes the file of that name, which is about to be written or deleted.
  void forget(const std::string& path) {
    if (file_ && file_->path().native() == path) file_.reset();
  }

 private:
  // More of them are not worth the memory.
  static constexpr std::size_t kMost = std::size_t{1} << 20U;

  std::shared_ptr<const DiskFile> file_;
  std::optional<FileState> state_;  // of the file
  std::vector<double> values_;
};

}  // namespace kyr::parquet
