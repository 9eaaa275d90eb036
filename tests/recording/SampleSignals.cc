#include "recording/SampleSignals.h"

#include <arrow/util/compression.h>

#include <array>
#include <limits>
#include <utility>

#include "kyr/parquet/ParquetSignal.h"
#include "kyr/parquet/SerializationOptions.h"
#include "kyr/parquet/StreamableSignal.h"
#include "kyr/platform/FeatureFlag.h"
#include "recording/RecordingFormat.h"
#include "schema/TypeNames.h"

namespace kyr::test {

namespace {

using Codec = ::arrow::Compression;
using recording::SignalDescription;

constexpr std::size_t kRows = 7;

template <typename T>
std::array<T, 7> valuesOf() {
  using Limits = std::numeric_limits<T>;
  if constexpr (Limits::is_integer) {
    return {
        T(1), T(0), Limits::max(), Limits::min(), T(2), T(Limits::max() - 1), T(Limits::min() + 1)};
  } else {
    return {T(1.5),
            Limits::quiet_NaN(),
            T(0),
            -T(0),
            Limits::max(),
            Limits::denorm_min(),
            -Limits::infinity()};
  }
}

// The bytes of \p count elements: the type's values over and over, from the one at \p first on.
template <typename T>
std::vector<char> bytes(std::size_t first, std::size_t count) {
  const auto values = valuesOf<T>();
  std::vector<char> result(count * sizeof(T));
  for (std::size_t i = 0; i < count; ++i) {
    std::memcpy(&result[i * sizeof(T)], &values[(first + i) % values.size()], sizeof(T));
  }
  return result;
}

using Bytes = std::vector<char> (*)(std::size_t, std::size_t);

Samples samplesOf(KYRSignalDataType type, KYRSignalCategory category, std::size_t index,
                  Bytes bytesOfType) {
  Samples samples;
  for (std::size_t row = 0; row < kRows; ++row) samples.time.push_back(0.5 * double(row));
  const bool blobs = type == Binary || type == ByteString;
  if (category == FixedDim) {
    samples.dims = {{2, 3}};
  } else if (category == VarDim || category == VarDimBus) {
    samples.dims = {{1, 1}, {2, 3}, {0, 4}, {3, 1}, {}, {2, 2}, {1, 5}};
  } else if (type == ByteString) {
    samples.dims = {{3}};
  }
  if (type == Binary) {
    samples.lengths = {1, 6, 0, 3, 1, 4, 5};
  } else if (blobs || !samples.dims.empty()) {
    for (std::size_t row = 0; row < kRows; ++row) {
      int length = 1;
      for (const std::size_t extent : samples.dims[row % samples.dims.size()]) {
        length *= static_cast<int>(extent);
      }
      samples.lengths.push_back(length);
    }
  }
  std::size_t count = samples.lengths.empty() ? kRows : 0;
  for (const int length : samples.lengths) count += static_cast<std::size_t>(length);
  samples.data = bytesOfType(index, count);
  return samples;
}

}  // namespace

std::vector<SampleSignal> sampleSignals() {
  const std::vector<KYRSignalCategory> shapes{Scalar, FixedDim, VarDim};
  const std::vector<KYRSignalCategory> strings{Scalar, Bus, VarDimBus};
  const std::vector<KYRSignalCategory> any{Scalar, FixedDim, VarDim, Bus, VarDimBus};
  const struct {
    KYRSignalDataType type;
    Bytes bytes;
    const std::vector<KYRSignalCategory>& categories;
  } kinds[] = {{Double, bytes<double>, shapes},
               {Single, bytes<float>, shapes},
               {Int8, bytes<signed char>, shapes},
               {UInt8, bytes<unsigned char>, shapes},
               {Int16, bytes<short>, shapes},
               {UInt16, bytes<unsigned short>, shapes},
               {Int32, bytes<int>, shapes},
               {UInt32, bytes<unsigned int>, shapes},
               {Boolean, bytes<bool>, shapes},
               {Int64, bytes<long long>, shapes},
               {UInt64, bytes<unsigned long long>, shapes},
               {UInt64Alt, bytes<unsigned long long>, shapes},
               {UInt32Alt, bytes<unsigned int>, shapes},
               {ByteString, bytes<unsigned char>, strings},
               {Binary, bytes<unsigned char>, any}};
  const std::array codecs{Codec::UNCOMPRESSED, Codec::SNAPPY, Codec::ZSTD,
                          Codec::GZIP,         Codec::BROTLI, Codec::LZ4};
  std::vector<SampleSignal> signals;
  for (const auto& kind : kinds) {
    for (const KYRSignalCategory category : kind.categories) {
      const std::size_t index = signals.size();
      SignalDescription description{static_cast<int>(index) + 1,
                                    dataTypeName(kind.type) + " " + categoryName(category),
                                    "°C",
                                    "line 1\nline \"2\"",
                                    {}};
      if (category == FixedDim) description.dimensions = {2, 3};
      signals.push_back({std::move(description), kind.type, category, index % 2 == 0,
                         codecs[index % codecs.size()],
                         samplesOf(kind.type, category, index, kind.bytes)});
    }
  }
  return signals;
}

void storeSignals(parquet::SignalPool& pool, const std::vector<SampleSignal>& signals) {
  using parquet::serialization_options::bSharedTimeColumn;
  const bool before = bSharedTimeColumn;
  for (const SampleSignal& sample : signals) {
    const auto set = [&sample](auto& signal) {
      signal.setDataType(sample.type);
      signal.setCategory(sample.category);
      signal.setParquetCompressionType(sample.codec);
    };
    const Samples& samples = sample.samples;
    if (FeatureFlag::isEnabled("fKYRUseParquetRowGroup")) {
      const auto signal = pool.getStreamableSignal(sample.description.signalId);
      set(*signal);
      signal->setBufferSize(3);
      signal->appendTime(samples.time.data(), samples.time.size());
      signal->appendData(samples.data.data(), samples.data.size(), samples.dims, samples.lengths);
      signal->finish();
    } else {
      bSharedTimeColumn = sample.sharedTime;
      const auto signal = pool.getSignal(sample.description.signalId);
      set(*signal);
      write(*signal, samples);
    }
  }
  bSharedTimeColumn = before;
}

std::vector<SignalDescription> descriptionsOf(const std::vector<SampleSignal>& signals) {
  std::vector<SignalDescription> result;
  result.reserve(signals.size());
  for (const SampleSignal& signal : signals) result.push_back(signal.description);
  return result;
}

}  // namespace kyr::test
