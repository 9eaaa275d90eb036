#include "schema/ElementTypes.h"

#include <fmt/format.h>

#include <stdexcept>

namespace kyr::parquet {

bool isNumber(::arrow::Type::type id) {
  return ::arrow::is_integer(id) || id == ::arrow::Type::FLOAT || id == ::arrow::Type::DOUBLE;
}

void failNoNumber(::arrow::Type::type id) {
  throw std::invalid_argument(
      fmt::format("values of Arrow's type {} are no numbers", static_cast<int>(id)));
}

::arrow::Type::type elementTypeId(KYRSignalDataType type) {
  switch (type) {
    case Double:
      return ::arrow::Type::DOUBLE;
    case Single:
      return ::arrow::Type::FLOAT;
    case Int8:
    case Boolean:
    case Null:
      return ::arrow::Type::INT8;
    case UInt8:
      return ::arrow::Type::UINT8;
    case Int16:
      return ::arrow::Type::INT16;
    case UInt16:
      return ::arrow::Type::UINT16;
    case Int32:
      return ::arrow::Type::INT32;
    case UInt32:
    case UInt32Alt:
      return ::arrow::Type::UINT32;
    case Int64:
      return ::arrow::Type::INT64;
    case UInt64:
    case UInt64Alt:
      return ::arrow::Type::UINT64;
    case ByteString:
    case Binary:
      return ::arrow::Type::BINARY;
  }
  return ::arrow::Type::NA;
}

std::shared_ptr<::arrow::DataType> elementArrowType(KYRSignalDataType type) {
  const ::arrow::Type::type id = elementTypeId(type);
  if (id == ::arrow::Type::BINARY) return ::arrow::binary();
  if (id == ::arrow::Type::NA) return nullptr;
  return visitNumber(id,
                     [](auto number) { return arrowTypeOf<typename decltype(number)::type>(); });
}

std::optional<KYRSignalDataType> signalTypeOf(::arrow::Type::type id) {
  if (id == ::arrow::Type::BINARY) return Binary;
  if (!isNumber(id)) return std::nullopt;
  return visitNumber(id, [](auto number) { return number.signalType; });
}

std::size_t elementWidth(KYRSignalDataType type) {
  if (type == Null) throw std::runtime_error("Null data type encountered.");
  const ::arrow::Type::type id = elementTypeId(type);
  if (id == ::arrow::Type::NA) throw std::runtime_error("Unknown data type encountered.");
  if (id == ::arrow::Type::BINARY) return 1;
  return visitNumber(id, [](auto number) { return sizeof(typename decltype(number)::type); });
}

}  // namespace kyr::parquet
