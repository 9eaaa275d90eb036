#include "signals/SignalPoolImpl.h"

#include <fmt/format.h>

#include <stdexcept>

#include "kyr/parquet/DirectoryUtilities.h"
#include "kyr/platform/FeatureFlag.h"
#include "kyr/platform/FileSystem.h"
#include "signals/SignalRecords.h"
#include "storage/ParquetStorageRecord.h"
#include "streaming/StreamableSignalImpl.h"

namespace kyr::parquet {

namespace {

const std::u16string kTempDirectoryPrefix = u"parquetStorage";

constexpr unsigned long kBatchRows = 100000000;

bool rowGroupMode() { return FeatureFlag::isEnabled("fKYRUseParquetRowGroup"); }

}  // namespace

SignalPoolImpl::SignalPoolImpl()
    : SignalPoolImpl(generateTempDirectoryName(kTempDirectoryPrefix)) {}

SignalPoolImpl::SignalPoolImpl(const Path& dir)
    : redundancyContext(std::make_shared<RedundancyChecker::Context<unsigned long>>()),
      fileNodes(std::make_shared<RedundancyEliminator::Registry>()) {
  if (!fileSystem::exists(dir)) createDirectory(dir);
  setParquetDirectory(dir);
}

void SignalPoolImpl::setParquetDirectory(const Path& dir) {
  if (rowGroupMode()) {
    writer = std::make_shared<StreamableWriter>(dir);
    worker.reset();
  } else {
    worker = std::make_shared<ParquetSerializerWorker>(dir);
    writer.reset();
  }
  directory = dir;
}

std::shared_ptr<ParquetSignal> SignalPoolImpl::makeSignal(int timeStorageId,
                                                          int dataStorageId) const {
  if (!worker)
    throw std::runtime_error("the pool is in row-group mode: it has no whole-file signals");
  return std::make_shared<ParquetSignal>(worker, timeStorageId, dataStorageId);
}

std::shared_ptr<StreamableSignal> SignalPoolImpl::makeStreamableSignal(int timeStorageId,
                                                                       int dataStorageId) const {
  if (!writer) {
    throw std::runtime_error("the pool is in whole-file mode: it has no streamable signals");
  }
  return std::make_shared<StreamableSignalImpl>(writer, timeStorageId, dataStorageId,
                                                redundancyContext, fileNodes, kBatchRows);
}

std::shared_ptr<ParquetSignal> SignalPoolImpl::getSignal(int id) {
  const auto found = signals.find(id);
  if (found != signals.end()) {
    const auto* signal = std::get_if<std::shared_ptr<ParquetSignal>>(&found->second);
    return signal ? *signal : nullptr;
  }
  auto signal = makeSignal(kNoStorage, kNoStorage);
  signals.emplace(id, signal);
  return signal;
}

std::shared_ptr<StreamableSignal> SignalPoolImpl::getStreamableSignal(int id) {
  const auto found = signals.find(id);
  if (found != signals.end()) {
    const auto* signal = std::get_if<std::shared_ptr<StreamableSignal>>(&found->second);
    return signal ? *signal : nullptr;
  }
  auto signal = makeStreamableSignal(kNoStorage, kNoStorage);
  signals.emplace(id, signal);
  return signal;
}

bool SignalPoolImpl::isDataOwner(int id) const {
  const auto found = signals.find(id);
  if (found == signals.end()) return false;
  return rowGroupMode() ? std::get<std::shared_ptr<StreamableSignal>>(found->second)->hasData()
                        : std::get<std::shared_ptr<ParquetSignal>>(found->second)->hasData();
}

void SignalPoolImpl::reset() {
  const Path fresh = generateTempDirectoryName(kTempDirectoryPrefix);
  createDirectory(fresh);
  signals.clear();
  setParquetDirectory(fresh);
}

void SignalPoolImpl::reset(const Path& dir) {
  signals.clear();
  setParquetDirectory(dir);
}

std::string SignalPoolImpl::serializeSignalRecords() const {
  std::vector<SignalRecord> records;
  for (const auto& [id, signal] : signals) {
    if (rowGroupMode()) {
      auto& streamed = *std::get<std::shared_ptr<StreamableSignal>>(signal);
      streamed.finish();
      if (!streamed.hasData()) continue;
      records.push_back({id, streamed.getStorageId(StreamableSignal::SignalPart::time),
                         streamed.getStorageId(StreamableSignal::SignalPart::data)});
    } else {
      const auto& stored = *std::get<std::shared_ptr<ParquetSignal>>(signal);
      if (!stored.hasData()) continue;
      records.push_back({id, stored.getStorageId(static_cast<char>(SignalPart::time)),
                         stored.getStorageId(static_cast<char>(SignalPart::data))});
    }
  }
  return writeSignalRecords(records);
}

void SignalPoolImpl::deserializeSignalRecords(const std::string& text) {
  readSignalRecords(text, [this](const SignalRecord& record) {
    const int timeId = record.timeStorageId;
    const int dataId = record.dataStorageId;
    signals.insert_or_assign(record.signalId, rowGroupMode()
                                                  ? Signal(makeStreamableSignal(timeId, dataId))
                                                  : Signal(makeSignal(timeId, dataId)));
  });
}

}  // namespace kyr::parquet
