#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <vector>

#include "platform/ZeroedMemory.h"
#include "schema/ByteBuffer.h"

namespace kyr::parquet::RedundancyChecker {

/// The numbers of 64-bit hashes.
///
/// An open hash table that never waits for memory to learn that a hash is new, which most are:
/// about one byte for each hash, which the processor's caches mostly have, tells that nearly
/// always. The table gets a new hash a few calls later, when its place in memory has arrived.
class HashNumbers {
 public:
  HashNumbers() = default;
  HashNumbers(const HashNumbers& other);
  HashNumbers& operator=(const HashNumbers& other);

  std::size_t size() const noexcept { return hashes_.size() / sizeof(std::uint64_t); }

  /// The number of \p hash. If it has none yet, it gets \p next, which goes up by one.
  /// \param expected  a number that the hash probably has, which saves a search then
  unsigned long of(std::uint64_t hash, unsigned long& next, unsigned long expected = 0) {
    const std::size_t index = size();
    if (expected < index && hashAt(expected) == hash) return numberAt(expected);
    if (index == capacity_) grow();
    const std::uint32_t place = placeOf(hash);
    std::uint64_t& word = filterWord(place);
    if ((word & filterBits(place)) == filterBits(place)) {
      if (const auto known = find(hash, place)) return numberAt(*known);
    }
    if (next != numberAt(index)) jumps_.push_back({index, next});
    hashes_.append(&hash, sizeof(hash));
    word |= filterBits(place);
    __builtin_prefetch(&slots()[slotOf(place)], /*write*/ 1);
    if (size() - inserted_ > kPending) insertNext();
    return next++;
  }

  bool contains(std::uint64_t hash) const { return find(hash, placeOf(hash)).has_value(); }
  /// \throws std::out_of_range if the hash has no number
  std::uint64_t at(std::uint64_t hash) const;

 private:
  // New hashes wait for this many others before they get into the table.
  static constexpr std::size_t kPending = 8;

  struct Slot {
    std::uint32_t place;
    std::uint32_t end;  // the hash's index + 1; 0 if the slot is free
  };

  // The numbers of the hashes from \p index on are \p number and those that follow it.
  struct Jump {
    std::size_t index;
    std::uint64_t number;
  };

  // Usually the numbers are the indices.
  std::uint64_t numberAt(std::size_t index) const {
    for (auto jump = jumps_.rbegin(); jump != jumps_.rend(); ++jump) {
      if (index >= jump->index) return jump->number + (index - jump->index);
    }
    return index;
  }

  std::uint64_t hashAt(std::size_t index) const {
    std::uint64_t hash;
    std::memcpy(&hash, hashes_.data() + index * sizeof(hash), sizeof(hash));
    return hash;
  }

  // Where a hash belongs, in parts of 2^32 of the table. Hashes of single numbers differ in a few
  // bits only, high or low ones.
  static std::uint32_t placeOf(std::uint64_t hash) {
    return static_cast<std::uint32_t>((hash ^ (hash >> 32U)) * 0x9e3779b97f4a7c15 >> 32U);
  }
  static std::uint64_t filterBits(std::uint32_t place) {
    return std::uint64_t{1} << (place & 63U) | std::uint64_t{1} << (place >> 6U & 63U);
  }
  std::uint64_t& filterWord(std::uint32_t place) const {
    return reinterpret_cast<std::uint64_t*>(filter_.data())[place * filterWords_ >> 32U];
  }
  Slot* slots() const { return reinterpret_cast<Slot*>(slots_.data()); }
  std::size_t slotOf(std::uint32_t place) const { return place * slotCount_ >> 32U; }

  std::optional<std::size_t> find(std::uint64_t hash, std::uint32_t place) const;
  void insertNext();
  void put(Slot slot);
  void grow();

  ByteBuffer hashes_;         // in order of first appearance
  std::size_t inserted_ = 0;  // as many of them are in the table
  std::size_t capacity_ = 0;  // as many may come before it grows
  std::uint64_t slotCount_ = 0;
  std::uint64_t filterWords_ = 0;
  platform::ZeroedMemory slots_;   // in the order of places, but for hashes that found theirs taken
  platform::ZeroedMemory filter_;  // two bits for each hash
  std::vector<Jump> jumps_;
};

}  // namespace kyr::parquet::RedundancyChecker
