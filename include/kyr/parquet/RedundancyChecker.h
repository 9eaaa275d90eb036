#pragma once

#include <cstddef>
#include <functional>
#include <unordered_map>

#include "kyr/parquet/SignalTypes.h"
#include "kyr/platform/export.h"

/// \brief Numbers for content: equal chunks of samples get the same number.
///
/// Equality is decided on a 64-bit hash alone; contents are not compared. A chunk seen for the
/// first time costs one pass over its bytes and one map entry, which stays as long as the context.
namespace kyr::parquet::RedundancyChecker {

/// \brief Spreads content hashes, which are well mixed already, over the map's buckets.
template <typename Number>
struct BucketHash {
  Number seed = 0;
  std::size_t operator()(Number key) const noexcept {
    return seed ^ (key + 0x9e3779b9 + (seed << 6) + (seed >> 2));
  }
};

/// \brief The memory of one numbering. Numbers run 0, 1, 2, ... in order of first appearance.
template <typename Number>
struct Context {
  std::unordered_map<Number, Number, BucketHash<Number>> seen;  ///< content hash to number
  Number nextNumber = 0;
};

using Hasher =
    std::function<unsigned long(const void* data, unsigned long size, KYRSignalDataType type)>;

/// \brief The hasher of both process operations. Replacing it changes how later chunks are
/// numbered.
KYR_PARQUET_EXPORT extern Hasher defaultHasher;

/// \brief Hash of \p size bytes: h starts as the type's number; for each whole 8-byte word w
/// (little-endian), then each remaining byte sign-extended: h ^= 0x9e3779b9 + (h << 6) + (h >> 2) +
/// w.
/// \throws std::invalid_argument "Data is empty" if \p data is null
KYR_PARQUET_EXPORT unsigned long _defaultHasher(const void* data, unsigned long size,
                                                KYRSignalDataType type);

/// \brief The number of the data chunk of \p size bytes.
///
/// The type belongs to the content: the same bytes of another type get another number. A time
/// vector and doubles with equal bytes get the same.
/// \throws std::invalid_argument "Context is empty" or "Data is empty" for a null pointer
/// \throws std::bad_function_call if defaultHasher is empty
KYR_PARQUET_EXPORT unsigned long processDataAndCheck(Context<unsigned long>* context,
                                                     const void* data, unsigned long size,
                                                     KYRSignalDataType type);

/// \brief The number of the time vector of \p count doubles.
/// \throws std::invalid_argument "Context is empty" or "Time is empty" for a null pointer
/// \throws std::bad_function_call if defaultHasher is empty
KYR_PARQUET_EXPORT unsigned long processTimeAndCheck(Context<unsigned long>* context,
                                                     const double* time, unsigned long count);

}  // namespace kyr::parquet::RedundancyChecker
