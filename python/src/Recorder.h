#pragma once

#include <condition_variable>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ForkLock.h"
#include "SampleStage.h"
#include "kyr/parquet/SignalPool.h"
#include "kyr/recording/LiveRecording.h"
#include "kyr/recording/Recording.h"

namespace kyr::python {

/// \brief A recording that is being written, and a thread that flushes it now and then.
///
/// Every member is called without the interpreter's lock, except what says otherwise.
class Recorder {
 public:
  struct Options {
    double flushSeconds = 0;  // 0: only when asked
    recording::LiveOptions live;
    /// Whether it is there for saveTo() alone. Nothing of it survives a crash.
    bool isTemporary = false;
  };

  Recorder(std::string folder, const Options& options);
  /// Leaves a recording that can be recovered, if it was not finished.
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  std::shared_ptr<SampleStage> add(const recording::SignalDescription& description,
                                   KYRSignalDataType type, KYRSignalCategory category);
  void flush();
  void finish();
  /// \brief Saves what was appended to a temporary one as the recording \p folder, and closes it.
  void saveTo(const std::string& folder, const recording::SaveOptions& options);
  /// Flushes, and leaves the recording unfinished.
  void abandon();
  bool isOpen();

  /// \brief Takes rows. Callable with the interpreter's lock if it is a single row: it then says no
  /// where files must be written, or another thread has the recorder.
  template <typename Take>
  bool tryTake(SampleStage& stage, const Take& take) {
    const std::unique_lock guard(lock_.mutex(), std::try_to_lock);
    if (!guard.owns_lock() || stage.isFull()) return false;
    requireUsable();
    take(stage);
    return true;
  }
  template <typename Take>
  void take(SampleStage& stage, const Take& take) {
    const std::lock_guard guard(lock_.mutex());
    requireUsable();
    take(stage);
    if (stage.isFull()) stage.write();
  }

  /// \brief Looks at a stage while nobody changes it.
  template <typename Look>
  void look(const Look& look) {
    const std::lock_guard guard(lock_.mutex());
    look();
  }

 private:
  void requireUsable();
  void writeAll();
  void flushNowAndThen(double seconds);
  void stopThread();

  std::string folder_;
  ForkLock lock_;
  std::unique_ptr<recording::LiveRecording> live_;
  std::unique_ptr<parquet::SignalPool> pool_;  // of a temporary one, instead
  std::vector<std::shared_ptr<SampleStage>> stages_;
  std::exception_ptr failure_;  // of the thread, for the next call
  std::unique_ptr<std::condition_variable> wakes_ = std::make_unique<std::condition_variable>();
  bool isStopping_ = false;
  std::unique_ptr<std::thread> thread_;
};

}  // namespace kyr::python
