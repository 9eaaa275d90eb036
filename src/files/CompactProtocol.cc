#include "files/CompactProtocol.h"

#include <fmt/format.h>
#include <parquet/exception.h>

namespace kyr::parquet {

namespace {

constexpr std::size_t kShortList = 15;  // lists from this size on have it behind the header
constexpr int kMaxDepth = 64;
constexpr std::uint64_t kRealBytes = 8;

}  // namespace

void CompactReader::refuse(const char* what) const {
  throw ::parquet::ParquetException(
      fmt::format("no Parquet metadata: {} at byte {}", what, position_));
}

void CompactReader::take(std::uint64_t count) {
  if (count > bytes_.size() - position_) refuse("a length beyond the end");
  position_ += static_cast<std::size_t>(count);
}

CompactReader::List CompactReader::listHeader() {
  const unsigned header = octet();
  std::uint64_t size = header >> kTypeBits;
  if (size == kShortList) size = varint();
  // Every element takes a byte or more.
  if (size > bytes_.size() - position_) refuse("a list beyond the end");
  return {static_cast<int>(header & kTypeMask), static_cast<std::size_t>(size)};
}

void CompactReader::skipOther(int type, int depth) {
  if (depth > kMaxDepth) refuse("too deep a nesting");
  switch (type) {
    case yes:
    case no:
      return;
    case byte:
      return take(1);
    case real:
      return take(kRealBytes);
    case binary:
      return take(varint());
    case list:
    case set: {
      const List elements = listHeader();
      return skipElements(elements.type, elements.size, depth);
    }
    case map:
      return skipMap(depth);
    case structure:
      for (Field next = field(0); next.type != stop; next = field(next.id)) {
        skip(next.type, depth + 1);
      }
      return;
    default:
      refuse("an unknown type");
  }
}

void CompactReader::skipElements(int type, std::size_t count, int depth) {
  // A truth value takes a byte in a list, but none in a field.
  if (type == yes || type == no) return take(count);
  for (std::size_t i = 0; i < count; ++i) skip(type, depth + 1);
}

void CompactReader::skipMap(int depth) {
  const std::uint64_t size = varint();
  if (size == 0) return;
  const unsigned types = octet();
  for (std::uint64_t i = 0; i < size; ++i) {
    skipElements(static_cast<int>(types >> kTypeBits), 1, depth);
    skipElements(static_cast<int>(types & kTypeMask), 1, depth);
  }
}

void putVarint(std::string& out, std::uint64_t value) {
  for (; value > kVarintMask; value >>= kVarintBits) {
    out.push_back(static_cast<char>((value & kVarintMask) | (kVarintMask + 1)));
  }
  out.push_back(static_cast<char>(value));
}

void putInteger(std::string& out, std::int64_t value) {
  const auto bits = static_cast<std::uint64_t>(value);
  putVarint(out, (bits << 1U) ^ (~(bits >> 63U) + 1U));
}

void putListHeader(std::string& out, int type, std::size_t size) {
  const auto types = static_cast<unsigned>(type);
  if (size < kShortList) {
    out.push_back(static_cast<char>((static_cast<unsigned>(size) << kTypeBits) | types));
  } else {
    out.push_back(static_cast<char>((kShortList << kTypeBits) | types));
    putVarint(out, size);
  }
}

}  // namespace kyr::parquet
