#include "files/FlatFileWriter.h"

#include <arrow/api.h>
#include <parquet/column_writer.h>
#include <parquet/exception.h>
#include <parquet/file_writer.h>

#include <algorithm>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "files/CompactProtocol.h"
#include "files/ParquetTail.h"
#include "schema/ArrayMemory.h"

namespace kyr::parquet {

namespace {

// Pieces up to this size are gathered, so that small files take one call of the system.
constexpr std::size_t kGathered = std::size_t{64} << 10U;

// The rows of a page, as runs of an array.
struct Run {
  const ::arrow::Array* array;
  std::int64_t from;
  std::int64_t rows;
};

struct Page {
  std::vector<Run> runs;
  std::int64_t rows = 0;
  std::int64_t nulls = 0;

  void add(const ::arrow::Array& array, std::int64_t from, std::int64_t count) {
    rows += count;
    if (!runs.empty() && runs.back().array == &array) {
      runs.back().rows += count;
    } else {
      runs.push_back({&array, from, count});
    }
    if (array.null_count() == 0) return;
    for (std::int64_t i = from; i < from + count; ++i) nulls += array.IsNull(i) ? 1 : 0;
  }
};

// Which values are there, as runs of equal levels of one bit.
std::string levelsOf(const Page& page) {
  std::string levels;
  const auto put = [&levels](std::int64_t count, bool isThere) {
    putVarint(levels, static_cast<std::uint64_t>(count) << 1U);
    levels.push_back(isThere ? '\1' : '\0');
  };
  if (page.nulls == 0) {
    put(page.rows, true);
    return levels;
  }
  std::int64_t count = 0;
  bool isThere = false;
  for (const Run& run : page.runs) {
    for (std::int64_t i = run.from; i < run.from + run.rows; ++i) {
      if (count > 0 && run.array->IsValid(i) != isThere) {
        put(count, isThere);
        count = 0;
      }
      isThere = run.array->IsValid(i);
      ++count;
    }
  }
  put(count, isThere);
  return levels;
}

// PageHeader with a DataPageHeaderV2, as Arrow writes them.
std::string headerOf(const Page& page, std::int64_t levelBytes, std::int64_t valueBytes) {
  constexpr int kDataPageV2 = 3;
  constexpr char kNextI32 = (1 << 4) | CompactReader::i32;
  constexpr char kNextNo = (1 << 4) | CompactReader::no;
  constexpr char kNextStatistics = (1 << 4) | CompactReader::structure;
  constexpr char kPageV2 = (5 << 4) | CompactReader::structure;
  const std::int64_t bytes = levelBytes + valueBytes;
  std::string header;
  const auto put = [&header](std::int64_t value) {
    header.push_back(kNextI32);
    putInteger(header, value);
  };
  for (const std::int64_t value : {std::int64_t{kDataPageV2}, bytes, bytes}) put(value);
  header.push_back(kPageV2);
  for (const std::int64_t value :
       {page.rows, page.nulls, page.rows, std::int64_t{::parquet::Encoding::PLAIN}, levelBytes,
        std::int64_t{0}}) {
    put(value);
  }
  header.push_back(kNextNo);  // the values are not compressed
  header.push_back(kNextStatistics);
  header.append(3, CompactReader::stop);  // of the statistics, which are empty, and of both headers
  return header;
}

}  // namespace

// Gathers small pieces.
class FlatFileWriter::GatheringSink final : public ::arrow::io::OutputStream {
 public:
  explicit GatheringSink(std::shared_ptr<::arrow::io::OutputStream> sink)
      : sink_(std::move(sink)) {}

  void gather(std::string_view bytes) { gathered_ += bytes; }

