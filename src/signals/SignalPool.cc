#include "kyr/parquet/SignalPool.h"

#include "signals/SignalPoolImpl.h"

namespace kyr::parquet {

SignalPool::SignalPool() : impl_(std::make_unique<SignalPoolImpl>()) {}

SignalPool::SignalPool(const Path& directory)
    : impl_(std::make_unique<SignalPoolImpl>(directory)) {}

SignalPool::SignalPool(const SafeStorage& storage)
    : impl_(std::make_unique<SignalPoolImpl>(storage)) {}

SignalPool::SignalPool(const Path& directory, const SafeStorage& storage)
    : impl_(std::make_unique<SignalPoolImpl>(directory, storage)) {}

SignalPool::~SignalPool() = default;

void SignalPool::setParquetDirectory(const Path& directory) {
  impl_->setParquetDirectory(directory);
}

Path SignalPool::getParquetDirectory() { return impl_->getParquetDirectory(); }

std::shared_ptr<ParquetSignal> SignalPool::getSignal(const int& id) { return impl_->getSignal(id); }

std::shared_ptr<StreamableSignal> SignalPool::getStreamableSignal(const int& id) {
  return impl_->getStreamableSignal(id);
}

bool SignalPool::checkSignalExists(const int& id) { return impl_->checkSignalExists(id); }

bool SignalPool::isDataOwner(const int& id) const { return impl_->isDataOwner(id); }

void SignalPool::deleteSignal(const int& id) { impl_->deleteSignal(id); }

bool SignalPool::isEmpty() { return impl_->isEmpty(); }

std::string SignalPool::serializeSignalRecords() const { return impl_->serializeSignalRecords(); }

void SignalPool::deserializeSignalRecords(const std::string& text) {
  impl_->deserializeSignalRecords(text);
}

void SignalPool::describeSignal(const int& id, const std::string& name, const std::string& unit) {
  impl_->describeSignal(id, name, unit);
}

void SignalPool::flush() { impl_->flush(); }

void SignalPool::reset() { impl_->reset(); }

void SignalPool::reset(const Path& directory) { impl_->reset(directory); }

}  // namespace kyr::parquet
