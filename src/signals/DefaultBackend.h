#pragma once

#include <memory>
#include <optional>

#include "kyr/parquet/ParquetSerializerWorker.h"
#include "kyr/parquet/RedundancyChecker.h"
#include "kyr/parquet/RedundancyEliminator.h"
#include "kyr/parquet/StreamableWriter.h"
#include "signals/PoolBackend.h"
#include "streaming/ChainTree.h"

namespace kyr::parquet {

/// The rules of pools without SafeStorage. It makes whole-file signals if it has a worker, and
/// streamable signals if it has a writer.
///
/// hasData() and finishedRecord() ask the feature flag at each call, and a signal of the other mode
/// than it says is a std::bad_variant_access. A host that has switched the flag learns by it that
/// the signal is older. StreamingPool.SignalsOfTheOtherModeAreAnEmptyPointerOrAnError holds this.
class DefaultBackend final : public PoolBackend {
 public:
  DefaultBackend(std::shared_ptr<ParquetSerializerWorker> worker,
                 std::shared_ptr<StreamableWriter> writer,
                 std::shared_ptr<RedundancyChecker::Context<unsigned long>> redundancyContext,
                 std::shared_ptr<RedundancyEliminator::Registry> fileNodes,
                 std::shared_ptr<RedundancyEliminator::ChainIndex> chainIndex);

  std::shared_ptr<ParquetSignal> makeSignal(int id, int timeStorageId, int dataStorageId) override;
  std::shared_ptr<StreamableSignal> makeStreamableSignal(int id, int timeStorageId,
                                                         int dataStorageId) override;
  bool hasData(const PoolSignal& signal) const override;
  std::optional<SignalRecord> finishedRecord(int id, const PoolSignal& signal) const override;
  void flush(const PoolSignals& signals) override;
  bool writeFiles() override { return false; }
  void leave(const PoolSignals& /*signals*/) noexcept override {}
  std::shared_ptr<SharedStore> sharedStore() const override { return nullptr; }

 private:
  std::shared_ptr<ParquetSerializerWorker> worker_;
  std::shared_ptr<StreamableWriter> writer_;
  std::shared_ptr<RedundancyChecker::Context<unsigned long>> redundancyContext_;
  std::shared_ptr<RedundancyEliminator::Registry> fileNodes_;
  std::shared_ptr<RedundancyEliminator::ChainIndex> chainIndex_;
};

}  // namespace kyr::parquet
