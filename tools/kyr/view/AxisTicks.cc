#include "view/AxisTicks.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace kyr::tool {

namespace {

// At least the given one, unless that would be infinite.
double roundStep(double rough) {
  const double power = std::pow(10, std::floor(std::log10(rough)));
  for (const double factor : {1.0, 2.0, 5.0, 10.0}) {
    if (factor * power >= rough * 0.999 && std::isfinite(factor * power)) return factor * power;
  }
  return power;
}

std::string textOf(double value, double step) {
  constexpr int kMostDigits = 12;
  const int stepDigits = static_cast<int>(std::floor(std::log10(step) + 1e-9));
  const double size = std::abs(value);
  if (size < step / 1e6) return "0";
  if (size >= 1e7 || size < 1e-4) {
    const int digits = static_cast<int>(std::floor(std::log10(size))) - stepDigits;
    return fmt::format("{:.{}e}", value, std::clamp(digits, 0, kMostDigits));
  }
  return fmt::format("{:.{}f}", value, std::clamp(-stepDigits, 0, kMostDigits));
}

}  // namespace

std::vector<AxisTick> axisTicks(double from, double to, double count) {
  constexpr double kMostTicks = 100;
  // Not so small that neighbouring multiples of the step are the same number.
  const double least = std::max(std::abs(from), std::abs(to)) * 1e-15;
  const double half = to / 2 - from / 2;  // the distance of the ends may be infinite
  const double rough = std::max(half / std::max(1.0, count / 2), least);
  if (!(rough >= std::numeric_limits<double>::min())) return {};
  const double step = roundStep(rough);
  const double first = std::ceil(from / step - 1e-9);
  const double last = std::min(std::floor(to / step + 1e-9), first + kMostTicks);
  std::vector<AxisTick> ticks;
  for (double i = first; i <= last; ++i) ticks.push_back({i * step, textOf(i * step, step)});
  return ticks;
}

}  // namespace kyr::tool
