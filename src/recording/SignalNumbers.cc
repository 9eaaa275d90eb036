#include "recording/SignalNumbers.h"

#include <fmt/format.h>
#include <xxhash.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <numeric>
#include <stdexcept>
#include <utility>

#include "recording/SampleBlocksImpl.h"
#include "schema/ElementTypes.h"

namespace kyr::recording {

namespace {

constexpr std::size_t kBlockRows = 65'536;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Converts numbers that lie \p stride elements apart.
using Convert = void (*)(const char* elements, std::size_t stride, std::size_t count, double* out);

template <typename T>
void convert(const char* elements, std::size_t stride, std::size_t count, double* out) {
  for (std::size_t i = 0; i < count; ++i) {
    T value;
    std::memcpy(&value, elements + i * stride * sizeof(T), sizeof(T));
    out[i] = static_cast<double>(value);
  }
}

void convertTruth(const char* elements, std::size_t stride, std::size_t count, double* out) {
  for (std::size_t i = 0; i < count; ++i) out[i] = elements[i * stride] == 0 ? 0 : 1;
}

Convert conversionFor(KYRSignalDataType type) {
  if (type == Boolean) return convertTruth;
  return parquet::visitNumber(parquet::elementTypeId(type), [](auto number) -> Convert {
    return convert<typename decltype(number)::Value>;
  });
}

}  // namespace

SignalNumbers::SignalNumbers(SignalRows rows, const TimeIndex* times, std::uint64_t element,
                             MakeRows makeRows)
    : rows_(std::move(rows)), times_(times), element_(element), makeRows_(std::move(makeRows)) {
  const bool isKnown = rows_.kind() != SampleKind::variable && rows_.sampleCount() > 0;
  const std::uint64_t elements = rows_.kind() == SampleKind::fixed ? rows_.elementsPerSample() : 1;
  if (!isKnown || element < elements) return;
  throw std::invalid_argument(
      fmt::format("signal {} \"{}\": its samples have {} elements, and {} is "
                  "asked for; they count from 0",
                  rows_.signal().signalId, rows_.signal().name, elements, element));
}

std::vector<RowRange> SignalNumbers::rowsBetween(double from, double to) {
  const std::uint64_t pairs = rows_.pairCount();
  if (times_ != nullptr) {
    return times_->rowsBetween(from, to, pairs,
                               [this](std::uint64_t first, std::uint64_t count, double* out) {
                                 rows_.readTimes(first, count, out);
                               });
  }
  const auto rowAt = [pairs](double time) {
    if (!(time > 0)) return std::uint64_t{0};
    return time >= static_cast<double>(pairs) ? pairs : static_cast<std::uint64_t>(time);
  };
  const RowRange range{rowAt(std::ceil(from)), to < 0 ? 0 : rowAt(std::floor(to) + 1)};
  if (range.from >= range.to) return {};
  return {range};
}

void SignalNumbers::read(const RowRange& rows, const Visit& visit) {
  SampleBlocks::Impl blocks(rows_, rows, kBlockRows);
  while (const SampleBlock* samples = blocks.next()) {
    NumberBlock block;
    block.firstRow = samples->firstRow;
    block.rows = samples->rows;
    fillTimes(*samples, block);
    fillValues(*samples, block);
    visit(block);
  }
}

std::unique_ptr<NumberSource> SignalNumbers::copy() {
  return std::make_unique<SignalNumbers>(makeRows_(), times_, element_, makeRows_);
}

void SignalNumbers::fillTimes(const SampleBlock& samples, NumberBlock& block) {
  block.times = samples.times;
  if (samples.times != nullptr) return;
  timeNumbers_.resize(samples.rows);
  std::iota(timeNumbers_.begin(), timeNumbers_.end(), static_cast<double>(samples.firstRow));
  block.times = timeNumbers_.data();
}

void SignalNumbers::fillValues(const SampleBlock& samples, NumberBlock& block) {
  if (rows_.signal().dataType == Double && samples.elementsPerSample == 1) {
    block.values = static_cast<const double*>(samples.elements);
    return;
  }
  values_.assign(samples.rows, kNaN);
  block.values = values_.data();
  if (samples.elements == nullptr) return;
  if (rows_.kind() == SampleKind::blob) return hashBlobs(samples);
  if (samples.offsets != nullptr) return pickElements(samples);
  const auto* const elements = static_cast<const char*>(samples.elements);
  conversionFor(rows_.signal().dataType)(elements + element_ * rows_.elementBytes(),
                                         samples.elementsPerSample, samples.rows, values_.data());
}

void SignalNumbers::hashBlobs(const SampleBlock& samples) {
  constexpr int kUnusedBits = 64 - std::numeric_limits<double>::digits;
  const auto* const bytes = static_cast<const char*>(samples.elements);
  for (std::size_t i = 0; i < samples.rows; ++i) {
    const std::uint64_t begin = samples.offsets[i];
    const auto hash = XXH3_64bits(bytes + begin, samples.offsets[i + 1] - begin);
    values_[i] = static_cast<double>(hash >> kUnusedBits);
  }
}

void SignalNumbers::pickElements(const SampleBlock& samples) {
  const Convert convertOne = conversionFor(rows_.signal().dataType);
  const auto* const elements = static_cast<const char*>(samples.elements);
  for (std::size_t i = 0; i < samples.rows; ++i) {
    const std::uint64_t begin = samples.offsets[i];
    if (element_ >= samples.offsets[i + 1] - begin) continue;
    convertOne(elements + (begin + element_) * rows_.elementBytes(), 1, 1, &values_[i]);
  }
}

}  // namespace kyr::recording
