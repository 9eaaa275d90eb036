#include "export/TableWriter.h"

#include <arrow/api.h>
#include <arrow/csv/writer.h>
#include <arrow/io/file.h>
#include <arrow/ipc/writer.h>
#include <arrow/util/byte_size.h>
#include <arrow/util/compression.h>
#include <fmt/format.h>

#include <stdexcept>
#include <utility>

#include "cli/Errors.h"
#include "cli/Interrupt.h"
#include "cli/Span.h"
#include "cli/StandardOutput.h"
#include "cli/Text.h"
#include "kyr/parquet/ParquetWriterOptions.h"

namespace kyr::tool {

namespace {

std::shared_ptr<::parquet::WriterProperties> writerProperties(bool hasStatistics) {
  ::parquet::WriterProperties::Builder builder(
      *parquet::ParquetWriterOptions().buildWriterProperties());
  if (hasStatistics) builder.enable_statistics();
  return builder.build();
}

::arrow::ipc::IpcWriteOptions ipcOptions(
    const std::optional<::arrow::Compression::type>& compression) {
  auto options = ::arrow::ipc::IpcWriteOptions::Defaults();
  if (compression && *compression != ::arrow::Compression::UNCOMPRESSED) {
    options.codec = check(::arrow::util::Codec::Create(*compression));
  }
  options.use_threads = false;
  return options;
}

std::string csvLine(const std::vector<std::string>& names) {
  std::string line;
  for (const std::string& name : names) line += (line.empty() ? "" : ",") + csvCell(name);
  return line + "\n";
}

}  // namespace

TableWriter::TableWriter(const Target& target, std::shared_ptr<::arrow::Schema> schema,
                         const std::vector<std::string>& csvHeader)
    : name_(target.name), schema_(std::move(schema)) {
  open(target, csvHeader);
}

TableWriter::~TableWriter() = default;

void TableWriter::open(const Target& target, const std::vector<std::string>& csvHeader) {
  if (target.file.empty()) {
    stream_ = standardOutput_ = std::make_shared<StandardOutput>();
  } else {
    auto opened = ::arrow::io::FileOutputStream::Open(target.file.string());
    checkWritten(opened.status());
    stream_ = std::move(opened).ValueUnsafe();
  }
  if (target.format == ExportFormat::parquet) {
    parquet_ = check(::parquet::arrow::FileWriter::Open(
        *schema_, ::arrow::default_memory_pool(), stream_, writerProperties(target.hasStatistics),
        ::parquet::ArrowWriterProperties::Builder().store_schema()->build()));
  } else if (target.format == ExportFormat::csv) {
    checkWritten(stream_->Write(csvLine(csvHeader)));
    auto options = ::arrow::csv::WriteOptions::Defaults();
    options.include_header = false;
    other_ = check(::arrow::csv::MakeCSVWriter(stream_, schema_, options));
  } else {
    const auto options = ipcOptions(target.codec);
    other_ = check(standardOutput_ ? ::arrow::ipc::MakeStreamWriter(stream_, schema_, options)
                                   : ::arrow::ipc::MakeFileWriter(stream_, schema_, options));
  }
}

void TableWriter::checkWritten(const ::arrow::Status& status) const {
  if (status.ok()) return;
  throwIfOutOfMemory(status);
  if (standardOutput_ && standardOutput_->isAbandoned()) throw OutputClosed();
  if (standardOutput_) throw std::runtime_error(status.message());
  throw std::runtime_error(fmt::format("{} cannot be written: {}", name_, reasonOf(status)));
}

// A row group is in memory until it is complete.
void TableWriter::startGroupIfFull(const ::arrow::RecordBatch& batch) {
  constexpr std::int64_t kGroupBytes = std::int64_t{64} << 20;
  if (groupBytes_ >= kGroupBytes) {
    checkWritten(parquet_->NewBufferedRowGroup());
    groupBytes_ = 0;
  }
  groupBytes_ += ::arrow::util::TotalBufferSize(batch);
}

void TableWriter::write(const ::arrow::RecordBatch& batch) {
  stopIfInterrupted();
  const Span span("write");
  if (parquet_) startGroupIfFull(batch);
  checkWritten(parquet_ ? parquet_->WriteRecordBatch(batch) : other_->WriteRecordBatch(batch));
}

void TableWriter::close() {
  const Span span("close");
  checkWritten(parquet_ ? parquet_->Close() : other_->Close());
  checkWritten(stream_->Close());
}

}  // namespace kyr::tool
