#include "files/ParquetTail.h"

#include <algorithm>
#include <limits>

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

std::shared_ptr<::parquet::FileMetaData> parseMetadata(std::string_view metadata) {
  auto size = static_cast<std::uint32_t>(metadata.size());
  return ::parquet::FileMetaData::Make(metadata.data(), &size, readerProperties());
}

::parquet::ReaderProperties readerProperties() {
  ::parquet::ReaderProperties properties;
  properties.set_thrift_container_size_limit(std::numeric_limits<std::int32_t>::max());
  properties.set_thrift_string_size_limit(std::numeric_limits<std::int32_t>::max());
  return properties;
}

}  // namespace kyr::parquet
