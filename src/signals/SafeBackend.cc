#include "signals/SafeBackend.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <utility>

#include "kyr/platform/FileSystem.h"
#include "platform/JsonWriter.h"
#include "safe/Content.h"
#include "safe/GrowingPacks.h"
#include "safe/SafeStreamableSignal.h"
#include "safe/SafeWholeSignal.h"

namespace kyr::parquet {

namespace {

// An id that no entry of the directory could be taken for, and none above it.
int firstFreeId(const Path& directory) {
  int first = 0;
  if (!fileSystem::exists(directory)) return first;
  for (directory_iterator entry(directory); entry != directory_iterator(); ++entry) {
    const std::string name = entry.entry().fileName().toNarrow();
    int id = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), id);
    if (error == std::errc() && id < std::numeric_limits<int>::max()) {
      first = std::max(first, id + 1);
    }
  }
  return first;
}

}  // namespace

void SafePoolState::describe(int id, const std::string& name, const std::string& unit) {
  for (const std::string* text : {&name, &unit}) {
    if (plainLength(*text) != text->size()) static_cast<void>(toUtf16(*text));
  }
  const auto known = labels_.find(id);
  const auto label = known == labels_.end() ? newLabel(id) : known->second;
  label->name = name;
  label->unit = unit;
}

std::shared_ptr<SignalLabel> SafePoolState::newLabel(int id) {
  auto& known = labels_[id];
  if (known && known.use_count() == 1) {  // no signal has it
    known->dataType = SignalLabel().dataType;
    known->category = SignalLabel().category;
    return known;
  }
  auto label = std::make_shared<SignalLabel>();
  label->signalId = id;
  if (known) {
    label->name = known->name;
    label->unit = known->unit;
  }
  return known = label;
}

SafeBackend::SafeBackend(const Path& directory, const SafeStorage& options,
                         std::shared_ptr<SafePoolState> state)
    : state_(std::move(state)) {
  int& nextId = *state_->nextId();
  nextId = std::max(nextId, firstFreeId(directory));
  store_ = std::make_shared<SharedStore>(directory, options, state_->nextId());
}

std::shared_ptr<ParquetSignal> SafeBackend::makeSignal(int id, int timeStorageId,
                                                       int dataStorageId) {
  auto signal =
      std::make_unique<SafeWholeSignal>(store_, state_->newLabel(id), timeStorageId, dataStorageId);
  // No whole-file signal has a category until one is set.
  signal->setCategory(static_cast<KYRSignalCategory>(5));
  return std::shared_ptr<ParquetSignal>(new ParquetSignal(std::move(signal)));
}

std::shared_ptr<StreamableSignal> SafeBackend::makeStreamableSignal(int id, int timeStorageId,
                                                                    int dataStorageId) {
  return std::make_shared<SafeStreamableSignal>(store_, state_->newLabel(id), timeStorageId,
                                                dataStorageId);
}

bool SafeBackend::hasData(const PoolSignal& signal) const {
  return std::visit([](const auto& any) { return any->hasData(); }, signal);
}

std::optional<SignalRecord> SafeBackend::finishedRecord(int id, const PoolSignal& signal) const {
  return std::visit([id](const auto& any) { return recordOf(id, *any); }, signal);
}

void SafeBackend::flush(const PoolSignals& signals) {
  for (const auto& [id, signal] : signals) {
    if (const auto* streamed = std::get_if<std::shared_ptr<StreamableSignal>>(&signal)) {
      static_cast<SafeStreamableSignal&>(**streamed).write();
    }
  }
  if (store_->hasContentsInMemory()) {
    store_->forEachContent([](Content& content) {
      if (content.growing() == nullptr) content.flush();
    });
  }
  if (store_->packs() != nullptr) store_->packs()->write(store_->flushNote());
  if (store_->options().sync != SafeStorage::Sync::never) store_->sync();
  // A live recording notes it when its journal tells of the flush.
  if (store_->packs() == nullptr) store_->noteFlush();
}

bool SafeBackend::writeFiles() {
  store_->forEachContent([](Content& content) { content.moveToOwnFile(); });
  return true;
}

void SafeBackend::leave(const PoolSignals& signals) noexcept {
  if (!store_->options().keepsFiles || store_->isClosed()) return;
  store_->keepAllFiles();
  try {
    flush(signals);
  } catch (const std::exception&) {
    return;
  }
}

}  // namespace kyr::parquet