  ::arrow::Status Write(const void* data, std::int64_t size) override {
    const auto bytes = static_cast<std::size_t>(size);
    if (gathered_.size() + bytes <= kGathered) {
      gathered_.append(static_cast<const char*>(data), bytes);
      return ::arrow::Status::OK();
    }
    ARROW_RETURN_NOT_OK(Flush());
    written_ += size;
    return sink_->Write(data, size);
  }
  ::arrow::Status Flush() override {
    if (gathered_.empty()) return ::arrow::Status::OK();
    written_ += static_cast<std::int64_t>(gathered_.size());
    ::arrow::Status status =
        sink_->Write(gathered_.data(), static_cast<std::int64_t>(gathered_.size()));
    gathered_.clear();
    return status;
  }
  ::arrow::Result<std::int64_t> Tell() const override { return position(); }
  ::arrow::Status Close() override { return Flush(); }
  bool closed() const override { return false; }

  std::int64_t position() const { return written_ + static_cast<std::int64_t>(gathered_.size()); }

 private:
  std::shared_ptr<::arrow::io::OutputStream> sink_;
  std::string gathered_;
  std::int64_t written_ = 0;
};

namespace {

// A column of one row group.
class FlatColumnWriter {
 public:
  FlatColumnWriter(::arrow::io::OutputStream& sink, const ::parquet::ColumnDescriptor& descriptor)
      : sink_(sink),
        isOptional_(descriptor.max_definition_level() > 0),
        width_(physicalWidth(descriptor.physical_type())) {}

  // Pages end where Arrow's do: behind the batch of values with which they are large enough.
  void write(const ::arrow::ChunkedArray& column, const ::parquet::WriterProperties& properties) {
    const std::int64_t batch = properties.write_batch_size();
    for (const auto& chunk : column.chunks()) {
      for (std::int64_t at = 0; at < chunk->length(); at += batch) {
        page_.add(*chunk, at, std::min(batch, chunk->length() - at));
        if (valueBytes() >= properties.data_pagesize()) writePage();
      }
    }
    if (page_.rows > 0) writePage();
  }

  void finish(::parquet::ColumnChunkMetaDataBuilder& metadata) {
    std::map<::parquet::Encoding::type, std::int32_t> pages;
    if (pages_ > 0) pages[::parquet::Encoding::PLAIN] = pages_;
    metadata.Finish(rows_, /*dictionary_page_offset=*/0, /*index_page_offset=*/-1, start_, bytes_,
                    bytes_, /*has_dictionary=*/false, /*dictionary_fallback=*/false, {}, pages);
    metadata.WriteTo(&sink_);
  }

  std::int64_t bytes() const { return bytes_; }

 private:
  std::int64_t valueBytes() const {
    return (page_.rows - page_.nulls) * static_cast<std::int64_t>(width_);
  }

  void writePage() {
    const std::string levels = isOptional_ ? levelsOf(page_) : std::string();
    const std::string header =
        headerOf(page_, static_cast<std::int64_t>(levels.size()), valueBytes());
    if (pages_++ == 0) start_ = sink_.Tell().ValueOrDie();
    put(header.data(), header.size());
    put(levels.data(), levels.size());
    for (const Run& run : page_.runs) writeRun(run);
    rows_ += page_.rows;
    bytes_ += static_cast<std::int64_t>(header.size() + levels.size()) + valueBytes();
    page_ = {};
  }

  void writeRun(const Run& run) {
    if (run.array->null_count() == 0) return writeValues(*run.array, run.from, run.rows);
    for (std::int64_t i = run.from; i < run.from + run.rows; ++i) {
      if (run.array->IsValid(i)) writeValues(*run.array, i, 1);
    }
  }

  void writeValues(const ::arrow::Array& array, std::int64_t from, std::int64_t count) {
    const std::size_t width = valueWidth(*array.type());
    const std::uint8_t* values = firstValue(array) + static_cast<std::size_t>(from) * width;
    if (width == width_) return put(values, static_cast<std::size_t>(count) * width);
    switch (array.type_id()) {
      case ::arrow::Type::INT8:
        return put(widened<std::int8_t>(values, count));
      case ::arrow::Type::UINT8:
        return put(widened<std::uint8_t>(values, count));
      case ::arrow::Type::INT16:
        return put(widened<std::int16_t>(values, count));
      default:
        return put(widened<std::uint16_t>(values, count));
    }
  }

