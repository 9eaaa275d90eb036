#include "export/ParquetExportSerializerWorkerImpl.h"

#include <arrow/array.h>
#include <arrow/buffer.h>
#include <arrow/io/file.h>
#include <arrow/table.h>
#include <parquet/arrow/writer.h>
#include <parquet/exception.h>

#include <cstring>
#include <stdexcept>
#include <utility>

#include "files/BatchSize.h"
#include "kyr/parquet/ParquetSerializerWorker.h"
#include "kyr/parquet/SchemaBuilder.h"
#include "schema/ArrayMemory.h"
#include "schema/ElementTypes.h"

namespace kyr::parquet {

namespace {

// A copy of the \p bytes bytes at \p values. A trailing partial value does not count.
std::shared_ptr<::arrow::Array> copiedArray(const std::shared_ptr<::arrow::DataType>& type,
                                            const void* values, std::size_t bytes) {
  PARQUET_ASSIGN_OR_THROW(std::shared_ptr<::arrow::Buffer> buffer,
                          ::arrow::AllocateBuffer(static_cast<std::int64_t>(bytes)));
  if (bytes > 0) std::memcpy(buffer->mutable_data(), values, bytes);
  return kyr::arrow::makeArrayZeroCopy(buffer, type);
}

// Types that are stored as another one are refused, and so are blobs.
bool isExported(KYRSignalDataType type) {
  return type != Binary && signalTypeOf(elementTypeId(type)) == type;
}

}  // namespace

std::shared_ptr<::arrow::Schema> ParquetExportSerializerWorkerImpl::getExportSchema(
    std::vector<Column> columns) const {
  return schemaBuilder::getCustomSchema(std::move(columns));
}

std::vector<std::shared_ptr<::arrow::Array>> ParquetExportSerializerWorkerImpl::buildArray(
    std::vector<Signal> signals) const {
  std::vector<std::shared_ptr<::arrow::Array>> arrays;
  arrays.reserve(2 * signals.size());
  for (const auto& [name, time, data, dimensions, type] : signals) {
    auto dataArray = getDataArray(name, data, type);
    arrays.push_back(copiedArray(::arrow::float64(), time.data(), time.size() * sizeof(double)));
    arrays.push_back(std::move(dataArray));
  }
  return arrays;
}

std::shared_ptr<::arrow::Array> ParquetExportSerializerWorkerImpl::getDataArray(
    const std::string& /*name*/, const std::vector<char>& data,
    const KYRSignalDataType& type) const {
  if (!isExported(type)) throw std::runtime_error("Unknown data type encountered.");
  return copiedArray(elementArrowType(type), data.data(), data.size());
}

std::shared_ptr<::arrow::Table> ParquetExportSerializerWorkerImpl::buildTable(
    const std::shared_ptr<::arrow::Schema>& schema,
    const std::vector<std::shared_ptr<::arrow::Array>>& arrays) const {
  return ParquetSerializerWorker::tableBuildHelper(schema, arrays);
}

void ParquetExportSerializerWorkerImpl::write(const ::arrow::Table& table, std::u16string path) {
  const std::string file = Path(std::move(path)).native().toNarrow();
  // Appending is on, so that no existing file is ever truncated. Parquet cannot append: if the file
  // holds bytes, the write fails in silence and the bytes stay.
  PARQUET_ASSIGN_OR_THROW(const auto stream,
                          ::arrow::io::FileOutputStream::Open(file, /*append=*/true));
  const auto properties = options_.buildWriterProperties();
  writeStatus_ = checkBatchSize(*properties);
  if (writeStatus_.ok()) {
    writeStatus_ = ::parquet::arrow::WriteTable(table, ::arrow::default_memory_pool(), stream,
                                                table.num_rows(), properties,
                                                ::parquet::default_arrow_writer_properties());
  }
  writeStatus_ &= stream->Close();
  if (!writeStatus_.ok()) {
    writeStatus_ = writeStatus_.WithMessage(file, ": ", writeStatus_.message());
  }
}

}  // namespace kyr::parquet
