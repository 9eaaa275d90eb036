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
    std::size_t i = 0;
    if (isFirst_ && count > 0) begin(values[i++]);
    while (i < count) {
      const std::size_t here = std::min(kBlock - used_, count - i);
      Bits* const out = block_.data() + used_;
      out[0] = bitsOf(values[i]) - last_;
      for (std::size_t k = 1; k < here; ++k) {
        out[k] = bitsOf(values[i + k]) - bitsOf(values[i + k - 1]);
      }
      i += here;
      last_ = bitsOf(values[i - 1]);
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
    last_ = bitsOf(first);
    isFirst_ = false;
    putVarint(bytes_, kBlock);
    putVarint(bytes_, kBlock / kQuarter);
    putVarint(bytes_, count_);
    putVarint(bytes_, zigzag(static_cast<Stored>(last_)));
  }

  void putBlock() {
    Stored least = std::numeric_limits<Stored>::max();
    for (std::size_t i = 0; i < used_; ++i) {
      const auto difference = static_cast<Stored>(block_[i]);
      least = difference < least ? difference : least;
    }
    for (std::size_t i = 0; i < used_; ++i) block_[i] -= static_cast<Bits>(least);
    for (std::size_t i = used_; i < kBlock; ++i) block_[i] = 0;
    putVarint(bytes_, zigzag(least));
    std::array<unsigned, kBlock / kQuarter> widths{};
    for (std::size_t quarter = 0; quarter < widths.size(); ++quarter) {
      Bits all = 0;
      for (std::size_t i = 0; i < kQuarter; ++i) all |= block_[quarter * kQuarter + i];
      if (all != 0) widths[quarter] = 64 - static_cast<unsigned>(__builtin_clzll(all));
      bytes_.push_back(static_cast<char>(widths[quarter]));
    }
    // Quarters without differences have no bytes.
    for (std::size_t quarter = 0; quarter * kQuarter < used_; ++quarter) {
      putQuarter(&block_[quarter * kQuarter], widths[quarter]);
    }
    used_ = 0;
  }

  // 32 numbers of the same width are as many words of 32 bits as the width says.
  void putQuarter(const Bits* numbers, unsigned width) {
    std::array<std::uint32_t, 2 * kQuarter + 1> words{};
    std::size_t word = 0;
    std::uint64_t gathered = 0;
    unsigned bits = 0;
    const auto put = [&](std::uint64_t number, unsigned count) {
      gathered |= number << bits;
      bits += count;
      words[word] = static_cast<std::uint32_t>(gathered);
      if (bits < 32) return;
      ++word;
      gathered >>= 32U;
      bits -= 32;
    };
    for (std::size_t i = 0; i < kQuarter; ++i) {
      const std::uint64_t number = numbers[i];
      put(number & 0xffffffffU, std::min(width, 32U));
      if (sizeof(Bits) > 4 && width > 32) put(number >> 32U, width - 32);
    }
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    for (std::uint32_t& each : words) each = __builtin_bswap32(each);
#endif
    bytes_.append(reinterpret_cast<const char*>(words.data()), 4 * width);
  }

  std::size_t count_;
  std::string bytes_;
  std::array<Bits, kBlock> block_{};  // differences that were not put yet
  std::size_t used_ = 0;
  Bits last_ = 0;
  bool isFirst_ = true;
};

}  // namespace kyr::parquet
