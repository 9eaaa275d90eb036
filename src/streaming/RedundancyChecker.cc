#include "kyr/parquet/RedundancyChecker.h"

#include <cstdint>
#include <cstring>
#include <stdexcept>

#include "streaming/ContentNumbers.h"
#include "streaming/HashNumbers.h"

namespace kyr::parquet::RedundancyChecker {

namespace {

constexpr std::uint64_t mix(std::uint64_t hash, std::uint64_t word) {
  return hash ^ (0x9e3779b9 + (hash << 6U) + (hash >> 2U) + word);
}

std::uint64_t littleEndianWord(const unsigned char* bytes) {
  std::uint64_t word;
  std::memcpy(&word, bytes, sizeof(word));
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  word = __builtin_bswap64(word);
#endif
  return word;
}

}  // namespace

Hasher defaultHasher = &_defaultHasher;

unsigned long _defaultHasher(const void* data, unsigned long size, KYRSignalDataType type) {
  if (!data) throw std::invalid_argument("Data is empty");
  const auto* bytes = static_cast<const unsigned char*>(data);
  std::uint64_t hash = static_cast<std::uint32_t>(type);
  unsigned long at = 0;
  for (; at + sizeof(std::uint64_t) <= size; at += sizeof(std::uint64_t)) {
    hash = mix(hash, littleEndianWord(bytes + at));
  }
  for (; at < size; ++at) {
    hash = mix(hash, static_cast<std::uint64_t>(
                         static_cast<std::int64_t>(static_cast<signed char>(bytes[at]))));
  }
  return hash;
}

NumberTable<unsigned long>::NumberTable() : numbers_(std::make_unique<HashNumbers>()) {}
NumberTable<unsigned long>::~NumberTable() = default;
NumberTable<unsigned long>::NumberTable(const NumberTable& other)
    : numbers_(std::make_unique<HashNumbers>(*other.numbers_)) {}
NumberTable<unsigned long>& NumberTable<unsigned long>::operator=(const NumberTable& other) {
  *numbers_ = *other.numbers_;
  return *this;
}

std::size_t NumberTable<unsigned long>::size() const { return numbers_->size(); }
std::size_t NumberTable<unsigned long>::count(unsigned long hash) const {
  return numbers_->contains(hash) ? 1 : 0;
}
unsigned long NumberTable<unsigned long>::at(unsigned long hash) const {
  return numbers_->at(hash);
}

unsigned long numberData(Context<unsigned long>* context, const void* data, unsigned long size,
                         KYRSignalDataType type, unsigned long expected) {
  if (!context) throw std::invalid_argument("Context is empty");
  const unsigned long hash = defaultHasher(data, size, type);
  return context->seen.numbers().of(hash, context->nextNumber, expected);
}

unsigned long numberTime(Context<unsigned long>* context, const double* time, unsigned long count,
                         unsigned long expected) {
  if (!time) throw std::invalid_argument("Time is empty");
  return numberData(context, time, count * sizeof(double), Double, expected);
}

unsigned long processDataAndCheck(Context<unsigned long>* context, const void* data,
                                  unsigned long size, KYRSignalDataType type) {
  return numberData(context, data, size, type, /*expected=*/0);
}

unsigned long processTimeAndCheck(Context<unsigned long>* context, const double* time,
                                  unsigned long count) {
  return numberTime(context, time, count, /*expected=*/0);
}

}  // namespace kyr::parquet::RedundancyChecker
