#pragma once

#include <arrow/type_fwd.h>

#include <map>
#include <memory>
#include <vector>

#include "export/ExportOptions.h"
#include "export/ExportSignals.h"
#include "kyr/recording/RecordingReader.h"
#include "kyr/recording/Resampling.h"

namespace kyr::tool {

/// Columns of signals at the times of one grid.
class ResampledColumns {
 public:
  /// \throws std::runtime_error naming a signal whose times are no finite numbers, if the step is
  ///         finer than the times, or if the table would take more memory than there is
  ResampledColumns(const recording::RecordingReader& reader,
                   const std::vector<ExportSignal>& signals, const ResampleOptions& options);

  std::vector<double> times() const { return resampling_.times(); }

  /// The latest sample at or before each time; null before the first.
  std::shared_ptr<::arrow::Array> hold(const ExportSignal& signal, const ::arrow::Array& samples);

  /// A number on the straight line between samples; null before the first and after the last.
  /// \param samples  float64
  std::shared_ptr<::arrow::Array> interpolate(const ExportSignal& signal,
                                              const ::arrow::Array& samples) const;

 private:
  // The first of the signals with the same times.
  int timesOf(const ExportSignal& signal) const;

  const recording::RecordingReader& reader_;
  recording::Resampling resampling_;
  std::map<int, std::shared_ptr<::arrow::Array>> held_;  // samples of each time, by timesOf()
};

}  // namespace kyr::tool
