#include "files/growing/BatchRecord.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace kyr::parquet {

namespace {

constexpr std::string_view kMagic = "\x8fKYRBAT\n";
constexpr std::string_view kGuard = "\x8fKYRROW\n";
constexpr std::uint32_t kVersion = 1;
constexpr std::size_t kHashedHeaderBytes = 64;
constexpr std::size_t kPieceBytes = std::size_t{1} << 20U;
constexpr std::uint64_t kMaxMetadataBytes = std::numeric_limits<std::int32_t>::max();
constexpr unsigned kByteBits = 8;
constexpr unsigned kByteMask = 0xff;

static_assert(kFooterHeaderBytes == kHashedHeaderBytes + sizeof(XXH128_canonical_t));
static_assert(kBatchHeaderBytes == kFooterHeaderBytes + kGuard.size());

void putNumber(std::string& out, std::uint64_t value, std::size_t bytes) {
  for (; bytes > 0; --bytes, value >>= kByteBits)
    out.push_back(static_cast<char>(value & kByteMask));
}

std::uint64_t number(std::string_view bytes) {
  std::uint64_t value = 0;
  for (std::size_t i = bytes.size(); i > 0; --i) {
    value = (value << kByteBits) | static_cast<unsigned char>(bytes[i - 1]);
  }
  return value;
}

std::string readBytes(const ByteSource& file, std::uint64_t offset, std::size_t size) {
  std::string bytes(size, '\0');
  bytes.resize(file.readAt(offset, bytes.data(), size));
  return bytes;
}

// The header in \p bytes, if a record of that kind can have it at \p offset and ends before \p end.
std::optional<RecordHeader> decodeHeader(std::string_view bytes, RecordKind kind,
                                         std::uint64_t offset, std::uint64_t end) {
  std::size_t at = kMagic.size();
  const auto next = [&](std::size_t size) {
    at += size;
    return number(bytes.substr(at - size, size));
  };
  if (bytes.substr(0, kMagic.size()) != kMagic) return std::nullopt;
  if (next(4) != kVersion || next(4) != static_cast<std::uint32_t>(kind)) return std::nullopt;
  RecordHeader header;
  header.kind = kind;
  for (auto* field : {&header.fileId, &header.offset, &header.index, &header.rows,
                      &header.rowGroupBytes, &header.metadataBytes}) {
    *field = next(8);
  }
  if (kind == RecordKind::batch && bytes.substr(kFooterHeaderBytes) != kGuard) return std::nullopt;
  const std::uint64_t room = end - offset - header.headerBytes();
  if (header.offset != offset || header.metadataBytes > std::min(room, kMaxMetadataBytes) ||
      header.rowGroupBytes > room - header.metadataBytes) {
    return std::nullopt;
  }
  return header;
}

}  // namespace

std::uint64_t RecordHeader::headerBytes() const {
  return kind == RecordKind::batch ? kBatchHeaderBytes : kFooterHeaderBytes;
}

std::string RecordHash::digest() const {
  XXH128_canonical_t digest;
  XXH128_canonicalFromHash(&digest, XXH3_128bits_digest(&state_));
  return {reinterpret_cast<const char*>(digest.digest), sizeof(digest.digest)};
}

std::string encodeHeader(const RecordHeader& header, const RecordHash& payload) {
  std::string bytes;
  bytes.reserve(kBatchHeaderBytes);
  bytes += kMagic;
  putNumber(bytes, kVersion, 4);
  putNumber(bytes, static_cast<std::uint32_t>(header.kind), 4);
  for (const std::uint64_t field : {header.fileId, header.offset, header.index, header.rows,
                                    header.rowGroupBytes, header.metadataBytes}) {
    putNumber(bytes, field, 8);
  }
  RecordHash hash = payload;
  hash.add(bytes);
  bytes += hash.digest();
  if (header.kind == RecordKind::batch) bytes += kGuard;
  return bytes;
}

