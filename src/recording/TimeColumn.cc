#include "recording/TimeColumn.h"

#include <arrow/api.h>
#include <arrow/io/file.h>
#include <fmt/format.h>
#include <parquet/arrow/writer.h>

#include <stdexcept>
#include <utility>

#include "files/BatchSize.h"
#include "kyr/parquet/ColumnNames.h"
#include "kyr/parquet/ParquetWriterOptions.h"
#include "recording/TimeSpans.h"

namespace kyr::recording {

namespace fs = std::filesystem;

namespace {

// A new Parquet file. Each table becomes a row group.
class RowGroupFile {
 public:
  RowGroupFile(fs::path path, std::shared_ptr<::arrow::Schema> schema,
               ::arrow::Compression::type codec)
      : path_(std::move(path)), schema_(std::move(schema)) {
    auto sink = ::arrow::io::FileOutputStream::Open(path_.string());
    check(sink.status());
    sink_ = *sink;
    const auto properties = parquet::ParquetWriterOptions().buildWriterProperties(codec);
    check(parquet::checkBatchSize(*properties));
    auto writer = ::parquet::arrow::FileWriter::Open(*schema_, ::arrow::default_memory_pool(),
                                                     sink_, properties);
    check(writer.status());
    writer_ = *std::move(writer);
  }

  void write(const std::vector<std::shared_ptr<::arrow::ChunkedArray>>& columns) {
    const auto rows = ::arrow::Table::Make(schema_, columns);
    if (rows->num_rows() > 0) check(writer_->WriteTable(*rows, rows->num_rows()));
  }

  void close() {
    check(writer_->Close());
    check(sink_->Close());
  }

 private:
  void check(const ::arrow::Status& status) const {
    if (!status.ok()) {
      throw std::runtime_error(
          fmt::format("cannot write {}: {}", path_.string(), status.message()));
    }
  }

  fs::path path_;
  std::shared_ptr<::arrow::Schema> schema_;
  std::shared_ptr<::arrow::io::FileOutputStream> sink_;
  std::unique_ptr<::parquet::arrow::FileWriter> writer_;
};

}  // namespace

bool splitTimeColumn(const fs::path& dataFile, const fs::path& timeFile) {
  namespace columnNames = parquet::columnNames;
  const auto stored = openFile(dataFile);
  const ::arrow::Schema& schema = *stored->schema();
  const int timeIndex = schema.GetFieldIndex(columnNames::time);
  if (timeIndex < 0) return false;

  auto rest = schema.RemoveField(timeIndex);
  if (!rest.ok()) throw std::runtime_error(dataFile.string() + ": " + rest.status().message());
  const auto codec = stored->codec(columnNames::data);
  const fs::path withoutTime = dataFile.string() + ".split";
  RowGroupFile time(
      timeFile, ::arrow::schema({::arrow::field(columnNames::data, ::arrow::float64())}), codec);
  RowGroupFile data(withoutTime, *rest, codec);
  for (std::size_t group = 0; group < stored->rowGroups(); ++group) {
    const std::uint64_t first = stored->rowStart(group);
    const auto rows = stored->read(first, stored->rowStart(group + 1) - first);
    auto columns = rows->columns();
    time.write({columns[static_cast<std::size_t>(timeIndex)]});
    columns.erase(columns.begin() + timeIndex);
    data.write(columns);
  }
  time.close();
  data.close();
  fs::rename(withoutTime, dataFile);
  return true;
}

}  // namespace kyr::recording
