#pragma once

#include <cstddef>
#include <string>

#include "kyr/recording/Comparison.h"

namespace kyr::tool {

/// What a comparison is about, and how much of it is told.
struct ComparisonReport {
  std::string reference;  ///< folders, as the user calls them
  std::string other;
  recording::ComparisonOptions options;
  std::size_t limit = 0;  ///< signals that are told
  bool showsAll = false;  ///< whether signals that are equal are told as well
};

/// A line for each signal that differs, the worst first, and a summary.
/// \param width  of the terminal, to which long names are cut; 0 for none
std::string comparisonText(const recording::Comparison& comparison, const ComparisonReport& report,
                           std::size_t width);

/// The same as JSON, with all digits; numbers that are infinite or no numbers are null.
std::string comparisonJson(const recording::Comparison& comparison, const ComparisonReport& report);

}  // namespace kyr::tool
