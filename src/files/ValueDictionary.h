#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kyr::parquet {

/// Numbers the distinct values of a column chunk in the order in which they come. Values are
/// compared by their bits. A hash table with open addressing, which is several times as fast as
/// std::unordered_map.
template <typename Bits>
class ValueDictionary {
 public:
  /// \param limit  the largest number of distinct values
  explicit ValueDictionary(std::size_t limit)
      : limit_(limit), slots_(std::size_t{1} << kFirstBits) {}

  /// Puts the numbers of \p count values into \p indices.
  /// \returns false if there are more distinct values than the limit
  bool add(const Bits* values, std::size_t count, std::uint32_t* indices) {
    for (std::size_t i = 0; i < count; ++i) {
      const Bits value = values[i];
      if (i > 0 && value == values[i - 1]) {
        indices[i] = indices[i - 1];
        continue;
      }
      Slot* slot = &slotOf(value);
      if (slot->number == 0) {
        if (values_.size() == limit_) return false;
        if (values_.size() * 2 >= slots_.size()) {
          grow();
          slot = &slotOf(value);
        }
        values_.push_back(value);
        *slot = {value, static_cast<std::uint32_t>(values_.size())};
      }
      const std::uint32_t index = slot->number - 1;
      indices[i] = index;
      // Storage ids in packs are the same for many rows.
      while (i + 1 < count && values[i + 1] == value) indices[++i] = index;
    }
    return true;
  }

  const std::vector<Bits>& values() const { return values_; }

 private:
  static constexpr unsigned kFirstBits = 10;

  struct Slot {
    Bits value = 0;
    std::uint32_t number = 0;  // counts from 1; 0 if the slot is free
  };

  // The slot of the value, or the free one for it. Multiplication by the golden ratio spreads
  // values whose lowest bits are all zero (Knuth, "The Art of Computer Programming" 3, 6.4).
  Slot& slotOf(Bits value) {
    std::size_t at = (std::uint64_t{value} * 0x9E3779B97F4A7C15U) >> shift_;
    while (slots_[at].number != 0 && slots_[at].value != value) at = (at + 1) & (slots_.size() - 1);
    return slots_[at];
  }

  void grow() {
    shift_ -= 2;
    slots_.assign(slots_.size() * 4, Slot());
    for (std::size_t i = 0; i < values_.size(); ++i) {
      slotOf(values_[i]) = {values_[i], static_cast<std::uint32_t>(i + 1)};
    }
  }

  std::size_t limit_;
  unsigned shift_ = 64 - kFirstBits;
  std::vector<Slot> slots_;
  std::vector<Bits> values_;
};

/// Encodes numbers below 2^width as Parquet's hybrid of repeated and bit-packed runs
/// (apache/parquet-format, Encodings.md, RLE).
/// \param width  1 to 32
std::string packHybrid(const std::uint32_t* numbers, std::size_t count, unsigned width);

/// Encodes numbers that repeat, without looking at each repetition. The bytes are those of
/// packHybrid() if a number differs from the one before.
class HybridRuns {
 public:
  explicit HybridRuns(unsigned width) : width_(width) {}

  void add(std::uint32_t number, std::size_t count);
  std::string finish();

 private:
  void putPacked();

  unsigned width_;
  std::string out_;
  std::vector<std::uint32_t> packed_;  // numbers that are to be bit-packed
};

}  // namespace kyr::parquet
