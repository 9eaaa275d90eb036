#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kyr/recording/RecordingReader.h"
#include "view/EnvelopePoints.h"

namespace kyr::tool {

struct PlotCurve {
  std::string label;       ///< name and unit, on one line
  std::size_t number = 0;  ///< among all curves, for its colour
  bool isSteps = false;    ///< whether a value holds until the next one
  std::vector<PlotPoint> points;
};

/// Curves of one unit, over one axis of values.
struct PlotPanel {
  std::string unit;
  double low = 0;  ///< ends of the axis of values, with some room
  double high = 1;
  std::vector<PlotCurve> curves;
};

/// The texts of a signal, one beside the other.
struct PlotBand {
  std::string label;
  std::size_t number = 0;
  std::vector<recording::ValueSpan> spans;  ///< their texts are on one line
};

struct PlotPicture {
  double from = 0;  ///< ends of the axis of times [s]
  double to = 1;
  std::vector<PlotPanel> panels;
  std::vector<PlotBand> bands;
};

struct PlotRequest {
  std::vector<recording::SignalInfo> signals;
  std::optional<double> from;  ///< [s]; the first time of all signals if empty
  std::optional<double> to;    ///< likewise the last one
  std::uint64_t element = 0;   ///< of matrices
  std::size_t columns = 1000;
};

/// Reads what a plot of some signals shows.
/// \throws std::runtime_error if there are no rows at all
PlotPicture readPicture(const recording::RecordingReader& reader, const PlotRequest& request);

/// Where a value lies between two others: 0 at the first, 1 at the second.
double partOf(double value, double from, double to);

}  // namespace kyr::tool
