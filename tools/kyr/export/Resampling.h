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

/// The times of a time vector in ascending order, each once, with the last sample of each.
struct OrderedTimes {
  std::vector<double> times;             ///< ascending
  std::vector<std::int64_t> samples;     ///< number of the sample of each time
  std::shared_ptr<::arrow::Array> held;  ///< sample held at each time of the grid, or null
};

/// Common times for all signals, the grid, and the samples at these times.
class Resampling {
 public:
  /// Reads the times of all signals.
  /// \throws std::runtime_error if the times of a signal are not finite, if the step is smaller
  ///         than the precision of the times, or if there is not enough memory for the table
  Resampling(RecordingFiles& files, const std::vector<ExportSignal>& signals,
             const ResampleOptions& options);

  const std::vector<double>& grid() const { return grid_; }

  /// The latest sample up to each time of the grid; null before the first sample. A sample counts
  /// for a time of the grid if the two differ by rounding errors only.
  std::shared_ptr<::arrow::Array> hold(const ExportSignal& signal,
                                       const ::arrow::Array& samples) const;

  /// Values on a straight line between samples; null before the first and after the last.
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
