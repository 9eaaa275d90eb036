#include "csv/ColumnStore.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

#include "cli/Interrupt.h"
#include "cli/Settings.h"
#include "cli/Text.h"
#include "kyr/parquet/SafeStorage.h"

namespace kyr::tool {

namespace {

// Rows wait in memory until they make up a batch, so the batches of many columns are smaller.
// Small columns go to packs and are written once if they are not written here: their batches are as
// long as memory allows.
parquet::SafeStorage storageFor(std::size_t columns, std::size_t packBelow) {
  constexpr std::size_t kBytesInAll = std::size_t{128} << 20U;
  parquet::SafeStorage storage;
  storage.publishesBatches = false;
  storage.batchBytes = std::clamp(kBytesInAll / (columns + 1), std::size_t{1}, storage.batchBytes);
  storage.holdBelow = packBelow;
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
  pool_.deleteSignal(column.id);
}

void ColumnStore::finish(const CsvColumn& column) {
  naming(column, [&] { signalOf(column)->finish(); });
}

}  // namespace kyr::tool
