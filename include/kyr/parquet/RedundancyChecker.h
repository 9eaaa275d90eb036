#pragma once

#include <cstddef>
#include <functional>
#include <memory>

#include "kyr/parquet/SignalTypes.h"
#include "kyr/platform/export.h"

/// \brief Numbers for content: equal chunks of samples get the same number.
///
/// Equality is decided on a 64-bit hash alone; contents are not compared. A chunk seen for the
/// first time costs one pass over its bytes and one entry of a table, which stays as long as the
/// context.
namespace kyr::parquet::RedundancyChecker {

class HashNumbers;

/// \brief The hashes met so far and the number of each. The process operations fill it.
template <typename Number>
class NumberTable;

template <>
class KYR_PARQUET_EXPORT NumberTable<unsigned long> {
 public:
  NumberTable();
  ~NumberTable();
  NumberTable(const NumberTable& other);
  NumberTable& operator=(const NumberTable& other);

  std::size_t size() const;
  bool empty() const { return size() == 0; }
  /// \brief 1 if \p hash has a number, else 0.
  std::size_t count(unsigned long hash) const;
  /// \throws std::out_of_range if \p hash has none
  unsigned long at(unsigned long hash) const;

  /// \brief The table itself. Only the library can use it.
  HashNumbers& numbers() { return *numbers_; }

 private:
  std::unique_ptr<HashNumbers> numbers_;
};

/// \brief The memory of one numbering, for `unsigned long`. Numbers run 0, 1, 2, ... in order of
/// first appearance.
template <typename Number>
struct Context {
  NumberTable<Number> seen;  ///< content hash to content number
  Number nextNumber = 0;     ///< what the next new content gets
};

using Hasher =
    std::function<unsigned long(const void* data, unsigned long size, KYRSignalDataType type)>;

/// \brief The hasher of both process operations, initially _defaultHasher. Replacing it changes how
/// later chunks are numbered.
KYR_PARQUET_EXPORT extern Hasher defaultHasher;

/// \brief Hash of \p size bytes.
///
/// h starts as the number of the type. Then h ^= 0x9e3779b9 + (h << 6) + (h >> 2) + w, modulo 2^64,
/// for each whole 8-byte word w (little-endian) and after that for each remaining byte w
/// (sign-extended). This is the combination step of boost::hash_combine, with 64 bits.
/// \throws std::invalid_argument "Data is empty" if \p data is null
KYR_PARQUET_EXPORT unsigned long _defaultHasher(const void* data, unsigned long size,
                                                KYRSignalDataType type);

/// \brief The number of the data chunk of \p size bytes, a new one if the context does not know it.
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
