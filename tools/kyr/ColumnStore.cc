#include "ColumnStore.h"

#include <arrow/status.h>
#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

#include "Interrupt.h"
#include "Settings.h"
#include "Text.h"
#include "kyr/parquet/ParquetSignal.h"
#include "kyr/parquet/SafeStorage.h"
#include "kyr/parquet/SerializationOptions.h"
#include "kyr/parquet/StreamableSignal.h"

namespace kyr::tool {

namespace options = parquet::serialization_options;

// Pools with SafeStorage always have times in files of their own. Where they shall not be, no
// signals share anything, so that there is nothing to be safe from.
ColumnStore::ColumnStore(const Path& directory, std::optional<StreamOptions> stream)
    : stream_(stream) {
  if (options::bSharedTimeColumn) {
    pool_ = std::make_unique<parquet::SignalPool>(directory, parquet::SafeStorage());
  } else {
    pool_ = std::make_unique<parquet::SignalPool>(directory);
  }
}

void ColumnStore::store(const CsvColumn& column, const Samples& samples) {
  stopIfInterrupted();
  pool_->describeSignal(column.id, column.name, column.unit);
  try {
    stream_ ? storeStreamed(column, samples) : storeWhole(column, samples);
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(
        fmt::format("signal {} cannot be stored: {}", inQuotes(column.name), error.what()));
  }
}

void ColumnStore::storeWhole(const CsvColumn& column, const Samples& samples) {
  const auto signal = pool_->getSignal(column.id);
  signal->setDataType(column.type);
  signal->setCategory(Scalar);
  if (const auto codec = chosenCodec()) signal->setParquetCompressionType(*codec);
  signal->setData(samples.time, samples.bytes, {}, {});
  const ::arrow::Status status = signal->writeStatus();
  if (!status.ok()) throw std::runtime_error(status.message());
}

void ColumnStore::storeStreamed(const CsvColumn& column, const Samples& samples) {
  const auto signal = pool_->getStreamableSignal(column.id);
  signal->setDataType(column.type);
  signal->setCategory(Scalar);
  if (const auto codec = chosenCodec()) signal->setParquetCompressionType(*codec);
  signal->setBufferSize(stream_->batchRows);
  const std::size_t width = parquet::elementWidth(column.type);
  for (std::size_t row = 0; row < samples.time.size(); row += stream_->chunkRows) {
    const std::size_t count = std::min(stream_->chunkRows, samples.time.size() - row);
    signal->appendTime(&samples.time[row], count);
    signal->appendData(&samples.bytes[row * width], count * width, {}, {});
  }
  signal->finish();
}

}  // namespace kyr::tool