std::string encodeFooter(RecordHeader header, std::string_view metadata) {
  header.kind = RecordKind::footer;
  header.rowGroupBytes = 0;
  header.metadataBytes = metadata.size();
  std::string bytes;
  bytes.reserve(kBatchHeaderBytes + metadata.size() + kParquetTailBytes);
  RecordHash hash;
  hash.add(metadata);
  bytes += encodeHeader(header, hash);
  bytes += metadata;
  putNumber(bytes, metadata.size(), 4);
  bytes += kParquetMagic;
  return bytes;
}

namespace {

// \param bytes  receives the header as it is in the file
std::optional<RecordHeader> readHeader(const ByteSource& file, RecordKind kind,
                                       std::uint64_t offset, std::uint64_t end,
                                       std::string& bytes) {
  const std::size_t headerBytes =
      kind == RecordKind::batch ? kBatchHeaderBytes : kFooterHeaderBytes;
  if (offset > end || end - offset < headerBytes) return std::nullopt;
  bytes = readBytes(file, offset, headerBytes);
  if (bytes.size() < headerBytes) return std::nullopt;
  return decodeHeader(bytes, kind, offset, end);
}

std::optional<std::string> readRecordMetadata(const ByteSource& file, const RecordHeader& header) {
  const auto size = static_cast<std::size_t>(header.metadataBytes);
  std::string metadata = readBytes(file, header.dataOffset() + header.rowGroupBytes, size);
  if (metadata.size() < size) return std::nullopt;
  return metadata;
}

}  // namespace

std::optional<WholeRecord> readRecord(const ByteSource& file, RecordKind kind, std::uint64_t offset,
                                      std::uint64_t end) {
  std::string bytes;
  const auto header = readHeader(file, kind, offset, end, bytes);
  if (!header) return std::nullopt;
  RecordHash hash;
  std::uint64_t at = header->dataOffset();
  const std::uint64_t metadataAt = at + header->rowGroupBytes;
  std::string piece(static_cast<std::size_t>(std::min<std::uint64_t>(kPieceBytes, metadataAt - at)),
                    '\0');
  while (at < metadataAt) {
    const auto size =
        static_cast<std::size_t>(std::min<std::uint64_t>(piece.size(), metadataAt - at));
    if (file.readAt(at, piece.data(), size) < size) return std::nullopt;
    hash.add(std::string_view(piece).substr(0, size));
    at += size;
  }
  auto metadata = readRecordMetadata(file, *header);
  if (!metadata) return std::nullopt;
  hash.add(*metadata);
  const std::string_view head = bytes;
  hash.add(head.substr(0, kHashedHeaderBytes));
  const auto digest = head.substr(kHashedHeaderBytes, kFooterHeaderBytes - kHashedHeaderBytes);
  if (hash.digest() != digest) return std::nullopt;
  return WholeRecord{*header, *std::move(metadata)};
}

std::optional<WholeRecord> readRecordUnchecked(const ByteSource& file, RecordKind kind,
                                               std::uint64_t offset, std::uint64_t end) {
  std::string bytes;
  const auto header = readHeader(file, kind, offset, end, bytes);
  if (!header) return std::nullopt;
  auto metadata = readRecordMetadata(file, *header);
  if (!metadata) return std::nullopt;
  return WholeRecord{*header, *std::move(metadata)};
}

std::optional<WholeRecord> readFooter(const ByteSource& file, std::uint64_t end) {
  if (end < kFooterHeaderBytes + kParquetTailBytes) return std::nullopt;
  const std::string tail = readBytes(file, end - kParquetTailBytes, kParquetTailBytes);
  if (tail.size() < kParquetTailBytes || tail.substr(4) != kParquetMagic) return std::nullopt;
  const std::uint64_t length = number(std::string_view(tail).substr(0, 4));
  const std::uint64_t metadataEnd = end - kParquetTailBytes;
  if (length > metadataEnd - kFooterHeaderBytes) return std::nullopt;
  auto footer =
      readRecord(file, RecordKind::footer, metadataEnd - length - kFooterHeaderBytes, metadataEnd);
  if (!footer || footer->header.end() != metadataEnd) return std::nullopt;
  return footer;
}

}  // namespace kyr::parquet
