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

// Row groups \p first to \p last. They are taken from \p kept if it holds them, else they are kept
// there.
std::shared_ptr<::arrow::Table> readOrKeep(::parquet::arrow::FileReader& reader, int first,
                                           int last, KeptRowGroups* kept) {
  if (kept && kept->rows && kept->first == first && kept->last == last) return kept->rows;
  auto rows = readRowGroups(reader, consecutive(first, last), std::nullopt);
  if (kept) *kept = {first, last, rows};
  return rows;
}

}  // namespace

// The walk counts row group 0 twice and takes every later size one step late. It is exact for
// streamed files, whose row groups all have the length of a batch. Viewers have stored windows of
// other files by the rows that the walk finds in them. Pinned by
// RowGroups.WalkTakesEverySizeOneStepLate.
RowIndex::RowIndex(const ::parquet::FileMetaData& metadata)
    : rows_(static_cast<std::uint64_t>(metadata.num_rows())) {
  const int groups = metadata.num_row_groups();
  sums_.reserve(static_cast<std::size_t>(groups));
  std::uint64_t sum = 0;
  std::uint64_t added = 0;
  for (int i = 0; i < groups; ++i) {
    if (i != 1)
      added = static_cast<std::uint64_t>(metadata.RowGroup(std::max(i - 1, 0))->num_rows());
    sum += added;
    sums_.push_back(sum);
  }
}

RowPosition locateRow(const RowIndex& index, std::uint64_t row) {
  const std::vector<std::uint64_t>& sums = index.sums();
  if (static_cast<std::int64_t>(index.rows()) < static_cast<std::int32_t>(row)) {
    return {index.rowGroups() - 1, index.rows()};
  }
  if (sums.empty()) return {0, 0};
  const auto found = std::upper_bound(sums.begin(), sums.end(), row);
  const bool beyond = found == sums.end();
  const auto group = (beyond ? sums.end() - 1 : found) - sums.begin();
  const std::uint64_t before = group == 0 ? 0 : sums[static_cast<std::size_t>(group) - 1];
  return {static_cast<int>(group), beyond ? sums.back() - before - 1 : row - before};
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
                                         const RowIndex& index, std::uint64_t from,
                                         std::uint64_t to, KeptRowGroups* kept) {
  const std::uint64_t end = std::min(index.rows(), to);
  if (end < from) return nullptr;
  const std::uint64_t count = end - from;
  if (from == 0 && to == std::numeric_limits<std::uint64_t>::max()) {
    return readRowGroups(reader, std::nullopt, std::nullopt);
  }
  if (index.rowGroups() == 0) return emptyTable(reader);
  const RowPosition first = locateRow(index, from);
  const RowPosition last = locateRow(index, to);
  const auto table = readOrKeep(reader, first.rowGroup, last.rowGroup, kept);
  if (first.offset > static_cast<std::uint64_t>(table->num_rows())) {
    if (count == 0) return table->Slice(0, 0);
    throw std::range_error(fmt::format(
        "rows {} to {} cannot be found: the file's row groups are of unequal length", from, end));
  }
  return table->Slice(static_cast<std::int64_t>(first.offset), static_cast<std::int64_t>(count));
}

}  // namespace kyr::parquet
