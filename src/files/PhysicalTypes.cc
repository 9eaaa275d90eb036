#include "files/PhysicalTypes.h"

#include <arrow/type.h>

namespace kyr::parquet {

std::size_t physicalWidth(::parquet::Type::type type) {
  const bool isNumeric = type == ::parquet::Type::INT32 || type == ::parquet::Type::INT64 ||
                         type == ::parquet::Type::FLOAT || type == ::parquet::Type::DOUBLE;
  return isNumeric ? static_cast<std::size_t>(::parquet::GetTypeByteSize(type)) : 0;
}

std::shared_ptr<::arrow::DataType> numberTypeOf(const ::parquet::ColumnDescriptor& column) {
  const ::parquet::Type::type stored = column.physical_type();
  const auto& logical = column.logical_type();
  if (column.max_repetition_level() > 0 || column.max_definition_level() > 1 || !logical ||
      physicalWidth(stored) == 0) {
    return nullptr;
  }
  if (logical->is_int()) {
    const auto& integer = static_cast<const ::parquet::IntLogicalType&>(*logical);
    switch (integer.bit_width()) {
      case 8:
        return integer.is_signed() ? ::arrow::int8() : ::arrow::uint8();
      case 16:
        return integer.is_signed() ? ::arrow::int16() : ::arrow::uint16();
      case 32:
        return integer.is_signed() ? ::arrow::int32() : ::arrow::uint32();
      default:
        return integer.is_signed() ? ::arrow::int64() : ::arrow::uint64();
    }
  }
  if (!logical->is_none()) return nullptr;
  switch (stored) {
    case ::parquet::Type::INT32:
      return ::arrow::int32();
    case ::parquet::Type::INT64:
      return ::arrow::int64();
    case ::parquet::Type::FLOAT:
      return ::arrow::float32();
    default:
      return ::arrow::float64();
  }
}

}  // namespace kyr::parquet
