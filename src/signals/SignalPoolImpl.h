#pragma once

#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <variant>
#include <vector>

#include "kyr/parquet/ParquetSerializerWorker.h"
#include "kyr/parquet/ParquetSignal.h"
#include "kyr/parquet/RedundancyChecker.h"
#include "kyr/parquet/RedundancyEliminator.h"
#include "kyr/parquet/SafeStorage.h"
#include "kyr/parquet/SignalPool.h"
#include "kyr/parquet/StreamableSignal.h"
#include "kyr/parquet/StreamableWriter.h"
#include "kyr/platform/Path.h"
#include "safe/SharedStore.h"
#include "signals/PoolBackend.h"
#include "signals/SafeBackend.h"
#include "signals/SignalRecords.h"
#include "streaming/ChainTree.h"

namespace kyr::parquet {

/// See SignalPool.
class SignalPoolImpl {
 public:
  SignalPoolImpl();
  explicit SignalPoolImpl(const Path& dir);
  explicit SignalPoolImpl(const SafeStorage& storage);
  SignalPoolImpl(const Path& dir, const SafeStorage& storage);
  ~SignalPoolImpl() { backend->leave(signals); }
  SignalPoolImpl(const SignalPoolImpl&) = delete;
  SignalPoolImpl& operator=(const SignalPoolImpl&) = delete;

  void setParquetDirectory(const Path& dir);
  const Path& getParquetDirectory() const { return directory; }
  std::shared_ptr<ParquetSignal> getSignal(int id);
  std::shared_ptr<StreamableSignal> getStreamableSignal(int id);
  const PoolSignals& allSignals() const { return signals; }
  bool checkSignalExists(int id) const { return signals.count(id) > 0; }
  bool isDataOwner(int id) const;
  void flush() { backend->flush(signals); }
  void describeSignal(int id, const std::string& name, const std::string& unit) {
    safeState->describe(id, name, unit);
  }
  void deleteSignal(int id) { removals_ += signals.erase(id); }
  /// Grows whenever signals leave the pool, which others may still hold.
  std::uint64_t removals() const { return removals_; }
  bool isEmpty() const { return signals.empty(); }
  void reset();
  void reset(const Path& dir);
  std::string serializeSignalRecords() const;
  /// The records of all signals with data, which are finished first. Their contents need not have
  /// files in the pool's directory.
  std::vector<SignalRecord> finishedRecords() const;
  void deserializeSignalRecords(const std::string& text);
  /// Makes a signal over files of this pool's directory, or over what was offered to its store.
  void adopt(const SignalRecord& record);
  /// Null in a pool without SafeStorage.
  std::shared_ptr<SharedStore> sharedStore() const { return backend->sharedStore(); }

 private:
  SignalPoolImpl(const Path& dir, std::optional<SafeStorage> storage);

  void useDefaultRules(const Path& dir);

  // Destroyed in reverse order: the signals go last. They hold what they need of the others.
  PoolSignals signals;
  std::uint64_t removals_ = 0;
  // One of both is set in a pool without SafeStorage, by the storage mode.
  std::shared_ptr<ParquetSerializerWorker> worker;
  std::shared_ptr<StreamableWriter> writer;
  Path directory;
  // What is known of chunks that were stored. These are as old as the pool, whatever its directory.
  std::shared_ptr<RedundancyChecker::Context<unsigned long>> redundancyContext;
  std::shared_ptr<RedundancyEliminator::Registry> fileNodes;
  std::shared_ptr<RedundancyEliminator::ChainIndex> chainIndex;

  std::optional<SafeStorage> safeStorage;
  std::shared_ptr<SafePoolState> safeState = std::make_shared<SafePoolState>();
  std::unique_ptr<PoolBackend> backend;
};

/// The implementation of a pool, for the rest of the library.
class PoolAccess {
 public:
  static SignalPoolImpl& of(const SignalPool& pool) { return *pool.impl_; }
};

}  // namespace kyr::parquet
