#pragma once

#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "kyr/parquet/SafeStorage.h"
#include "kyr/platform/Path.h"
#include "safe/SharedStore.h"
#include "safe/SignalLabel.h"
#include "signals/PoolBackend.h"

namespace kyr::parquet {

/// What the backends of a safe pool have in common, one after the other.
class SafePoolState {
 public:
  /// Names a signal, and those of the same id that are made later. Without SafeStorage it is kept
  /// for the time when the pool gets it.
  /// \throws std::invalid_argument if a text is no valid UTF-8
  void describe(int id, const std::string& name, const std::string& unit);
  /// The label of a new signal. An older one of the same id that somebody still has keeps its own.
  std::shared_ptr<SignalLabel> newLabel(int id);

  /// Counts the ids of all stores.
  const std::shared_ptr<int>& nextId() const { return nextId_; }

 private:
  std::unordered_map<int, std::shared_ptr<SignalLabel>> labels_;  // by signal
  std::shared_ptr<int> nextId_ = std::make_shared<int>(0);
};

/// The rules of pools with SafeStorage. It makes both kinds of signals, whatever the feature flag
/// says.
class SafeBackend final : public PoolBackend {
 public:
  /// \param state  the pool's
  SafeBackend(const Path& directory, const SafeStorage& options,
              std::shared_ptr<SafePoolState> state);

  std::shared_ptr<ParquetSignal> makeSignal(int id, int timeStorageId, int dataStorageId) override;
  std::shared_ptr<StreamableSignal> makeStreamableSignal(int id, int timeStorageId,
                                                         int dataStorageId) override;
  bool hasData(const PoolSignal& signal) const override;
  std::optional<SignalRecord> finishedRecord(int id, const PoolSignal& signal) const override;
  void flush(const PoolSignals& signals) override;
  bool writeFiles() override;
  void leave(const PoolSignals& signals) noexcept override;
  void ownDirectory() override { store_->ownDirectory(); }
  std::shared_ptr<SharedStore> sharedStore() const override { return store_; }

 private:
  std::shared_ptr<SafePoolState> state_;
  std::shared_ptr<SharedStore> store_;
};

}  // namespace kyr::parquet
