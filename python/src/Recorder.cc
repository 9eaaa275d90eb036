#include "Recorder.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <utility>

#include "Errors.h"

namespace kyr::python {

Recorder::Recorder(std::string folder, const Options& options) : folder_(std::move(folder)) {
  const Path path = Path::fromNarrow(folder_);
  if (options.isTemporary) {
    pool_ = std::make_unique<parquet::SignalPool>(path, options.live.storage);
    return;
  }
  live_ = std::make_unique<recording::LiveRecording>(path, options.live);
  if (options.flushSeconds > 0) {
    thread_ = std::make_unique<std::thread>(
        [this, seconds = options.flushSeconds] { flushNowAndThen(seconds); });
  }
}

Recorder::~Recorder() {
  if (lock_.isOfParent()) {
    // The files are the parent's, and so is the thread, which does not run here.
    static_cast<void>(live_.release());
    static_cast<void>(pool_.release());
    static_cast<void>(thread_.release());
    static_cast<void>(wakes_.release());  // its end would wait for the thread
    return;
  }
  try {
    abandon();
  } catch (...) {
    // What was flushed before can be recovered all the same.
  }
}

void Recorder::requireUsable() {
  if (lock_.isOfParent()) {
    throw std::runtime_error(folder_ +
                             ": another process records it, from which this one was forked");
  }
  if (!live_ && !pool_) throw ClosedError(folder_ + ": the recording is finished or closed");
  if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
}

std::shared_ptr<SampleStage> Recorder::add(const recording::SignalDescription& description,
                                           KYRSignalDataType type, KYRSignalCategory category) {
  const std::lock_guard guard(lock_.mutex());
  requireUsable();
  std::shared_ptr<parquet::StreamableSignal> signal;
  if (pool_) {
    signal = pool_->getStreamableSignal(description.signalId);
    signal->setDataType(type);
    signal->setCategory(category);
  } else {
    signal = live_->addSignal(description, type, category);
  }
  stages_.push_back(std::make_shared<SampleStage>(std::move(signal), description, type, category));
  return stages_.back();
}

void Recorder::writeAll() {
  for (const auto& stage : stages_) stage->write();
}

void Recorder::flush() {
  const std::lock_guard guard(lock_.mutex());
  requireUsable();
  writeAll();
  if (live_) live_->flush();
}

void Recorder::finish() {
  {
    const std::lock_guard guard(lock_.mutex());
    requireUsable();
  }
  stopThread();
  const std::lock_guard guard(lock_.mutex());
  requireUsable();
  writeAll();
  if (live_) live_->finish();
  live_.reset();
  pool_.reset();
}

void Recorder::saveTo(const std::string& folder, const recording::SaveOptions& options) {
  const std::lock_guard guard(lock_.mutex());
  requireUsable();
  if (!pool_) throw std::invalid_argument(folder_ + ": it becomes a recording where it is");
  writeAll();
  std::vector<recording::SignalDescription> descriptions;
  for (const auto& stage : stages_) {
    stage->finish();
    descriptions.push_back(stage->description());
  }
  recording::saveRecording(*pool_, descriptions, Path::fromNarrow(folder), options);
  stages_.clear();
  pool_.reset();
}

void Recorder::abandon() {
  stopThread();
  const std::lock_guard guard(lock_.mutex());
  if (lock_.isOfParent()) return;
  pool_.reset();
  if (!live_) return;
  const auto live = std::move(live_);
  writeAll();
  live->flush();
}

bool Recorder::isOpen() {
  const std::lock_guard guard(lock_.mutex());
  return live_ != nullptr || pool_ != nullptr;
}

void Recorder::stopThread() {
  std::unique_ptr<std::thread> thread;
  {
    const std::lock_guard guard(lock_.mutex());
    if (lock_.isOfParent()) return;
    thread = std::move(thread_);
    isStopping_ = true;
  }
  wakes_->notify_all();
  if (thread) thread->join();
}

void Recorder::flushNowAndThen(double seconds) {
  std::unique_lock guard(lock_.mutex());
  // Others need the lock between two flushes, and a clock counts no more than 292 years.
  const std::chrono::duration<double> pause(std::clamp(seconds, 1e-3, 1e9));
  while (!wakes_->wait_for(guard, pause, [this] { return isStopping_; })) {
    try {
      writeAll();
      live_->flush();
    } catch (...) {
      failure_ = std::current_exception();
    }
  }
}

}  // namespace kyr::python
