#include "files/pack/PackFile.h"

#include <arrow/api.h>
#include <arrow/util/compression.h>
#include <fmt/format.h>
#include <parquet/column_reader.h>
#include <parquet/exception.h>
#include <parquet/file_reader.h>

#include <algorithm>
#include <numeric>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "files/LocalReading.h"
#include "files/RowReader.h"

namespace kyr::parquet {

const std::string kPackColumn = "storage";

namespace {

// All values of a column that may have no nulls.
template <typename ParquetType>
void readValues(::parquet::ColumnReader& column, typename ParquetType::c_type* out,
                std::size_t count) {
  auto& reader = static_cast<::parquet::TypedColumnReader<ParquetType>&>(column);
  for (std::size_t done = 0; done < count;) {
    std::int64_t got = 0;
    reader.ReadBatch(static_cast<std::int64_t>(count - done), nullptr, nullptr, out + done, &got);
    if (got <= 0) throw ::parquet::ParquetException("a column has too few values");
    done += static_cast<std::size_t>(got);
  }
}

// Parquet has no integers of fewer than 32 bits.
template <typename T>
void readNarrow(::parquet::ColumnReader& column, char* out, std::size_t count) {
  std::vector<std::int32_t> wide(count);
  readValues<::parquet::Int32Type>(column, wide.data(), count);
  std::transform(wide.begin(), wide.end(), reinterpret_cast<T*>(out),
                 [](std::int32_t value) { return static_cast<T>(value); });
}

void readFlat(::parquet::ColumnReader& column, std::size_t width, char* out, std::size_t count) {
  switch (column.type()) {
    case ::parquet::Type::DOUBLE:
      return readValues<::parquet::DoubleType>(column, reinterpret_cast<double*>(out), count);
    case ::parquet::Type::FLOAT:
      return readValues<::parquet::FloatType>(column, reinterpret_cast<float*>(out), count);
    case ::parquet::Type::INT64:
      return readValues<::parquet::Int64Type>(column, reinterpret_cast<std::int64_t*>(out), count);
    case ::parquet::Type::INT32:
      if (width == 1) return readNarrow<std::int8_t>(column, out, count);
      if (width == 2) return readNarrow<std::int16_t>(column, out, count);
      return readValues<::parquet::Int32Type>(column, reinterpret_cast<std::int32_t*>(out), count);
    default:
      throw ::parquet::ParquetException("a column of a type that contents do not have");
  }
}

std::shared_ptr<::arrow::Schema> withoutIds(const ::arrow::Schema& schema) {
  std::vector<std::shared_ptr<::arrow::Field>> fields;
  for (const auto& field : schema.fields()) {
    if (field->name() != kPackColumn) fields.push_back(field->WithNullable(true));
  }
  return ::arrow::schema(std::move(fields));
}

}  // namespace

std::shared_ptr<const PackGroup> PackCache::find(const PackFile* pack, int group) {
  const auto found = std::find_if(entries_.begin(), entries_.end(), [&](const Entry& entry) {
    return entry.pack == pack && entry.group == group;
  });
  if (found == entries_.end()) return nullptr;
  entries_.splice(entries_.begin(), entries_, found);
  return found->rows;
}

void PackCache::put(const PackFile* pack, int group, std::shared_ptr<PackGroup> rows) {
  entries_.push_front({pack, group, std::move(rows)});
}

std::shared_ptr<PackGroup> PackCache::takeSpare(const PackFile* pack) {
  if (entries_.size() < kGroups) return nullptr;
  const Entry last = entries_.back();
  entries_.pop_back();
  return last.pack == pack && last.rows.use_count() == 1 ? last.rows : nullptr;
}

void PackCache::forget(const PackFile* pack) {
  entries_.remove_if([pack](const Entry& entry) { return entry.pack == pack; });
}

PackFile::PackFile(std::shared_ptr<DiskFile> file, bool isOwn, std::shared_ptr<PackCache> cache)
    : file_(std::move(file)), isOwn_(isOwn), cache_(std::move(cache)) {
  try {
    PARQUET_THROW_NOT_OK(::parquet::arrow::FileReader::Make(
        ::arrow::default_memory_pool(), ::parquet::ParquetFileReader::Open(arrowFile(file_)),
        localReading(), &reader_));
    readSchema();
  } catch (const ::parquet::ParquetException& error) {
    fail(fmt::format("cannot be read as a Parquet file: {}", error.what()));
  }
  if (isOwn_) file_->suspend();
}

PackFile::~PackFile() {
  cache_->forget(this);
  if (!isOwn_) return;
  std::error_code ignored;
  std::filesystem::remove(file_->path(), ignored);
}

void PackFile::fail(const std::string& what) const {
  throw std::runtime_error(fmt::format("{}: {}", file_->path().string(), what));
}

void PackFile::readSchema() {
  const auto metadata = reader_->parquet_reader()->metadata();
  idLeaf_ = metadata->num_columns() - 1;
  const auto* ids = idLeaf_ < 1 ? nullptr : metadata->schema()->Column(idLeaf_);
  if (ids == nullptr || ids->path()->ToDotString() != kPackColumn ||
      ids->physical_type() != ::parquet::Type::INT32 || ids->max_definition_level() > 0) {
    fail(fmt::format("is no pack: its last column is no int32 \"{}\"", kPackColumn));
  }
  std::shared_ptr<::arrow::Schema> all;
  PARQUET_THROW_NOT_OK(reader_->GetSchema(&all));
  const auto* dictionary =
      dynamic_cast<const ::arrow::DictionaryType*>(all->field(all->num_fields() - 1)->type().get());
  if (dictionary != nullptr) fail("is no pack");
  schema_ = SampleSchema(withoutIds(*all));
  const bool isFlat = schema_.kind == ColumnKind::flat;
  if (schema_.dataIndex != 0 || schema_.kind == ColumnKind::unsupported ||
      (isFlat && metadata->schema()->Column(0)->max_definition_level() > 0)) {
    fail(fmt::format("is no pack: its columns are {}", all->ToString()));
  }
  width_ = elementBytes(schema_);
  codec_ = ::arrow::Compression::UNCOMPRESSED;
  for (int group = 0; group < metadata->num_row_groups(); ++group) {
    const auto rowGroup = metadata->RowGroup(group);
    if (group == 0) codec_ = rowGroup->ColumnChunk(0)->compression();
    starts_.push_back(starts_.back() + static_cast<std::uint64_t>(rowGroup->num_rows()));
  }
}

HeldRows PackFile::read(int storageId, std::uint64_t first, std::uint64_t count) {
  if (first > rows() || count > rows() - first) {
    fail(fmt::format("holds {} rows: rows {} to {}, of storage id {}, are not there", rows(), first,
                     first + count, storageId));
  }
  const auto found = std::upper_bound(starts_.begin(), starts_.end(), first);
  auto index = static_cast<std::size_t>(found - starts_.begin()) - 1;
  HeldRows held;
  std::shared_ptr<RowStore> joined;  // of more than one row group
  for (std::uint64_t at = first; at < first + count; ++index) {
    const auto read = group(static_cast<int>(index));
    const auto from = static_cast<std::size_t>(at - starts_[index]);
    const auto rows = static_cast<std::size_t>(std::min(first + count, starts_[index + 1]) - at);
    std::int32_t difference = 0;
    for (std::size_t i = from; i < from + rows; ++i) difference |= read->ids[i] ^ storageId;
    if (difference != 0) {
      fail(fmt::format("rows {} to {} are not all of storage id {}", first, first + count,
                       storageId));
    }
    if (rows == count) return {read->rows.slice(from, rows), {read, &read->rows}};
    if (!joined) joined = std::make_shared<RowStore>(schema_, width_);
    joined->append(read->rows.slice(from, rows));
    at += rows;
  }
  if (joined) held = {joined->slice(), joined};
  return held;
}

std::shared_ptr<const PackGroup> PackFile::group(int index) {
  if (auto known = cache_->find(this, index)) return known;
  auto rows = decode(index);
  cache_->put(this, index, rows);
  return rows;
}

std::shared_ptr<PackGroup> PackFile::decode(int index) {
  auto group = cache_->takeSpare(this);
  if (!group) group = std::make_shared<PackGroup>(PackGroup{RowStore(schema_, width_), {}});
  try {
    decodeRows(index, *group);
  } catch (const ::parquet::ParquetException& error) {
    fail(error.what());
  }
  if (isOwn_) file_->suspend();
  return group;
}

void PackFile::decodeRows(int index, PackGroup& group) {
  const auto at = static_cast<std::size_t>(index);
  const auto count = static_cast<std::size_t>(starts_[at + 1] - starts_[at]);
  const auto rowGroup = reader_->parquet_reader()->RowGroup(index);
  group.ids.resize(count);
  readValues<::parquet::Int32Type>(*rowGroup->Column(idLeaf_), group.ids.data(), count);
  if (schema_.kind == ColumnKind::flat && schema_.dimensionIndex < 0) {
    group.rows.truncate(std::min(group.rows.rows(), count));
    group.rows.grow(count - group.rows.rows());
    return readFlat(*rowGroup->Column(0), width_, group.rows.values(), count);
  }
  group.rows.truncate(0);
  std::vector<int> leaves(static_cast<std::size_t>(idLeaf_));
  std::iota(leaves.begin(), leaves.end(), 0);
  std::shared_ptr<::arrow::Table> table;
  PARQUET_THROW_NOT_OK(reader_->ReadRowGroup(index, leaves, &table));
  group.rows.append(*table);
  if (group.rows.rows() != count) throw ::parquet::ParquetException("a column has too few values");
}

}  // namespace kyr::parquet
