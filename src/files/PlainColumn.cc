#include "files/PlainColumn.h"

#include <arrow/type.h>

#include <algorithm>
#include <array>
#include <string>
#include <string_view>

#include "files/CompactProtocol.h"
#include "files/PhysicalTypes.h"
#include "files/PlainPages.h"
#include "schema/ArrayMemory.h"

namespace kyr::parquet {

namespace {

// Whether levels of one bit say that none of so many values is null, in the one run that writers
// encode that as.
bool areAllThere(std::string_view levels, std::int64_t rows) {
  std::string expected;
  putVarint(expected, static_cast<std::uint64_t>(rows) << 1U);
  expected.push_back('\1');
  return levels == expected;
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
  const auto plain = plainChunk(*chunk, stored_, fileSize);
  const bool isRead = plain && chunk->num_values() == group.num_rows();
  groups_.push_back(
      isRead ? Group{rows, plain->offset, plain->offset + plain->bytes, plain->hasCodec, {}}
             : Group{rows, 0, 0, false, {}});
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
    if (!readPlainNumbers(file, page->values + (first - start) * stored_, here, width_, stored_,
                          out)) {
      return false;
    }
    first += here;
    count -= here;
    out += here * width_;
  }
  return true;
}

bool PlainColumn::findNextPage(const ByteSource& file, Group& in) const {
  if (in.offset >= in.limit) return false;
  std::array<char, kPageStartBytes> bytes;
  const std::size_t got = file.readAt(in.offset, bytes.data(),
                                      std::min<std::uint64_t>(bytes.size(), in.limit - in.offset));
  const std::string_view text(bytes.data(), got);
  const auto page = readPlainPageHeader(text, in.hasCodec);
  if (!page) in.limit = in.offset;
  const std::uint64_t start = in.pages.empty() ? 0 : in.pages.back().end;
  if (!page || page->nulls != 0 || page->rows != page->entries || page->repetitionBytes != 0 ||
      page->rows == 0 || static_cast<std::uint64_t>(page->rows) > in.rows - start) {
    return false;
  }
  const auto rows = static_cast<std::uint64_t>(page->rows);
  const auto levels = static_cast<std::uint64_t>(page->definitionBytes);
  const auto pageBytes = static_cast<std::uint64_t>(page->pageBytes);
  if (levels > text.size() - page->headerBytes || pageBytes != levels + rows * stored_ ||
      pageBytes > in.limit - in.offset - page->headerBytes) {
    return false;
  }
  const std::string_view levelBytes = text.substr(page->headerBytes, levels);
  if (isOptional_ ? !areAllThere(levelBytes, page->rows) : levels != 0) return false;
  in.offset += page->headerBytes;
  in.pages.push_back({start + rows, in.offset + levels});
  in.offset += pageBytes;
  return true;
}

}  // namespace kyr::parquet
