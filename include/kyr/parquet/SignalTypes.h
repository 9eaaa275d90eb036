#pragma once

#include <cstddef>
#include <cstdint>

#include "kyr/platform/export.h"

namespace kyr {

/// \brief Element data type of one sample value.
///
/// The numbers are shared with hosts and stored in recordings: never renumber. Values outside this
/// list name no type.
enum KYRSignalDataType : std::int32_t {
  Double = 0,
  Single = 1,
  Int8 = 2,
  UInt8 = 3,
  Int16 = 4,
  UInt16 = 5,
  Int32 = 6,
  UInt32 = 7,
  Boolean = 8,  ///< one byte per value, stored as int8, not bit-packed
  Int64 = 10000,
  UInt64 = 10001,
  UInt64Alt = 10002,   ///< a distinct code stored like UInt64
  UInt32Alt = 10003,   ///< a distinct code stored like UInt32
  Null = 10004,        ///< has a column type (int8) but no element width: it cannot hold samples
  ByteString = 10005,  ///< bytes; in a dimensioned signal each element is a binary item
  Binary = 20000,      ///< one opaque byte blob per sample
};

/// \brief Shape of a signal's samples. The numbers are stored in recordings: never renumber.
enum KYRSignalCategory : std::int32_t {
  Scalar = 0,     ///< one element per time step
  FixedDim = 1,   ///< a matrix of the same dimensions at every time step
  VarDim = 2,     ///< a matrix whose dimensions may change from step to step
  Bus = 3,        ///< a structured sample, one byte blob per time step
  VarDimBus = 4,  ///< a bus whose dimensions may change from step to step
};

namespace parquet {

/// \brief Bytes of one element of \p type in a raw sample buffer: 1, 2, 4 or 8.
/// \throws std::runtime_error "Null data type encountered." for `Null` and "Unknown data type
///         encountered." for a value outside the enumeration
KYR_PARQUET_EXPORT std::size_t elementWidth(KYRSignalDataType type);

}  // namespace parquet
}  // namespace kyr
