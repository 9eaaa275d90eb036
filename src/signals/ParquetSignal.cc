#include "kyr/parquet/ParquetSignal.h"

#include <arrow/status.h>

#include <utility>

#include "signals/ParquetSignalImpl.h"

namespace kyr::parquet {

ParquetSignal::ParquetSignal(std::shared_ptr<ParquetSerializerWorker> worker, int timeStorageId,
                             int dataStorageId)
    : impl_(std::make_unique<ParquetSignalImpl>(std::move(worker), timeStorageId, dataStorageId)) {}

ParquetSignal::ParquetSignal(std::unique_ptr<WholeSignal> impl) : impl_(std::move(impl)) {}

ParquetSignal::~ParquetSignal() = default;

void ParquetSignal::setData(const std::vector<double>& time, const std::vector<char>& data,
                            const std::vector<std::vector<std::size_t>>& dims,
                            const std::vector<int>& lengths) {
  impl_->setData(time, data, dims, lengths);
}

void ParquetSignal::getData(std::vector<double>& time, std::vector<char>& data,
                            std::vector<std::vector<std::size_t>>& dims) {
  std::vector<int> lengths;
  impl_->getData(time, data, dims, lengths);
}

void ParquetSignal::getData(std::vector<double>& time, std::vector<char>& data,
                            std::vector<std::vector<std::size_t>>& dims,
                            std::vector<int>& lengths) {
  impl_->getData(time, data, dims, lengths);
}

void ParquetSignal::resetData() { impl_->resetData(); }

bool ParquetSignal::hasData() const { return impl_->hasData(); }

int ParquetSignal::getStorageId(char part) const {
  return impl_->getStorageId(static_cast<SignalPart>(part));
}

void ParquetSignal::setDataType(KYRSignalDataType type) { impl_->setDataType(type); }

KYRSignalDataType ParquetSignal::getDataType() const { return impl_->getDataType(); }

void ParquetSignal::setCategory(KYRSignalCategory category) { impl_->setCategory(category); }

KYRSignalCategory ParquetSignal::getCategory() const { return impl_->getCategory(); }

void ParquetSignal::setParquetCompressionType(const ::arrow::Compression::type& type) {
  impl_->setParquetCompressionType(type);
}

std::optional<::arrow::Compression::type> ParquetSignal::getParquetCompressionType() const {
  return impl_->getParquetCompressionType();
}

Path ParquetSignal::getParquetDirectory() const { return impl_->getParquetDirectory(); }

::arrow::Status ParquetSignal::writeStatus() const { return impl_->writeStatus(); }

}  // namespace kyr::parquet
