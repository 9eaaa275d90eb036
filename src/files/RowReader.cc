#include "files/RowReader.h"

#include <arrow/api.h>
#include <fmt/format.h>
#include <parquet/exception.h>

#include <algorithm>
#include <limits>
#include <numeric>
#include <stdexcept>
#include <utility>

#include "files/ArrowSource.h"
#include "files/LocalReading.h"
#include "kyr/parquet/ColumnNames.h"

namespace kyr::parquet {

namespace {

// Long files have more row groups than Parquet's readers accept by default.
::parquet::ReaderProperties unlimited() {
  ::parquet::ReaderProperties properties;
  properties.set_thrift_container_size_limit(std::numeric_limits<std::int32_t>::max());
  properties.set_thrift_string_size_limit(std::numeric_limits<std::int32_t>::max());
  return properties;
}

// Whether a column chunk is too long to be read at once: one page after the other is, then.
bool hasLongChunks(const ::parquet::FileMetaData& metadata) {
  constexpr std::int64_t kLong = std::int64_t{1} << 20;
  for (int i = 0; i < metadata.num_row_groups(); ++i) {
    const auto group = metadata.RowGroup(i);
    for (int column = 0; column < group->num_columns(); ++column) {
      if (group->ColumnChunk(column)->total_compressed_size() > kLong) return true;
    }
  }
  return false;
}

}  // namespace

std::shared_ptr<::parquet::FileMetaData> parseMetadata(std::string_view metadata) {
  auto size = static_cast<std::uint32_t>(metadata.size());
  return ::parquet::FileMetaData::Make(metadata.data(), &size, unlimited());
}

RowReader::RowReader(std::shared_ptr<const ByteSource> file)
    : file_(std::make_shared<ArrowSource>(std::move(file))) {}

RowReader::~RowReader() = default;
RowReader::RowReader(RowReader&&) noexcept = default;
RowReader& RowReader::operator=(RowReader&&) noexcept = default;

template <typename Work>
auto RowReader::naming(Work&& work) {
  try {
    return work();
  } catch (const ::parquet::ParquetException& error) {
    file_->rethrow();
    throw std::runtime_error(fmt::format("{}: {}", file_->file().path().string(), error.what()));
  }
}

void RowReader::requireRows(const BatchIndex& index, std::uint64_t first,
                            std::uint64_t count) const {
  if (first <= index.rows() && count <= index.rows() - first) return;
  throw std::out_of_range(fmt::format("{}: rows {} and the {} behind are asked for, there are {}",
                                      file_->file().path().string(), first, count, index.rows()));
}

RowReader::Batches RowReader::open(const BatchIndex& index, std::uint64_t first,
                                   std::uint64_t count) {
  constexpr std::size_t kAhead = 16;
  Batches needed;
  needed.first = count == 0 ? opened_.first : index.batchOfRow(first);
  if (count > 0) needed.count = index.batchOfRow(first + count - 1) + 1 - needed.first;
  const std::size_t openedEnd = opened_.first + opened_.count;
  if (metadata_ && needed.first >= opened_.first && needed.first + needed.count <= openedEnd) {
    return needed;
  }
  // Whoever reads batch after batch needs the next ones soon.
  const bool goesOn = metadata_ && needed.first >= opened_.first && needed.first <= openedEnd;
  Batches wanted = needed;
  if (goesOn) wanted.count = std::max(wanted.count, kAhead);
  wanted.count = std::min(wanted.count, index.batches() - wanted.first);
  auto metadata = parseMetadata(index.metadata(wanted.first, wanted.count));
  reader_.reset();
  decoder_.reset();
  column_ = FlatColumn::makeWherePlain(*metadata, file_->file().size(), columnNames::data);
  metadata_ = std::move(metadata);
  opened_ = wanted;
  return needed;
}

std::unique_ptr<::parquet::ParquetFileReader> RowReader::parquetReader() const {
  ::parquet::ReaderProperties properties = unlimited();
  if (hasLongChunks(*metadata_)) {
    constexpr std::int64_t kBufferBytes = std::int64_t{1} << 18;
    properties.enable_buffered_stream();
    properties.set_buffer_size(kBufferBytes);
  }
  return ::parquet::ParquetFileReader::Open(file_, properties, metadata_);
}

::parquet::arrow::FileReader& RowReader::arrowReader() {
  if (!reader_) {
    PARQUET_THROW_NOT_OK(::parquet::arrow::FileReader::Make(
        ::arrow::default_memory_pool(), parquetReader(), localReading(), &reader_));
  }
  return *reader_;
}

void RowReader::readNumbers(const BatchIndex& index, int leaf, std::size_t width,
                            std::uint64_t first, std::uint64_t count, char* out) {
  requireRows(index, first, count);
  naming([&] {
    const Batches batches = open(index, first, count);
    for (std::size_t batch = batches.first; count > 0; ++batch) {
      const std::uint64_t from = first - index.rowStart(batch);
      const std::uint64_t rows = std::min(count, index.rowStart(batch + 1) - first);
      const std::size_t group = batch - opened_.first;
      const bool isPlain = column_ && leaf == 0 && column_->width() == width &&
                           column_->readGroup(file_->file(), group, from, rows, out);
      if (!isPlain) {
        if (!decoder_) decoder_ = std::make_unique<ColumnDecoder>(parquetReader());
        decoder_->read(static_cast<int>(group), leaf, width, from, rows, out);
      }
      first += rows;
      count -= rows;
      out += rows * width;
    }
  });
}

std::shared_ptr<::arrow::Table> RowReader::readColumn(const BatchIndex& index, std::uint64_t first,
                                                      std::uint64_t count) {
  const std::size_t width = column_->width();
  PARQUET_ASSIGN_OR_THROW(std::shared_ptr<::arrow::Buffer> values,
                          ::arrow::AllocateBuffer(static_cast<std::int64_t>(count * width)));
  const auto schema = column_->schema();
  readNumbers(index, 0, width, first, count, reinterpret_cast<char*>(values->mutable_data()));
  return ::arrow::Table::Make(schema,
                              {::arrow::MakeArray(::arrow::ArrayData::Make(
                                  schema->field(0)->type(), static_cast<std::int64_t>(count),
                                  {nullptr, std::move(values)}, /*null_count=*/0))});
}

std::shared_ptr<::arrow::Table> RowReader::read(const BatchIndex& index, std::uint64_t first,
                                                std::uint64_t count,
                                                const std::optional<std::vector<int>>& columns) {
  requireRows(index, first, count);
  return naming([&] {
    const Batches batches = open(index, first, count);
    if (column_ && !columns && count > 0) return readColumn(index, first, count);
    auto& reader = arrowReader();
    std::vector<int> groups(batches.count);
    std::iota(groups.begin(), groups.end(), static_cast<int>(batches.first - opened_.first));
    std::shared_ptr<::arrow::Table> table;
    PARQUET_THROW_NOT_OK(columns ? reader.ReadRowGroups(groups, *columns, &table)
                                 : reader.ReadRowGroups(groups, &table));
    if (count == 0) return table;
    // A row group may claim more rows than its columns have values.
    const std::uint64_t rows =
        index.rowStart(batches.first + batches.count) - index.rowStart(batches.first);
    for (const auto& column : table->columns()) {
      if (static_cast<std::uint64_t>(column->length()) == rows) continue;
      throw ::parquet::ParquetException("a column has ", column->length(), " values, expected ",
                                        rows);
    }
    return table->Slice(static_cast<std::int64_t>(first - index.rowStart(batches.first)),
                        static_cast<std::int64_t>(count));
  });
}

}  // namespace kyr::parquet
