#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace kyr::parquet::RedundancyChecker {

/// The numbers of 64-bit hashes.
///
/// An open hash table. One byte for each slot holds a piece of the hash, so that bytes that stay in
/// the processor's cache mostly tell a new hash from all others, however many there are.
class HashNumbers {
 public:
  std::size_t size() const noexcept { return hashes_.size(); }

  /// The number of \p hash. If it has none yet, it gets \p next, which goes up by one.
  /// \param expected  a number that the hash probably has, which saves a search then
  unsigned long of(std::uint64_t hash, unsigned long& next, unsigned long expected = 0) {
    if (expected < hashes_.size() && hashes_[expected] == hash) return numberAt(expected);
    if (hashes_.size() >= tags_.size() / 4 * 3) grow();
    return probe(
        hash, [this](std::size_t index) { return numberAt(index); },
        [&](std::size_t slot) {
          const std::size_t index = hashes_.size();
          if (next != numberAt(index)) jumps_.push_back({index, next});
          put(slot, hash, index);
          hashes_.push_back(hash);
          return next++;
        });
  }

  bool contains(std::uint64_t hash) const {
    const auto yes = [](std::size_t) { return true; };
    return !tags_.empty() && probe(hash, yes, [](std::size_t) { return false; });
  }
  std::uint64_t at(std::uint64_t hash) const {
    if (!contains(hash)) throw std::out_of_range("the hash has no number");
    const auto number = [this](std::size_t index) { return numberAt(index); };
    return probe(hash, number, [](std::size_t) { return std::uint64_t{0}; });
  }

 private:
  // Eight slots whose tags are looked at together. A slot that is taken has the high bit set.
  static constexpr std::size_t kGroup = 8;
  static constexpr std::uint64_t kOnes = 0x0101010101010101;
  static constexpr std::uint64_t kHighs = 0x8080808080808080;

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

  // Hashes of single numbers differ in a few bits only, high or low ones.
  static std::uint64_t spread(std::uint64_t hash) {
    return (hash ^ (hash >> 32U)) * 0x9e3779b97f4a7c15;
  }
  static std::uint64_t tagOf(std::uint64_t hash) { return 0x80 | (spread(hash) >> 20U & 0x7f); }
  std::size_t groups() const { return tags_.size() / kGroup; }
  std::size_t groupOf(std::uint64_t hash) const { return spread(hash) >> shift_; }

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

  // Calls \p found with the index of a hash, or \p isNew with the free slot for it.
  template <typename Found, typename New>
  std::uint64_t probe(std::uint64_t hash, Found&& found, New&& isNew) const {
    const std::uint64_t tag = tagOf(hash);
    for (std::size_t group = groupOf(hash);; group = (group + 1) & (groups() - 1)) {
      const std::uint64_t tags = load(group);
      for (std::uint64_t same = zeroBytes(tags ^ (tag * kOnes)); same != 0; same &= same - 1) {
        const std::uint32_t index = indices_[group * kGroup + firstByte(same)];
        if (hashes_[index] == hash) return found(index);
      }
      if (const std::uint64_t empty = ~tags & kHighs) {
        return isNew(group * kGroup + firstByte(empty));
      }
    }
  }

  void put(std::size_t slot, std::uint64_t hash, std::size_t index) {
    tags_[slot] = static_cast<unsigned char>(tagOf(hash));
    indices_[slot] = static_cast<std::uint32_t>(index);
  }

  void grow() {
    if (hashes_.size() > UINT32_MAX / 2) throw std::length_error("too many different chunks");
    const std::size_t slots = tags_.empty() ? 16 * kGroup : 2 * tags_.size();
    shift_ = 64 - __builtin_ctzll(slots / kGroup);
    tags_.assign(slots, 0);
    indices_.assign(slots, 0);
    for (std::size_t index = 0; index < hashes_.size(); ++index) {
      std::size_t group = groupOf(hashes_[index]);
      while ((~load(group) & kHighs) == 0) group = (group + 1) & (groups() - 1);
      put(group * kGroup + firstByte(~load(group) & kHighs), hashes_[index], index);
    }
  }

  int shift_ = 0;
  std::vector<unsigned char> tags_;
  std::vector<std::uint32_t> indices_;
  std::vector<std::uint64_t> hashes_;  // in order of first appearance
  std::vector<Jump> jumps_;
};

}  // namespace kyr::parquet::RedundancyChecker
