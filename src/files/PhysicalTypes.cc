#include "files/PhysicalTypes.h"

#include "schema/ElementTypes.h"

namespace kyr::parquet {

std::size_t physicalWidth(::parquet::Type::type type) {
  const bool isNumeric = type == ::parquet::Type::INT32 || type == ::parquet::Type::INT64 ||
                         type == ::parquet::Type::FLOAT || type == ::parquet::Type::DOUBLE;
  return isNumeric ? static_cast<std::size_t>(::parquet::GetTypeByteSize(type)) : 0;
}

bool isFlatColumn(const ::arrow::DataType& type, const ::parquet::ColumnDescriptor& column) {
  if (column.max_repetition_level() > 0 || column.max_definition_level() > 1) return false;
  return isNumber(type) && visitNumber(type.id(), [&](auto number) {
           using Value = typename decltype(number)::Value;
           return column.physical_type() == PhysicalType<Value>::type_num;
         });
}

}  // namespace kyr::parquet
