#include "streaming/RowGroups.h"

#include <arrow/api.h>
#include <fmt/format.h>
#include <parquet/exception.h>

#include <algorithm>
#include <limits>
#include <numeric>
#include <stdexcept>

namespace kyr::parquet {

namespace {

std::uint64_t rowsOf(const ::parquet::FileMetaData& metadata, int rowGroup) {
  return static_cast<std::uint64_t>(metadata.RowGroup(rowGroup)->num_rows());
}

std::vector<int> consecutive(int first, int last) {
  std::vector<int> numbers(static_cast<std::size_t>(last - first + 1));
  std::iota(numbers.begin(), numbers.end(), first);
  return numbers;
}

std::shared_ptr<::arrow::Table> emptyTable(::parquet::arrow::FileReader& reader) {
  std::shared_ptr<::arrow::Schema> schema;
  PARQUET_THROW_NOT_OK(reader.GetSchema(&schema));
  PARQUET_ASSIGN_OR_THROW(auto table, ::arrow::Table::MakeEmpty(schema));
  return table;
}

}  // namespace

// The walk counts row group 0 twice and takes every later size one step late. Viewers address rows
// of streamed files, whose groups all have the batch's length, and there it is exact; windows that
// viewers stored for other files depend on what it gives there. Pinned by
// RowGroups.WalkTakesEverySizeOneStepLate.
RowPosition locateRow(const ::parquet::FileMetaData& metadata, std::uint64_t row) {
  const int groups = metadata.num_row_groups();
  const auto rows = static_cast<std::uint64_t>(metadata.num_rows());
  if (metadata.num_rows() < static_cast<std::int32_t>(row)) return {groups - 1, rows};
  if (groups < 1) return {0, 0};
  std::uint64_t sum = 0;
  std::uint64_t added = 0;
  for (int i = 0; i < groups; ++i) {
    added = rowsOf(metadata, std::max(i - 1, 0));
    sum += added;
    if (sum > row) return {i, row - (sum - added)};
  }
  return {groups - 1, added - 1};
}

std::shared_ptr<::arrow::Table> readRowGroups(::parquet::arrow::FileReader& reader,
                                              const std::optional<std::vector<int>>& rowGroups,
                                              const std::optional<std::vector<int>>& columns) {
  const int count = reader.num_row_groups();
  const bool someGroups = rowGroups && !rowGroups->empty();
  if (someGroups && std::any_of(rowGroups->begin(), rowGroups->end(),
                                [count](int group) { return group < 0 || group >= count; })) {
    throw std::range_error("Requested row group exceeds number of row groups");
  }
  const std::vector<int> groups =
      someGroups ? *rowGroups : (count > 0 ? consecutive(0, count - 1) : std::vector<int>{});
  std::unique_ptr<::arrow::RecordBatchReader> batches;
  PARQUET_THROW_NOT_OK(columns ? reader.GetRecordBatchReader(groups, *columns, &batches)
                               : reader.GetRecordBatchReader(groups, &batches));
  PARQUET_ASSIGN_OR_THROW(auto table, batches->ToTable());
  return table;
}

std::shared_ptr<::arrow::Table> readRows(::parquet::arrow::FileReader& reader,
                                         const ::parquet::FileMetaData& metadata,
                                         std::uint64_t from, std::uint64_t to) {
  const std::uint64_t rows = static_cast<std::uint64_t>(metadata.num_rows());
  const std::uint64_t end = std::min(rows, to);
  if (end < from) return nullptr;
  const std::uint64_t count = end - from;
  if (from == 0 && to == std::numeric_limits<std::uint64_t>::max()) {
    return readRowGroups(reader, std::nullopt, std::nullopt);
  }
  if (metadata.num_row_groups() == 0) return emptyTable(reader);
  const RowPosition first = locateRow(metadata, from);
  const RowPosition last = locateRow(metadata, to);
  const auto table =
      readRowGroups(reader, consecutive(first.rowGroup, last.rowGroup), std::nullopt);
  if (first.offset > static_cast<std::uint64_t>(table->num_rows())) {
    if (count == 0) return table->Slice(0, 0);
    throw std::range_error(fmt::format(
        "rows {} to {} cannot be found: the file's row groups are of unequal length", from, end));
  }
  return table->Slice(static_cast<std::int64_t>(first.offset), static_cast<std::int64_t>(count));
}

}  // namespace kyr::parquet
