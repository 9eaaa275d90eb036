#include "streaming/TableFiles.h"

#include <arrow/api.h>
#include <arrow/io/file.h>
#include <parquet/exception.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <system_error>
#include <utility>

#include "files/LocalReading.h"
#include "kyr/parquet/ColumnNames.h"

namespace kyr::parquet {

namespace {

// The first of the rows that readRows() returns, and their number. None where readRows() throws.
std::optional<std::pair<std::uint64_t, std::uint64_t>> locateRows(const RowIndex& index,
                                                                  const FlatColumn& column,
                                                                  std::uint64_t from,
                                                                  std::uint64_t to) {
  const std::uint64_t end = std::min(index.rows(), to);
  if (end < from || index.rowGroups() == 0) return std::pair<std::uint64_t, std::uint64_t>(0, 0);
  if (from == 0 && to == std::numeric_limits<std::uint64_t>::max()) return std::pair(from, end);
  const RowPosition first = locateRow(index, from);
  const RowPosition last = locateRow(index, to);
  if (last.rowGroup < first.rowGroup) return std::nullopt;
  const std::uint64_t start = column.rowStart(static_cast<std::size_t>(first.rowGroup));
  const std::uint64_t rows = column.rowStart(static_cast<std::size_t>(last.rowGroup) + 1) - start;
  if (first.offset > rows) return std::nullopt;  // can be huge behind an empty row group
  return std::pair(start + first.offset, std::min(end - from, rows - first.offset));
}

}  // namespace

void throwIfFailed(const ::arrow::Status& status, const Path& path) {
  if (!status.ok()) {
    throw ::parquet::ParquetStatusException(
        status.WithMessage(path.toNarrow(), ": ", status.message()));
  }
}

TableReader::TableReader(Path path) : path_(std::move(path)) {
  // Arrow opens all other files, or throws an error that says what is wrong with them.
  if (!openColumn()) metadata_ = tables().parquet_reader()->metadata();
}

bool TableReader::openColumn() {
  try {
    auto file = std::make_unique<DiskFile>(path_.toFilesystem(), DiskFile::Mode::readOnly);
    metadata_ = readMetadata(*file);
    if (!metadata_) return false;
    column_ = FlatColumn::make(*metadata_, file->size(), columnNames::data, nullptr);
    if (column_) file_ = std::move(file);
    return column_ != nullptr;
  } catch (const std::system_error&) {
    return false;
  }
}

::parquet::arrow::FileReader& TableReader::tables() {
  if (tables_) return *tables_;
  auto file = ::arrow::io::ReadableFile::Open(path_.toNarrow());
  throwIfFailed(file.status(), path_);
  ::parquet::arrow::FileReaderBuilder builder;
  throwIfFailed(builder.Open(*file), path_);
  throwIfFailed(builder.memory_pool(::arrow::default_memory_pool())
                    ->properties(localReading())
                    ->Build(&tables_),
                path_);
  return *tables_;
}

bool TableReader::readElements(const RowIndex& index, std::uint64_t from, std::uint64_t to,
                               std::vector<char>& out) {
  if (!column_) return false;
  const auto rows = locateRows(index, *column_, from, to);
  try {
    return rows && parquet::readRows(*column_, *file_, rows->first, rows->second, out);
  } catch (const std::system_error&) {
    return false;
  }
}

void TableReader::suspend() {
  if (file_) file_->suspend();
  tables_.reset();
  isUsed_ = false;
}

}  // namespace kyr::parquet
