#include "SignalStore.h"

#include <arrow/status.h>
#include <fmt/format.h>

#include <functional>
#include <stdexcept>
#include <string_view>

#include "Interrupt.h"
#include "Text.h"
#include "kyr/parquet/SerializationOptions.h"

namespace kyr::tool {

namespace {

template <typename T>
std::size_t hashOf(const std::vector<T>& values) {
  const std::string_view bytes(reinterpret_cast<const char*>(values.data()),
                               values.size() * sizeof(T));
  return std::hash<std::string_view>()(bytes);
}

}  // namespace

void SignalStore::store(const CsvColumn& column, const Samples& samples) {
  stopIfInterrupted();
  write(column, samples, separatesTime_);
  if (separatesTime_ || isAsStored(*pool_.getSignal(column.id), samples)) return;
  pool_.deleteSignal(column.id);
  write(column, samples, /*separatesTime=*/true);
}

void SignalStore::write(const CsvColumn& column, const Samples& samples, bool separatesTime) {
  // Read when the signal is made.
  parquet::serialization_options::bSharedTimeColumn = !separatesTime;
  const auto signal = pool_.getSignal(column.id);
  signal->setDataType(column.type);
  signal->setCategory(Scalar);
  signal->setParquetCompressionType(codec_);
  signal->setData(samples.time, samples.bytes, {}, {});
  const ::arrow::Status status = signal->writeStatus();
  if (!status.ok()) {
    throw std::runtime_error(
        fmt::format("signal {} cannot be stored: {}", inQuotes(column.name), status.message()));
  }
}

bool SignalStore::isAsStored(const parquet::ParquetSignal& signal, const Samples& samples) {
  if (!signal.hasData()) return true;
  const int timeId = signal.getStorageId(0);
  const int dataId = signal.getStorageId(1);
  const std::size_t timeHash = hashOf(samples.time);
  const std::size_t dataHash = hashOf(samples.bytes);
  const auto differs = [this](int id, std::size_t hash) {
    const auto known = hashes_.find(id);
    return known != hashes_.end() && known->second != hash;
  };
  // The time and the samples of one signal may share a file as well.
  if (differs(timeId, timeHash) || differs(dataId, dataHash) ||
      (timeId == dataId && timeHash != dataHash)) {
    return false;
  }
  hashes_.emplace(timeId, timeHash);
  hashes_.emplace(dataId, dataHash);
  return true;
}

}  // namespace kyr::tool
