#include "files/ParquetTail.h"

#include <algorithm>

namespace kyr::parquet {

namespace {

// Read in one call. Holds the metadata of small files.
constexpr std::size_t kTailGuess = std::size_t{8} << 10U;

}  // namespace

std::uint32_t metadataLength(std::string_view tail) {
  std::uint32_t bytes = 0;
  for (std::size_t i = 4; i > 0; --i)
    bytes = (bytes << 8U) | static_cast<unsigned char>(tail[i - 1]);
  return bytes;
}

std::optional<std::string> readSerializedMetadata(const ByteSource& file) {
  const std::uint64_t size = file.size();
  std::string tail(std::min<std::uint64_t>(size, kTailGuess), '\0');
  if (tail.size() < kParquetMagic.size() + kParquetTailBytes ||
      file.readAt(size - tail.size(), tail.data(), tail.size()) != tail.size() ||
      std::string_view(tail).substr(tail.size() - kParquetMagic.size()) != kParquetMagic) {
    return std::nullopt;
  }
  const std::size_t bytes =
      metadataLength(std::string_view(tail).substr(tail.size() - kParquetTailBytes));
  if (bytes > size - kParquetMagic.size() - kParquetTailBytes) return std::nullopt;
  if (bytes + kParquetTailBytes > tail.size()) {
    tail.resize(bytes);
    if (file.readAt(size - kParquetTailBytes - bytes, tail.data(), bytes) != bytes) {
      return std::nullopt;
    }
    return tail;
  }
  tail.resize(tail.size() - kParquetTailBytes);
  tail.erase(0, tail.size() - bytes);
  return tail;
}

}  // namespace kyr::parquet
