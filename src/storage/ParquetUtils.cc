#include "kyr/parquet/ParquetUtils.h"

#include <arrow/status.h>

#include <stdexcept>
#include <unordered_map>

#include "kyr/parquet/ParquetSerializerWorker.h"
#include "kyr/platform/FileSystem.h"

namespace kyr::parquet {

class ParquetUtils::Impl {
 public:
  ParquetSerializerWorker& storage() const {
    if (!worker) {
      throw std::logic_error(
          "these ParquetUtils have no storage: make them with a name, as ParquetUtils(\"tables\")");
    }
    return *worker;
  }

  const Path& makeDirectory(const std::string& name) {
    directory =
        fileSystem::uniqueName(fileSystem::temporaryDirectory(), toUtf16(name), u"").native();
    if (!fileSystem::exists(directory)) fileSystem::createOneDirectory(directory);
    return directory;
  }

  std::unique_ptr<ParquetSerializerWorker> worker;
  std::unordered_map<std::string, int> nameToStorageId;
  Path directory;
};

ParquetUtils::ParquetUtils() : impl_(std::make_unique<Impl>()) {}

ParquetUtils::ParquetUtils(const std::string& name) : ParquetUtils() {
  impl_->worker = std::make_unique<ParquetSerializerWorker>();
  impl_->worker->setParquetDirectory(impl_->makeDirectory(name));
}

ParquetUtils::~ParquetUtils() = default;

void ParquetUtils::setDirectoryName(const std::string& name) {
  ParquetSerializerWorker& worker = impl_->storage();
  if (impl_->directory.empty()) worker.setParquetDirectory(impl_->makeDirectory(name));
}

void ParquetUtils::writeTableToParquet(std::shared_ptr<::arrow::Table> table,
                                       const std::string& name) {
  ParquetSerializerWorker& worker = impl_->storage();
  if (!table) throw std::invalid_argument("no table to write as \"" + name + "\"");
  impl_->nameToStorageId[name] = worker.write(*table, {});
}

std::shared_ptr<::arrow::Table> ParquetUtils::readTableFromParquet(const std::string& name) {
  const ParquetSerializerWorker& worker = impl_->storage();
  // An unknown name is entered with id 0.
  return worker.read(impl_->nameToStorageId[name]);
}

::arrow::Status ParquetUtils::lastWriteStatus() const { return impl_->storage().lastWriteStatus(); }

}  // namespace kyr::parquet
