#include "print/SampleNumbers.h"

#include <fmt/format.h>

#include <cstring>
#include <limits>
#include <type_traits>
#include <vector>

#include "cli/Text.h"
#include "print/SampleCursor.h"
#include "print/TypeFunctions.h"

namespace kyr::tool {

namespace {

// Whether the nearest double is another number than \p value.
template <typename T>
bool isInexact(T value, double nearest) {
  if constexpr (sizeof(T) < sizeof(double) || !std::is_integral_v<T>) {
    return false;
  } else {
    // From 2^63 or 2^64 on, the double is larger than every T, and a cast back is undefined.
    constexpr double kEnd = 2.0 * static_cast<double>(T{1} << (std::numeric_limits<T>::digits - 1));
    return nearest >= kEnd || static_cast<T>(nearest) != value;
  }
}

template <typename T>
std::uint64_t convert(const char* numbers, std::size_t count, double* out) {
  std::uint64_t inexact = 0;
  for (std::size_t i = 0; i < count; ++i) {
    T value;
    std::memcpy(&value, numbers + i * sizeof(T), sizeof(T));
    out[i] = static_cast<double>(value);
    if (isInexact(value, out[i])) ++inexact;
  }
  return inexact;
}

std::uint64_t convertTruth(const char* numbers, std::size_t count, double* out) {
  for (std::size_t i = 0; i < count; ++i) out[i] = numbers[i] == 0 ? 0.0 : 1.0;
  return 0;
}

struct Conversions {
  template <typename T>
  ToDoubles number() const {
    return convert<T>;
  }
  ToDoubles boolean() const { return convertTruth; }
};

}  // namespace

ToDoubles toDoublesFor(KYRSignalDataType type) { return functionFor(type, Conversions()); }

std::uint64_t roundedSamples(const recording::RecordingReader& reader,
                             const recording::SignalInfo& signal) {
  const KYRSignalDataType type = signal.dataType;
  if (type != Int64 && type != UInt64 && type != UInt64Alt) return 0;
  const std::uint64_t end = reader.sampleCount(signal.signalId);
  SampleCursor cursor(reader, signal, end, blockRowsFor(1));
  std::vector<double> numbers(blockRowsFor(1));
  std::uint64_t rounded = 0;
  for (std::uint64_t row = 0; row < end;) {
    const recording::SampleBlock& block = cursor.blockOf(row);
    rounded +=
        toDoublesFor(type)(static_cast<const char*>(block.elements), block.rows, numbers.data());
    row += block.rows;
  }
  return rounded;
}

std::string roundedText(const recording::SignalInfo& signal, std::uint64_t values) {
  return fmt::format("signal {}, {}, has {} beyond 2^53 that float64 cannot hold exactly",
                     signal.signalId, inQuotes(signal.name), counted(values, "value"));
}

}  // namespace kyr::tool
