#include "files/FlatFileReader.h"

#include <arrow/type.h>
#include <arrow/util/key_value_metadata.h>
#include <parquet/arrow/schema.h>
#include <parquet/exception.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

#include "files/CompactProtocol.h"
#include "files/ParquetTail.h"
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

std::shared_ptr<::arrow::Schema> schemaOf(const ::parquet::FileMetaData& metadata) {
  std::shared_ptr<::arrow::Schema> schema;
  const ::arrow::Status status =
      ::parquet::arrow::FromParquetSchema(metadata.schema(), ::parquet::ArrowReaderProperties(),
                                          metadata.key_value_metadata(), &schema);
  return status.ok() ? schema : nullptr;
}

// What Parquet says about numbers beside their physical type.
std::shared_ptr<const ::parquet::LogicalType> logicalTypeOf(const ::arrow::DataType& type) {
  switch (type.id()) {
    case ::arrow::Type::INT8:
      return ::parquet::LogicalType::Int(8, true);
    case ::arrow::Type::UINT8:
      return ::parquet::LogicalType::Int(8, false);
    case ::arrow::Type::INT16:
      return ::parquet::LogicalType::Int(16, true);
    case ::arrow::Type::UINT16:
      return ::parquet::LogicalType::Int(16, false);
    case ::arrow::Type::UINT32:
      return ::parquet::LogicalType::Int(32, false);
    case ::arrow::Type::UINT64:
      return ::parquet::LogicalType::Int(64, false);
    default:
      return ::parquet::LogicalType::None();
  }
}

// The schema of a file with one column, if it clearly is of the type; empty if not. Making the
// schema from the metadata would take as long as opening a small file.
std::shared_ptr<::arrow::Schema> expectedSchema(const ::parquet::FileMetaData& metadata,
                                                const std::string& name,
                                                const ::arrow::DataType& type) {
  const ::parquet::ColumnDescriptor& column = *metadata.schema()->Column(0);
  const auto& keyValues = metadata.key_value_metadata();
  const bool isFloating = type.id() == ::arrow::Type::FLOAT || type.id() == ::arrow::Type::DOUBLE;
  const bool isFloatingThere = column.physical_type() == ::parquet::Type::FLOAT ||
                               column.physical_type() == ::parquet::Type::DOUBLE;
  if ((keyValues && keyValues->Contains("ARROW:schema")) || isFloating != isFloatingThere ||
      column.name() != name || column.schema_node()->parent()->parent() != nullptr ||
      !column.logical_type() || !column.logical_type()->Equals(*logicalTypeOf(type))) {
    return nullptr;
  }
  const auto same = std::const_pointer_cast<::arrow::DataType>(type.GetSharedPtr());
  return ::arrow::schema({::arrow::field(name, same, column.max_definition_level() > 0)});
}

}  // namespace

std::unique_ptr<FlatColumn> FlatColumn::make(const ::parquet::FileMetaData& metadata,
                                             std::uint64_t fileSize, const std::string& name,
                                             const ::arrow::DataType* type) {
  return make(metadata, fileSize, name, type, /*needsAllPlain=*/true);
}

std::unique_ptr<FlatColumn> FlatColumn::makeWherePlain(const ::parquet::FileMetaData& metadata,
                                                       std::uint64_t fileSize,
                                                       const std::string& name) {
  return make(metadata, fileSize, name, nullptr, /*needsAllPlain=*/false);
}

std::unique_ptr<FlatColumn> FlatColumn::make(const ::parquet::FileMetaData& metadata,
                                             std::uint64_t fileSize, const std::string& name,
                                             const ::arrow::DataType* type, bool needsAllPlain) {
  if (metadata.num_columns() != 1) return nullptr;
  auto schema = type ? expectedSchema(metadata, name, *type) : nullptr;
  if (!schema) schema = schemaOf(metadata);
  if (!schema || schema->num_fields() != 1) return nullptr;
  const ::arrow::Field& field = *schema->field(0);
  const ::parquet::ColumnDescriptor& descriptor = *metadata.schema()->Column(0);
  if (field.name() != name || (type && !field.type()->Equals(*type)) ||
      !isFlatColumn(*field.type(), descriptor) || metadata.is_encryption_algorithm_set()) {
    return nullptr;
  }
  std::unique_ptr<FlatColumn> result(new FlatColumn(schema, valueWidth(*field.type()),
                                                    physicalWidth(descriptor.physical_type()),
                                                    descriptor.max_definition_level() > 0));
  for (int i = 0; i < metadata.num_row_groups(); ++i) {
    const auto group = metadata.RowGroup(i);
    if (!result->add(*group, *group->ColumnChunk(0), fileSize) && needsAllPlain) return nullptr;
  }
  return result;
}

