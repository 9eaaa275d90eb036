#pragma once

#include <cstddef>
#include <memory>

#include "kyr/platform/export.h"

namespace kyr::recording {

/// \brief Signals of a live recording that get one sample each at the same times, as those of a
/// simulation do at each step: LiveRecording::addGroup() makes them.
///
/// A step is appended as one array. With thousands of signals that is many times as fast as
/// StreamableSignal::appendTime() and appendData() of each signal in turn, which find nothing of
/// a signal in the processor's cache. The signals share their times.
///
/// Steps gather in a block of at most 4 MiB, or of the steps of one append if these are more. They
/// are handed to the signals when the block is full and by LiveRecording::flush() and finish();
/// until then the pool's signals do not have them. Nobody else may append to the signals of a
/// group.
///
/// Use it as long as the recording lives, on the same thread.
class KYR_PARQUET_EXPORT SignalGroup {
 public:
  ~SignalGroup();
  SignalGroup(const SignalGroup&) = delete;
  SignalGroup& operator=(const SignalGroup&) = delete;

  /// \brief Signals of the group.
  std::size_t signals() const;

  /// \brief Append steps. They are copied.
  /// \param times  [s]; one for each step
  /// \param steps  how many
  /// \param samples  one step after the other, each with one number of the group's type for each
  ///        signal, in the order in which the group was made
  /// \param bytes  of the samples
  /// \throws std::invalid_argument for a null pointer, or if the bytes are not those of so many
  ///         steps
  /// \throws std::logic_error once the recording was finished or destroyed
  /// \throws std::exception naming the file if a batch cannot be written; none of the steps is
  ///         appended then, and the call may be repeated
  void append(const double* times, std::size_t steps, const void* samples, std::size_t bytes);

 private:
  friend class LiveRecording;
  class Impl;
  explicit SignalGroup(std::shared_ptr<Impl> impl);
  std::shared_ptr<Impl> impl_;
};

}  // namespace kyr::recording
