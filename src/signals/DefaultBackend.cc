#include "signals/DefaultBackend.h"

#include <stdexcept>
#include <utility>

#include "streaming/StreamableSignalImpl.h"

namespace kyr::parquet {

namespace {

constexpr unsigned long kBatchRows = 100000000;

}  // namespace

DefaultBackend::DefaultBackend(
    std::shared_ptr<ParquetSerializerWorker> worker, std::shared_ptr<StreamableWriter> writer,
    std::shared_ptr<RedundancyChecker::Context<unsigned long>> redundancyContext,
    std::shared_ptr<RedundancyEliminator::Registry> fileNodes,
    std::shared_ptr<RedundancyEliminator::ChainIndex> chainIndex)
    : worker_(std::move(worker)),
      writer_(std::move(writer)),
      redundancyContext_(std::move(redundancyContext)),
      fileNodes_(std::move(fileNodes)),
      chainIndex_(std::move(chainIndex)) {}

std::shared_ptr<ParquetSignal> DefaultBackend::makeSignal(int /*id*/, int timeStorageId,
                                                          int dataStorageId) {
  if (!worker_) {
    throw std::runtime_error("the pool is in row-group mode: it has no whole-file signals");
  }
  return std::make_shared<ParquetSignal>(worker_, timeStorageId, dataStorageId);
}

std::shared_ptr<StreamableSignal> DefaultBackend::makeStreamableSignal(int /*id*/,
                                                                       int timeStorageId,
                                                                       int dataStorageId) {
  if (!writer_) {
    throw std::runtime_error("the pool is in whole-file mode: it has no streamable signals");
  }
  return std::make_shared<StreamableSignalImpl>(writer_, timeStorageId, dataStorageId,
                                                redundancyContext_, fileNodes_, kBatchRows,
                                                chainIndex_);
}

bool DefaultBackend::hasData(const PoolSignal& signal) const {
  return isRowGroupMode() ? std::get<std::shared_ptr<StreamableSignal>>(signal)->hasData()
                          : std::get<std::shared_ptr<ParquetSignal>>(signal)->hasData();
}

std::optional<SignalRecord> DefaultBackend::finishedRecord(int id, const PoolSignal& signal) const {
  return isRowGroupMode() ? recordOf(id, *std::get<std::shared_ptr<StreamableSignal>>(signal))
                          : recordOf(id, *std::get<std::shared_ptr<ParquetSignal>>(signal));
}

void DefaultBackend::flush(const PoolSignals& /*signals*/) {
  throw std::logic_error("a pool can be flushed only with SafeStorage");
}

}  // namespace kyr::parquet
