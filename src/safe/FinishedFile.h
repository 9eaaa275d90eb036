#pragma once

#include <arrow/type_fwd.h>
#include <arrow/util/compression.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "files/InputFile.h"
#include "platform/DiskFile.h"

namespace kyr::parquet {

/// A complete Parquet file of a pool's directory that is open for reading. It stays readable when
/// its name is given to another file, or deleted.
///
/// Failures are those of InputFile.
class FinishedFile {
 public:
  /// \throws std::system_error naming the file if it cannot be opened
  explicit FinishedFile(const std::filesystem::path& path)
      : FinishedFile(std::make_shared<DiskFile>(path, DiskFile::Mode::readOnly), nowByTheClock()) {}

  /// What the file was like when the object was made.
  const FileState& state() const { return state_; }
  FileState currentState() const { return file_->state(); }
  /// Whether a file of state \p now is this one, and was not changed since then. The answer is also
  /// no if a change would not show.
  bool isUnchanged(const FileState& now) const { return showsChanges_ && now == state_; }

  /// The rows that the file had when they were first asked for.
  InputFile& rows() {
    if (!rows_) rows_.emplace(file_);
    return *rows_;
  }

  /// Replaces \p out by all values that are in the file now, if it is nothing but a flat column of
  /// \p type that can be read without tables.
  /// \return whether it is
  template <typename T>
  bool readNumbers(const ::arrow::DataType& type, std::vector<T>& out) const {
    return readOnlyColumn(file_, &type, out);
  }
  /// The same for a column of lists of \p type.
  /// \param sizes  receives the numbers in each list
  bool readLists(const ::arrow::DataType& type, std::vector<char>& out,
                 std::vector<int>& sizes) const {
    std::vector<std::uint64_t> ends;
    if (!readOnlyLists(file_, type, out, ends)) return false;
    sizes.clear();
    sizes.reserve(ends.size());
    std::uint64_t begin = 0;
    for (const std::uint64_t end : ends) {
      sizes.push_back(static_cast<int>(end - std::exchange(begin, end)));
    }
    return true;
  }

 private:
  FinishedFile(std::shared_ptr<const DiskFile> file, std::int64_t now)
      : file_(std::move(file)),
        state_(file_->state()),
        showsChanges_(state_.showsEveryChangeSince(now)) {}

  std::shared_ptr<const DiskFile> file_;
  FileState state_;
  bool showsChanges_;
  std::optional<InputFile> rows_;
};

}  // namespace kyr::parquet
