#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "kyr/platform/export.h"
#include "kyr/recording/RecordingReader.h"

namespace kyr::recording {

struct ResampleOptions {
  enum class Method {
    previous,  ///< the latest sample at or before the time
    nearest,   ///< the sample with the nearest time, the earlier one of two
    linear,    ///< on the straight line between the samples before and after; numbers only
  };

  /// Distance of the times [s], which start with the first time of all signals; without it the
  /// times are all those that any of the signals has.
  std::optional<double> step;
  Method method = Method::previous;
};

/// \brief Where a time lies among the samples of a signal. Of several samples with the same time,
/// the last one counts.
struct SamplePlace {
  std::int64_t before = -1;  ///< latest sample at or before the time; -1 if there is none
  std::int64_t after = -1;   ///< next later sample; -1 if there is none
  double part = 0;           ///< where the time lies between the two: 0 at `before`, 1 at `after`
  bool isAtBefore = false;   ///< whether the time is that of `before`, but for rounding
};

/// \brief One grid of times for several signals, and what the signals are at these times.
///
/// A sample counts as at a time of a grid with steps if the two differ by no more than a 1e-9th of
/// the step and twice what doubles of their size are rounded by.
///
/// Memory: a few pieces of the times of each signal. The times of signals whose times do not ascend
/// are in memory as a whole. One thread at a time.
class KYR_PARQUET_EXPORT Resampling {
 public:
  /// \brief Reads the times of the signals once.
  /// \param reader  must outlive the object, and not be refreshed meanwhile
  /// \param ids  of signals with times and samples
  /// \throws std::invalid_argument naming a signal without times or whose times are not all finite,
  ///         and for a step that is not above 0, finer than the times, or makes more than 2^31 rows
  Resampling(const RecordingReader& reader, std::vector<int> ids, const ResampleOptions& options);
  ~Resampling();
  Resampling(Resampling&&) noexcept;
  Resampling& operator=(Resampling&&) noexcept;

  /// \brief Number of times.
  std::uint64_t rows() const;
  /// \brief Times of the grid [s], ascending.
  std::vector<double> times(const RowRange& rows = {}) const;
  /// \brief Where the times lie among the samples of a signal.
  std::vector<SamplePlace> places(int id, const RowRange& rows = {}) const;
  /// \brief The samples of a scalar signal of numbers or truth values at these times, by the method
  /// of the options; empty before its first sample and, with linear, after its last one.
  /// \throws std::invalid_argument for other signals
  std::vector<std::optional<double>> numbers(int id, const RowRange& rows = {}) const;

  /// \brief The number at a place between two samples, on the straight line.
  static double between(double before, double after, double part);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kyr::recording
