#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <vector>

#include "kyr/parquet/SignalTypes.h"
#include "kyr/platform/export.h"

/// \brief Numbers for content: equal chunks of samples get the same number.
///
/// Equality is decided on a 64-bit hash alone; contents are not compared. A chunk seen for the
/// first time costs one pass over its bytes and one entry of a table, which stays as long as the context.
namespace kyr::parquet::RedundancyChecker {

/// \brief Numbers of hashes, 0, 1, 2, ... in the order in which they are first asked for.
///
/// An open hash table. One byte per place holds a piece of the hash, so that a new hash is mostly
/// known as such from bytes that stay in the processor's cache, however many there are.
template <typename Number>
class NumberTable {
 public:
  std::size_t size() const noexcept { return hashes_.size(); }
  bool empty() const noexcept { return hashes_.empty(); }

  /// \param expected  a number that the hash probably has; costs nothing if it has not
  Number of(Number hash, Number expected = 0) {
    if (expected < hashes_.size() && hashes_[expected] == hash) return expected;
    if (hashes_.size() >= tags_.size() / 4 * 3) grow();
    const std::uint64_t tag = tagOf(hash);
    for (std::size_t group = groupOf(hash);; group = (group + 1) & (groups() - 1)) {
      const std::uint64_t tags = load(group);
      for (std::uint64_t same = zeroBytes(tags ^ (tag * kOnes)); same != 0; same &= same - 1) {
        const std::uint32_t number = numbers_[group * kGroup + firstByte(same)];
        if (hashes_[number] == hash) return number;
      }
      if (const std::uint64_t empty = ~tags & kHighs) {
        put(group * kGroup + firstByte(empty), tag, hashes_.size());
        hashes_.push_back(hash);
        return static_cast<Number>(hashes_.size() - 1);
      }
    }
  }

 private:
  // Eight places whose tags are looked at together. A place that is taken has the high bit set.
  static constexpr std::size_t kGroup = 8;
  static constexpr std::uint64_t kOnes = 0x0101010101010101;
  static constexpr std::uint64_t kHighs = 0x8080808080808080;

  // Hashes of single numbers differ in a few bits only, high or low ones.
  static std::uint64_t spread(std::uint64_t hash) {
    return (hash ^ (hash >> 32)) * 0x9e3779b97f4a7c15;
  }
  static std::uint64_t tagOf(Number hash) { return 0x80 | (spread(hash) >> 20 & 0x7f); }
  std::size_t groups() const { return tags_.size() / kGroup; }
  std::size_t groupOf(Number hash) const { return spread(hash) >> shift_; }

  std::uint64_t load(std::size_t group) const {
    std::uint64_t tags;
    std::memcpy(&tags, &tags_[group * kGroup], kGroup);
    return tags;
  }
  // The high bits of the bytes that are 0, and perhaps of some behind them.
  static std::uint64_t zeroBytes(std::uint64_t word) { return (word - kOnes) & ~word & kHighs; }
  static std::size_t firstByte(std::uint64_t highs) {
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    highs = __builtin_bswap64(highs);
#endif
    return static_cast<std::size_t>(__builtin_ctzll(highs)) / 8;
  }

  void put(std::size_t place, std::uint64_t tag, std::size_t number) {
    tags_[place] = static_cast<unsigned char>(tag);
    numbers_[place] = static_cast<std::uint32_t>(number);
  }

  void grow() {
    if (hashes_.size() > UINT32_MAX / 2) throw std::length_error("too many different chunks");
    const std::size_t places = tags_.empty() ? 16 * kGroup : 2 * tags_.size();
    shift_ = 64 - __builtin_ctzll(places / kGroup);
    tags_.assign(places, 0);
    numbers_.assign(places, 0);
    for (std::size_t number = 0; number < hashes_.size(); ++number) {
      std::size_t group = groupOf(hashes_[number]);
      while ((~load(group) & kHighs) == 0) group = (group + 1) & (groups() - 1);
      put(group * kGroup + firstByte(~load(group) & kHighs), tagOf(hashes_[number]), number);
    }
  }

  int shift_ = 0;
  std::vector<unsigned char> tags_;
  std::vector<std::uint32_t> numbers_;
  std::vector<Number> hashes_;  // by number
};

/// \brief The memory of one numbering. Numbers run 0, 1, 2, ... in order of first appearance.
template <typename Number>
struct Context {
  NumberTable<Number> seen;  ///< content hash to number
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
/// \param expected  the number that the chunk probably has, if it repeats another: saves a search
///
/// The type belongs to the content: the same bytes of another type get another number. A time
/// vector and doubles with equal bytes get the same.
/// \throws std::invalid_argument "Context is empty" or "Data is empty" for a null pointer
/// \throws std::bad_function_call if defaultHasher is empty
KYR_PARQUET_EXPORT unsigned long processDataAndCheck(Context<unsigned long>* context,
                                                     const void* data, unsigned long size,
                                                     KYRSignalDataType type,
                                                     unsigned long expected = 0);

/// \brief The number of the time vector of \p count doubles.
/// \throws std::invalid_argument "Context is empty" or "Time is empty" for a null pointer
/// \throws std::bad_function_call if defaultHasher is empty
KYR_PARQUET_EXPORT unsigned long processTimeAndCheck(Context<unsigned long>* context,
                                                     const double* time, unsigned long count,
                                                     unsigned long expected = 0);

}  // namespace kyr::parquet::RedundancyChecker
