#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "kyr/recording/RecordingReader.h"

namespace kyr::tool {

struct PlotPoint {
  double time = 0;
  double value = 0;  ///< NaN and infinite values interrupt the line
};

/// The corners of the line that shows an envelope: first, smallest, largest and last value of each
/// column in the order of their times, and the rows beside the window.
std::vector<PlotPoint> pointsOf(const recording::Envelope& envelope);

/// Rows in the columns of an envelope.
std::uint64_t rowsOf(const recording::Envelope& envelope);

/// Whether the samples of a signal are blobs, which are drawn as spans of text.
bool isText(const recording::SignalInfo& signal);
/// Whether there are values between two others. A signal of integers or truth values keeps its
/// value until the next one.
bool hasFractions(const recording::SignalInfo& signal);

/// Smallest and largest time of a signal [s]; first and last row number of a signal without times.
/// Empty if there is nothing to draw.
std::optional<recording::TimeSpan> shownSpan(const recording::RecordingReader& reader,
                                             const recording::SignalInfo& signal);

}  // namespace kyr::tool
