#include "files/ContentReader.h"

#include <arrow/api.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "files/pack/PackSchema.h"
#include "kyr/parquet/ColumnNames.h"

namespace kyr::parquet {

namespace {

[[noreturn]] void fail(const InputFile& file, const std::string& what) {
  throw std::runtime_error(fmt::format("{}: {}", file.path().string(), what));
}

ItemMemory endOf(ByteBuffer& buffer) {
  return [&buffer](std::size_t bytes, std::size_t) {
    buffer.extend(bytes);
    return buffer.data() + buffer.size() - bytes;
  };
}

std::shared_ptr<::arrow::Schema> withoutTimes(const ::arrow::Schema& schema) {
  ::arrow::FieldVector fields;
  for (const auto& field : schema.fields()) {
    if (field->name() != columnNames::time) fields.push_back(field);
  }
  return ::arrow::schema(std::move(fields));
}

}  // namespace

ContentFile::ContentFile(std::shared_ptr<InputFile> file, Kind kind,
                         std::shared_ptr<RowGroupCache> cache)
    : file_(std::move(file)),
      kind_(kind),
      cache_(std::move(cache)),
      schema_(isPack() ? contentSchema(*file_->schema()) : withoutTimes(*file_->schema())),
      hasTimes_(!isPack() && file_->hasColumn(columnNames::time)) {
  if (isPack()) {
    if (!isPackSchema(*file_->schema())) {
      fail(*file_, fmt::format("is no pack: its last column is no int32 \"{}\"", kPackColumn));
    }
    if (schema_.dataIndex != 0 || !makesSamples(schema_)) {
      fail(*file_, fmt::format("is no pack: its columns are {}", file_->schema()->ToString()));
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
      file_->readGroup(columnNames::data, index, endOf(elements), shapes.rowEnds);
    }
    if (schema_.dimensionIndex < 0) return;
    ByteBuffer extents;
    file_->readGroup(columnNames::dimension, index, endOf(extents), shapes.extentEnds);
    shapes.extents.resize(extents.size() / sizeof(std::uint64_t));
    if (extents.size() == 0) return;
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

void ContentReader::setRuns(int storageId, std::vector<ContentRun> runs) {
  for (const ContentRun& run : runs) {
    if (run.pack == file_ || haveSameTypes(*run.pack->schema().schema, *columns())) continue;
    fail(run.pack->input(),
         fmt::format("rows of storage id {} have the columns {}, others of them {}", storageId,
                     run.pack->schema().schema->ToString(), columns()->ToString()));
  }
  storageId_ = storageId;
  runs_ = std::move(runs);
}

void ContentReader::grow(std::uint64_t rows) {
  if (!isPacked()) file_->input().grow(rows);
}

::arrow::Compression::type ContentReader::codec() const { return file().codec(columnNames::data); }

std::size_t ContentReader::ownParts() const {
  if (!isPacked()) return file().rowGroups();
  return count_ == 0 ? 0 : file().groupOfRow(first_ + count_ - 1) - file().groupOfRow(first_) + 1;
}

std::size_t ContentReader::parts() const { return ownParts() + runs_.size(); }

std::uint64_t ContentReader::partStart(std::size_t part) const {
  const std::size_t own = ownParts();
  if (part >= own && !runs_.empty()) {
    return part - own < runs_.size() ? runs_[part - own].first : rows();
  }
  if (!isPacked()) return file().rowStart(part);
  const std::size_t group = count_ == 0 ? 0 : file().groupOfRow(first_);
  return std::clamp(file().rowStart(group + part), first_, first_ + count_) - first_;
}

std::size_t ContentReader::partOfRow(std::uint64_t row) const {
  if (row >= ownRows() && !runs_.empty()) {
    const auto behind = std::upper_bound(
        runs_.begin(), runs_.end(), row,
        [](std::uint64_t value, const ContentRun& run) { return value < run.first + run.count; });
    return ownParts() + static_cast<std::size_t>(behind - runs_.begin());
  }
  const std::size_t group = file().groupOfRow(first_ + row);
  return isPacked() ? group - file().groupOfRow(first_) : group;
}

std::vector<std::optional<NumberRange>> ContentReader::ascendingParts(std::size_t first) const {
  if (isPacked() || first >= ownParts()) {
    return std::vector<std::optional<NumberRange>>(parts() - first);
  }
  auto parts = file().ascendingGroups(first);
  parts.resize(parts.size() + runs_.size());
  return parts;
}

void ContentReader::requireRows(std::uint64_t first, std::uint64_t count) const {
  if (first <= rows() && count <= rows() - first) return;
  throw std::out_of_range(fmt::format("{}: rows {} to {} are asked for, there are {}",
                                      file().path().string(), first, first + count, rows()));
}

template <typename Visit>
void ContentReader::forEachRun(std::uint64_t first, std::uint64_t count, Visit&& visit) const {
  while (count > 0) {
    const ContentRun& run = runs_[partOfRow(first) - ownParts()];
    const std::uint64_t skipped = first - run.first;
    const std::uint64_t here = std::min(count, run.count - skipped);
    visit(run, run.row + skipped, here);
    first += here;
    count -= here;
  }
}

void ContentReader::readNumbers(const std::string& column, std::uint64_t first, std::uint64_t count,
                                char* out) {
  requireRows(first, count);
  const std::uint64_t own = ownAmong(first, count);
  if (own > 0) readOwnNumbers(column, first, own, out);
  out += own * width();
  // The runs were told with the batch, under its checksum, so that no storage id is looked at.
  forEachRun(first + own, count - own,
             [&](const ContentRun& run, std::uint64_t row, std::uint64_t rows) {
               run.pack->input().readNumbers(columnNames::data, row, rows, out);
               out += rows * width();
             });
}

void ContentReader::readOwnNumbers(const std::string& column, std::uint64_t first,
                                   std::uint64_t count, char* out) {
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
    const HeldRows held = readOwn(first, rows);
    std::memcpy(out, held.rows.elements, held.rows.bytes);
    out += held.rows.bytes;
    first += rows;
    count -= rows;
  }
}

HeldRows ContentReader::read(std::uint64_t first, std::uint64_t count) {
  requireRows(first, count);
  if ((!isPacked() || first + count > ownRows()) && isFlat()) {
    if (!isTimes()) file_->requireReadable();
    const auto rows = std::make_shared<RowStore>(schema(), width());
    rows->grow(static_cast<std::size_t>(count));
    if (count > 0) readNumbers(columnNames::data, first, count, rows->values());
    return {rows->slice(), rows};
  }
  const std::uint64_t own = ownAmong(first, count);
  if (own == count) return readOwn(first, count);
  const auto joined = std::make_shared<RowStore>(schema(), width());
  if (own > 0) joined->append(readOwn(first, own).rows);
  forEachRun(first + own, count - own,
             [&](const ContentRun& run, std::uint64_t row, std::uint64_t rows) {
               joined->append(ContentReader(run.pack, storageId_, row, rows).readOwn(0, rows).rows);
             });
  return {joined->slice(), joined};
}

HeldRows ContentReader::readOwn(std::uint64_t first, std::uint64_t count) {
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
  const std::int32_t* const ids = group.ids.data() + from;
  const bool areAllEqual =
      count < 2 || std::memcmp(ids, ids + 1, (count - 1) * sizeof(std::int32_t)) == 0;
  if (count == 0 || (ids[0] == storageId_ && areAllEqual)) return;
  const std::uint64_t first = file().rowStart(index) + from;
  fail(file(),
       fmt::format("rows {} to {} are not all of storage id {}", first, first + count, storageId_));
}

RowSpan ContentReader::rowsIn(const DamagedBytes& damage) const {
  RowSpan lost{rows(), 0};
  const auto note = [&](const RowSpan& span, std::uint64_t first, std::uint64_t begin,
                        std::uint64_t count) {
    const std::uint64_t from = std::max(span.from, begin);
    const std::uint64_t to = std::min(span.to, begin + count);
    if (from >= to) return;
    lost.from = std::min(lost.from, first + from - begin);
    lost.to = std::max(lost.to, first + to - begin);
  };
  if (damage.file() == file().path()) {
    note(file().rowsIn(damage.from(), damage.to()), 0, first_, ownRows());
  }
  for (const ContentRun& run : runs_) {
    const InputFile& pack = run.pack->input();
    if (damage.file() != pack.path()) continue;
    note(pack.rowsIn(damage.from(), damage.to()), run.first, run.row, run.count);
  }
  return lost.from < lost.to ? lost : RowSpan{0, rows()};
}

}  // namespace kyr::parquet
