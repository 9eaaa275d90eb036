#include "signals/SignalPoolImpl.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <limits>
#include <stdexcept>
#include <utility>

#include "kyr/parquet/DirectoryUtilities.h"
#include "kyr/platform/FeatureFlag.h"
#include "kyr/platform/FileSystem.h"
#include "safe/Content.h"
#include "safe/SafeStreamableSignal.h"
#include "safe/SafeWholeSignal.h"
#include "signals/SignalRecords.h"
#include "storage/ParquetStorageRecord.h"
#include "streaming/StreamableSignalImpl.h"

namespace kyr::parquet {

namespace {

const std::u16string kTempDirectoryPrefix = u"parquetStorage";

constexpr unsigned long kBatchRows = 100000000;

// Behind all that any entry of the directory could be taken for.
int firstFreeId(const Path& dir) {
  int first = 0;
  if (!fileSystem::exists(dir)) return first;
  for (directory_iterator entry(dir); entry != directory_iterator(); ++entry) {
    const std::string name = entry.entry().fileName().toNarrow();
    int id = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), id);
    if (error == std::errc() && id < std::numeric_limits<int>::max())
      first = std::max(first, id + 1);
  }
  return first;
}

bool rowGroupMode() { return FeatureFlag::isEnabled("fKYRUseParquetRowGroup"); }

}  // namespace

SignalPoolImpl::SignalPoolImpl()
    : SignalPoolImpl(generateTempDirectoryName(kTempDirectoryPrefix)) {}

SignalPoolImpl::SignalPoolImpl(const Path& dir) : SignalPoolImpl(dir, std::nullopt) {}

SignalPoolImpl::SignalPoolImpl(const SafeStorage& storage)
    : SignalPoolImpl(generateTempDirectoryName(kTempDirectoryPrefix), storage) {}

SignalPoolImpl::SignalPoolImpl(const Path& dir, const SafeStorage& storage)
    : SignalPoolImpl(dir, std::optional<SafeStorage>(storage)) {}

SignalPoolImpl::SignalPoolImpl(const Path& dir, std::optional<SafeStorage> storage)
    : safeStorage(storage),
      redundancyContext(std::make_shared<RedundancyChecker::Context<unsigned long>>()),
      fileNodes(std::make_shared<RedundancyEliminator::Registry>()) {
  if (!fileSystem::exists(dir)) createDirectory(dir);
  setParquetDirectory(dir);
}

SignalPoolImpl::~SignalPoolImpl() { leaveStore(); }

// The files that are to be kept are brought up to date, if that is possible.
void SignalPoolImpl::leaveStore() noexcept {
  if (!store || !store->options().keepsFiles) return;
  store->keepAllFiles();
  try {
    flush();
  } catch (const std::exception&) {
    return;  // a host that wants to know flushes by itself
  }
}

void SignalPoolImpl::setParquetDirectory(const Path& dir) {
  if (safeStorage || FeatureFlag::isEnabled("fKYRUseSafeStorage")) {
    leaveStore();
    *nextSafeId = std::max(*nextSafeId, firstFreeId(dir));
    store = std::make_shared<SharedStore>(dir, safeStorage.value_or(SafeStorage()), nextSafeId);
    worker.reset();
    writer.reset();
    directory = dir;
    return;
  }
  leaveStore();
  store.reset();
  if (rowGroupMode()) {
    writer = std::make_shared<StreamableWriter>(dir);
    worker.reset();
  } else {
    worker = std::make_shared<ParquetSerializerWorker>(dir);
    writer.reset();
  }
  directory = dir;
}

