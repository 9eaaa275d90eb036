#include "files/PlainPages.h"

#include <parquet/exception.h>
#include <parquet/types.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "files/CompactProtocol.h"
#include "files/PhysicalTypes.h"

namespace kyr::parquet {

namespace {

// The fields of a PageHeader with a DataPageHeaderV2 that are looked at.
struct Header {
  std::int64_t type = -1;
  std::int64_t uncompressed = -1;
  std::int64_t compressed = -1;
  // values, nulls, rows, encoding, bytes of definition and of repetition levels
  std::array<std::int64_t, 6> data{-1, -1, -1, -1, -1, -1};
  bool isCompressed = true;
};

void readDataHeader(CompactReader& reader, Header& header) {
  for (auto field = reader.field(0); field.type != CompactReader::stop;
       field = reader.field(field.id)) {
    constexpr int kIsCompressed = 7;
    const bool isNumber = field.type == CompactReader::i32;
    if (field.id == kIsCompressed) header.isCompressed = field.type != CompactReader::no;
    if (isNumber && field.id >= 1 && field.id <= 6) {
      header.data[static_cast<std::size_t>(field.id) - 1] = reader.integer();
    } else {
      reader.skip(field.type);
    }
  }
}

Header readHeader(CompactReader& reader) {
  constexpr int kDataPageV2 = 8;
  Header header;
  for (auto field = reader.field(0); field.type != CompactReader::stop;
       field = reader.field(field.id)) {
    if (field.type == CompactReader::i32 && field.id >= 1 && field.id <= 3) {
      const std::int64_t value = reader.integer();
      (field.id == 1   ? header.type
       : field.id == 2 ? header.uncompressed
                       : header.compressed) = value;
    } else if (field.id == kDataPageV2 && field.type == CompactReader::structure) {
      readDataHeader(reader, header);
    } else {
      reader.skip(field.type);
    }
  }
  return header;
}

template <typename T>
void narrow(const std::vector<std::int32_t>& numbers, std::size_t count, char* out) {
  for (std::size_t i = 0; i < count; ++i) {
    const auto value = static_cast<T>(numbers[i]);
    std::memcpy(out + i * sizeof(T), &value, sizeof(T));
  }
}

}  // namespace

std::optional<PlainChunk> plainChunk(const ::parquet::ColumnChunkMetaData& chunk,
                                     std::size_t stored, std::uint64_t fileSize) {
  const auto offset = static_cast<std::uint64_t>(chunk.data_page_offset());
  const auto bytes = static_cast<std::uint64_t>(chunk.total_compressed_size());
  const bool hasCodec = chunk.compression() != ::parquet::Compression::UNCOMPRESSED;
  const bool isPlain = !chunk.has_dictionary_page() && chunk.file_path().empty() &&
                       physicalWidth(chunk.type()) == stored && offset <= fileSize &&
                       bytes <= fileSize - offset &&
                       static_cast<std::uint64_t>(chunk.num_values()) <= bytes / stored;
  return isPlain ? std::optional<PlainChunk>({offset, bytes, hasCodec}) : std::nullopt;
}

std::optional<PlainPageHeader> readPlainPageHeader(std::string_view bytes, bool hasCodec) {
  constexpr int kDataPageV2 = 3;
  PlainPageHeader page;
  Header header;
  try {
    CompactReader reader(bytes);
    header = readHeader(reader);
    page.headerBytes = reader.position();
  } catch (const ::parquet::ParquetException&) {
    return std::nullopt;
  }
  const auto [entries, nulls, rows, encoding, definitions, repetitions] = header.data;
  if (header.type != kDataPageV2 || header.uncompressed != header.compressed ||
      encoding != ::parquet::Encoding::PLAIN || (hasCodec && header.isCompressed) ||
      std::min({entries, nulls, rows, definitions, repetitions, header.compressed}) < 0) {
    return std::nullopt;
  }
  page.entries = entries;
  page.nulls = nulls;
  page.rows = rows;
  page.definitionBytes = definitions;
  page.repetitionBytes = repetitions;
  page.pageBytes = header.compressed;
  return page;
}

bool readPlainNumbers(const ByteSource& file, std::uint64_t offset, std::uint64_t count,
                      std::size_t width, std::size_t stored, char* out) {
  if (width == stored) {
    const auto bytes = static_cast<std::size_t>(count) * width;
    return file.readAt(offset, out, bytes) == bytes;
  }
  constexpr std::size_t kPiece = 16'384;
  std::vector<std::int32_t> numbers(std::min<std::uint64_t>(count, kPiece));
  while (count > 0) {
    const std::size_t piece = std::min<std::uint64_t>(count, kPiece);
    const std::size_t bytes = piece * sizeof(std::int32_t);
    if (file.readAt(offset, numbers.data(), bytes) != bytes) return false;
    // The lower bits are the value, with a sign or without.
    width == 1 ? narrow<std::uint8_t>(numbers, piece, out)
               : narrow<std::uint16_t>(numbers, piece, out);
    offset += bytes;
    out += piece * width;
    count -= piece;
  }
  return true;
}

}  // namespace kyr::parquet
