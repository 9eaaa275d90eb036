#include "files/ContentReader.h"

#include <arrow/api.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "kyr/parquet/ColumnNames.h"

namespace kyr::parquet {

namespace {

std::shared_ptr<::arrow::Schema> withoutTimes(const ::arrow::Schema& schema) {
  ::arrow::FieldVector fields;
  for (const auto& field : schema.fields()) {
    if (field->name() != columnNames::time) fields.push_back(field);
  }
  return ::arrow::schema(std::move(fields));
}

}  // namespace

ContentReader::ContentReader(std::shared_ptr<InputFile> file, std::shared_ptr<RowGroupCache> cache)
    : file_(std::move(file)),
      cache_(std::move(cache)),
      schema_(withoutTimes(*file_->schema())),
      hasTimes_(file_->hasColumn(columnNames::time)) {
  if (schema_.dataIndex < 0) {
    throw std::runtime_error(
        fmt::format("{}: has no column \"{}\"", file_->path().string(), columnNames::data));
  }
  width_ = elementBytes(schema_);
}

ContentReader::ContentReader(std::shared_ptr<PackFile> pack, int storageId, std::uint64_t first,
                             std::uint64_t count)
    : pack_(std::move(pack)),
      storageId_(storageId),
      first_(first),
      count_(count),
      schema_(pack_->schema()),
      width_(pack_->width()) {
  if (first <= pack_->rows() && count <= pack_->rows() - first) return;
  throw std::runtime_error(
      fmt::format("{}: holds {} rows, but rows {} to {} belong to storage id {}",
                  file().path().string(), pack_->rows(), first, first + count, storageId));
}

ContentReader::~ContentReader() {
  if (cache_) cache_->forget(*file_);
}

void ContentReader::grow(std::uint64_t rows) {
  if (file_) file_->grow(rows);
}

::arrow::Compression::type ContentReader::codec() const { return file().codec(columnNames::data); }

std::size_t ContentReader::parts() const {
  if (!pack_) return file_->rowGroups();
  return count_ == 0 ? 0 : partOfRow(count_ - 1) + 1;
}

std::uint64_t ContentReader::partStart(std::size_t part) const {
  if (!pack_) return file_->rowStart(part);
  const std::size_t group = count_ == 0 ? 0 : file().groupOfRow(first_);
  return std::clamp(file().rowStart(group + part), first_, first_ + count_) - first_;
}

std::size_t ContentReader::partOfRow(std::uint64_t row) const {
  const std::size_t group = file().groupOfRow(first_ + row);
  return pack_ ? group - file().groupOfRow(first_) : group;
}

std::vector<std::optional<NumberRange>> ContentReader::ascendingParts(std::size_t first) const {
  if (pack_) return std::vector<std::optional<NumberRange>>(parts() - first);
  return file_->ascendingGroups(first);
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
  if (file_) return file_->readNumbers(column, first, count, out);
  if (!isFlat() || column != columnNames::data) {
    throw std::runtime_error(
        fmt::format("{}: its column \"{}\" does not hold numbers", file().path().string(), column));
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
  if (pack_) return pack_->read(storageId_, first_ + first, count);
  if (isFlat()) {
    const auto rows = std::make_shared<RowStore>(schema_, width_);
    rows->grow(static_cast<std::size_t>(count));
    if (count > 0) readNumbers(columnNames::data, first, count, rows->values());
    return {rows->slice(), rows};
  }
  return gatherRows(*file_, schema_, width_, first, count,
                    [this](std::size_t group, std::size_t from, std::size_t rows) {
                      return readGroup(group, from, rows);
                    });
}

HeldRows ContentReader::readGroup(std::size_t group, std::size_t from, std::size_t count) {
  auto decoded = cache_->find(*file_, group);
  if (!decoded) {
    auto fresh = cache_->takeSpare(*file_);
    if (!fresh) fresh = std::make_shared<DecodedGroup>(DecodedGroup{RowStore(schema_, width_), {}});
    const std::uint64_t first = file_->rowStart(group);
    fresh->rows.truncate(0);
    fresh->rows.append(
        *file_->read(first, file_->rowStart(group + 1) - first, schema_.schema->field_names()));
    if (fresh->rows.rows() != file_->rowStart(group + 1) - first) {
      throw std::runtime_error(
          fmt::format("{}: a column has too few values", file_->path().string()));
    }
    cache_->put(*file_, group, fresh);
    decoded = std::move(fresh);
  }
  return {decoded->rows.slice(from, count), {decoded, &decoded->rows}};
}

RowSpan ContentReader::rowsIn(std::uint64_t from, std::uint64_t to) const {
  const RowSpan span = file().rowsIn(from, to);
  if (!pack_) return span;
  const std::uint64_t end = first_ + count_;
  return {std::clamp(span.from, first_, end) - first_, std::clamp(span.to, first_, end) - first_};
}

}  // namespace kyr::parquet
