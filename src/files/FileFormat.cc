#include "files/FileFormat.h"

#include <arrow/type.h>
#include <parquet/arrow/schema.h>

#include <utility>

#include "files/BatchSize.h"
#include "files/ColumnPages.h"
#include "files/PhysicalTypes.h"
#include "schema/ElementTypes.h"

namespace kyr::parquet {

namespace {

bool isPlain(const ::parquet::ColumnProperties& column) {
  return !column.dictionary_enabled() && !column.statistics_enabled() &&
         !column.page_index_enabled() &&
         column.compression() == ::parquet::Compression::UNCOMPRESSED &&
         (column.encoding() == ::parquet::Encoding::PLAIN ||
          column.encoding() == ::parquet::Encoding::UNKNOWN);
}

bool isNumberList(const ::arrow::DataType& type) {
  return type.id() == ::arrow::Type::LIST && isNumber(*type.field(0)->type());
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
    const auto numbers = numberTypeOf(*column);
    const bool fits = numbers ? numbers->Equals(*schema.field(i)->type())
                              : isListOfNumbers(*column) && isNumberList(*schema.field(i)->type());
    if (!fits || !isPlain(properties.column_properties(column->path()))) {
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

}  // namespace kyr::parquet
