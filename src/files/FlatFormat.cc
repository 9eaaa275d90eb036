#include "files/FlatFormat.h"

#include <arrow/type.h>
#include <parquet/arrow/schema.h>

#include <utility>

#include "schema/ArrayMemory.h"

namespace kyr::parquet {

namespace {

bool isPlain(const ::parquet::ColumnProperties& column) {
  return !column.dictionary_enabled() && !column.statistics_enabled() &&
         !column.page_index_enabled() &&
         column.compression() == ::parquet::Compression::UNCOMPRESSED &&
         (column.encoding() == ::parquet::Encoding::PLAIN ||
          column.encoding() == ::parquet::Encoding::UNKNOWN);
}

}  // namespace

std::size_t physicalWidth(::parquet::Type::type type) {
  switch (type) {
    case ::parquet::Type::INT32:
    case ::parquet::Type::FLOAT:
      return 4;
    case ::parquet::Type::INT64:
    case ::parquet::Type::DOUBLE:
      return 8;
    default:
      return 0;
  }
}

bool isFlatColumn(const ::arrow::DataType& type, const ::parquet::ColumnDescriptor& column) {
  if (column.max_repetition_level() > 0 || column.max_definition_level() > 1) return false;
  const ::parquet::Type::type physical = column.physical_type();
  switch (type.id()) {
    case ::arrow::Type::INT8:
    case ::arrow::Type::UINT8:
    case ::arrow::Type::INT16:
    case ::arrow::Type::UINT16:
      return physical == ::parquet::Type::INT32;
    case ::arrow::Type::INT32:
    case ::arrow::Type::UINT32:
    case ::arrow::Type::INT64:
    case ::arrow::Type::UINT64:
    case ::arrow::Type::FLOAT:
    case ::arrow::Type::DOUBLE:
      return physicalWidth(physical) == valueWidth(type);
    default:
      return false;
  }
}

std::shared_ptr<const FlatFormat> FlatFormat::make(
    std::shared_ptr<const ::arrow::Schema> schema,
    std::shared_ptr<::parquet::WriterProperties> properties) {
  if (properties->data_page_version() != ::parquet::ParquetDataPageVersion::V2 ||
      properties->page_checksum_enabled() || properties->file_encryption_properties()) {
    return nullptr;
  }
  std::shared_ptr<FlatFormat> format(new FlatFormat);
  if (!::parquet::arrow::ToParquetSchema(schema.get(), *properties, &format->descriptor_).ok()) {
    return nullptr;
  }
  const ::parquet::SchemaDescriptor& descriptor = *format->descriptor_;
  if (descriptor.num_columns() != schema->num_fields() || schema->num_fields() == 0) return nullptr;
  for (int i = 0; i < schema->num_fields(); ++i) {
    const auto* column = descriptor.Column(i);
    if (!isFlatColumn(*schema->field(i)->type(), *column) ||
        !isPlain(properties->column_properties(column->path()))) {
      return nullptr;
    }
  }
  format->schema_ = std::move(schema);
  format->properties_ = std::move(properties);
  return format;
}

const FlatFormats::Entry& FlatFormats::of(const std::shared_ptr<const ::arrow::Schema>& schema,
                                          const std::optional<::arrow::Compression::type>& codec) {
  constexpr std::size_t kKept = 8;
  for (const Entry& entry : entries_) {
    if (entry.codec == codec &&
        (entry.schema == schema || entry.schema->Equals(*schema, /*check_metadata=*/true))) {
      return entry;
    }
  }
  auto properties =
      codec ? options_.buildWriterProperties(*codec) : options_.buildWriterProperties();
  auto format = FlatFormat::make(schema, properties);
  if (entries_.size() == kKept) entries_.erase(entries_.begin());
  entries_.push_back({schema, codec, std::move(properties), std::move(format)});
  return entries_.back();
}

}  // namespace kyr::parquet
