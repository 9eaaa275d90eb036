#include "signals/SignalPoolImpl.h"

#include <utility>

#include "kyr/parquet/DirectoryUtilities.h"
#include "kyr/platform/FeatureFlag.h"
#include "kyr/platform/FileSystem.h"
#include "signals/DefaultBackend.h"
#include "storage/ParquetStorageRecord.h"

namespace kyr::parquet {

namespace {

const std::u16string kTempDirectoryPrefix = u"parquetStorage";

}  // namespace

SignalPoolImpl::SignalPoolImpl() : SignalPoolImpl(generateTempDirectoryName(kTempDirectoryPrefix)) {
  backend->ownDirectory();
}

SignalPoolImpl::SignalPoolImpl(const Path& dir) : SignalPoolImpl(dir, std::nullopt) {}

SignalPoolImpl::SignalPoolImpl(const SafeStorage& storage)
    : SignalPoolImpl(generateTempDirectoryName(kTempDirectoryPrefix), storage) {
  backend->ownDirectory();
}

SignalPoolImpl::SignalPoolImpl(const Path& dir, const SafeStorage& storage)
    : SignalPoolImpl(dir, std::optional<SafeStorage>(storage)) {}

SignalPoolImpl::SignalPoolImpl(const Path& dir, std::optional<SafeStorage> storage)
    : redundancyContext(std::make_shared<RedundancyChecker::Context<unsigned long>>()),
      fileNodes(std::make_shared<RedundancyEliminator::Registry>()),
      chainIndex(std::make_shared<RedundancyEliminator::ChainIndex>()),
      safeStorage(storage) {
  if (!fileSystem::exists(dir)) createDirectory(dir);
  setParquetDirectory(dir);
}

// The directory is looked at after the old backend has written its last files, which may lie there.
void SignalPoolImpl::setParquetDirectory(const Path& dir) {
  if (backend) backend->leave(signals);
  if (safeStorage || FeatureFlag::isEnabled("fKYRUseSafeStorage")) {
    backend = std::make_unique<SafeBackend>(dir, safeStorage.value_or(SafeStorage()), safeState);
    worker.reset();
    writer.reset();
  } else {
    useDefaultRules(dir);
  }
  directory = dir;
}

// Nothing has changed if the directory cannot be used.
void SignalPoolImpl::useDefaultRules(const Path& dir) {
  std::shared_ptr<ParquetSerializerWorker> newWorker;
  std::shared_ptr<StreamableWriter> newWriter;
  if (isRowGroupMode()) {
    newWriter = std::make_shared<StreamableWriter>(dir);
  } else {
    newWorker = std::make_shared<ParquetSerializerWorker>(dir);
  }
  backend = std::make_unique<DefaultBackend>(newWorker, newWriter, redundancyContext, fileNodes,
                                             chainIndex);
  worker = std::move(newWorker);
  writer = std::move(newWriter);
}

std::shared_ptr<ParquetSignal> SignalPoolImpl::getSignal(int id) {
  const auto found = signals.find(id);
  if (found != signals.end()) {
    const auto* signal = std::get_if<std::shared_ptr<ParquetSignal>>(&found->second);
    return signal ? *signal : nullptr;
  }
  auto signal = backend->makeSignal(id, kNoStorage, kNoStorage);
  signals.emplace(id, signal);
  return signal;
}

std::shared_ptr<StreamableSignal> SignalPoolImpl::getStreamableSignal(int id) {
  const auto found = signals.find(id);
  if (found != signals.end()) {
    const auto* signal = std::get_if<std::shared_ptr<StreamableSignal>>(&found->second);
    return signal ? *signal : nullptr;
  }
  auto signal = backend->makeStreamableSignal(id, kNoStorage, kNoStorage);
  signals.emplace(id, signal);
  return signal;
}

bool SignalPoolImpl::isDataOwner(int id) const {
  const auto found = signals.find(id);
  return found != signals.end() && backend->hasData(found->second);
}

void SignalPoolImpl::reset() {
  const Path fresh = generateTempDirectoryName(kTempDirectoryPrefix);
  createDirectory(fresh);
  signals.clear();
  ++removals_;
  setParquetDirectory(fresh);
  backend->ownDirectory();
}

void SignalPoolImpl::reset(const Path& dir) {
  signals.clear();
  ++removals_;
  setParquetDirectory(dir);
}

std::string SignalPoolImpl::serializeSignalRecords() const {
  auto records = finishedRecords();
  if (backend->writeFiles()) records = finishedRecords();
  return writeSignalRecords(records);
}

std::vector<SignalRecord> SignalPoolImpl::finishedRecords() const {
  std::vector<SignalRecord> records;
  for (const auto& [id, signal] : signals) {
    if (const auto record = backend->finishedRecord(id, signal)) records.push_back(*record);
  }
  return records;
}

void SignalPoolImpl::deserializeSignalRecords(const std::string& text) {
  readSignalRecords(text, [this](const SignalRecord& record) { adopt(record); });
}

void SignalPoolImpl::adopt(const SignalRecord& record) {
  const int timeId = record.timeStorageId;
  const int dataId = record.dataStorageId;
  ++removals_;
  signals.insert_or_assign(
      record.signalId,
      isRowGroupMode() ? PoolSignal(backend->makeStreamableSignal(record.signalId, timeId, dataId))
                       : PoolSignal(backend->makeSignal(record.signalId, timeId, dataId)));
}

}  // namespace kyr::parquet
