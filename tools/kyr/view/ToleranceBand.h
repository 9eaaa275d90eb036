#pragma once

#include <cstddef>
#include <vector>

#include "view/EnvelopePoints.h"

namespace kyr::tool {

/// What a curve may differ by.
struct Tolerance {
  double value = 0;
  double part = 0;  ///< of the curve's value, if that is more
  double time = 0;  ///< [s]
};

/// Where another curve is within the tolerance of a curve: the lower and the upper end by turns, in
/// equally wide columns between two times. Both are NaN where the curve is not.
/// \param points  corners of the curve, in the order of their times
/// \param holds  whether values hold until the next one
std::vector<PlotPoint> toleranceBand(const std::vector<PlotPoint>& points, double from, double to,
                                     std::size_t columns, const Tolerance& tolerance, bool holds);

}  // namespace kyr::tool
