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

/// The sizes of a file's row groups, summed as the walk of locateRow() does.
class RowIndex {
 public:
  /// One pass over the row groups. Not explicit: metadata is all that it takes to find rows.
  RowIndex(const ::parquet::FileMetaData& metadata);  // NOLINT(google-explicit-constructor)

  int rowGroups() const { return static_cast<int>(sums_.size()); }
  std::uint64_t rows() const { return rows_; }
  const std::vector<std::uint64_t>& sums() const { return sums_; }

 private:
  std::uint64_t rows_;
  std::vector<std::uint64_t> sums_;
};

/// Where row \p row is, by the walk that StreamableWriter describes: the sizes of the row groups
/// are summed one step late. Takes few steps.
RowPosition locateRow(const RowIndex& index, std::uint64_t row);

/// The row groups that were read last, for the next range of rows that needs the same.
struct KeptRowGroups {
  int first = -1;
  int last = -1;
  std::shared_ptr<::arrow::Table> rows;
};

/// The given row groups and columns as one table; all of them where none are given.
/// \throws std::range_error for a row group that the file does not have
std::shared_ptr<::arrow::Table> readRowGroups(::parquet::arrow::FileReader& reader,
                                              const std::optional<std::vector<int>>& rowGroups,
                                              const std::optional<std::vector<int>>& columns);

/// Rows [from, to) of the file; empty pointer when \p from lies beyond the end.
/// \param kept  of the same file; row groups that are in it already are not read again
std::shared_ptr<::arrow::Table> readRows(::parquet::arrow::FileReader& reader,
                                         const RowIndex& index, std::uint64_t from,
                                         std::uint64_t to, KeptRowGroups* kept = nullptr);

}  // namespace kyr::parquet
