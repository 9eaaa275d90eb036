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
#include "safe/SignalLabel.h"
#include "signals/SignalRecords.h"

namespace kyr::parquet {

/// See SignalPool.
class SignalPoolImpl {
 public:
  SignalPoolImpl();
  explicit SignalPoolImpl(const Path& dir);
  explicit SignalPoolImpl(const SafeStorage& storage);
  SignalPoolImpl(const Path& dir, const SafeStorage& storage);
  ~SignalPoolImpl();
  SignalPoolImpl(const SignalPoolImpl&) = delete;
  SignalPoolImpl& operator=(const SignalPoolImpl&) = delete;

  void setParquetDirectory(const Path& dir);
  const Path& getParquetDirectory() const { return directory; }
  std::shared_ptr<ParquetSignal> getSignal(int id);
  std::shared_ptr<StreamableSignal> getStreamableSignal(int id);
  bool checkSignalExists(int id) const { return signals.count(id) > 0; }
  bool isDataOwner(int id) const;
  void flush();
  void describeSignal(int id, const std::string& name, const std::string& unit);
  void deleteSignal(int id) { signals.erase(id); }
  bool isEmpty() const { return signals.empty(); }
  void reset();
  void reset(const Path& dir);
  std::string serializeSignalRecords() const;
  /// Of all signals with data, which are finished first. Contents may be held in memory still.
  std::vector<SignalRecord> finishedRecords() const;
  void deserializeSignalRecords(const std::string& text);
  /// Makes the signal over files, or packs, of this pool's directory.
  void adopt(const SignalRecord& record);
  /// Null in a pool without SafeStorage.
  const std::shared_ptr<SharedStore>& sharedStore() const { return store; }

 private:
  SignalPoolImpl(const Path& dir, std::optional<SafeStorage> storage);

  using Signal = std::variant<std::shared_ptr<ParquetSignal>, std::shared_ptr<StreamableSignal>>;

  void leaveStore() noexcept;
  std::shared_ptr<ParquetSignal> makeSignal(int id, int timeStorageId, int dataStorageId);
  std::shared_ptr<StreamableSignal> makeStreamableSignal(int id, int timeStorageId,
                                                         int dataStorageId);
  std::shared_ptr<SignalLabel> newLabel(int id);

  // Destroyed in reverse order: the signals go last. They hold their own references to what they
  // were made from here. The store of a safe pool is set, or one of worker and writer, by the
  // storage mode.
  std::unordered_map<int, Signal> signals;
  std::shared_ptr<ParquetSerializerWorker> worker;
  std::shared_ptr<StreamableWriter> writer;
  std::shared_ptr<SharedStore> store;
  std::optional<SafeStorage> safeStorage;
  std::shared_ptr<int> nextSafeId = std::make_shared<int>(0);
  std::unordered_map<int, std::shared_ptr<SignalLabel>> labels;  // by signal, of safe pools
  Path directory;
  // What is known of stored chunks; as old as the pool, whatever its directory.
  std::shared_ptr<RedundancyChecker::Context<unsigned long>> redundancyContext;
  std::shared_ptr<RedundancyEliminator::Registry> fileNodes;
};

/// What is behind a pool, for the rest of the library.
class PoolAccess {
 public:
  static SignalPoolImpl& of(const SignalPool& pool) { return *pool.impl_; }
};

}  // namespace kyr::parquet
