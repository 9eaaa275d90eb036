#pragma once

#include <parquet/column_reader.h>
#include <parquet/file_reader.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "schema/ByteBuffer.h"

namespace kyr::parquet {

/// Decodes columns with Parquet's column readers, whatever their encoding and codec, straight into
/// the caller's memory.
///
/// Memory: a page, and a column chunk of up to a megabyte, until its last row was read.
class ColumnDecoder {
 public:
  explicit ColumnDecoder(std::unique_ptr<::parquet::ParquetFileReader> file);

  /// Reads rows [first, first + count) of a row group. A call that goes on where the last one ended
  /// decodes nothing twice.
  /// \param leaf  column of numbers that is no list
  /// \param width  bytes of a value in memory: less than in the file for small integers
  /// \throws ::parquet::ParquetException if there are fewer values, nulls among them, or the column
  ///         is of another kind
  void read(int group, int leaf, std::size_t width, std::uint64_t first, std::uint64_t count,
            char* out);

  /// Appends all rows of a row group, which are lists of numbers or blobs.
  /// \param leaf  the column of blobs, or of the items of the lists
  /// \param width  bytes of an item in memory; 1 for blobs, whose items are their bytes
  /// \param ends  receives where the items of each row end, counted on from the last end
  /// \throws ::parquet::ParquetException if there are not as many rows as the row group claims,
  ///         nulls, or the column is of another kind
  void readRows(int group, int leaf, std::size_t width, ByteBuffer& items,
                std::vector<std::uint64_t>& ends);

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
