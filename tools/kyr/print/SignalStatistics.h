#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "kyr/recording/RecordingReader.h"

namespace kyr::tool {

/// What the numbers of a scalar signal are. NaN and infinite numbers count apart.
struct NumberStatistics {
  std::uint64_t finite = 0;
  std::uint64_t nan = 0;
  std::uint64_t infinite = 0;
  double min = 0;  ///< of the finite numbers, if there are any, like all that follow
  double max = 0;
  double mean = 0;
  double deviation = 0;  ///< standard deviation of a sample; 0 for one number
};

/// What the times of a signal are.
struct TimeStatistics {
  double first = 0;  ///< [s]
  double last = 0;
  double largestGap = 0;  ///< between two times that follow each other [s]
  /// Times per second; none if they all are the same.
  std::optional<double> rate;
};

struct SignalStatistics {
  std::uint64_t rows = 0;
  std::optional<TimeStatistics> times;
  std::optional<NumberStatistics> numbers;  ///< for scalar numbers and truth values
};

/// Reads all rows of a signal, block by block.
SignalStatistics statisticsOf(const recording::RecordingReader& reader,
                              const recording::SignalInfo& signal);

/// Reads the times of a signal. Nothing without times.
std::optional<TimeStatistics> timeStatisticsOf(const recording::RecordingReader& reader,
                                               const recording::SignalInfo& signal);

/// Times per second by number and span alone; none without a span.
std::optional<double> rateOf(std::uint64_t times, const std::optional<recording::TimeSpan>& span);

}  // namespace kyr::tool
