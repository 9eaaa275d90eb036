#include "files/FileFormat.h"

#include <arrow/type.h>
#include <parquet/arrow/schema.h>

#include <algorithm>

#include "files/BatchSize.h"
#include "files/PhysicalTypes.h"

namespace kyr::parquet {

namespace {

bool isPlain(const ::parquet::ColumnProperties& column) {
  return !column.dictionary_enabled() && !column.statistics_enabled() &&
         !column.page_index_enabled() &&
         column.compression() == ::parquet::Compression::UNCOMPRESSED &&
         (column.encoding() == ::parquet::Encoding::PLAIN ||
          column.encoding() == ::parquet::Encoding::UNKNOWN);
}

// Null if NumberFile does not write such columns with such properties.
std::shared_ptr<::parquet::SchemaDescriptor> numberColumns(
    const ::arrow::Schema& schema, const ::parquet::WriterProperties& properties) {
  if (properties.data_page_version() != ::parquet::ParquetDataPageVersion::V2 ||
      properties.page_checksum_enabled() || properties.file_encryption_properties()) {
    return nullptr;
  }
  std::shared_ptr<::parquet::SchemaDescriptor> columns;
  if (!::parquet::arrow::ToParquetSchema(&schema, properties, &columns).ok()) return nullptr;
  if (columns->num_columns() != schema.num_fields() || schema.num_fields() == 0) return nullptr;
  for (int i = 0; i < schema.num_fields(); ++i) {
    const auto* column = columns->Column(i);
    if (!isFlatColumn(*schema.field(i)->type(), *column) ||
        !isPlain(properties.column_properties(column->path()))) {
      return nullptr;
    }
  }
  return columns;
}

}  // namespace

FileFormat::FileFormat(std::shared_ptr<const ::arrow::Schema> schema,
                       std::shared_ptr<::parquet::WriterProperties> properties)
    : schema_(std::move(schema)),
      properties_(std::move(properties)),
      check_(checkBatchSize(*properties_)),
      numberColumns_(parquet::numberColumns(*schema_, *properties_)) {}

std::shared_ptr<const FileFormat> FileFormats::of(
    const std::shared_ptr<const ::arrow::Schema>& schema, const Codec& codec) {
  constexpr std::size_t kKept = 8;
  const auto found = std::find_if(known_.begin(), known_.end(), [&](const auto& each) {
    const auto& known = each.second->schema();
    return each.first == codec &&
           (known == schema || known->Equals(*schema, /*check_metadata=*/true));
  });
  if (found != known_.end()) return found->second;
  auto properties =
      codec ? options_.buildWriterProperties(*codec) : options_.buildWriterProperties();
  if (known_.size() == kKept) known_.erase(known_.begin());
  known_.emplace_back(codec, std::make_shared<FileFormat>(schema, std::move(properties)));
  return known_.back().second;
}

}  // namespace kyr::parquet
