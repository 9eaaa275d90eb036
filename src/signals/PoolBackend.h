#pragma once

#include <memory>
#include <optional>
#include <unordered_map>
#include <variant>

#include "kyr/parquet/ParquetSignal.h"
#include "kyr/parquet/StreamableSignal.h"
#include "signals/SignalRecords.h"

namespace kyr::parquet {

class SharedStore;

using PoolSignal = std::variant<std::shared_ptr<ParquetSignal>, std::shared_ptr<StreamableSignal>>;
using PoolSignals = std::unordered_map<int, PoolSignal>;

/// Whether the feature flag "fKYRUseParquetRowGroup" is on now.
bool isRowGroupMode();

/// The rules by which a pool stores its signals in one directory: DefaultBackend or SafeBackend. A
/// pool gets a new one whenever a directory is set. Signals hold what they need of it and outlive
/// it.
class PoolBackend {
 public:
  PoolBackend() = default;
  virtual ~PoolBackend() = default;
  PoolBackend(const PoolBackend&) = delete;
  PoolBackend& operator=(const PoolBackend&) = delete;

  /// A signal over the files of the given ids, which may be kNoStorage.
  virtual std::shared_ptr<ParquetSignal> makeSignal(int id, int timeStorageId,
                                                    int dataStorageId) = 0;
  virtual std::shared_ptr<StreamableSignal> makeStreamableSignal(int id, int timeStorageId,
                                                                 int dataStorageId) = 0;

  virtual bool hasData(const PoolSignal& signal) const = 0;
  /// Finishes the signal if it is a streamable one. Empty if it has no data.
  virtual std::optional<SignalRecord> finishedRecord(int id, const PoolSignal& signal) const = 0;

  /// Brings all rows of the signals to disk.
  virtual void flush(const PoolSignals& signals) = 0;
  /// Gives each finished content a file in the pool's directory.
  /// \return whether contents may have other storage ids now
  virtual bool writeFiles() = 0;
  /// Does what is to be done before the pool gets another backend or goes away. Failures are
  /// ignored: a host that wants to know of them flushes before.
  virtual void leave(const PoolSignals& signals) noexcept = 0;

  /// Says that the directory was made for this backend alone. Whether it is removed with the
  /// backend depends on the rules: safe pools remove it if it is empty then.
  virtual void ownDirectory() {}

  /// The store of a safe pool; null for others.
  virtual std::shared_ptr<SharedStore> sharedStore() const = 0;
};

/// The record of a signal; empty if it has no data.
std::optional<SignalRecord> recordOf(int id, const ParquetSignal& signal);
/// Finishes the signal before.
std::optional<SignalRecord> recordOf(int id, StreamableSignal& signal);

}  // namespace kyr::parquet
