#include <arrow/api.h>
#include <arrow/io/file.h>
#include <arrow/ipc/api.h>
#include <parquet/exception.h>

#include "Store.h"

/// Arrow's own file format: one file for everything, read from mapped memory.
namespace kyr::compare {

namespace {

// Rows of a batch: whole chunks of about 65,536 rows.
std::size_t batchRows(const Workload& workload) {
  return std::size_t{65536} / workload.chunkRows * workload.chunkRows;
}

std::shared_ptr<::arrow::DataType> typeOf(const Workload& workload, std::size_t column) {
  if (column == 0) return ::arrow::float64();
  auto type = workload.values == Values::counts ? ::arrow::int16() : ::arrow::float64();
  if (workload.elements == 1) return type;
  return ::arrow::fixed_size_list(::arrow::field("item", std::move(type), /*nullable=*/false),
                                  static_cast<std::int32_t>(workload.elements));
}

std::shared_ptr<::arrow::Array> arrayOver(const Workload& workload, std::size_t column,
                                          const char* values, std::size_t rows) {
  const auto type = typeOf(workload, column);
  const std::size_t elements = column == 0 ? 1 : workload.elements;
  const std::size_t elementSize = column == 0 ? sizeof(double) : workload.elementSize();
  auto buffer =
      std::make_shared<::arrow::Buffer>(reinterpret_cast<const std::uint8_t*>(values),
                                        static_cast<std::int64_t>(rows * elements * elementSize));
  const auto flat = [&](const std::shared_ptr<::arrow::DataType>& elementType) {
    return ::arrow::ArrayData::Make(elementType, static_cast<std::int64_t>(rows * elements),
                                    {nullptr, buffer}, /*null_count=*/0);
  };
  if (elements == 1) return ::arrow::MakeArray(flat(type));
  return ::arrow::MakeArray(::arrow::ArrayData::Make(type, static_cast<std::int64_t>(rows),
                                                     {nullptr}, {flat(type->field(0)->type())},
                                                     /*null_count=*/0));
}

const std::uint8_t* firstValue(const ::arrow::Array& array) {
  const ::arrow::ArrayData& data = *array.data();
  const ::arrow::ArrayData& values = data.child_data.empty() ? data : *data.child_data[0];
  return values.buffers[1]->data();
}

}  // namespace

class IpcStore : public Store {
 public:
  using Store::Store;

  bool supports(const Workload&) const override { return true; }

  void write(const Workload& workload, const Data& data) override {
    ::arrow::FieldVector fields;
    for (std::size_t i = 0; i < data.columns(); ++i) {
      fields.push_back(::arrow::field(std::to_string(i), typeOf(workload, i), /*nullable=*/false));
    }
    schema_ = ::arrow::schema(std::move(fields));
    PARQUET_ASSIGN_OR_THROW(const auto stream,
                            ::arrow::io::FileOutputStream::Open(stored("table").string()));
    PARQUET_ASSIGN_OR_THROW(writer_, ::arrow::ipc::MakeFileWriter(stream, schema_));
    if (workload.isWhole()) {
      std::vector<const char*> columns;
      for (std::size_t i = 0; i < data.columns(); ++i) columns.push_back(data.column(i));
      writeBatch(workload, columns, workload.rows);
    } else {
      append(workload, data);
    }
    PARQUET_THROW_NOT_OK(writer_->Close());
    PARQUET_THROW_NOT_OK(stream->Close());
  }

  void read(const Workload& workload, ReadBack& values) override {
    workload_ = workload;
    const auto reader = openFile({});
    std::vector<char*> next;
    next.push_back(values.time.allocate(workload.rows * sizeof(double)));
    for (Bytes& signal : values.signals) {
      next.push_back(signal.allocate(workload.rows * workload.sampleSize()));
    }
    for (int batch = 0; batch < reader->num_record_batches(); ++batch) {
      PARQUET_ASSIGN_OR_THROW(const auto rows, reader->ReadRecordBatch(batch));
      for (std::size_t i = 0; i < next.size(); ++i) {
        const std::size_t size = static_cast<std::size_t>(rows->num_rows()) * width(i);
        std::memcpy(next[i], firstValue(*rows->column(static_cast<int>(i))), size);
        next[i] += size;
      }
    }
  }

