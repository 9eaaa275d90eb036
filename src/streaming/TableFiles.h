#pragma once

#include <arrow/type_fwd.h>
#include <parquet/arrow/reader.h>

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "files/FlatFileReader.h"
#include "kyr/platform/Path.h"
#include "platform/DiskFile.h"
#include "streaming/RowGroups.h"

/// The files of a StreamableWriter: by Arrow, or without it where that is possible.
namespace kyr::parquet {

/// An Arrow failure on \p path as the exception that carries it.
void throwIfFailed(const ::arrow::Status& status, const Path& path);

class TableReader {
 public:
  /// \throws ::parquet::ParquetStatusException naming the file if it cannot be read
  explicit TableReader(Path path);

  const std::shared_ptr<::parquet::FileMetaData>& metadata() const { return metadata_; }

  /// Arrow's reader, opened if it is not.
  /// \throws ::parquet::ParquetStatusException as the constructor
  ::parquet::arrow::FileReader& tables();

  /// Replaces \p out by the elements of the rows that readRows() gives, without a table, where the
  /// file allows that. Returns whether it does; otherwise \p out is as it may be.
  /// \param index  of the metadata
  bool readElements(const RowIndex& index, std::uint64_t from, std::uint64_t to,
                    std::vector<char>& out);

  /// Returns whether the file is used for the first time, or since suspend().
  bool noteUse() { return !std::exchange(isUsed_, true); }
  /// Gives the descriptors back until the file is used next.
  void suspend();

 private:
  bool openColumn();

  Path path_;
  std::shared_ptr<::parquet::FileMetaData> metadata_;
  std::unique_ptr<DiskFile> file_;      // with the column
  std::unique_ptr<FlatColumn> column_;  // if the file has but one that can be read without Arrow
  std::unique_ptr<::parquet::arrow::FileReader> tables_;
  bool isUsed_ = false;
};

}  // namespace kyr::parquet
