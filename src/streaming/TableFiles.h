#pragma once

#include <arrow/type_fwd.h>
#include <parquet/arrow/reader.h>

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "files/InputFile.h"
#include "kyr/platform/Path.h"
#include "platform/DiskFile.h"
#include "streaming/RowGroups.h"

/// Reads the files of a StreamableWriter, without Arrow where that is possible.
namespace kyr::parquet {

/// Throws an Arrow failure on \p path as ::parquet::ParquetStatusException.
void throwIfFailed(const ::arrow::Status& status, const Path& path);

class TableReader {
 public:
  /// \throws ::parquet::ParquetStatusException naming the file if it cannot be read
  explicit TableReader(Path path);

  const std::shared_ptr<::parquet::FileMetaData>& metadata() const { return metadata_; }

  /// Arrow's reader. The first call, and the first one after suspend(), opens it.
  /// \throws ::parquet::ParquetStatusException naming the file
  ::parquet::arrow::FileReader& tables();

  /// Replaces \p out by the elements of the rows that readRows() returns, without making a table.
  /// \param index  made of metadata()
  /// \return whether the file allows that; if not, the content of \p out is undefined
  bool readElements(const RowIndex& index, std::uint64_t from, std::uint64_t to,
                    std::vector<char>& out);

  /// Returns whether this is the first use of the file, or the first one after suspend().
  bool noteUse() { return !std::exchange(isUsed_, true); }
  /// Gives the file's descriptors back until it is used next.
  void suspend();

 private:
  bool openNumbers();

  Path path_;
  std::shared_ptr<::parquet::FileMetaData> metadata_;
  std::shared_ptr<DiskFile> file_;      // of numbers_
  std::unique_ptr<InputFile> numbers_;  // if the only column can be read without Arrow
  std::unique_ptr<::parquet::arrow::FileReader> tables_;
  bool isUsed_ = false;
};

}  // namespace kyr::parquet
