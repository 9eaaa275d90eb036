#include "files/ValueDictionary.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "files/CompactProtocol.h"

namespace kyr::parquet {

namespace {

constexpr std::size_t kGroup = 8;
// Shorter repetitions are bit-packed with their neighbours, because each run has a header.
constexpr std::size_t kFewestRepeated = 4 * kGroup;

std::size_t repetitions(const std::uint32_t* numbers, std::size_t count) {
  constexpr std::size_t kBlock = 32;
  const std::uint32_t first = numbers[0];
  std::size_t length = 1;
  while (length < std::min(count, kBlock) && numbers[length] == first) ++length;
  if (length < kBlock) return length;
  // Without a way out of the inner loop the compiler compares several numbers at once.
  for (; length + kBlock <= count; length += kBlock) {
    std::uint32_t differences = 0;
    for (std::size_t i = 0; i < kBlock; ++i) differences |= numbers[length + i] ^ first;
    if (differences != 0) break;
  }
  while (length < count && numbers[length] == first) ++length;
  return length;
}

void putRepeated(std::string& out, std::uint32_t number, std::size_t count, unsigned width) {
  putVarint(out, std::uint64_t{count} << 1U);
  for (unsigned bit = 0; bit < width; bit += 8) out += static_cast<char>(number >> bit);
}

// How many of so many equal numbers are a run of their own, behind so many that are bit-packed.
// Only the last bit-packed run may end within a group.
std::size_t repeatedOf(std::size_t count, std::size_t packed) {
  const std::size_t toGroup = (kGroup - packed % kGroup) % kGroup;
  return count >= toGroup + kFewestRepeated ? count - toGroup : 0;
}

// Appends a bit-packed run, whose last group is filled up with zeros.
void putPacked(std::string& out, const std::uint32_t* numbers, std::size_t count, unsigned width) {
  const std::size_t groups = (count + kGroup - 1) / kGroup;
  putVarint(out, (std::uint64_t{groups} << 1U) | 1U);
  const std::size_t start = out.size();
  const std::size_t bytes = groups * width;
  out.resize(start + bytes + sizeof(std::uint64_t));
  char* to = out.data() + start;
  std::uint64_t bits = 0;
  unsigned filled = 0;
  for (std::size_t i = 0; i < count; ++i) {
    bits |= std::uint64_t{numbers[i]} << filled;
    filled += width;
    if (filled >= 64) {
      std::memcpy(to, &bits, sizeof(bits));
      to += sizeof(bits);
      filled -= 64;
      bits = filled == 0 ? 0 : std::uint64_t{numbers[i]} >> (width - filled);
    }
  }
  std::memcpy(to, &bits, sizeof(bits));
  out.resize(start + bytes);
}

}  // namespace

std::string packHybrid(const std::uint32_t* numbers, std::size_t count, unsigned width) {
  std::string out;
  out.reserve(count * width / 8 + 64);
  std::size_t packedFrom = 0;
  for (std::size_t at = 0; at < count;) {
    const std::size_t length = repetitions(numbers + at, count - at);
    const std::size_t repeated = repeatedOf(length, at - packedFrom);
    at += length;
    if (repeated == 0) continue;
    const std::size_t packedEnd = at - repeated;
    if (packedEnd > packedFrom) putPacked(out, numbers + packedFrom, packedEnd - packedFrom, width);
    putRepeated(out, numbers[packedEnd], repeated, width);
    packedFrom = at;
  }
  if (packedFrom < count) putPacked(out, numbers + packedFrom, count - packedFrom, width);
  return out;
}

void HybridRuns::putPacked() {
  if (!packed_.empty()) parquet::putPacked(out_, packed_.data(), packed_.size(), width_);
  packed_.clear();
}

void HybridRuns::add(std::uint32_t number, std::size_t count) {
  const std::size_t repeated = repeatedOf(count, packed_.size());
  packed_.insert(packed_.end(), count - repeated, number);
  if (repeated == 0) return;
  putPacked();
  putRepeated(out_, number, repeated, width_);
}

std::string HybridRuns::finish() {
  putPacked();
  return std::move(out_);
}

}  // namespace kyr::parquet
