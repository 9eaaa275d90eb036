#pragma once

#include <cstdint>

#include "kyr/parquet/SignalTypes.h"

namespace kyr::tool {

/// The function for values of a type: `functions.number<T>()` with T as they lie in memory, or
/// `functions.boolean()`. All have the same signature. Null for types that are no numbers.
template <typename Functions>
auto functionFor(KYRSignalDataType type, const Functions& functions)
    -> decltype(functions.boolean()) {
  switch (type) {
    case Double:
      return functions.template number<double>();
    case Single:
      return functions.template number<float>();
    case Int8:
      return functions.template number<std::int8_t>();
    case UInt8:
      return functions.template number<std::uint8_t>();
    case Int16:
      return functions.template number<std::int16_t>();
    case UInt16:
      return functions.template number<std::uint16_t>();
    case Int32:
      return functions.template number<std::int32_t>();
    case UInt32:
    case UInt32Alt:
      return functions.template number<std::uint32_t>();
    case Int64:
      return functions.template number<std::int64_t>();
    case UInt64:
    case UInt64Alt:
      return functions.template number<std::uint64_t>();
    case Boolean:
      return functions.boolean();
    default:
      return nullptr;
  }
}

}  // namespace kyr::tool
