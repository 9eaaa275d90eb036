#include "kyr/parquet/ParquetExportSerializerWorker.h"

#include <utility>

#include "export/ParquetExportSerializerWorkerImpl.h"

namespace kyr::parquet {

ParquetExportSerializerWorker::ParquetExportSerializerWorker()
    : impl_(std::make_unique<ParquetExportSerializerWorkerImpl>()) {}

ParquetExportSerializerWorker::~ParquetExportSerializerWorker() = default;

std::shared_ptr<::arrow::Schema> ParquetExportSerializerWorker::getExportSchema(
    std::vector<Column> columns) {
  return impl_->getExportSchema(std::move(columns));
}

std::vector<std::shared_ptr<::arrow::Array>> ParquetExportSerializerWorker::buildArray(
    std::vector<Signal> signals) {
  return impl_->buildArray(std::move(signals));
}

std::shared_ptr<::arrow::Table> ParquetExportSerializerWorker::buildTable(
    const std::shared_ptr<::arrow::Schema>& schema,
    const std::vector<std::shared_ptr<::arrow::Array>>& arrays) {
  return impl_->buildTable(schema, arrays);
}

void ParquetExportSerializerWorker::write(const ::arrow::Table& table, std::u16string path) {
  impl_->write(table, std::move(path));
}

::arrow::Status ParquetExportSerializerWorker::writeStatus() const { return impl_->writeStatus(); }

}  // namespace kyr::parquet
