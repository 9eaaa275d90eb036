#pragma once

#include <arrow/type_fwd.h>
#include <arrow/util/compression.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "files/FlatFileReader.h"
#include "files/RowReader.h"
#include "files/growing/BatchIndex.h"
#include "platform/DiskFile.h"

namespace kyr::parquet {

/// A complete Parquet file, whoever wrote it, that is open for reading. It stays readable when its
/// name is given to another file, or deleted.
///
/// A file that is no Parquet file is a std::runtime_error naming it.
class FinishedFile {
 public:
  /// \throws std::system_error naming the file if it cannot be opened
  explicit FinishedFile(const std::filesystem::path& path)
      : FinishedFile(std::make_shared<DiskFile>(path, DiskFile::Mode::readOnly)) {}
  explicit FinishedFile(std::shared_ptr<const DiskFile> file)
      : FinishedFile(std::move(file), nowByTheClock()) {}

  /// What the file was like when the object was made.
  const FileState& state() const { return state_; }
  FileState currentState() const { return file_->state(); }
  /// Whether a file of state \p now is this one, and was not changed since then. The answer is also
  /// no if a change would not show.
  bool isUnchanged(const FileState& now) const { return showsChanges_ && now == state_; }

  std::uint64_t rows() { return rowAccess().index.rows(); }
  ::arrow::Compression::type codec();
  /// As RowReader::read().
  std::shared_ptr<::arrow::Table> read(std::uint64_t first, std::uint64_t count);

  /// Replaces \p out by all values that are in the file now, if it is nothing but a flat column of
  /// \p type that can be read without tables.
  /// \return whether it is
  template <typename T>
  bool readNumbers(const ::arrow::DataType& type, std::vector<T>& out) const {
    return readFlatFile(*file_, &type, out);
  }

  /// Copies the file to a new one.
  /// \throws std::system_error naming the file; no copy is left behind then
  void copyTo(const std::filesystem::path& path, bool sync) const;

 private:
  struct RowAccess {
    BatchIndex index;
    RowReader reader;
  };

  FinishedFile(std::shared_ptr<const DiskFile> file, std::int64_t now);

  RowAccess& rowAccess();

  std::shared_ptr<const DiskFile> file_;
  FileState state_;
  bool showsChanges_;
  std::optional<RowAccess> rowAccess_;  // made when it is first needed
};

}  // namespace kyr::parquet
