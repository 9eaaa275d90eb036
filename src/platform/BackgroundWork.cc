#include "platform/BackgroundWork.h"

#include <system_error>
#include <utility>

namespace kyr {

BackgroundWork::~BackgroundWork() {
  if (!hasThread()) return;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    isEnding_ = true;
  }
  added_.notify_one();
  thread_.join();
}

void BackgroundWork::add(Task task) {
  if (!hasThread() && !tryStart()) {
    rethrow();
    try {
      return task();
    } catch (...) {
      failure_ = std::current_exception();
      throw;
    }
  }
  {
    std::unique_lock<std::mutex> lock(mutex_);
    done_.wait(lock, [this] { return failure_ || tasks_.size() < most_; });
    rethrow();
    tasks_.push_back(std::move(task));
  }
  added_.notify_one();
}

void BackgroundWork::wait() {
  std::unique_lock<std::mutex> lock(mutex_);
  done_.wait(lock, [this] { return failure_ || (tasks_.empty() && !isBusy_); });
  rethrow();
}

bool BackgroundWork::tryStart() {
  try {
    thread_ = std::thread([this] { run(); });
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

void BackgroundWork::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (true) {
    added_.wait(lock, [this] { return isEnding_ || !tasks_.empty(); });
    if (isEnding_) return;
    Task task = std::move(tasks_.front());
    tasks_.pop_front();
    isBusy_ = true;
    lock.unlock();
    std::exception_ptr failure;
    try {
      task();
      task = nullptr;  // what it owns goes before anybody learns that it has run
    } catch (...) {
      failure = std::current_exception();
    }
    lock.lock();
    isBusy_ = false;
    failure_ = failure;
    done_.notify_one();
    if (failure_) return;
  }
}

}  // namespace kyr
