#pragma once

#include <parquet/column_reader.h>
#include <parquet/file_reader.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

namespace kyr::parquet {

/// Decodes numbers with Parquet's column readers, whatever their encoding and codec, straight into
/// the caller's memory. A call that goes on where the last one ended decodes nothing twice.
///
/// Memory: a page, and a column chunk of up to a megabyte.
class ColumnDecoder {
 public:
  explicit ColumnDecoder(std::unique_ptr<::parquet::ParquetFileReader> file);

  /// Reads rows [first, first + count) of a row group.
  /// \param leaf  column of numbers that is no list
  /// \param width  bytes of a value in memory: less than in the file for small integers
  /// \throws ::parquet::ParquetException if there are fewer values, nulls among them, or the column
  ///         is of another kind
  void read(int group, int leaf, std::size_t width, std::uint64_t first, std::uint64_t count,
            char* out);

 private:
  // Where the last call ended in a column.
  struct Position {
    int group = -1;
    std::shared_ptr<::parquet::RowGroupReader> rows;
    std::shared_ptr<::parquet::ColumnReader> column;
    std::uint64_t row = 0;
  };

  void seek(Position& position, int group, int leaf, std::size_t width, std::uint64_t row);

  std::unique_ptr<::parquet::ParquetFileReader> file_;
  std::map<int, Position> positions_;  // by leaf
};

}  // namespace kyr::parquet
