#include "files/growing/BatchIndex.h"

#include <parquet/exception.h>

#include <algorithm>
#include <limits>

#include "files/CompactProtocol.h"

namespace kyr::parquet {

struct BatchIndex::Group {
  std::string_view bytes;
  std::uint64_t rows = 0;
};

namespace {

using Reader = CompactReader;
using Group = BatchIndex::Group;

// Fields of FileMetaData and of RowGroup.
constexpr int kSchema = 2;
constexpr int kRowCount = 3;
constexpr int kRowGroups = 4;
constexpr int kGroupRowCount = 3;

// Field headers of the two that are written anew: one field on, with the type.
constexpr char kRowCountHeader = (1 << 4) | Reader::i64;
constexpr char kRowGroupsHeader = (1 << 4) | Reader::list;
constexpr std::size_t kMaxVarint = 10;
constexpr std::uint64_t kMaxRows = std::numeric_limits<std::int64_t>::max();

[[noreturn]] void refuse(const char* what) {
  throw ::parquet::ParquetException("Parquet metadata ", what);
}

// Where the parts of serialized metadata are.
struct Parts {
  std::string_view before;
  std::vector<Group> groups;
  std::string_view behind;
};

Group readGroup(std::string_view all, Reader& reader) {
  const std::size_t start = reader.position();
  std::int64_t rows = -1;
  for (auto field = reader.field(0); field.type != Reader::stop; field = reader.field(field.id)) {
    if (field.id == kGroupRowCount && field.type == Reader::i64) {
      rows = reader.integer();
    } else {
      reader.skip(field.type);
    }
  }
  if (rows < 0) refuse("has a row group without a number of rows");
  return {all.substr(start, reader.position() - start), static_cast<std::uint64_t>(rows)};
}

void readGroups(std::string_view all, Reader& reader, std::vector<Group>& groups) {
  const auto list = reader.listHeader();
  if (list.size > 0 && list.type != Reader::structure) refuse("has a list of no row groups");
  groups.reserve(list.size);
  for (std::size_t i = 0; i < list.size; ++i) groups.push_back(readGroup(all, reader));
}

// Writers put the fields in the order of their ids; so the row groups follow the number of rows,
// and that the schema.
Parts partsOf(std::string_view all) {
  Parts parts;
  Reader reader(all);
  int last = 0;
  std::size_t start = 0;
  for (auto field = reader.field(0); field.type != Reader::stop; field = reader.field(last)) {
    if (field.id == kRowCount && last == kSchema) parts.before = all.substr(0, start);
    if (field.id == kRowGroups && last == kRowCount && field.type == Reader::list) {
      readGroups(all, reader, parts.groups);
      parts.behind = all.substr(reader.position());
    } else {
      reader.skip(field.type);
    }
    last = field.id;
    start = reader.position();
  }
  if (parts.before.empty() || parts.behind.empty()) refuse("has no row groups behind a schema");
  if (!reader.atEnd()) refuse("is followed by something else");
  return parts;
}

}  // namespace

BatchIndex::BatchIndex(std::string_view metadata) {
  const Parts parts = partsOf(metadata);
  before_ = parts.before;
  behind_ = parts.behind;
  append(parts.groups);
}

void BatchIndex::append(std::string_view metadata) { append(partsOf(metadata).groups); }

void BatchIndex::append(const std::vector<Group>& groups) {
  const std::size_t bytesBefore = bytes_.size();
  const std::size_t batchesBefore = batches();
  try {
    for (const auto& [bytes, groupRows] : groups) {
      if (groupRows > kMaxRows - rows()) refuse("has more rows than can be counted");
      bytes_.append(bytes);
      ends_.push_back({rows() + groupRows, bytes_.size()});
    }
  } catch (...) {
    bytes_.resize(bytesBefore);
    ends_.resize(batchesBefore);
    throw;
  }
}

void BatchIndex::removeLast() noexcept {
  ends_.pop_back();
  bytes_.resize(ends_.empty() ? 0 : ends_.back().bytes);
}

std::size_t BatchIndex::batchOfRow(std::uint64_t row) const {
  const auto found =
      std::upper_bound(ends_.begin(), ends_.end(), row,
                       [](std::uint64_t value, const End& end) { return value < end.rows; });
  return static_cast<std::size_t>(found - ends_.begin());
}

std::string BatchIndex::metadata(std::size_t first, std::size_t count) const {
  const std::size_t from = first == 0 ? 0 : ends_[first - 1].bytes;
  const std::size_t to = first + count == 0 ? 0 : ends_[first + count - 1].bytes;
  std::string result;
  result.reserve(metadataBound() - bytes_.size() + to - from);
  result += before_;
  result += kRowCountHeader;
  putInteger(result, static_cast<std::int64_t>(rowEnd(first + count) - rowEnd(first)));
  result += kRowGroupsHeader;
  putListHeader(result, Reader::structure, count);
  result.append(bytes_, from, to - from);
  result += behind_;
  return result;
}

std::string_view BatchIndex::groupBytes(std::size_t batch) const {
  const std::size_t from = batch == 0 ? 0 : ends_[batch - 1].bytes;
  return std::string_view(bytes_).substr(from, ends_[batch].bytes - from);
}

std::size_t BatchIndex::metadataBound() const {
  return before_.size() + behind_.size() + bytes_.size() + 2 * (1 + kMaxVarint) + 1;
}

}  // namespace kyr::parquet
