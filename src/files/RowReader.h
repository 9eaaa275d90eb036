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

#include "files/ColumnDecoder.h"
#include "files/FlatFileReader.h"
#include "files/growing/BatchIndex.h"
#include "platform/ByteSource.h"

namespace kyr::parquet {

/// Parses serialized metadata.
/// \throws ::parquet::ParquetException if they are none
std::shared_ptr<::parquet::FileMetaData> parseMetadata(std::string_view metadata);

/// A file as Arrow reads it. What goes wrong below Arrow is kept for rethrow().
class ArrowSource;

/// Reads rows of a file whose row groups an index knows. The metadata of the row groups that were
/// read last stay parsed for the next range, and columns of numbers are decoded from where the last
/// call ended. Rows are not kept.
class RowReader {
 public:
  explicit RowReader(std::shared_ptr<const ByteSource> file);
  ~RowReader();
  RowReader(RowReader&&) noexcept;
  RowReader& operator=(RowReader&&) noexcept;

  /// Rows [first, first + count), from the row groups that hold them and no others.
  /// \param index  of this file; may have grown since the last call, no more
  /// \param columns  the leaf columns to read; all if none are given
  /// \throws std::out_of_range if there are not that many rows
  /// \throws std::runtime_error naming the file if it cannot be read
  std::shared_ptr<::arrow::Table> read(const BatchIndex& index, std::uint64_t first,
                                       std::uint64_t count,
                                       const std::optional<std::vector<int>>& columns);

  /// Writes the numbers of rows [first, first + count) to \p out, without tables. Plain pages go
  /// there straight from the file, others are decoded there.
  /// \param leaf  column of numbers that is no list
  /// \param width  bytes of a number in memory
  /// \throws std::exception as read(); also if there are nulls
  void readNumbers(const BatchIndex& index, int leaf, std::size_t width, std::uint64_t first,
                   std::uint64_t count, char* out);

 private:
  struct Batches {
    std::size_t first = 0;
    std::size_t count = 0;
  };

  // Calls \p work, and makes what Parquet throws a std::runtime_error that names the file.
  template <typename Work>
  auto naming(Work&& work);
  void requireRows(const BatchIndex& index, std::uint64_t first, std::uint64_t count) const;
  // Parses the metadata of the batches that hold the rows, unless they are parsed.
  Batches open(const BatchIndex& index, std::uint64_t first, std::uint64_t count);
  std::unique_ptr<::parquet::ParquetFileReader> parquetReader() const;
  ::parquet::arrow::FileReader& arrowReader();
  std::shared_ptr<::arrow::Table> readColumn(const BatchIndex& index, std::uint64_t first,
                                             std::uint64_t count);

  std::shared_ptr<ArrowSource> file_;
  Batches opened_;  // whose metadata are parsed; they are the row groups of the readers below
  std::shared_ptr<::parquet::FileMetaData> metadata_;
  std::unique_ptr<FlatColumn> column_;  // if the file has but one
  std::unique_ptr<ColumnDecoder> decoder_;
  std::unique_ptr<::parquet::arrow::FileReader> reader_;
};

}  // namespace kyr::parquet
