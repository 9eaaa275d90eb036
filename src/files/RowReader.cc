#include "files/RowReader.h"

#include <arrow/api.h>
#include <arrow/io/interfaces.h>
#include <fmt/format.h>
#include <parquet/exception.h>

#include <algorithm>
#include <limits>
#include <numeric>
#include <stdexcept>
#include <utility>

#include "files/LocalReading.h"
#include "kyr/parquet/ColumnNames.h"

namespace kyr::parquet {

namespace {

// A file as Arrow reads it.
class DiskSource final : public ::arrow::io::RandomAccessFile {
 public:
  explicit DiskSource(std::shared_ptr<const DiskFile> file) : file_(std::move(file)) {}

  ::arrow::Result<std::int64_t> ReadAt(std::int64_t position, std::int64_t size,
                                       void* out) override {
    if (position < 0 || size < 0) return ::arrow::Status::Invalid("a negative place in a file");
    try {
      return static_cast<std::int64_t>(
          file_->readAt(static_cast<std::uint64_t>(position), out, static_cast<std::size_t>(size)));
    } catch (const std::runtime_error& error) {
      return ::arrow::Status::IOError(error.what());
    }
  }
  ::arrow::Result<std::shared_ptr<::arrow::Buffer>> ReadAt(std::int64_t position,
                                                           std::int64_t size) override {
    // A length from damaged metadata must not reserve memory that no file could fill.
    ARROW_ASSIGN_OR_RAISE(const std::int64_t fileSize, GetSize());
    if (position < 0 || size < 0 || position > fileSize) {
      return ::arrow::Status::Invalid("a place outside of the file");
    }
    size = std::min(size, fileSize - position);
    ARROW_ASSIGN_OR_RAISE(auto buffer, ::arrow::AllocateResizableBuffer(size));
    ARROW_ASSIGN_OR_RAISE(const std::int64_t got, ReadAt(position, size, buffer->mutable_data()));
    ARROW_RETURN_NOT_OK(buffer->Resize(got));
    return std::shared_ptr<::arrow::Buffer>(std::move(buffer));
  }
  ::arrow::Result<std::int64_t> Read(std::int64_t size, void* out) override {
    ARROW_ASSIGN_OR_RAISE(const std::int64_t got, ReadAt(position_, size, out));
    position_ += got;
    return got;
  }
  ::arrow::Result<std::shared_ptr<::arrow::Buffer>> Read(std::int64_t size) override {
    ARROW_ASSIGN_OR_RAISE(auto buffer, ReadAt(position_, size));
    position_ += buffer->size();
    return buffer;
  }
  ::arrow::Result<std::int64_t> GetSize() override {
    try {
      return static_cast<std::int64_t>(file_->size());
    } catch (const std::runtime_error& error) {
      return ::arrow::Status::IOError(error.what());
    }
  }
  ::arrow::Status Seek(std::int64_t position) override {
    position_ = position;
    return ::arrow::Status::OK();
  }
  ::arrow::Result<std::int64_t> Tell() const override { return position_; }
  ::arrow::Status Close() override {
    closed_ = true;
    return ::arrow::Status::OK();
  }
  bool closed() const override { return closed_; }

 private:
  std::shared_ptr<const DiskFile> file_;
  std::int64_t position_ = 0;
  bool closed_ = false;
};

// Long files have more row groups than Parquet's readers accept by default.
::parquet::ReaderProperties unlimited() {
  ::parquet::ReaderProperties properties;
  properties.set_thrift_container_size_limit(std::numeric_limits<std::int32_t>::max());
  properties.set_thrift_string_size_limit(std::numeric_limits<std::int32_t>::max());
  return properties;
}

}  // namespace

std::shared_ptr<::parquet::FileMetaData> parseMetadata(std::string_view metadata) {
  auto size = static_cast<std::uint32_t>(metadata.size());
  return ::parquet::FileMetaData::Make(metadata.data(), &size, unlimited());
}

std::shared_ptr<::arrow::io::RandomAccessFile> arrowFile(std::shared_ptr<const DiskFile> file) {
  return std::make_shared<DiskSource>(std::move(file));
}

RowReader::RowReader(std::shared_ptr<const DiskFile> file) : file_(std::move(file)) {}

void RowReader::open(const BatchIndex& index, std::size_t first, std::size_t count) {
  if (metadata_ && first == firstBatch_ && count == batches_) return;
  metadata_ = parseMetadata(index.metadata(first, count));
  reader_.reset();
  column_ = FlatColumn::make(*metadata_, file_->size(), columnNames::data, nullptr);
  firstBatch_ = first;
  batches_ = count;
}

::parquet::arrow::FileReader& RowReader::arrowReader() {
  if (reader_) return *reader_;
  auto file = ::parquet::ParquetFileReader::Open(std::make_shared<DiskSource>(file_), unlimited(),
                                                 metadata_);
  PARQUET_THROW_NOT_OK(::parquet::arrow::FileReader::Make(
      ::arrow::default_memory_pool(), std::move(file), localReading(), &reader_));
  return *reader_;
}

std::shared_ptr<::arrow::Table> RowReader::readColumn(std::uint64_t first, std::uint64_t count) {
  if (!column_ || count == 0) return nullptr;
  PARQUET_ASSIGN_OR_THROW(
      std::shared_ptr<::arrow::Buffer> values,
      ::arrow::AllocateBuffer(static_cast<std::int64_t>(count * column_->width())));
  if (!column_->read(*file_, first, count, reinterpret_cast<char*>(values->mutable_data()))) {
    return nullptr;
  }
  const auto& schema = column_->schema();
  return ::arrow::Table::Make(schema,
                              {::arrow::MakeArray(::arrow::ArrayData::Make(
                                  schema->field(0)->type(), static_cast<std::int64_t>(count),
                                  {nullptr, std::move(values)}, /*null_count=*/0))});
}

std::shared_ptr<::arrow::Table> RowReader::read(const BatchIndex& index, std::uint64_t first,
                                                std::uint64_t count,
                                                const std::optional<std::vector<int>>& columns) {
  if (first > index.rows() || count > index.rows() - first) {
    throw std::out_of_range(fmt::format("{}: rows {} and the {} behind are asked for, there are {}",
                                        file_->path().string(), first, count, index.rows()));
  }
  const std::size_t firstBatch = count == 0 ? 0 : index.batchOfRow(first);
  const std::size_t batches = count == 0 ? 0 : index.batchOfRow(first + count - 1) + 1 - firstBatch;
  std::shared_ptr<::arrow::Table> table;
  try {
    open(index, firstBatch, batches);
    if (!columns) table = readColumn(first - index.rowStart(firstBatch), count);
    if (table) return table;
    auto& reader = arrowReader();
    std::vector<int> groups(batches);
    std::iota(groups.begin(), groups.end(), 0);
    PARQUET_THROW_NOT_OK(columns ? reader.ReadRowGroups(groups, *columns, &table)
                                 : reader.ReadRowGroups(groups, &table));
  } catch (const ::parquet::ParquetException& error) {
    throw std::runtime_error(fmt::format("{}: {}", file_->path().string(), error.what()));
  }
  if (count == 0) return table;
  return table->Slice(static_cast<std::int64_t>(first - index.rowStart(firstBatch)),
                      static_cast<std::int64_t>(count));
}

}  // namespace kyr::parquet
