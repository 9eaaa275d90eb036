#pragma once

#include <string>
#include <vector>

namespace kyr::tool {

struct AxisTick {
  double value = 0;
  std::string text;
};

/// About \p count multiples of 1, 2 or 5 times a power of ten in [from, to], which is no empty
/// range.
std::vector<AxisTick> axisTicks(double from, double to, double count);

}  // namespace kyr::tool
