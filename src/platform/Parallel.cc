#include "platform/Parallel.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace kyr {

std::size_t coreCount() { return std::max(1U, std::thread::hardware_concurrency()); }

std::size_t threadsForFiles(std::size_t count) {
  constexpr std::size_t kMost = 8;
  return std::min({kMost, coreCount(), count});
}

std::size_t threadsForSyncing(std::size_t count) {
  constexpr std::size_t kMost = 16;
  constexpr std::size_t kFilesPerThread = 8;  // a thread costs as much as a few files
  return std::min(kMost, 1 + count / kFilesPerThread);
}

void runInThreads(std::size_t threads, const std::function<void()>& work) {
  std::mutex mutex;
  std::exception_ptr failure;
  const auto run = [&] {
    try {
      work();
    } catch (...) {
      const std::lock_guard<std::mutex> lock(mutex);
      if (!failure) failure = std::current_exception();
    }
  };
  std::vector<std::thread> others;
  others.reserve(threads);
  try {
    while (others.size() + 1 < threads) others.emplace_back(run);
  } catch (const std::exception&) {
    // The system has no thread left. Those that are there do all of the work.
  }
  run();
  for (std::thread& other : others) other.join();
  if (failure) std::rethrow_exception(failure);
}

void forEachInThreads(std::size_t count, std::size_t threads,
                      const std::function<void(std::size_t, std::size_t)>& work) {
  std::atomic<std::size_t> next{0};
  std::atomic<std::size_t> nextThread{0};
  std::atomic<bool> hasFailed{false};
  runInThreads(std::min(threads, count), [&] {
    const std::size_t thread = nextThread++;
    try {
      for (std::size_t i = next++; i < count && !hasFailed; i = next++) work(i, thread);
    } catch (...) {
      hasFailed = true;
      throw;
    }
  });
}

}  // namespace kyr
