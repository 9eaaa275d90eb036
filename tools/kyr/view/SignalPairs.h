#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kyr/recording/RecordingReader.h"

namespace kyr::tool {

/// One element of the samples of a signal.
struct SignalElement {
  int id = 0;
  std::uint64_t element = 0;
};

/// Values of two signals at the same times.
struct SignalPairs {
  std::uint64_t rows = 0;       ///< in the window
  bool isInterpolated = false;  ///< whether the signals have different times
  std::vector<double> values;   ///< of both by turns
};

/// Pairs the values that two signals have in [from, to], at most \p most of them: of more rows,
/// equally distant ones are taken.
///
/// Where the signals have different times, those of the one with more rows in the window are taken.
/// The other one is interpolated, or keeps its value until the next one if it has no fractions, and
/// is NaN before its first row and behind its last one.
/// \throws std::runtime_error if one has no numbers, or different times do not ascend
SignalPairs pairsOf(const recording::RecordingReader& reader, const SignalElement& x,
                    const SignalElement& y, double from, double to, std::size_t most);

/// The number of rows in [from, to], and behind it their times and values by turns unless they are
/// more than \p most.
/// \throws std::runtime_error if the signal has no numbers
std::vector<double> rowsOf(const recording::RecordingReader& reader, const SignalElement& signal,
                           double from, double to, std::uint64_t most);

}  // namespace kyr::tool
