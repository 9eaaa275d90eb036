#include "files/NumberFile.h"

#include <arrow/api.h>
#include <arrow/io/interfaces.h>
#include <parquet/exception.h>
#include <parquet/file_writer.h>
#include <parquet/statistics.h>

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "files/ParquetTail.h"
#include "schema/ArrayMemory.h"

namespace kyr::parquet {

namespace {

struct Range {
  double least;
  double greatest;
};

bool ascend(const double* values, std::int64_t count) {
  // Without a way out of the inner loop the compiler compares several values at once.
  constexpr std::int64_t kBlock = 1024;
  for (std::int64_t at = 0; at + 1 < count; at += kBlock) {
    const std::int64_t end = std::min(at + kBlock, count - 1);
    bool isOk = true;
    for (std::int64_t i = at; i < end; ++i) isOk &= values[i] <= values[i + 1];
    if (!isOk) return false;
  }
  return true;
}

// None if the values do not ascend. Every comparison with a NaN is false.
std::optional<Range> ascendingRange(const ::arrow::ChunkedArray& column) {
  if (column.type()->id() != ::arrow::Type::DOUBLE || column.null_count() > 0) return std::nullopt;
  std::optional<Range> range;
  for (const auto& array : column.chunks()) {
    if (array->length() == 0) continue;
    const auto* values = reinterpret_cast<const double*>(firstValue(*array));
    const double last = values[array->length() - 1];
    const bool follows = range ? range->greatest <= values[0] : values[0] == values[0];
    if (!follows || !ascend(values, array->length())) return std::nullopt;
    range = {range ? range->least : values[0], last};
  }
  return range;
}

std::string plain(double value) { return {reinterpret_cast<const char*>(&value), sizeof(value)}; }

// A zero may have either sign among the values, and both must lie in the range.
::parquet::EncodedStatistics statisticsOf(const Range& range) {
  ::parquet::EncodedStatistics statistics;
  statistics.set_is_signed(true);
  statistics.set_null_count(0);
  statistics.set_min(plain(range.least == 0 ? -0.0 : range.least));
  statistics.set_max(plain(range.greatest == 0 ? 0.0 : range.greatest));
  return statistics;
}

// The properties that metadata are made with, for row groups that are sorted by their only column.
std::shared_ptr<::parquet::WriterProperties> sorted(const ::parquet::WriterProperties& properties,
                                                    const ::parquet::ColumnDescriptor& column) {
  ::parquet::WriterProperties::Builder builder(properties);
  // The builder takes over nothing that is set for single columns.
  builder.compression(column.path(), properties.compression(column.path()));
  builder.set_sorting_columns({{/*column_idx=*/0, /*descending=*/false, /*nulls_first=*/false}});
  return builder.build();
}

}  // namespace

NumberFile::NumberFile(std::shared_ptr<::arrow::io::OutputStream> sink,
                       const ::parquet::SchemaDescriptor& columns,
                       std::shared_ptr<::parquet::WriterProperties> properties,
                       const Options& options,
                       std::shared_ptr<const ::arrow::KeyValueMetadata> keyValues)
    : sink_(std::move(sink)),
      columns_(columns),
      properties_(std::move(properties)),
      options_(options),
      keyValues_(std::move(keyValues)) {
  PARQUET_THROW_NOT_OK(sink_->Write(kParquetMagic.data(), kParquetMagic.size()));
}

NumberFile::~NumberFile() = default;

// Parquet's builder gives all its row groups the same sorting columns.
void NumberFile::begin(bool isAscending) {
  if (builder_ && isAscending == isAscending_) return;
  end();
  isAscending_ = isAscending;
  builder_ = ::parquet::FileMetaDataBuilder::Make(
      &columns_, isAscending ? sorted(*properties_, *columns_.Column(0)) : properties_);
}

void NumberFile::end() {
  if (!builder_) return;
  auto part = builder_->Finish(metadata_ ? nullptr : keyValues_);
  builder_.reset();
  if (metadata_) {
    metadata_->AppendRowGroups(*part);
  } else {
    metadata_ = std::move(part);
  }
}

void NumberFile::writeRowGroup(const std::vector<std::shared_ptr<::arrow::ChunkedArray>>& values,
                               const std::vector<ColumnEncoding>& encodings) {
  const auto range = options_.marksAscending && values.size() == 1 ? ascendingRange(*values.front())
                                                                   : std::nullopt;
  begin(range.has_value());
  ::parquet::RowGroupMetaDataBuilder& group = *builder_->AppendRowGroup();
  std::int64_t bytes = 0;
  for (std::size_t i = 0; i < values.size(); ++i) {
    const ColumnEncoding encoding = encodings.empty() ? ColumnEncoding() : encodings[i];
    ::parquet::ColumnChunkMetaDataBuilder& chunk = *group.NextColumnChunk();
    if (range) chunk.SetStatistics(statisticsOf(*range));
    ChunkPages pages(*sink_, chunk, encoding.codec);
    writeColumnChunk(pages, *values[i], *columns_.Column(static_cast<int>(i)), options_.pages,
                     encoding.encoding);
    bytes += pages.finish();
  }
  group.set_num_rows(values.front()->length());
  group.Finish(bytes, rowGroups_++);
}

void NumberFile::finish() {
  if (!builder_ && !metadata_) begin(false);
  end();
  ::parquet::WriteFileMetaData(*metadata_, sink_.get());
}

}  // namespace kyr::parquet