bool FlatColumn::add(const ::parquet::RowGroupMetaData& group,
                     const ::parquet::ColumnChunkMetaData& chunk, std::uint64_t fileSize) {
  const auto rows = static_cast<std::uint64_t>(group.num_rows());
  const auto offset = static_cast<std::uint64_t>(chunk.data_page_offset());
  const auto bytes = static_cast<std::uint64_t>(chunk.total_compressed_size());
  if (chunk.compression() != ::parquet::Compression::UNCOMPRESSED || chunk.has_dictionary_page() ||
      !chunk.file_path().empty() || physicalWidth(chunk.type()) != stored_ ||
      chunk.num_values() != group.num_rows() || offset > fileSize || bytes > fileSize - offset ||
      rows > bytes / stored_) {
    groups_.push_back({this->rows() + rows, 0, 0, {}});
    return false;
  }
  groups_.push_back({this->rows() + rows, offset, offset + bytes, {}});
  return true;
}

bool FlatColumn::read(const ByteSource& file, std::uint64_t first, std::uint64_t count, char* out) {
  auto group = static_cast<std::size_t>(
      std::upper_bound(groups_.begin(), groups_.end(), first,
                       [](std::uint64_t row, const Group& each) { return row < each.end; }) -
      groups_.begin());
  for (; count > 0; ++group) {
    const std::uint64_t here = std::min(count, groups_[group].end - first);
    if (!readGroup(file, group, first - rowStart(group), here, out)) return false;
    first += here;
    count -= here;
    out += here * width_;
  }
  return true;
}

bool FlatColumn::readGroup(const ByteSource& file, std::size_t group, std::uint64_t first,
                           std::uint64_t count, char* out) {
  std::vector<Page>& pages = groups_[group].pages;
  first += rowStart(group);
  while (pages.empty() || pages.back().end < first + count) {
    if (!findNextPage(file, group)) return false;
  }
  auto page = std::upper_bound(pages.begin(), pages.end(), first,
                               [](std::uint64_t row, const Page& each) { return row < each.end; });
  for (; count > 0; ++page) {
    const std::uint64_t start = page == pages.begin() ? rowStart(group) : (page - 1)->end;
    const std::uint64_t here = std::min(count, page->end - first);
    if (!readValues(file, page->values + (first - start) * stored_, here, out)) return false;
    first += here;
    count -= here;
    out += here * width_;
  }
  return true;
}

bool FlatColumn::findNextPage(const ByteSource& file, std::size_t group) {
  constexpr int kDataPageV2 = 3;
  Group& in = groups_[group];
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
  const std::uint64_t start = in.pages.empty() ? rowStart(group) : in.pages.back().end;
  if (header.type != kDataPageV2 || header.uncompressed != header.compressed || nulls != 0 ||
      rows != values || encoding != ::parquet::Encoding::PLAIN || repetitions != 0 || rows <= 0 ||
      static_cast<std::uint64_t>(rows) > in.end - start || levels < 0 ||
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

bool FlatColumn::readValues(const ByteSource& file, std::uint64_t offset, std::uint64_t count,
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

std::shared_ptr<::parquet::FileMetaData> readMetadata(const ByteSource& file) {
  const auto serialized = readSerializedMetadata(file);
  if (!serialized) return nullptr;
  auto bytes = static_cast<std::uint32_t>(serialized->size());
  try {
    return ::parquet::FileMetaData::Make(serialized->data(), &bytes);
  } catch (const ::parquet::ParquetException&) {
    return nullptr;
  }
}

}  // namespace kyr::parquet
