#include "csv/ColumnStore.h"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>
#include <stdexcept>

#include "cli/Interrupt.h"
#include "cli/Settings.h"
#include "cli/Text.h"

namespace kyr::tool {

namespace {

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

// Rows wait in memory until they make up a batch, so the batches of many signals are smaller.
// Small signals go to packs and are written once if they are not written here: their batches are as
// long as memory allows.
parquet::SafeStorage storageFor(std::size_t signals, std::size_t packBelow) {
  constexpr std::size_t kBytesInAll = std::size_t{128} << 20U;
  parquet::SafeStorage storage;
  storage.publishesBatches = false;
  storage.batchBytes = std::clamp(kBytesInAll / (signals + 1), std::size_t{1}, storage.batchBytes);
  storage.holdBelow = packBelow;
  if (storage.holdBelow == 0) return storage;
  constexpr std::size_t kLeastBatch = std::size_t{1} << 19U;
  storage.batchBytes = std::min(storage.batchBytes, std::max(storage.holdBelow, kLeastBatch));
  storage.batchRows = std::max(storage.batchRows, storage.batchBytes);
  return storage;
}

ColumnStore::ColumnStore(const Path& directory, std::size_t columns,
                         std::optional<StreamOptions> stream, std::size_t packBelow)
    : pool_(directory.join("shared"), storageFor(columns, packBelow)), stream_(stream) {}

const ColumnStore::Signal& ColumnStore::signalOf(const CsvColumn& column) {
  Signal& signal = signals_[column.id];
  if (signal) return signal;
  pool_.describeSignal(column.id, column.name, column.unit);
  signal = pool_.getStreamableSignal(column.id);
  signal->setDataType(column.type);
  signal->setCategory(Scalar);
  if (const auto codec = chosenCodec()) signal->setParquetCompressionType(*codec);
  if (stream_) signal->setBufferSize(stream_->batchRows);
  return signal;
}

void ColumnStore::append(const CsvColumn& column, const ColumnSamples& samples) {
  naming(column, [&] {
    parquet::StreamableSignal& signal = *signalOf(column);
    const std::size_t width = parquet::elementWidth(column.type);
    const std::size_t chunk = stream_ ? stream_->chunkRows : StreamOptions().chunkRows;
    const char* bytes = samples.bytes;
    for (std::size_t row = 0; row < samples.count; row += chunk) {
      const std::size_t rows = std::min(chunk, samples.count - row);
      std::vector<int> lengths;
      std::size_t size = rows * width;
      if (samples.lengths != nullptr) {
        const auto first = samples.lengths->begin() + static_cast<std::ptrdiff_t>(row);
        lengths.assign(first, first + static_cast<std::ptrdiff_t>(rows));
        size = std::accumulate(lengths.begin(), lengths.end(), std::size_t{0});
      }
      signal.appendTime(samples.times + row, rows);
      signal.appendData(bytes, size, {}, lengths);
      bytes += size;
    }
  });
}

void ColumnStore::drop(const CsvColumn& column) {
  signals_.erase(column.id);
  pool_.deleteSignal(column.id);
}

void ColumnStore::finish(const CsvColumn& column) {
  naming(column, [&] { signalOf(column)->finish(); });
}

}  // namespace kyr::tool