std::shared_ptr<ParquetSignal> SignalPoolImpl::makeSignal(int id, int timeStorageId,
                                                          int dataStorageId) {
  if (store) {
    auto signal =
        std::make_unique<SafeWholeSignal>(store, newLabel(id), timeStorageId, dataStorageId);
    // As with any whole signal, there is none until it is set.
    signal->setCategory(static_cast<KYRSignalCategory>(5));
    return std::shared_ptr<ParquetSignal>(new ParquetSignal(std::move(signal)));
  }
  if (!worker)
    throw std::runtime_error("the pool is in row-group mode: it has no whole-file signals");
  return std::make_shared<ParquetSignal>(worker, timeStorageId, dataStorageId);
}

std::shared_ptr<StreamableSignal> SignalPoolImpl::makeStreamableSignal(int id, int timeStorageId,
                                                                       int dataStorageId) {
  if (store)
    return std::make_shared<SafeStreamableSignal>(store, newLabel(id), timeStorageId,
                                                  dataStorageId);
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
  auto signal = makeSignal(id, kNoStorage, kNoStorage);
  signals.emplace(id, signal);
  return signal;
}

std::shared_ptr<StreamableSignal> SignalPoolImpl::getStreamableSignal(int id) {
  const auto found = signals.find(id);
  if (found != signals.end()) {
    const auto* signal = std::get_if<std::shared_ptr<StreamableSignal>>(&found->second);
    return signal ? *signal : nullptr;
  }
  auto signal = makeStreamableSignal(id, kNoStorage, kNoStorage);
  signals.emplace(id, signal);
  return signal;
}

bool SignalPoolImpl::isDataOwner(int id) const {
  const auto found = signals.find(id);
  if (found == signals.end()) return false;
  if (store) {
    return std::visit([](const auto& signal) { return signal->hasData(); }, found->second);
  }
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

// A signal of that id that somebody still holds keeps its own.
std::shared_ptr<SignalLabel> SignalPoolImpl::newLabel(int id) {
  auto label = std::make_shared<SignalLabel>();
  auto& known = labels[id];
  label->signalId = id;
  if (known) {
    label->name = known->name;
    label->unit = known->unit;
  }
  return known = label;
}

void SignalPoolImpl::describeSignal(int id, const std::string& name, const std::string& unit) {
  static_cast<void>(toUtf16(name + unit));
  const auto found = labels.find(id);
  const auto label = found == labels.end() ? newLabel(id) : found->second;
  label->name = name;
  label->unit = unit;
}

void SignalPoolImpl::flush() {
  if (!store) throw std::logic_error("a pool can be flushed only with SafeStorage");
  for (const auto& [id, signal] : signals) {
    if (const auto* streamed = std::get_if<std::shared_ptr<StreamableSignal>>(&signal)) {
      static_cast<SafeStreamableSignal&>(**streamed).write();
    }
  }
  if (store->hasContentsInMemory()) {
    store->forEachContent([](Content& content) {
      if (content.growing() == nullptr) content.flush();
    });
  }
  if (store->options().sync != SafeStorage::Sync::never) store->sync();
  store->noteFlush();
}

std::string SignalPoolImpl::serializeSignalRecords() const {
  const auto records = finishedRecords();
  if (store) store->forEachContent([](Content& content) { content.moveToOwnFile(); });
  return writeSignalRecords(records);
}

std::vector<SignalRecord> SignalPoolImpl::finishedRecords() const {
  std::vector<SignalRecord> records;
  for (const auto& [id, signal] : signals) {
    if (store ? signal.index() == 1 : rowGroupMode()) {
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
  return records;
}

void SignalPoolImpl::deserializeSignalRecords(const std::string& text) {
  readSignalRecords(text, [this](const SignalRecord& record) { adopt(record); });
}

void SignalPoolImpl::adopt(const SignalRecord& record) {
  const int timeId = record.timeStorageId;
  const int dataId = record.dataStorageId;
  signals.insert_or_assign(record.signalId,
                           rowGroupMode()
                               ? Signal(makeStreamableSignal(record.signalId, timeId, dataId))
                               : Signal(makeSignal(record.signalId, timeId, dataId)));
}

}  // namespace kyr::parquet
