#include "files/InputFile.h"

#include <arrow/api.h>
#include <fmt/format.h>
#include <parquet/arrow/schema.h>
#include <parquet/exception.h>
#include <parquet/statistics.h>

#include <algorithm>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "files/CheckedFile.h"
#include "files/ParquetTail.h"
#include "platform/DiskFile.h"
#include "schema/ArrayMemory.h"
#include "schema/ElementTypes.h"

namespace kyr::parquet {

namespace {

GrowingRecords completeFile(const ByteSource& file) {
  const auto metadata = readSerializedMetadata(file);
  if (!metadata) {
    throw std::runtime_error(file.path().string() + ": is no complete Parquet file");
  }
  try {
    GrowingRecords records{BatchIndex(*metadata)};
    records.isPublished = true;
    return records;
  } catch (const ::parquet::ParquetException& error) {
    throw std::runtime_error(fmt::format("{}: cannot be read as a Parquet file: {}",
                                         file.path().string(), error.what()));
  }
}

// The range of a row group of one float64 column, if it is marked as ascending.
std::optional<NumberRange> ascendingRange(const ::parquet::RowGroupMetaData& group) {
  const auto sorting = group.sorting_columns();
  if (sorting.empty() || sorting[0].column_idx != 0 || sorting[0].descending) return std::nullopt;
  const auto chunk = group.ColumnChunk(0);
  if (chunk->type() != ::parquet::Type::DOUBLE || !chunk->is_stats_set()) return std::nullopt;
  const auto statistics =
      std::dynamic_pointer_cast<::parquet::DoubleStatistics>(chunk->statistics());
  if (!statistics || !statistics->HasMinMax()) return std::nullopt;
  const NumberRange range{statistics->min(), statistics->max()};
  if (!(range.min <= range.max)) return std::nullopt;
  return range;
}

}  // namespace

InputFile::InputFile(std::shared_ptr<const ByteSource> file)
    : file_(std::move(file)), records_(completeFile(*file_)), reader_(file_) {}

InputFile::InputFile(std::shared_ptr<const ByteSource> file, GrowingRecords records,
                     BatchChecks checks)
    : file_(std::move(file)), records_(std::move(records)), reader_(file_) {
  if (checks == BatchChecks::yes) checked_.emplace(rowGroups(), false);
}

void InputFile::fail(const std::string& what) const {
  throw std::runtime_error(fmt::format("{}: {}", path().string(), what));
}

const std::shared_ptr<::arrow::Schema>& InputFile::schema() const {
  if (!schema_) readSchema();
  return schema_;
}

void InputFile::readSchema() const {
  std::shared_ptr<::arrow::Schema> found;
  try {
    const auto metadata = parseMetadata(records_.index.metadata(0, 0));
    const auto& columns = *metadata->schema();
    PARQUET_THROW_NOT_OK(::parquet::arrow::FromParquetSchema(
        &columns, ::parquet::ArrowReaderProperties(), metadata->key_value_metadata(), &found));
    leaves_.assign(static_cast<std::size_t>(found->num_fields()), Leaves());
    for (int leaf = columns.num_columns() - 1; leaf >= 0; --leaf) {
      const int field = columns.group_node()->FieldIndex(*columns.GetColumnRoot(leaf));
      Leaves& leaves = leaves_.at(static_cast<std::size_t>(field));
      leaves.first = leaf;
      ++leaves.count;
    }
  } catch (const ::parquet::ParquetException& error) {
    fail(error.what());
  } catch (const std::out_of_range&) {
    fail("its columns make no sense");
  }
  ::arrow::FieldVector fields;
  for (const auto& field : found->fields()) {
    if (isNumber(*field->type())) leaves_[fields.size()].width = valueWidth(*field->type());
    fields.push_back(::arrow::field(field->name(), field->type()));
  }
  schema_ = ::arrow::schema(std::move(fields));
}

bool InputFile::hasColumn(const std::string& name) const {
  return schema()->GetFieldIndex(name) >= 0;
}

const InputFile::Leaves& InputFile::leavesOf(const std::string& column) const {
  const int field = schema()->GetFieldIndex(column);
  if (field < 0) fail(fmt::format("has no column \"{}\"", column));
  return leaves_[static_cast<std::size_t>(field)];
}

::arrow::Compression::type InputFile::codec(const std::string& column) const {
  if (rowGroups() == 0 || !hasColumn(column)) return ::arrow::Compression::UNCOMPRESSED;
  try {
    const auto metadata = parseMetadata(records_.index.metadata(0, 1));
    return metadata->RowGroup(0)->ColumnChunk(leavesOf(column).first)->compression();
  } catch (const ::parquet::ParquetException& error) {
    fail(error.what());
  }
}

std::shared_ptr<const ::arrow::KeyValueMetadata> InputFile::keyValueMetadata() const {
  try {
    return parseMetadata(records_.index.metadata(0, 0))->key_value_metadata();
  } catch (const ::parquet::ParquetException& error) {
    fail(error.what());
  }
}

std::vector<std::optional<NumberRange>> InputFile::ascendingGroups(std::size_t first) const {
  std::vector<std::optional<NumberRange>> ranges(rowGroups() - first);
  try {
    const auto metadata = parseMetadata(records_.index.metadata(first, ranges.size()));
    if (metadata->num_columns() != 1) return ranges;
    int group = 0;
    for (auto& range : ranges) range = ascendingRange(*metadata->RowGroup(group++));
  } catch (const ::parquet::ParquetException& error) {
    fail(error.what());
  }
  return ranges;
}

std::shared_ptr<::arrow::Table> InputFile::read(std::uint64_t first, std::uint64_t count,
                                                const std::vector<std::string>& columns) {
  checkBatches(first, count);
  if (columns.empty()) return reader_.read(records_.index, first, count, std::nullopt);
  std::vector<int> leaves;
  for (const std::string& column : columns) {
    const Leaves& of = leavesOf(column);
    for (int leaf = of.first; leaf < of.first + of.count; ++leaf) leaves.push_back(leaf);
  }
  return reader_.read(records_.index, first, count, leaves);
}

void InputFile::readNumbers(const std::string& column, std::uint64_t first, std::uint64_t count,
                            char* out) {
  const Leaves& leaves = leavesOf(column);
  if (leaves.width == 0) fail(fmt::format("its column \"{}\" does not hold numbers", column));
  checkBatches(first, count);
  reader_.readNumbers(records_.index, leaves.first, leaves.width, first, count, out);
}

RowSpan InputFile::rowsIn(std::uint64_t from, std::uint64_t to) const {
  RowSpan span{rows(), 0};
  try {
    const auto metadata = parseMetadata(records_.index.metadata());
    for (std::size_t group = 0; group < rowGroups(); ++group) {
      const ByteSpan bytes = bytesOf(*metadata->RowGroup(static_cast<int>(group)));
      if (bytes.from >= to || bytes.to <= from) continue;
      span.from = std::min(span.from, rowStart(group));
      span.to = rowStart(group + 1);
    }
  } catch (const ::parquet::ParquetException&) {
    return {0, rows()};
  }
  return span.from < span.to ? span : RowSpan{0, rows()};
}

void InputFile::grow(std::uint64_t rows) {
  if (records_.count == 0) return;  // no growing file
  RecordLimits limits;
  limits.end = file_->size();
  limits.wantedRows = rows;
  limits.checks = false;
  readOn(records_, *file_, limits);
  if (checked_) checked_->resize(rowGroups(), false);
}

std::uint64_t InputFile::soundRows() {
  if (!checked_) return rows();
  for (std::size_t batch = 0; batch < rowGroups(); ++batch) {
    try {
      checkBatch(batch);
    } catch (const std::system_error&) {
      throw;
    } catch (const std::runtime_error&) {
      return rowStart(batch);
    }
  }
  return rows();
}

void InputFile::checkBatches(std::uint64_t first, std::uint64_t count) {
  if (!checked_ || count == 0 || first >= rows()) return;
  const std::size_t last = groupOfRow(std::min(first + count, rows()) - 1);
  for (std::size_t batch = groupOfRow(first); batch <= last; ++batch) {
    if (!(*checked_)[batch]) checkBatch(batch);
  }
}

void InputFile::checkBatch(std::size_t batch) {
  ByteSpan bytes;
  bool fits = false;
  try {
    bytes = bytesOf(*parseMetadata(records_.index.metadata(batch, 1))->RowGroup(0));
    bytes.from -= std::min<std::uint64_t>(bytes.from, kBatchHeaderBytes);
    const auto record = readRecord(*file_, RecordKind::batch, bytes.from, file_->size());
    fits = record && record->header.fileId == records_.fileId &&
           record->header.index == batch + 1 &&
           record->header.rows == rowStart(batch + 1) - rowStart(batch) &&
           BatchIndex(record->metadata).groupBytes(0) == records_.index.groupBytes(batch);
  } catch (const ::parquet::ParquetException& error) {
    fail(error.what());
  }
  if (!fits) {
    throw DamagedBytes(path(), bytes.from, bytes.to,
                       fmt::format("the checksum of batch {} does not fit them", batch));
  }
  (*checked_)[batch] = true;
}

bool isGrowingFile(const ByteSource& file) {
  RecordLimits limits;
  limits.end = file.size();
  limits.wantedRows = 0;
  return recordsFromStart(file, limits).has_value();
}

namespace {

std::optional<GrowingRecords> growingRecords(const ByteSource& file, std::uint64_t rows,
                                             bool checks) {
  // A file that is being written may get another end between two looks at it.
  constexpr int kAttempts = 4;
  RecordLimits limits;
  for (int attempt = 0; attempt < kAttempts && file.size() != limits.end; ++attempt) {
    limits.end = file.size();
    if (auto records = recordsFromFooter(file, limits.end)) return records;
  }
  // Batch records never change, so that those that are whole can be relied on.
  limits.end = file.size();
  limits.wantedRows = rows;
  limits.checks = checks;
  return recordsFromStart(file, limits);
}

std::shared_ptr<InputFile> opened(std::shared_ptr<const ByteSource> file,
                                  std::optional<GrowingRecords> records, BatchChecks checks) {
  if (!records) throw std::runtime_error(file->path().string() + ": no growing file");
  return std::make_shared<InputFile>(std::move(file), *std::move(records), checks);
}

}  // namespace

std::shared_ptr<InputFile> openGrowingFile(std::shared_ptr<const ByteSource> file,
                                           std::uint64_t rows, BatchChecks checks) {
  auto records = growingRecords(*file, rows, /*checks=*/false);
  return opened(std::move(file), std::move(records), checks);
}

std::shared_ptr<InputFile> openGrowingFile(const std::filesystem::path& path) {
  auto file = std::make_shared<const DiskFile>(path, DiskFile::Mode::readOnly);
  auto records = growingRecords(*file, RecordLimits::kAll, /*checks=*/true);
  return opened(std::move(file), std::move(records), BatchChecks::no);
}

std::shared_ptr<InputFile> openAnyFile(std::shared_ptr<const ByteSource> file, std::uint64_t rows,
                                       BatchChecks checks) {
  auto records = growingRecords(*file, rows, /*checks=*/false);
  if (!records) return std::make_shared<InputFile>(std::move(file));
  return opened(std::move(file), std::move(records), checks);
}

}  // namespace kyr::parquet
