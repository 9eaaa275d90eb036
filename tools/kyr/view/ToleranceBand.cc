#include "view/ToleranceBand.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace kyr::tool {

namespace {

constexpr double kNone = std::numeric_limits<double>::quiet_NaN();

struct Range {
  double low = kNone;
  double high = kNone;

  void add(double value) {
    if (!std::isfinite(value)) return;
    low = low <= value ? low : value;
    high = high >= value ? high : value;
  }
  void add(const Range& other) {
    add(other.low);
    add(other.high);
  }
};

double valueBetween(const PlotPoint& before, const PlotPoint& after, double time, bool holds) {
  if (holds || !(after.time > before.time)) return before.value;
  const double part = (time - before.time) / (after.time - before.time);
  return before.value * (1 - part) + after.value * part;
}

// The values that the curve has in each column.
std::vector<Range> rangesOf(const std::vector<PlotPoint>& points, double from, double width,
                            std::size_t columns, bool holds) {
  std::vector<Range> ranges(columns);
  const auto columnAt = [&](double time) {
    const double column = std::floor((time - from) / width);
    return static_cast<std::size_t>(std::clamp(column, 0.0, static_cast<double>(columns - 1)));
  };
  for (std::size_t i = 0; i < points.size(); ++i) {
    ranges[columnAt(points[i].time)].add(points[i].value);
    if (i + 1 == points.size()) break;
    const std::size_t last = columnAt(points[i + 1].time);
    for (std::size_t column = columnAt(points[i].time); column < last; ++column) {
      const double border = from + static_cast<double>(column + 1) * width;
      const double value = valueBetween(points[i], points[i + 1], border, holds);
      ranges[column].add(value);
      ranges[column + 1].add(value);
    }
  }
  return ranges;
}

}  // namespace

std::vector<PlotPoint> toleranceBand(const std::vector<PlotPoint>& points, double from, double to,
                                     std::size_t columns, const Tolerance& tolerance, bool holds) {
  const double width = (to - from) / static_cast<double>(columns);
  const std::vector<Range> ranges = rangesOf(points, from, width, columns, holds);
  const double most = static_cast<double>(columns);
  const auto reach = static_cast<std::size_t>(std::min(most, std::ceil(tolerance.time / width)));
  std::vector<PlotPoint> band;
  for (std::size_t column = 0; column < columns; ++column) {
    Range near;
    const std::size_t end = std::min(columns, column + reach + 1);
    for (std::size_t k = column - std::min(column, reach); k < end; ++k) near.add(ranges[k]);
    const auto room = [&](double value) {
      return std::max(tolerance.value, tolerance.part * std::abs(value));
    };
    const bool isThere = !std::isnan(ranges[column].low);
    const double time = from + (static_cast<double>(column) + 0.5) * width;
    band.push_back({time, isThere ? near.low - room(near.low) : kNone});
    band.push_back({time, isThere ? near.high + room(near.high) : kNone});
  }
  return band;
}

}  // namespace kyr::tool
