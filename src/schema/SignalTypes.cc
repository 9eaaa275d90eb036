#include "kyr/parquet/SignalTypes.h"

#include <stdexcept>

namespace kyr::parquet {

std::size_t elementWidth(KYRSignalDataType type) {
  switch (type) {
    case Int8:
    case UInt8:
    case Boolean:
    case ByteString:
    case Binary:
      return 1;
    case Int16:
    case UInt16:
      return 2;
    case Single:
    case Int32:
    case UInt32:
    case UInt32Alt:
      return 4;
    case Double:
    case Int64:
    case UInt64:
    case UInt64Alt:
      return 8;
    case Null:
      throw std::runtime_error("Null data type encountered.");
  }
  throw std::runtime_error("Unknown data type encountered.");
}

}  // namespace kyr::parquet
