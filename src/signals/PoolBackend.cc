#include "signals/PoolBackend.h"

#include "kyr/platform/FeatureFlag.h"
#include "storage/ParquetStorageRecord.h"

namespace kyr::parquet {

bool isRowGroupMode() { return FeatureFlag::isEnabled("fKYRUseParquetRowGroup"); }

std::optional<SignalRecord> recordOf(int id, const ParquetSignal& signal) {
  if (!signal.hasData()) return std::nullopt;
  return SignalRecord{id, signal.getStorageId(static_cast<char>(SignalPart::time)),
                      signal.getStorageId(static_cast<char>(SignalPart::data))};
}

std::optional<SignalRecord> recordOf(int id, StreamableSignal& signal) {
  signal.finish();
  if (!signal.hasData()) return std::nullopt;
  return SignalRecord{id, signal.getStorageId(StreamableSignal::SignalPart::time),
                      signal.getStorageId(StreamableSignal::SignalPart::data)};
}

}  // namespace kyr::parquet
