#include "export/RecordingFiles.h"

#include <arrow/api.h>
#include <arrow/io/file.h>
#include <fmt/format.h>
#include <parquet/file_reader.h>
#include <xxhash.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "cli/Errors.h"
#include "cli/Interrupt.h"
#include "cli/Span.h"
#include "cli/Text.h"
#include "kyr/parquet/ColumnNames.h"
#include "kyr/parquet/SchemaBuilder.h"

namespace kyr::tool {

namespace fs = std::filesystem;
using recording::FileInfo;
using recording::SignalInfo;

namespace {

constexpr std::int64_t kSliceRows = 65536;
const std::string kPackColumn = "storage";

[[noreturn]] void fail(const std::string& file, const std::string& what) {
  throw std::runtime_error(file + ": " + what);
}

void checkRead(const ::arrow::Status& status, const std::string& file) {
  throwIfOutOfMemory(status);
  if (!status.ok()) fail(file, "cannot be read: " + status.message());
}

template <typename T>
T checkRead(::arrow::Result<T> result, const std::string& file) {
  checkRead(result.status(), file);
  return std::move(result).ValueUnsafe();
}

std::string checksumOf(::arrow::io::RandomAccessFile& file, std::int64_t size,
                       const std::string& path) {
  const Span span("compare with checksum");
  constexpr std::int64_t kPieceBytes = 1 << 20;
  std::vector<char> piece(static_cast<std::size_t>(std::min(size, kPieceBytes)));
  XXH3_state_t state;
  XXH3_128bits_reset(&state);
  for (std::int64_t at = 0; at < size;) {
    stopIfInterrupted();
    const auto wanted = std::min(size - at, kPieceBytes);
    const std::int64_t got = checkRead(file.ReadAt(at, wanted, piece.data()), path);
    if (got <= 0) break;
    XXH3_128bits_update(&state, piece.data(), static_cast<std::size_t>(got));
    at += got;
  }
  const XXH128_hash_t hash = XXH3_128bits_digest(&state);
  return fmt::format("{:016x}{:016x}", hash.high64, hash.low64);
}

template <typename Expected>
void compare(::arrow::io::RandomAccessFile& file, const Expected& info, const std::string& path) {
  const std::int64_t size = checkRead(file.GetSize(), path);
  if (static_cast<std::uint64_t>(size) != info.size) {
    fail(path, fmt::format("damaged: {} bytes long, expected {}", size, info.size));
  }
  const std::string checksum = checksumOf(file, size, path);
  if (checksum != info.checksum) {
    fail(path, fmt::format("damaged: its checksum is {}, expected {}", checksum, info.checksum));
  }
}

// Compares types but not the names of list items, which differ between schemas and files.
bool isSameType(const ::arrow::DataType& a, const ::arrow::DataType& b) {
  if (a.id() != ::arrow::Type::LIST || b.id() != ::arrow::Type::LIST) return a.Equals(b);
  return a.field(0)->type()->Equals(b.field(0)->type());
}

int leafOf(const ::parquet::FileMetaData& metadata, const std::string& column) {
  int leaf = 0;
  while (leaf < metadata.num_columns() &&
         metadata.schema()->GetColumnRoot(leaf)->name() != column) {
    ++leaf;
  }
  return leaf;
}

std::shared_ptr<::arrow::DataType> expectedType(const SignalInfo& signal) {
  return parquet::schemaBuilder::getSchema(signal.category, signal.dataType, false,
                                           parquet::columnNames::data)
      ->field(0)
      ->type();
}

std::shared_ptr<::arrow::Array> joined(ColumnReader reader) {
  ::arrow::ArrayVector slices;
  while (auto slice = reader.next()) slices.push_back(std::move(slice));
  if (slices.empty()) return check(::arrow::MakeEmptyArray(reader.type()));
  return slices.size() == 1 ? slices.front() : check(::arrow::Concatenate(slices));
}

}  // namespace

ColumnReader::ColumnReader(std::string file, std::unique_ptr<::parquet::arrow::FileReader> reader,
                           const std::string& column, std::optional<PackedSlice> packed)
    : file_(std::move(file)), reader_(std::move(reader)), packed_(packed) {
  const auto metadata = reader_->parquet_reader()->metadata();
  std::vector<int> leaves{leafOf(*metadata, column)};
  if (packed_) leaves.push_back(leafOf(*metadata, kPackColumn));
  for (const int leaf : leaves) {
    if (leaf == metadata->num_columns()) {
      fail(file_, "there is no column " + inQuotes(leaf == leaves[0] ? column : kPackColumn));
    }
  }
  std::vector<int> groups;
  std::uint64_t end = 0;
  for (int group = 0; group < metadata->num_row_groups(); ++group) {
    const std::uint64_t start = end;
    end += static_cast<std::uint64_t>(metadata->RowGroup(group)->num_rows());
    if (packed_ && (end <= packed_->first || start >= packed_->first + packed_->count)) continue;
    if (groups.empty()) row_ = start;
    groups.push_back(group);
  }
  checkRead(reader_->GetRecordBatchReader(groups, leaves, &batches_), file_);
  type_ = batches_->schema()->field(0)->type();
}

std::shared_ptr<::arrow::Array> ColumnReader::next() {
  stopIfInterrupted();
  const Span span("read");
  std::shared_ptr<::arrow::RecordBatch> batch;
  do {
    checkRead(batches_->ReadNext(&batch), file_);
    if (!batch) return nullptr;
    if (packed_) batch = packedRows(*batch);
  } while (batch->num_rows() == 0);
  auto column = batch->column(0);
  if (column->null_count() > 0) fail(file_, "has rows without a value: kyr verify tells more");
  return column;
}

std::shared_ptr<::arrow::RecordBatch> ColumnReader::packedRows(const ::arrow::RecordBatch& batch) {
  const auto rows = static_cast<std::uint64_t>(batch.num_rows());
  const std::uint64_t from = std::clamp(packed_->first, row_, row_ + rows);
  const std::uint64_t to = std::clamp(packed_->first + packed_->count, from, row_ + rows);
  auto slice =
      batch.Slice(static_cast<std::int64_t>(from - row_), static_cast<std::int64_t>(to - from));
  row_ += rows;
  const auto* ids = dynamic_cast<const ::arrow::Int32Array*>(slice->column(1).get());
  for (std::int64_t i = 0; i < slice->num_rows(); ++i) {
    if (ids == nullptr || ids->Value(i) != packed_->storageId) {
      fail(file_, fmt::format("row {} is not of storage id {}: kyr verify tells more",
                              from + static_cast<std::uint64_t>(i), packed_->storageId));
    }
  }
  return slice;
}

RecordingFiles::RecordingFiles(std::string folder, const recording::RecordingInfo& info)
    : folder_(std::move(folder)) {
  for (const FileInfo& file : info.files) files_[file.storageId] = file;
  for (const recording::PackInfo& pack : info.packs) packs_[pack.number] = pack;
}

std::string RecordingFiles::pathOf(int storageId) const {
  const auto found = files_.find(storageId);
  const bool isPacked = found != files_.end() && found->second.pack;
  return (fs::path(folder_) / "storage" /
          (isPacked ? fmt::format("pack-{}.parquet", *found->second.pack)
                    : std::to_string(storageId)))
      .string();
}

const FileInfo& RecordingFiles::fileInfo(int storageId) const {
  const auto found = files_.find(storageId);
  if (found == files_.end()) fail(pathOf(storageId), "recording.json does not list it");
  return found->second;
}

StoredColumn RecordingFiles::dataOf(const SignalInfo& signal) const {
  return {signal.dataStorageId.value(), parquet::columnNames::data};
}

std::optional<StoredColumn> RecordingFiles::timeOf(const SignalInfo& signal) const {
  if (signal.timeStorageId) return StoredColumn{*signal.timeStorageId, parquet::columnNames::data};
  const StoredColumn column{signal.dataStorageId.value(), parquet::columnNames::time};
  if (!hasColumn(column)) return std::nullopt;
  return column;
}

std::uint64_t RecordingFiles::rowsOf(const StoredColumn& column) const {
  return fileInfo(column.storageId).rowCount;
}

bool RecordingFiles::hasColumn(const StoredColumn& column) const {
  const auto reader = openFile(column.storageId, /*compares=*/false);
  const auto metadata = reader->parquet_reader()->metadata();
  return metadata->schema()->group_node()->FieldIndex(column.name) >= 0;
}

std::unique_ptr<::parquet::arrow::FileReader> RecordingFiles::openFile(int storageId,
                                                                       bool compares) const {
  const std::string path = pathOf(storageId);
  const FileInfo& info = fileInfo(storageId);
  if (!fs::exists(path)) fail(path, "missing");
  const auto file = checkRead(::arrow::io::ReadableFile::Open(path), path);
  if (compares && info.pack) compare(*file, packs_.at(*info.pack), path);
  if (compares && !info.pack) compare(*file, info, path);
  ::parquet::ReaderProperties properties;
  properties.enable_buffered_stream();
  ::parquet::ArrowReaderProperties arrowProperties;
  arrowProperties.set_batch_size(kSliceRows);
  arrowProperties.set_pre_buffer(false);
  ::parquet::arrow::FileReaderBuilder builder;
  checkRead(builder.Open(file, properties), path);
  std::unique_ptr<::parquet::arrow::FileReader> reader;
  checkRead(builder.properties(arrowProperties)->Build(&reader), path);
  return reader;
}

ColumnReader RecordingFiles::open(const StoredColumn& column) {
  const std::string path = pathOf(column.storageId);
  auto reader = openFile(column.storageId, compared_.count(path) == 0);
  compared_.insert(path);
  const auto rows = static_cast<std::uint64_t>(reader->parquet_reader()->metadata()->num_rows());
  const FileInfo& info = fileInfo(column.storageId);
  const std::uint64_t expected = info.pack ? packs_.at(*info.pack).rowCount : info.rowCount;
  if (rows != expected) {
    fail(path, fmt::format("holds {}, where recording.json has {}: kyr verify tells more",
                           counted(rows, "row"), expected));
  }
  std::optional<PackedSlice> packed;
  if (info.pack) packed = PackedSlice{column.storageId, info.firstRow, info.rowCount};
  return {path, std::move(reader), column.name, packed};
}

ColumnReader RecordingFiles::openData(const SignalInfo& signal) {
  const StoredColumn column = dataOf(signal);
  ColumnReader reader = open(column);
  const auto expected = expectedType(signal);
  if (!isSameType(*reader.type(), *expected)) {
    fail(pathOf(column.storageId), fmt::format("column \"{}\" is {}, expected {}", column.name,
                                               reader.type()->ToString(), expected->ToString()));
  }
  return reader;
}

ColumnReader RecordingFiles::openTimes(const StoredColumn& column) {
  ColumnReader reader = open(column);
  if (reader.type()->id() != ::arrow::Type::DOUBLE) {
    fail(pathOf(column.storageId), fmt::format("column \"{}\" is {}, expected double", column.name,
                                               reader.type()->ToString()));
  }
  return reader;
}

std::vector<double> RecordingFiles::readTimes(const StoredColumn& column) {
  ColumnReader reader = openTimes(column);
  std::vector<double> times;
  times.reserve(rowsOf(column));
  while (const auto slice = reader.next()) {
    const auto& values = static_cast<const ::arrow::DoubleArray&>(*slice);
    times.insert(times.end(), values.raw_values(), values.raw_values() + values.length());
  }
  return times;
}

std::shared_ptr<::arrow::Array> RecordingFiles::readColumn(const StoredColumn& column) {
  return joined(open(column));
}

std::shared_ptr<::arrow::Array> RecordingFiles::readData(const SignalInfo& signal) {
  return joined(openData(signal));
}

}  // namespace kyr::tool
