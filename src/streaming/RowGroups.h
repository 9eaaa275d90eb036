#pragma once

#include <parquet/arrow/reader.h>
#include <parquet/metadata.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

/// Rows of a Parquet file by row group.
namespace kyr::parquet {

struct RowPosition {
  int rowGroup = 0;
  std::uint64_t offset = 0;  ///< rows into the row group
};

/// Where row \p row is, by the walk that StreamableWriter describes: the sizes of the row groups
/// are summed one step late.
RowPosition locateRow(const ::parquet::FileMetaData& metadata, std::uint64_t row);

/// The given row groups and columns as one table; all of them where none are given.
/// \throws std::range_error for a row group that the file does not have
std::shared_ptr<::arrow::Table> readRowGroups(::parquet::arrow::FileReader& reader,
                                              const std::optional<std::vector<int>>& rowGroups,
                                              const std::optional<std::vector<int>>& columns);

/// Rows [from, to) of the file; empty pointer when \p from lies beyond the end.
std::shared_ptr<::arrow::Table> readRows(::parquet::arrow::FileReader& reader,
                                         const ::parquet::FileMetaData& metadata,
                                         std::uint64_t from, std::uint64_t to);

}  // namespace kyr::parquet
