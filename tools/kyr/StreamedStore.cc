#include "StreamedStore.h"

#include <arrow/status.h>
#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <string_view>

#include "Interrupt.h"
#include "Text.h"
#include "kyr/parquet/StreamableSignal.h"
#include "kyr/platform/FeatureFlag.h"

namespace kyr::tool {

namespace {

constexpr const char* kStreamingFlag = "fKYRUseParquetRowGroup";

unsigned long contentHash(const void* data, unsigned long size, KYRSignalDataType type) {
  if (!data) throw std::invalid_argument("Data is empty");
  const std::hash<std::string_view> hash;
  const std::string seed =
      fmt::format("{} {:x}", static_cast<int>(type), hash({static_cast<const char*>(data), size}));
  return hash(seed);
}

// Stands for a content: its type, size and hash.
std::string contentKey(const char* bytes, std::size_t size, KYRSignalDataType type) {
  return fmt::format("{} {:x}", size, contentHash(bytes, size, type));
}

}  // namespace

StreamingMode::StreamingMode(bool streams)
    : flagBefore_(FeatureFlag::isEnabled(kStreamingFlag)),
      hasherBefore_(parquet::RedundancyChecker::defaultHasher) {
  FeatureFlag::set(kStreamingFlag, streams);
  if (streams) parquet::RedundancyChecker::defaultHasher = contentHash;
}

StreamingMode::~StreamingMode() {
  FeatureFlag::set(kStreamingFlag, flagBefore_);
  parquet::RedundancyChecker::defaultHasher = hasherBefore_;
}

void StreamedStore::store(const CsvColumn& column, const Samples& samples) {
  stopIfInterrupted();
  const auto signal = pool_.getStreamableSignal(column.id);
  signal->setDataType(column.type);
  signal->setCategory(Scalar);
  signal->setParquetCompressionType(codec_);
  signal->setBufferSize(options_.batchRows);
  const char* time = reinterpret_cast<const char*>(samples.time.data());
  std::size_t at = 0;
  for (const std::size_t size :
       chunkSizes(column, time, samples.time.size() * sizeof(double), Double)) {
    signal->appendTime(samples.time.data() + at / sizeof(double), size / sizeof(double));
    at += size;
  }
  at = 0;
  for (const std::size_t size :
       chunkSizes(column, samples.bytes.data(), samples.bytes.size(), column.type)) {
    signal->appendData(samples.bytes.data() + at, size, {}, {});
    at += size;
  }
  signal->finish();
  const ::arrow::Status status = signal->writeStatus();
  if (!status.ok()) {
    throw std::runtime_error(
        fmt::format("signal {} cannot be stored: {}", inQuotes(column.name), status.message()));
  }
}

std::vector<std::size_t> StreamedStore::chunkSizes(const CsvColumn& column, const char* bytes,
                                                   std::size_t size, KYRSignalDataType type) {
  std::vector<std::size_t> sizes;
  const std::size_t width = parquet::elementWidth(type);
  std::size_t rows = size / width;
  if (rows == 0) return sizes;
  std::size_t next = firstChunkRows(column, bytes, rows, width, type);
  while (rows > 0) {
    sizes.push_back(next * width);
    rows -= next;
    next = std::min(options_.chunkRows, rows);
  }
  return sizes;
}

std::size_t StreamedStore::firstChunkRows(const CsvColumn& column, const char* bytes,
                                          std::size_t rows, std::size_t width,
                                          KYRSignalDataType type) {
  const std::string key = contentKey(bytes, rows * width, type);
  const auto known = firstRows_.find(key);
  if (known != firstRows_.end()) return known->second;
  const auto isFree = [&](std::size_t first) {
    const auto hash = parquet::RedundancyChecker::defaultHasher(bytes, first * width, type);
    return firstChunks_.insert(hash).second;
  };
  const std::size_t usual = std::min(options_.chunkRows, rows);
  for (std::size_t first = usual; first <= rows; ++first) {
    if (isFree(first)) return firstRows_.emplace(key, first).first->second;
  }
  for (std::size_t first = usual - 1; first > 0; --first) {
    if (isFree(first)) return firstRows_.emplace(key, first).first->second;
  }
  throw std::runtime_error(
      fmt::format("signal {} cannot be told from others while it is streamed: leave out --stream",
                  inQuotes(column.name)));
}

}  // namespace kyr::tool
