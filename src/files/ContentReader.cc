#include "files/ContentReader.h"

#include <arrow/api.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "kyr/parquet/ColumnNames.h"

namespace kyr::parquet {

const std::string kPackColumn = "storage";

namespace {

[[noreturn]] void fail(const InputFile& file, const std::string& what) {
  throw std::runtime_error(fmt::format("{}: {}", file.path().string(), what));
}

std::shared_ptr<::arrow::Schema> without(const ::arrow::Schema& schema, const std::string& column) {
  ::arrow::FieldVector fields;
  for (const auto& field : schema.fields()) {
    if (field->name() != column) fields.push_back(field);
  }
  return ::arrow::schema(std::move(fields));
}

}  // namespace

ContentFile::ContentFile(std::shared_ptr<InputFile> file, Kind kind,
                         std::shared_ptr<RowGroupCache> cache)
    : file_(std::move(file)),
      kind_(kind),
      cache_(std::move(cache)),
      schema_(without(*file_->schema(), isPack() ? kPackColumn : columnNames::time)),
      hasTimes_(!isPack() && file_->hasColumn(columnNames::time)) {
  if (isPack()) {
    const ::arrow::Schema& all = *file_->schema();
    const int ids = all.GetFieldIndex(kPackColumn);
    if (ids < 1 || ids != all.num_fields() - 1 ||
        all.field(ids)->type()->id() != ::arrow::Type::INT32) {
      fail(*file_, fmt::format("is no pack: its last column is no int32 \"{}\"", kPackColumn));
    }
    if (schema_.dataIndex != 0 || !makesSamples(schema_)) {
      fail(*file_, fmt::format("is no pack: its columns are {}", all.ToString()));
    }
  }
  if (schema_.dataIndex < 0) {
    fail(*file_, fmt::format("has no column \"{}\"", columnNames::data));
  }
  width_ = elementBytes(schema_);
}

void ContentFile::requireReadable() const {
  if (makesSamples(schema_)) return;
  fail(*file_, fmt::format("its columns make no samples: {}", schema_.schema->ToString()));
}

std::shared_ptr<const DecodedGroup> ContentFile::group(std::size_t index) {
  if (auto known = cache_->find(*file_, index)) return known;
  requireReadable();
  auto group = cache_->takeSpare(*file_);
  if (!group) group = std::make_shared<DecodedGroup>(DecodedGroup{RowStore(schema_, width_), {}});
  decode(index, *group);
  cache_->put(*file_, index, group);
  return group;
}

template <typename Check>
void ContentFile::naming(Check&& check) const {
  try {
    check();
  } catch (const std::invalid_argument& error) {
    fail(*file_, error.what());
  }
}

void ContentFile::decode(std::size_t index, DecodedGroup& group) {
  const std::uint64_t first = file_->rowStart(index);
  const std::uint64_t count = file_->rowStart(index + 1) - first;
  // Before there is memory for samples: a damaged file may claim any number of rows.
  if (isPack()) readColumn(*file_, kPackColumn, sizeof(std::int32_t), first, count, group.ids);
  if (isFlat()) {
    const std::size_t kept = std::min<std::uint64_t>(group.rows.rows(), count);
    group.rows.truncate(kept);
    group.rows.grow(static_cast<std::size_t>(count) - kept);
    return file_->readNumbers(columnNames::data, first, count, group.rows.values());
  }
  group.rows.refill(static_cast<std::size_t>(count), [&](ByteBuffer& elements, RowShapes& shapes) {
    if (schema_.kind == ColumnKind::flat) {
      elements.extend(static_cast<std::size_t>(count) * width_);
      file_->readNumbers(columnNames::data, first, count, elements.data());
    } else {
      file_->readGroup(columnNames::data, index, elements, shapes.rowEnds);
    }
    if (schema_.dimensionIndex < 0) return;
    ByteBuffer extents;
    file_->readGroup(columnNames::dimension, index, extents, shapes.extentEnds);
    shapes.extents.resize(extents.size() / sizeof(std::uint64_t));
    std::memcpy(shapes.extents.data(), extents.data(), extents.size());
  });
  if (schema_.kind == ColumnKind::list) {
    naming([&] { requireShapes(group.rows.slice(), first); });
  }
}

void ContentFile::requireRowsOf(const ::arrow::Table& table, std::uint64_t first) const {
  naming([&] { requireSamples(schema_, table, first); });
}

ContentReader::ContentReader(std::shared_ptr<InputFile> file, std::shared_ptr<RowGroupCache> cache)
    : file_(std::make_shared<ContentFile>(std::move(file), ContentFile::Kind::single,
                                          std::move(cache))) {}

ContentReader::ContentReader(std::shared_ptr<ContentFile> pack, int storageId, std::uint64_t first,
                             std::uint64_t count)
    : file_(std::move(pack)), storageId_(storageId), first_(first), count_(count) {
  const std::uint64_t there = file().rows();
  if (first <= there && count <= there - first) return;
  fail(file(), fmt::format("holds {} rows, but rows {} to {} belong to storage id {}", there, first,
                           first + count, storageId));
}

std::shared_ptr<ContentReader> ContentReader::viewOf(const ContentReader& content, View view) {
  const auto column = content.file().schema()->GetFieldByName(columnNames::time);
  if (!content.hasTimes() || column->type()->id() != ::arrow::Type::DOUBLE) {
    fail(content.file(), fmt::format("has no float64 column \"{}\"", columnNames::time));
  }
  auto result = std::make_shared<ContentReader>(content);
  result->view_ = view;
  return result;
}

void ContentReader::grow(std::uint64_t rows) {
  if (!isPacked()) file_->input().grow(rows);
}

::arrow::Compression::type ContentReader::codec() const { return file().codec(columnNames::data); }

std::size_t ContentReader::parts() const {
  if (!isPacked()) return file().rowGroups();
  return count_ == 0 ? 0 : partOfRow(count_ - 1) + 1;
}

std::uint64_t ContentReader::partStart(std::size_t part) const {
  if (!isPacked()) return file().rowStart(part);
  const std::size_t group = count_ == 0 ? 0 : file().groupOfRow(first_);
  return std::clamp(file().rowStart(group + part), first_, first_ + count_) - first_;
}

std::size_t ContentReader::partOfRow(std::uint64_t row) const {
  const std::size_t group = file().groupOfRow(first_ + row);
  return isPacked() ? group - file().groupOfRow(first_) : group;
}

std::vector<std::optional<NumberRange>> ContentReader::ascendingParts(std::size_t first) const {
  if (isPacked()) return std::vector<std::optional<NumberRange>>(parts() - first);
  return file().ascendingGroups(first);
}

void ContentReader::requireRows(std::uint64_t first, std::uint64_t count) const {
  if (first <= rows() && count <= rows() - first) return;
  throw std::out_of_range(fmt::format("{}: rows {} to {} are asked for, there are {}",
                                      file().path().string(), first, first + count, rows()));
}

void ContentReader::readNumbers(const std::string& column, std::uint64_t first, std::uint64_t count,
                                char* out) {
  requireRows(first, count);
  if (count == 0) return;
  if (!isPacked()) {
    return file_->input().readNumbers(isTimes() ? columnNames::time : column, first, count, out);
  }
  if (!isFlat() || column != columnNames::data) {
    fail(file(), fmt::format("its column \"{}\" does not hold numbers", column));
  }
  // One row group after the other: rows of several would be copied together first.
  while (count > 0) {
    const std::uint64_t end = partStart(partOfRow(first) + 1);
    const std::uint64_t rows = std::min(count, end - first);
    const HeldRows held = read(first, rows);
    std::memcpy(out, held.rows.elements, held.rows.bytes);
    out += held.rows.bytes;
    first += rows;
    count -= rows;
  }
}

HeldRows ContentReader::read(std::uint64_t first, std::uint64_t count) {
  requireRows(first, count);
  if (!isPacked() && isFlat()) {
    if (!isTimes()) file_->requireReadable();
    const auto rows = std::make_shared<RowStore>(schema(), width());
    rows->grow(static_cast<std::size_t>(count));
    if (count > 0) readNumbers(columnNames::data, first, count, rows->values());
    return {rows->slice(), rows};
  }
  return gatherRows(file(), schema(), width(), first_ + first, count,
                    [this](std::size_t group, std::size_t from, std::size_t rows) {
                      return readGroup(group, from, rows);
                    });
}

std::shared_ptr<::arrow::Table> ContentReader::readTable(std::uint64_t first, std::uint64_t count) {
  requireRows(first, count);
  auto table = file_->input().read(first, count);
  if (count > 0) file_->requireRowsOf(*table, first);
  return table;
}

HeldRows ContentReader::readGroup(std::size_t group, std::size_t from, std::size_t count) {
  const auto decoded = file_->group(group);
  if (isPacked()) requireOwnRows(*decoded, group, from, count);
  return {decoded->rows.slice(from, count), {decoded, &decoded->rows}};
}

void ContentReader::requireOwnRows(const DecodedGroup& group, std::size_t index, std::size_t from,
                                   std::size_t count) const {
  std::int32_t difference = 0;
  for (std::size_t i = from; i < from + count; ++i) difference |= group.ids[i] ^ storageId_;
  if (difference == 0) return;
  const std::uint64_t first = file().rowStart(index) + from;
  fail(file(),
       fmt::format("rows {} to {} are not all of storage id {}", first, first + count, storageId_));
}

RowSpan ContentReader::rowsIn(std::uint64_t from, std::uint64_t to) const {
  const RowSpan span = file().rowsIn(from, to);
  if (!isPacked()) return span;
  const std::uint64_t end = first_ + count_;
  return {std::clamp(span.from, first_, end) - first_, std::clamp(span.to, first_, end) - first_};
}

}  // namespace kyr::parquet
