#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "kyr/recording/SignalGroup.h"
#include "safe/SafeStreamableSignal.h"

namespace kyr::recording {

/// The steps of a group that its signals do not have yet.
class SignalGroup::Impl {
 public:
  /// \param width  bytes of a sample: 1, 2, 4 or 8
  /// \param isClosed  whether the recording is closed
  Impl(std::vector<std::shared_ptr<parquet::SafeStreamableSignal>> signals, std::size_t width,
       std::shared_ptr<const bool> isClosed);

  std::size_t signals() const { return signals_.size(); }
  void append(const double* times, std::size_t steps, const char* samples, std::size_t bytes);
  /// Hands the steps to the signals. A call that throws may be repeated.
  void store();

 private:
  std::vector<std::shared_ptr<parquet::SafeStreamableSignal>> signals_;
  std::size_t width_;
  std::shared_ptr<const bool> isClosed_;
  std::size_t steps_;  // how many make a full block
  std::vector<double> times_;
  std::vector<char> samples_;
  std::vector<char> columns_;    // samples of a few signals, one signal after the other
  std::size_t stored_ = 0;       // signals that have the steps
  bool areTimesStored_ = false;  // whether the next signal has the times
};

}  // namespace kyr::recording
