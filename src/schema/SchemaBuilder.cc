#include "kyr/parquet/SchemaBuilder.h"

#include <arrow/type.h>
#include <fmt/format.h>

#include <stdexcept>
#include <utility>

#include "kyr/parquet/ColumnNames.h"
#include "schema/ElementTypes.h"

namespace kyr::parquet {

namespace columnNames {
const std::string time = "time";
const std::string data = "data";
const std::string dimension = "dimension";
}  // namespace columnNames

const std::string innerItemName = "item";

namespace schemaBuilder {

namespace {

using FieldPtr = std::shared_ptr<::arrow::Field>;
using SchemaPtr = std::shared_ptr<::arrow::Schema>;

// Defined behind the names that they use, so that they are initialised after them.
const FieldPtr timeField = ::arrow::field(columnNames::time, ::arrow::float64());
const FieldPtr dimensionField =
    ::arrow::field(columnNames::dimension, createNestedListType(1, ::arrow::uint64()));

FieldPtr typedField(const std::string& name, KYRSignalDataType type) {
  auto arrowType = elementArrowType(type);
  return arrowType ? ::arrow::field(name, std::move(arrowType)) : nullptr;
}

// A list of T or, for Binary, one blob per row.
FieldPtr dimensionedField(const std::string& name, KYRSignalDataType type) {
  const auto item = typedField(innerItemName, type);
  if (type == Binary || !item) return typedField(name, type);
  return ::arrow::field(name, ::arrow::list(item));
}

// Empty without a data field, because Arrow dereferences every field of a schema.
SchemaPtr makeSchema(bool omitTime, FieldPtr dataField, bool withDimension) {
  if (!dataField) return nullptr;
  std::vector<FieldPtr> fields;
  if (!omitTime) fields.push_back(timeField);
  fields.push_back(std::move(dataField));
  if (withDimension) fields.push_back(dimensionField);
  return ::arrow::schema(std::move(fields));
}

}  // namespace

SchemaPtr getSchema(KYRSignalCategory category, KYRSignalDataType type, bool includeTime,
                    const std::string& name) {
  switch (category) {
    case Scalar:
      return getScalarSchema(name, type, !includeTime);
    case FixedDim:
      return getFixedDimSchema(name, type, !includeTime);
    case VarDim:
      return getVarDimSchema(name, type, !includeTime);
    case Bus:
      return getBusSchema(name, !includeTime);
    case VarDimBus:
      return getVarDimBusSchema(name, !includeTime);
  }
  return nullptr;
}

SchemaPtr getScalarSchema(const std::string& name, KYRSignalDataType type, bool omitTime) {
  return makeSchema(omitTime, typedField(name, type), false);
}

SchemaPtr getFixedDimSchema(const std::string& name, KYRSignalDataType type, bool omitTime) {
  return makeSchema(omitTime, dimensionedField(name, type), false);
}

SchemaPtr getVarDimSchema(const std::string& name, KYRSignalDataType type, bool omitTime) {
  return makeSchema(omitTime, dimensionedField(name, type), true);
}

SchemaPtr getBusSchema(const std::string& name, bool omitTime) {
  return makeSchema(omitTime, typedField(name, Binary), false);
}

SchemaPtr getVarDimBusSchema(const std::string& name, bool omitTime) {
  return makeSchema(omitTime, typedField(name, Binary), true);
}

SchemaPtr getStringSchema(const std::string& name) {
  return ::arrow::schema({::arrow::field(name, ::arrow::utf8())});
}

SchemaPtr getSchemaWithDimensionsPreserved(KYRSignalDataType type, const std::string& name,
                                           int dimensionCount) {
  auto elementType = elementArrowType(type);
  if (!elementType) return nullptr;
  const int levels = dimensionCount < 2 ? 1 : dimensionCount;
  return ::arrow::schema(
      {::arrow::field(name, createNestedListType(levels, std::move(elementType)))});
}

std::shared_ptr<::arrow::DataType> createNestedListType(int levels,
                                                        std::shared_ptr<::arrow::DataType> type) {
  for (; levels >= 1; --levels) {
    type = ::arrow::list(::arrow::field(innerItemName, std::move(type)));
  }
  return type;
}

SchemaPtr getCustomSchema(
    std::vector<std::tuple<KYRSignalCategory, KYRSignalDataType, bool, std::string>> columns) {
  std::vector<FieldPtr> fields;
  for (const auto& [category, type, includeTime, name] : columns) {
    const SchemaPtr schema = getSchema(category, type, includeTime, name);
    if (!schema) {
      throw std::invalid_argument(
          fmt::format("column \"{}\" has an unknown category {} or data type {}", name,
                      static_cast<int>(category), static_cast<int>(type)));
    }
    fields.insert(fields.end(), schema->fields().begin(), schema->fields().end());
  }
  return ::arrow::schema(std::move(fields));
}

}  // namespace schemaBuilder
}  // namespace kyr::parquet
