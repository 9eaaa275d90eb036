#pragma once

#include <arrow/type_fwd.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ExportOptions.h"
#include "ExportSignals.h"
#include "RecordingFiles.h"

namespace kyr::tool {

/// The samples of a time vector in order of time, the last one of each time.
struct OrderedTimes {
  std::vector<double> times;             ///< ascending
  std::vector<std::int64_t> samples;     ///< which sample each time is of
  std::shared_ptr<::arrow::Array> held;  ///< sample that is held at each time of the grid, or null
};

/// One grid of times for all signals, and their samples at its times.
class Resampling {
 public:
  /// Reads the times of all signals.
  /// \throws std::runtime_error naming a signal whose times are no finite numbers, or if the step
  ///         makes too many rows
  Resampling(RecordingFiles& files, const std::vector<ExportSignal>& signals,
             const ResampleOptions& options);

  const std::vector<double>& grid() const { return grid_; }

  /// The latest sample at or before each time; null before the first.
  std::shared_ptr<::arrow::Array> hold(const ExportSignal& signal,
                                       const ::arrow::Array& samples) const;

  /// Between samples a straight line; null before the first and after the last.
  /// \param samples  float64
  std::shared_ptr<::arrow::Array> interpolate(const ExportSignal& signal,
                                              const ::arrow::Array& samples) const;

 private:
  void readTimes(RecordingFiles& files, const ExportSignal& signal);
  void makeGrid(const ResampleOptions& options);

  std::map<StoredColumn, OrderedTimes> times_;
  std::vector<double> grid_;
};

}  // namespace kyr::tool
