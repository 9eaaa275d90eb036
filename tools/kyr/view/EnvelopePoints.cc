#include "view/EnvelopePoints.h"

#include <algorithm>
#include <array>

namespace kyr::tool {

namespace {

using recording::EnvelopeColumn;

void append(std::vector<PlotPoint>& points, const EnvelopeColumn& column) {
  const PlotPoint first{column.firstTime, column.first};
  const PlotPoint last{column.lastTime, column.last};
  std::array<PlotPoint, 4> corners{first, first, last, last};
  if (column.nans < column.rows) {
    corners[1] = {column.minTime, column.min};
    corners[2] = {column.maxTime, column.max};
    if (corners[2].time < corners[1].time) std::swap(corners[1], corners[2]);
  }
  const auto isSame = [](const PlotPoint& a, const PlotPoint& b) {
    return a.time == b.time && (a.value == b.value || (a.value != a.value && b.value != b.value));
  };
  points.push_back(first);
  if (column.rows == 1) return;
  for (const PlotPoint& corner : {corners[1], corners[2]}) {
    if (!isSame(corner, points.back()) && !isSame(corner, last)) points.push_back(corner);
  }
  points.push_back(last);
}

}  // namespace

std::vector<PlotPoint> pointsOf(const recording::Envelope& envelope) {
  std::vector<PlotPoint> points;
  if (envelope.before) points.push_back({envelope.before->time, envelope.before->value});
  for (const EnvelopeColumn& column : envelope.columns) {
    if (column.rows > 0) append(points, column);
  }
  if (envelope.after) points.push_back({envelope.after->time, envelope.after->value});
  return points;
}

std::uint64_t rowsOf(const recording::Envelope& envelope) {
  std::uint64_t rows = 0;
  for (const EnvelopeColumn& column : envelope.columns) rows += column.rows;
  return rows;
}

bool isText(const recording::SignalInfo& signal) {
  return signal.dataType == ByteString || signal.dataType == Binary || signal.category == Bus ||
         signal.category == VarDimBus;
}

bool hasFractions(const recording::SignalInfo& signal) {
  return signal.dataType == Double || signal.dataType == Single;
}

std::optional<recording::TimeSpan> shownSpan(const recording::RecordingReader& reader,
                                             const recording::SignalInfo& signal) {
  if (const auto span = reader.timeSpan(signal.signalId)) return span;
  const std::uint64_t rows = reader.pairCount(signal.signalId);
  if (rows == 0 || reader.timeCount(signal.signalId) > 0) return std::nullopt;
  return recording::TimeSpan{0, static_cast<double>(rows - 1)};
}

}  // namespace kyr::tool
