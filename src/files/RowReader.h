#pragma once

#include <arrow/io/type_fwd.h>
#include <arrow/type_fwd.h>
#include <parquet/arrow/reader.h>
#include <parquet/metadata.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "files/FlatFileReader.h"
#include "files/growing/BatchIndex.h"
#include "platform/DiskFile.h"

namespace kyr::parquet {

/// Serialized metadata, parsed.
/// \throws ::parquet::ParquetException if they are none
std::shared_ptr<::parquet::FileMetaData> parseMetadata(std::string_view metadata);

/// A file as Arrow reads it.
std::shared_ptr<::arrow::io::RandomAccessFile> arrowFile(std::shared_ptr<const DiskFile> file);

/// Reads rows of a file whose row groups an index knows. The reader of the batches that were read
/// last is kept open for the next range that needs the same; their rows are not.
class RowReader {
 public:
  explicit RowReader(std::shared_ptr<const DiskFile> file);

  /// Rows [first, first + count), from the batches that hold them and no others.
  /// \param index  of this file; may have grown since the last call, no more
  /// \param columns  the leaf columns to read; all if none are given
  /// \throws std::out_of_range if there are not that many rows
  /// \throws std::runtime_error naming the file if it cannot be read
  std::shared_ptr<::arrow::Table> read(const BatchIndex& index, std::uint64_t first,
                                       std::uint64_t count,
                                       const std::optional<std::vector<int>>& columns);

 private:
  // Opens a reader of the given batches, which are its row groups: of the only column, where it can
  // be read without Arrow, and else Arrow's.
  void open(const BatchIndex& index, std::size_t first, std::size_t count);
  ::parquet::arrow::FileReader& arrowReader();
  // As read(), of the batches that are open; empty if it takes Arrow.
  std::shared_ptr<::arrow::Table> readColumn(std::uint64_t first, std::uint64_t count);

  std::shared_ptr<const DiskFile> file_;
  std::shared_ptr<::parquet::FileMetaData> metadata_;
  std::unique_ptr<FlatColumn> column_;
  std::unique_ptr<::parquet::arrow::FileReader> reader_;
  std::size_t firstBatch_ = 0;
  std::size_t batches_ = 0;
};

}  // namespace kyr::parquet
