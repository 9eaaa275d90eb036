#include "csv/ColumnStore.h"

#include <arrow/status.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>

#include "cli/Interrupt.h"
#include "cli/Settings.h"
#include "cli/Text.h"
#include "kyr/parquet/ParquetSignal.h"
#include "kyr/parquet/SafeStorage.h"
#include "kyr/parquet/SerializationOptions.h"

namespace kyr::tool {

namespace options = parquet::serialization_options;

namespace {

// Rows wait in memory until they make up a batch, so the batches of many columns are smaller.
// Columns that will not stay in this pool, which are small ones for packs and all with times of
// their own, are written once if they are not written here: their batches are as long as memory
// allows.
parquet::SafeStorage storageFor(std::size_t columns, std::size_t packBelow, bool isStaging) {
  constexpr std::size_t kBytesInAll = std::size_t{128} << 20U;
  parquet::SafeStorage storage;
  storage.publishesBatches = false;
  storage.batchBytes = std::clamp(kBytesInAll / (columns + 1), std::size_t{1}, storage.batchBytes);
  storage.holdBelow = isStaging ? storage.holdTotal : packBelow;
  if (storage.holdBelow == 0) return storage;
  constexpr std::size_t kLeastBatch = std::size_t{1} << 19U;
  storage.batchBytes = std::min(storage.batchBytes, std::max(storage.holdBelow, kLeastBatch));
  storage.batchRows = std::max(storage.batchRows, storage.batchBytes);
  return storage;
}

template <typename Operation>
void naming(const CsvColumn& column, Operation&& operation) {
  stopIfInterrupted();
  try {
    operation();
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(
        fmt::format("signal {} cannot be stored: {}", inQuotes(column.name), error.what()));
  }
}

}  // namespace

// Pools with SafeStorage always store times in files of their own. If the user does not want that,
// finish() copies each signal to a second pool without SafeStorage, in which signals share nothing.
ColumnStore::ColumnStore(const Path& directory, std::size_t columns,
                         std::optional<StreamOptions> stream, std::size_t packBelow)
    : pool_(std::make_unique<parquet::SignalPool>(
          directory.join("shared"), storageFor(columns, packBelow, !options::bSharedTimeColumn))),
      stream_(stream) {
  if (options::bSharedTimeColumn) return;
  separate_ = std::make_unique<parquet::SignalPool>(directory.join("separate"));
}

const ColumnStore::Signal& ColumnStore::signalOf(const CsvColumn& column) {
  Signal& signal = signals_[column.id];
  if (signal) return signal;
  pool_->describeSignal(column.id, column.name, column.unit);
  signal = pool_->getStreamableSignal(column.id);
  signal->setDataType(column.type);
  signal->setCategory(Scalar);
  if (const auto codec = chosenCodec()) signal->setParquetCompressionType(*codec);
  if (stream_) signal->setBufferSize(stream_->batchRows);
  return signal;
}

void ColumnStore::append(const CsvColumn& column, const double* times, const char* bytes,
                         std::size_t count) {
  naming(column, [&] {
    parquet::StreamableSignal& signal = *signalOf(column);
    const std::size_t width = parquet::elementWidth(column.type);
    const std::size_t chunk = stream_ ? stream_->chunkRows : StreamOptions().chunkRows;
    for (std::size_t row = 0; row < count; row += chunk) {
      const std::size_t rows = std::min(chunk, count - row);
      signal.appendTime(times + row, rows);
      signal.appendData(bytes + row * width, rows * width, {}, {});
    }
  });
}

void ColumnStore::drop(const CsvColumn& column) {
  signals_.erase(column.id);
  pool_->deleteSignal(column.id);
}

void ColumnStore::finish(const CsvColumn& column) {
  naming(column, [&] {
    parquet::StreamableSignal& signal = *signalOf(column);
    signal.finish();
    if (separate_) storeSeparately(column, signal);
  });
}

void ColumnStore::storeSeparately(const CsvColumn& column, parquet::StreamableSignal& stored) {
  constexpr auto kAll = std::numeric_limits<unsigned long>::max();
  std::vector<char> bytes;
  stored.getTime(0, kAll, bytes);
  std::vector<double> times(bytes.size() / sizeof(double));
  if (!times.empty()) std::memcpy(times.data(), bytes.data(), bytes.size());
  std::vector<std::vector<unsigned long>> shapes;
  stored.getData(0, kAll, bytes, shapes);
  drop(column);

  separate_->describeSignal(column.id, column.name, column.unit);
  const auto signal = separate_->getSignal(column.id);
  signal->setDataType(column.type);
  signal->setCategory(Scalar);
  if (const auto codec = chosenCodec()) signal->setParquetCompressionType(*codec);
  signal->setData(times, bytes, {}, {});
  const ::arrow::Status status = signal->writeStatus();
  if (!status.ok()) throw std::runtime_error(status.message());
}

}  // namespace kyr::tool
