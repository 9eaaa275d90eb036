#include "files/PlainColumn.h"

#include <arrow/type.h>
#include <parquet/exception.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <string_view>

#include "files/CompactProtocol.h"
#include "files/PhysicalTypes.h"
#include "schema/ArrayMemory.h"

namespace kyr::parquet {

namespace {

// Read at once where a page begins: its header, its levels and more.
constexpr std::size_t kHeaderBytes = 256;

// The fields of a PageHeader with a DataPageHeaderV2 that are looked at.
struct PageHeader {
  std::int64_t type = -1;
  std::int64_t uncompressed = -1;
  std::int64_t compressed = -1;
  // values, nulls, rows, encoding, bytes of definition and of repetition levels
  std::array<std::int64_t, 6> data{-1, -1, -1, -1, -1, -1};
};

void readDataHeader(CompactReader& reader, PageHeader& header) {
  for (auto field = reader.field(0); field.type != CompactReader::stop;
       field = reader.field(field.id)) {
    const bool isNumber = field.type == CompactReader::i32;
    if (isNumber && field.id >= 1 && field.id <= 6) {
      header.data[static_cast<std::size_t>(field.id) - 1] = reader.integer();
    } else {
      reader.skip(field.type);
    }
  }
}

PageHeader readHeader(CompactReader& reader) {
  constexpr int kDataPageV2 = 8;
  PageHeader header;
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

// Whether levels of one bit say that none of so many values is null, in the one run that writers
// encode that as.
bool areAllThere(std::string_view levels, std::int64_t rows) {
  std::string expected;
  putVarint(expected, static_cast<std::uint64_t>(rows) << 1U);
  expected.push_back('\1');
  return levels == expected;
}

template <typename T>
void narrow(const std::vector<std::int32_t>& stored, std::size_t count, char* out) {
  for (std::size_t i = 0; i < count; ++i) {
    const auto value = static_cast<T>(stored[i]);
    std::memcpy(out + i * sizeof(T), &value, sizeof(T));
  }
}

}  // namespace

std::unique_ptr<PlainColumn> PlainColumn::make(const ::parquet::FileMetaData& metadata,
                                               std::uint64_t fileSize) {
  if (metadata.num_columns() < 1 || metadata.is_encryption_algorithm_set()) return nullptr;
  const ::parquet::ColumnDescriptor& column = *metadata.schema()->Column(0);
  const auto type = numberTypeOf(column);
  if (!type) return nullptr;
  std::unique_ptr<PlainColumn> result(new PlainColumn(
      valueWidth(*type), physicalWidth(column.physical_type()), column.max_definition_level() > 0));
  for (int i = 0; i < metadata.num_row_groups(); ++i) result->add(*metadata.RowGroup(i), fileSize);
  return result;
}

void PlainColumn::add(const ::parquet::RowGroupMetaData& group, std::uint64_t fileSize) {
  const auto chunk = group.ColumnChunk(0);
  const auto rows = static_cast<std::uint64_t>(group.num_rows());
  const auto offset = static_cast<std::uint64_t>(chunk->data_page_offset());
  const auto bytes = static_cast<std::uint64_t>(chunk->total_compressed_size());
  const bool isPlain = chunk->compression() == ::parquet::Compression::UNCOMPRESSED &&
                       !chunk->has_dictionary_page() && chunk->file_path().empty() &&
                       physicalWidth(chunk->type()) == stored_ &&
                       chunk->num_values() == group.num_rows() && offset <= fileSize &&
                       bytes <= fileSize - offset && rows <= bytes / stored_;
  groups_.push_back(isPlain ? Group{rows, offset, offset + bytes, {}} : Group{rows, 0, 0, {}});
}

bool PlainColumn::readGroup(const ByteSource& file, std::size_t group, std::uint64_t first,
                            std::uint64_t count, char* out) {
  Group& in = groups_[group];
  std::vector<Page>& pages = in.pages;
  while (pages.empty() || pages.back().end < first + count) {
    if (!findNextPage(file, in)) return false;
  }
  auto page = std::upper_bound(pages.begin(), pages.end(), first,
                               [](std::uint64_t row, const Page& each) { return row < each.end; });
  for (; count > 0; ++page) {
    const std::uint64_t start = page == pages.begin() ? 0 : (page - 1)->end;
    const std::uint64_t here = std::min(count, page->end - first);
    if (!readValues(file, page->values + (first - start) * stored_, here, out)) return false;
    first += here;
    count -= here;
    out += here * width_;
  }
  return true;
}

bool PlainColumn::findNextPage(const ByteSource& file, Group& in) const {
  constexpr int kDataPageV2 = 3;
  if (in.offset >= in.limit) return false;
  std::array<char, kHeaderBytes> bytes;
  const std::size_t got = file.readAt(in.offset, bytes.data(),
                                      std::min<std::uint64_t>(bytes.size(), in.limit - in.offset));
  const std::string_view text(bytes.data(), got);
  PageHeader header;
  std::size_t headerBytes = 0;
  try {
    CompactReader reader(text);
    header = readHeader(reader);
    headerBytes = reader.position();
  } catch (const ::parquet::ParquetException&) {
    return false;
  }
  const auto [values, nulls, rows, encoding, levels, repetitions] = header.data;
  const std::uint64_t start = in.pages.empty() ? 0 : in.pages.back().end;
  if (header.type != kDataPageV2 || header.uncompressed != header.compressed || nulls != 0 ||
      rows != values || encoding != ::parquet::Encoding::PLAIN || repetitions != 0 || rows <= 0 ||
      static_cast<std::uint64_t>(rows) > in.rows - start || levels < 0 ||
      static_cast<std::uint64_t>(levels) > text.size() - headerBytes ||
      header.compressed != levels + rows * static_cast<std::int64_t>(stored_) ||
      static_cast<std::uint64_t>(header.compressed) > in.limit - in.offset - headerBytes) {
    return false;
  }
  const std::string_view levelBytes = text.substr(headerBytes, static_cast<std::size_t>(levels));
  if (isOptional_ ? !areAllThere(levelBytes, rows) : levels != 0) return false;
  in.pages.push_back({start + static_cast<std::uint64_t>(rows),
                      in.offset + headerBytes + static_cast<std::uint64_t>(levels)});
  in.offset += headerBytes + static_cast<std::uint64_t>(header.compressed);
  return true;
}

bool PlainColumn::readValues(const ByteSource& file, std::uint64_t offset, std::uint64_t count,
                             char* out) const {
  if (width_ == stored_) {
    const auto bytes = static_cast<std::size_t>(count) * width_;
    return file.readAt(offset, out, bytes) == bytes;
  }
  constexpr std::size_t kPiece = 16'384;
  std::vector<std::int32_t> stored(std::min<std::uint64_t>(count, kPiece));
  while (count > 0) {
    const std::size_t piece = std::min<std::uint64_t>(count, kPiece);
    const std::size_t bytes = piece * sizeof(std::int32_t);
    if (file.readAt(offset, stored.data(), bytes) != bytes) return false;
    // The lower bits are the value, with a sign or without.
    width_ == 1 ? narrow<std::uint8_t>(stored, piece, out)
                : narrow<std::uint16_t>(stored, piece, out);
    offset += bytes;
    out += piece * width_;
    count -= piece;
  }
  return true;
}

}  // namespace kyr::parquet
