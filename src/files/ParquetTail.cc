#include "files/ParquetTail.h"

#include <algorithm>
#include <limits>
#include <utility>

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

std::optional<std::string> readSerializedMetadata(const ByteSource& file,
                                                  std::optional<std::string>& whole) {
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
  std::string metadata = tail.substr(tail.size() - kParquetTailBytes - bytes, bytes);
  if (tail.size() == size) whole = std::move(tail);
  return metadata;
}

std::shared_ptr<::parquet::FileMetaData> parseMetadata(std::string_view metadata) {
  auto size = static_cast<std::uint32_t>(metadata.size());
  // The parser makes room for a list or a text before it reads it. Each element takes a byte or
  // more, so that a list longer than all metadata is a lie. Longer lists than by default are
  // needed: long files have millions of row groups.
  const auto most = static_cast<std::int32_t>(
      std::min<std::uint32_t>(size, std::numeric_limits<std::int32_t>::max()));
  ::parquet::ReaderProperties properties;
  properties.set_thrift_container_size_limit(most);
  properties.set_thrift_string_size_limit(most);
  return ::parquet::FileMetaData::Make(metadata.data(), &size, properties);
}

}  // namespace kyr::parquet
