#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>

namespace kyr {

/// Runs tasks one after the other, in the order in which they were added, in a thread of its own.
/// The thread starts with the first task. Where the system has no thread left, add() runs the task.
///
/// After a task has thrown, no further one runs. For one caller at a time.
class BackgroundWork {
 public:
  using Task = std::function<void()>;

  /// \param most  how many tasks may wait
  explicit BackgroundWork(std::size_t most) : most_(most) {}
  /// Waits for the task that runs. Those that wait are dropped.
  ~BackgroundWork();
  BackgroundWork(const BackgroundWork&) = delete;
  BackgroundWork& operator=(const BackgroundWork&) = delete;

  /// Waits while too many tasks wait.
  /// \throws what a task before has thrown, each time
  void add(Task task);
  /// Waits until all tasks have run.
  /// \throws what a task has thrown
  void wait();
  bool hasThread() const { return thread_.joinable(); }

 private:
  bool tryStart();
  void run();
  void rethrow() const {
    if (failure_) std::rethrow_exception(failure_);
  }

  std::size_t most_;
  std::thread thread_;
  std::mutex mutex_;  // for the members below
  std::condition_variable added_;
  std::condition_variable done_;
  std::deque<Task> tasks_;
  bool isBusy_ = false;
  bool isEnding_ = false;
  std::exception_ptr failure_;
};

}  // namespace kyr
