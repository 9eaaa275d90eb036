#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>
#include <utility>

#include "files/CompactProtocol.h"

namespace kyr::parquet {

/// Encodes integers as differences of neighbours (apache/parquet-format, Encodings.md,
/// DELTA_BINARY_PACKED), in blocks of 128 differences, a quarter of which has a width of its own.
/// \tparam Stored  std::int32_t or std::int64_t
template <typename Stored>
class DeltaEncoder {
 public:
  /// \param count  of all values that will be added
  explicit DeltaEncoder(std::size_t count) : count_(count) {
    bytes_.reserve(count * sizeof(Stored) / 2);
  }

  template <typename Value>
  void add(const Value* values, std::size_t count) {
    if (isFirst_ && count > 0) {
      begin(*values++);
      --count;
    }
    while (count > 0) {
      const std::size_t here = std::min(kBlock - used_, count);
      Bits* const out = values_.data() + 1 + used_;
      // The compiler converts several values at once if it knows how many there are.
      if (here == kBlock) {
        for (std::size_t i = 0; i < kBlock; ++i) out[i] = bitsOf(values[i]);
      } else {
        for (std::size_t i = 0; i < here; ++i) out[i] = bitsOf(values[i]);
      }
      values += here;
      count -= here;
      used_ += here;
      if (used_ == kBlock) putBlock();
    }
  }

  /// What encodes all values. Ends the encoding.
  std::string finish() {
    if (isFirst_) begin(Stored{0});
    if (used_ > 0) putBlock();
    return std::move(bytes_);
  }

 private:
  using Bits = std::make_unsigned_t<Stored>;
  static constexpr std::size_t kBlock = 128;
  static constexpr std::size_t kQuarter = kBlock / 4;

  template <typename Value>
  static Bits bitsOf(Value value) {
    return static_cast<Bits>(static_cast<Stored>(value));
  }

  static std::uint64_t zigzag(Stored value) {
    const std::int64_t wide{value};
    return static_cast<std::uint64_t>(wide) << 1U ^ static_cast<std::uint64_t>(wide >> 63U);
  }

  template <typename Value>
  void begin(Value first) {
    values_[0] = bitsOf(first);
    isFirst_ = false;
    putVarint(bytes_, kBlock);
    putVarint(bytes_, kBlock / kQuarter);
    putVarint(bytes_, count_);
    putVarint(bytes_, zigzag(static_cast<Stored>(values_[0])));
  }

  void putBlock() {
    // Missing differences take no part, and are 0 in the encoding.
    for (std::size_t i = used_; i < kBlock; ++i) {
      values_[i + 1] = values_[i] + values_[1] - values_[0];
    }
    Block block;
    takeDifferences(values_.data(), block);
    if (used_ < kBlock) {
      std::fill(block.differences.begin() + used_, block.differences.end(), Bits{0});
      takeWidths(block);
    }
    putVarint(bytes_, zigzag(block.least));
    for (const Bits bits : block.bits) bytes_.push_back(static_cast<char>(widthOf(bits)));
    // Quarters without differences have no bytes.
    for (std::size_t quarter = 0; quarter * kQuarter < used_; ++quarter) {
      kPack[widthOf(block.bits[quarter])](&block.differences[quarter * kQuarter], bytes_);
    }
    values_[0] = values_[used_];
    used_ = 0;
  }

  struct Block {
    std::array<Bits, kBlock> differences;  // beyond the least one
    Stored least;
    std::array<Bits, kBlock / kQuarter> bits;  // that differences of a quarter use
  };

  // Each loop is one that a compiler turns into instructions for several values, as long as nothing
  // that it writes may be what it reads.
  [[gnu::always_inline]] static inline void takeDifferencesOf(const Bits* values, Block& block) {
    std::array<Bits, kBlock> differences;
    for (std::size_t i = 0; i < kBlock; ++i) differences[i] = values[i + 1] - values[i];
    Stored least = std::numeric_limits<Stored>::max();
    for (std::size_t i = 0; i < kBlock; ++i) {
      const auto difference = static_cast<Stored>(differences[i]);
      least = difference < least ? difference : least;
    }
    block.least = least;
    for (std::size_t i = 0; i < kBlock; ++i) {
      block.differences[i] = differences[i] - static_cast<Bits>(least);
    }
    takeWidths(block);
  }
  [[gnu::always_inline]] static inline void takeWidths(Block& block) {
    for (std::size_t quarter = 0; quarter < block.bits.size(); ++quarter) {
      Bits all = 0;
      for (std::size_t i = 0; i < kQuarter; ++i) all |= block.differences[quarter * kQuarter + i];
      block.bits[quarter] = all;
    }
  }
#ifdef __x86_64__
  [[gnu::target("avx2")]] static void takeDifferencesWithAvx2(const Bits* values, Block& block) {
    takeDifferencesOf(values, block);
  }
#endif
  static void takeDifferences(const Bits* values, Block& block) {
#ifdef __x86_64__
    static const bool hasAvx2 = __builtin_cpu_supports("avx2") != 0;
    if (hasAvx2) return takeDifferencesWithAvx2(values, block);
#endif
    takeDifferencesOf(values, block);
  }

  static unsigned widthOf(Bits bits) {
    return bits == 0 ? 0 : 64 - static_cast<unsigned>(__builtin_clzll(bits));
  }

  // Puts the number with that index behind those before it, bit by bit.
  template <unsigned width, std::size_t index>
  static void place(std::uint64_t number, std::uint64_t* words) {
    constexpr std::size_t kBit = width * index;
    words[kBit / 64] |= number << kBit % 64;
    if constexpr (kBit % 64 + width > 64) words[kBit / 64 + 1] |= number >> (64 - kBit % 64);
  }
  template <unsigned width, std::size_t... indices>
  static void pack(const Bits* numbers, std::string& out, std::index_sequence<indices...> /*all*/) {
    std::array<std::uint64_t, width / 2 + 1> words{};
    (place<width, indices>(numbers[indices], words.data()), ...);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    for (std::uint64_t& each : words) each = __builtin_bswap64(each);
#endif
    out.append(reinterpret_cast<const char*>(words.data()), 4 * std::size_t{width});
  }
  using Pack = void (*)(const Bits* numbers, std::string& out);
  template <unsigned... widths>
  static constexpr auto packers(std::integer_sequence<unsigned, widths...> /*all*/) {
    return std::array<Pack, sizeof...(widths)>{[](const Bits* numbers, std::string& out) {
      pack<widths>(numbers, out, std::make_index_sequence<kQuarter>());
    }...};
  }
  // By width. Each is a function of its own, in which all shifts are known.
  static constexpr auto kPack =
      packers(std::make_integer_sequence<unsigned, 8 * sizeof(Bits) + 1>());

  std::size_t count_;
  std::string bytes_;
  std::array<Bits, kBlock + 1> values_{};  // the last one that was put, and those after it
  std::size_t used_ = 0;                   // of the latter
  bool isFirst_ = true;
};

}  // namespace kyr::parquet
