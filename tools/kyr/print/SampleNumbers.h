#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "kyr/recording/RecordingReader.h"

namespace kyr::tool {

/// Converts numbers as they lie in memory to doubles, and truth values to 0 or 1. Returns how many
/// integers were rounded, because no double is equal to them.
using ToDoubles = std::uint64_t (*)(const char* numbers, std::size_t count, double* out);

/// The conversion for a type; null if it is no number.
ToDoubles toDoublesFor(KYRSignalDataType type);

/// The number of samples that would be rounded. Reads all samples of a signal of 64-bit integers.
std::uint64_t roundedSamples(const recording::RecordingReader& reader,
                             const recording::SignalInfo& signal);

/// One sentence on a signal of which some values were rounded.
std::string roundedText(const recording::SignalInfo& signal, std::uint64_t values);

}  // namespace kyr::tool
