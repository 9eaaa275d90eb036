#include "files/pack/PackFile.h"

#include <arrow/api.h>
#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "kyr/parquet/ColumnNames.h"

namespace kyr::parquet {

const std::string kPackColumn = "storage";

namespace {

std::shared_ptr<::arrow::Schema> withoutIds(const ::arrow::Schema& schema) {
  std::vector<std::shared_ptr<::arrow::Field>> fields;
  for (const auto& field : schema.fields()) {
    if (field->name() != kPackColumn) fields.push_back(field->WithNullable(true));
  }
  return ::arrow::schema(std::move(fields));
}

}  // namespace

PackFile::PackFile(std::shared_ptr<const ByteSource> file, std::shared_ptr<RowGroupCache> cache)
    : file_(std::move(file)), cache_(std::move(cache)) {
  readSchema();
}

PackFile::PackFile(std::shared_ptr<DiskFile> file, bool isOwn, std::shared_ptr<RowGroupCache> cache)
    : PackFile(file, std::move(cache)) {
  if (!isOwn) return;
  own_ = std::move(file);
  own_->suspend();
}

PackFile::~PackFile() {
  cache_->forget(file_);
  if (!own_) return;
  std::error_code ignored;
  std::filesystem::remove(own_->path(), ignored);
}

void PackFile::fail(const std::string& what) const {
  throw std::runtime_error(fmt::format("{}: {}", file_.path().string(), what));
}

::arrow::Compression::type PackFile::codec() const { return file_.codec(columnNames::data); }

void PackFile::readSchema() {
  const ::arrow::Schema& all = *file_.schema();
  const int ids = all.num_fields() - 1;
  if (ids < 1 || all.field(ids)->name() != kPackColumn ||
      all.field(ids)->type()->id() != ::arrow::Type::INT32) {
    fail(fmt::format("is no pack: its last column is no int32 \"{}\"", kPackColumn));
  }
  schema_ = SampleSchema(withoutIds(all));
  if (schema_.dataIndex != 0 || schema_.kind == ColumnKind::unsupported) {
    fail(fmt::format("is no pack: its columns are {}", all.ToString()));
  }
  width_ = elementBytes(schema_);
}

HeldRows PackFile::read(int storageId, std::uint64_t first, std::uint64_t count) {
  if (first > rows() || count > rows() - first) {
    fail(fmt::format("holds {} rows: rows {} to {}, of storage id {}, are not there", rows(), first,
                     first + count, storageId));
  }
  return gatherRows(file_, schema_, width_, first, count,
                    [&](std::size_t index, std::size_t from, std::size_t rows) {
                      return readGroup(storageId, index, from, rows);
                    });
}

HeldRows PackFile::readGroup(int storageId, std::size_t index, std::size_t from,
                             std::size_t count) {
  const auto decoded = group(index);
  std::int32_t difference = 0;
  for (std::size_t i = from; i < from + count; ++i) difference |= decoded->ids[i] ^ storageId;
  if (difference != 0) {
    const std::uint64_t first = file_.rowStart(index) + from;
    fail(
        fmt::format("rows {} to {} are not all of storage id {}", first, first + count, storageId));
  }
  return {decoded->rows.slice(from, count), {decoded, &decoded->rows}};
}

std::shared_ptr<const DecodedGroup> PackFile::group(std::size_t index) {
  if (auto known = cache_->find(file_, index)) return known;
  auto group = cache_->takeSpare(file_);
  if (!group) group = std::make_shared<DecodedGroup>(DecodedGroup{RowStore(schema_, width_), {}});
  decode(index, *group);
  if (own_) own_->suspend();
  cache_->put(file_, index, group);
  return group;
}

void PackFile::decode(std::size_t index, DecodedGroup& group) {
  const std::uint64_t first = file_.rowStart(index);
  const std::uint64_t count = file_.rowStart(index + 1) - first;
  group.ids.resize(static_cast<std::size_t>(count));
  file_.readNumbers(kPackColumn, first, count, reinterpret_cast<char*>(group.ids.data()));
  if (schema_.kind == ColumnKind::flat && schema_.dimensionIndex < 0) {
    const std::size_t kept = std::min<std::uint64_t>(group.rows.rows(), count);
    group.rows.truncate(kept);
    group.rows.grow(static_cast<std::size_t>(count) - kept);
    return file_.readNumbers(columnNames::data, first, count, group.rows.values());
  }
  group.rows.truncate(0);
  group.rows.append(*file_.read(first, count, schema_.schema->field_names()));
  if (group.rows.rows() != count) fail("a column has too few values");
}

}  // namespace kyr::parquet