  template <typename T>
  const std::vector<std::int32_t>& widened(const std::uint8_t* values, std::int64_t count) {
    const auto* first = reinterpret_cast<const T*>(values);
    wide_.assign(first, first + count);
    return wide_;
  }

  void put(const std::vector<std::int32_t>& values) {
    put(values.data(), values.size() * sizeof(std::int32_t));
  }
  void put(const void* data, std::size_t size) {
    PARQUET_THROW_NOT_OK(sink_.Write(data, static_cast<std::int64_t>(size)));
  }

  ::arrow::io::OutputStream& sink_;
  bool isOptional_;
  std::size_t width_;
  Page page_;
  std::vector<std::int32_t> wide_;
  int pages_ = 0;
  std::int64_t rows_ = 0;
  std::int64_t start_ = 0;
  std::int64_t bytes_ = 0;
};

}  // namespace

FlatFileWriter::FlatFileWriter(std::shared_ptr<const FlatFormat> format,
                               std::shared_ptr<::arrow::io::OutputStream> sink)
    : format_(std::move(format)),
      sink_(std::make_unique<GatheringSink>(std::move(sink))),
      metadata_(
          ::parquet::FileMetaDataBuilder::Make(&format_->descriptor(), format_->properties())) {
  sink_->gather(kParquetMagic);
}

FlatFileWriter::~FlatFileWriter() = default;

::arrow::Status FlatFileWriter::write(const ::arrow::Table& table, std::int64_t groupRows) {
  if (isClosed_) return ::arrow::Status::Invalid("Operation on closed file");
  ARROW_RETURN_NOT_OK(table.Validate());
  groupRows = std::min(groupRows, format_->properties()->max_row_group_length());
  if (groupRows <= 0 && table.num_rows() > 0) {
    return ::arrow::Status::Invalid("chunk size per row_group must be greater than 0");
  }
  if (!table.schema()->Equals(schema(), /*check_metadata=*/false)) {
    return ::arrow::Status::Invalid("table schema does not match this writer's");
  }
  ::arrow::Status status;
  std::int64_t at = 0;
  do {
    status = writeGroup(table.num_rows() <= groupRows ? table : *table.Slice(at, groupRows));
    at += groupRows;
  } while (status.ok() && at < table.num_rows());
  isClosed_ = !status.ok();
  return status;
}

::arrow::Status FlatFileWriter::writeGroup(const ::arrow::Table& rows) {
  BEGIN_PARQUET_CATCH_EXCEPTIONS
  ::parquet::RowGroupMetaDataBuilder& group = *metadata_->AppendRowGroup();
  std::int64_t bytes = 0;
  for (int i = 0; i < rows.num_columns(); ++i) {
    const ::parquet::ColumnDescriptor& descriptor = *format_->descriptor().Column(i);
    const ::arrow::ChunkedArray& values = *rows.column(i);
    if (descriptor.max_definition_level() == 0 && values.null_count() > 0) {
      return ::arrow::Status::Invalid("Column '", descriptor.name(),
                                      "' declared non-nullable contains nulls");
    }
    FlatColumnWriter column(*sink_, descriptor);
    column.write(values, *format_->properties());
    column.finish(*group.NextColumnChunk());
    bytes += column.bytes();
  }
  group.set_num_rows(rows.num_rows());
  group.Finish(bytes, static_cast<std::int16_t>(groups_++));
  return ::arrow::Status::OK();
  END_PARQUET_CATCH_EXCEPTIONS
}

::arrow::Status FlatFileWriter::flush() { return sink_->Flush(); }

::arrow::Status FlatFileWriter::close() {
  if (isClosed_) return ::arrow::Status::OK();
  isClosed_ = true;
  BEGIN_PARQUET_CATCH_EXCEPTIONS
  ::parquet::WriteFileMetaData(*metadata_->Finish(), sink_.get());
  return flush();
  END_PARQUET_CATCH_EXCEPTIONS
}

}  // namespace kyr::parquet