  void openWindows(const Workload& workload) override { workload_ = workload; }
  void closeWindow() override { window_.reset(); }
  void readWindow(std::size_t signal, std::size_t from, std::size_t count, Bytes& values) override {
    if (!window_) window_ = openFile({static_cast<int>(signal) + 1});
    const std::size_t sampleSize = width(1);
    char* out = values.allocate(count * sampleSize);
    for (std::size_t at = from; at < from + count;) {
      const auto batch = static_cast<int>(at / batchRows(workload_));
      PARQUET_ASSIGN_OR_THROW(const auto rows, window_->ReadRecordBatch(batch));
      const std::size_t first = at % batchRows(workload_);
      const std::size_t taken =
          std::min(from + count - at, static_cast<std::size_t>(rows->num_rows()) - first);
      std::memcpy(out, firstValue(*rows->column(0)) + first * sampleSize, taken * sampleSize);
      out += taken * sampleSize;
      at += taken;
    }
  }

 private:
  std::size_t width(std::size_t column) const {
    return column == 0 ? sizeof(double) : workload_.sampleSize();
  }

  std::shared_ptr<::arrow::ipc::RecordBatchFileReader> openFile(std::vector<int> columns) const {
    PARQUET_ASSIGN_OR_THROW(auto file, ::arrow::io::MemoryMappedFile::Open(
                                           stored("table").string(), ::arrow::io::FileMode::READ));
    auto options = ::arrow::ipc::IpcReadOptions::Defaults();
    options.included_fields = std::move(columns);
    PARQUET_ASSIGN_OR_THROW(auto reader,
                            ::arrow::ipc::RecordBatchFileReader::Open(std::move(file), options));
    return reader;
  }

  void writeBatch(const Workload& workload, const std::vector<const char*>& columns,
                  std::size_t rows) const {
    ::arrow::ArrayVector arrays;
    for (std::size_t i = 0; i < columns.size(); ++i) {
      arrays.push_back(arrayOver(workload, i, columns[i], rows));
    }
    PARQUET_THROW_NOT_OK(writer_->WriteRecordBatch(
        *::arrow::RecordBatch::Make(schema_, static_cast<std::int64_t>(rows), arrays)));
  }

  void append(const Workload& workload, const Data& data) const {
    std::vector<std::vector<char>> columns(data.columns());
    for (auto& column : columns) column.reserve(batchRows(workload) * sizeof(double));
    const auto write = [&](std::size_t rows) {
      std::vector<const char*> starts;
      starts.reserve(columns.size());
      for (const auto& column : columns) starts.push_back(column.data());
      writeBatch(workload, starts, rows);
      for (auto& column : columns) column.clear();
    };
    // A batch is full after the last column of a step, when all columns are as long.
    const std::size_t batchSize = batchRows(workload) * sizeof(double);
    forEachChunk(workload, data, [&](std::size_t i, const char* rows, std::size_t count) {
      auto& column = columns[i];
      column.insert(column.end(), rows, rows + count * sizeof(double));
      if (i + 1 == columns.size() && column.size() == batchSize) write(batchRows(workload));
    });
    if (!columns[0].empty()) write(columns[0].size() / sizeof(double));
  }

  Workload workload_{};
  std::shared_ptr<::arrow::Schema> schema_;
  std::shared_ptr<::arrow::ipc::RecordBatchWriter> writer_;
  std::shared_ptr<::arrow::ipc::RecordBatchFileReader> window_;
};

namespace {

[[maybe_unused]] const bool kAdded = addStore<IpcStore>("arrow:ipc");

}  // namespace

}  // namespace kyr::compare
