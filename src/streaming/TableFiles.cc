#include "streaming/TableFiles.h"

#include <arrow/api.h>
#include <arrow/io/file.h>
#include <parquet/exception.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <utility>

#include "files/ArrowReader.h"
#include "kyr/parquet/ColumnNames.h"

namespace kyr::parquet {

namespace {

// The first of the rows that readRows() returns, and their number. None where readRows() throws.
std::optional<std::pair<std::uint64_t, std::uint64_t>> locateRows(const RowIndex& index,
                                                                  const InputFile& file,
                                                                  std::uint64_t from,
                                                                  std::uint64_t to) {
  const std::uint64_t end = std::min(index.rows(), to);
  if (end < from || index.rowGroups() == 0) return std::pair<std::uint64_t, std::uint64_t>(0, 0);
  if (from == 0 && to == std::numeric_limits<std::uint64_t>::max()) return std::pair(from, end);
  const RowPosition first = locateRow(index, from);
  const RowPosition last = locateRow(index, to);
  if (last.rowGroup < first.rowGroup) return std::nullopt;
  const std::uint64_t start = file.rowStart(static_cast<std::size_t>(first.rowGroup));
  const std::uint64_t rows = file.rowStart(static_cast<std::size_t>(last.rowGroup) + 1) - start;
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
  if (!openNumbers()) metadata_ = tables().parquet_reader()->metadata();
}

bool TableReader::openNumbers() {
  try {
    auto file = std::make_shared<DiskFile>(path_.toFilesystem(), DiskFile::Mode::readOnly);
    auto input = std::make_unique<InputFile>(file);
    if (!input->holdsOnlyNumbers(nullptr)) return false;
    metadata_ = input->metadata();
    file_ = std::move(file);
    numbers_ = std::move(input);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

::parquet::arrow::FileReader& TableReader::tables() {
  if (!tables_) {
    const auto file = ::arrow::io::ReadableFile::Open(path_.toNarrow());
    throwIfFailed(file.status(), path_);
    auto reader = openArrowReader(*file);
    throwIfFailed(reader.status(), path_);
    tables_ = *std::move(reader);
  }
  return *tables_;
}

bool TableReader::readElements(const RowIndex& index, std::uint64_t from, std::uint64_t to,
                               std::vector<char>& out) {
  if (!numbers_) return false;
  const auto rows = locateRows(index, *numbers_, from, to);
  if (!rows) return false;
  try {
    const std::size_t width = numbers_->numberWidth(columnNames::data);
    readColumn(*numbers_, columnNames::data, width, rows->first, rows->second, out);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

void TableReader::suspend() {
  if (file_) file_->suspend();
  tables_.reset();
  isUsed_ = false;
}

}  // namespace kyr::parquet
