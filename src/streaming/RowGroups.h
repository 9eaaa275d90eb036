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
  /// Costs one pass over the row groups. Not explicit, so that locateRow() takes metadata as well.
  RowIndex(const ::parquet::FileMetaData& metadata);  // NOLINT(google-explicit-constructor)

  int rowGroups() const { return static_cast<int>(sums_.size()); }
  std::uint64_t rows() const { return rows_; }
  const std::vector<std::uint64_t>& sums() const { return sums_; }

 private:
  std::uint64_t rows_;
  std::vector<std::uint64_t> sums_;
};

/// The position of row \p row by the walk that StreamableWriter describes: the sizes of the row
/// groups are summed one step late. Takes O(log n) steps for n row groups.
RowPosition locateRow(const RowIndex& index, std::uint64_t row);

/// The row groups that were read last. The next range of rows may need the same ones.
struct KeptRowGroups {
  int first = -1;
  int last = -1;
  std::shared_ptr<::arrow::Table> rows;
};

/// The given row groups and columns as one table; all row groups or all columns if none are given.
/// \throws std::range_error for a row group that the file does not have
std::shared_ptr<::arrow::Table> readRowGroups(::parquet::arrow::FileReader& reader,
                                              const std::optional<std::vector<int>>& rowGroups,
                                              const std::optional<std::vector<int>>& columns);

/// Rows [from, to) of the file; an empty pointer if \p from lies beyond the end.
/// \param kept  row groups of the same file; those that it holds already are not read again
std::shared_ptr<::arrow::Table> readRows(::parquet::arrow::FileReader& reader,
                                         const RowIndex& index, std::uint64_t from,
                                         std::uint64_t to, KeptRowGroups* kept = nullptr);

}  // namespace kyr::parquet
