#pragma once

#include <arrow/type_fwd.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "export/ExportOptions.h"
#include "export/ExportSignals.h"
#include "export/RecordingFiles.h"

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
  /// \throws std::runtime_error naming a signal whose times are no finite numbers, if the step is
  ///         finer than the times, or if the table would take more memory than there is
  Resampling(RecordingFiles& files, const std::vector<ExportSignal>& signals,
             const ResampleOptions& options);

  const std::vector<double>& grid() const { return grid_; }

  /// The latest sample at or before each time; null before the first. A sample is at a time that
  /// differs from its own by no more than both are rounded.
  std::shared_ptr<::arrow::Array> hold(const ExportSignal& signal,
                                       const ::arrow::Array& samples) const;

  /// Between samples a straight line; null before the first and after the last.
  /// \param samples  float64
  std::shared_ptr<::arrow::Array> interpolate(const ExportSignal& signal,
                                              const ::arrow::Array& samples) const;

 private:
  using RequireMemory = std::function<void(std::size_t rows)>;

  void readTimes(RecordingFiles& files, const ExportSignal& signal);
  void makeSteps(double step, const RequireMemory& requireMemory);
  void uniteTimes(const RequireMemory& requireMemory);

  std::map<StoredColumn, OrderedTimes> times_;
  std::vector<double> grid_;
  double tolerance_ = 0;  ///< [s]
};

}  // namespace kyr::tool
