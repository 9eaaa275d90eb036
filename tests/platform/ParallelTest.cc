#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/Parallel.h"

namespace kyr {
namespace {

TEST(Parallel, CallsTheWorkOnceForEachNumberInThreadsOfTheirOwn) {
  for (const std::size_t count : {0U, 1U, 7U, 1000U}) {
    constexpr std::size_t kThreads = 5;
    std::vector<int> calls(count, 0);
    std::vector<std::size_t> inThread(kThreads, 0);  // a shared number would be a data race
    forEachInThreads(count, kThreads, [&](std::size_t i, std::size_t thread) {
      ++calls[i];
      ++inThread.at(thread);
    });
    EXPECT_EQ(std::count(calls.begin(), calls.end(), 1), static_cast<long>(count));
    std::size_t all = 0;
    for (const std::size_t each : inThread) all += each;
    EXPECT_EQ(all, count);
  }
}

TEST(Parallel, ThrowsWhatACallThrewWhenAllHaveEnded) {
  for (const std::size_t threads : {1U, 4U}) {
    std::atomic<int> running{0};
    std::atomic<int> begun{0};
    const auto work = [&](std::size_t i, std::size_t /*thread*/) {
      ++begun;
      ++running;
      if (i > 20) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      if (i == 20) {
        --running;
        throw std::runtime_error("the twentieth");
      }
      --running;
    };
    EXPECT_THROW(forEachInThreads(1'000'000, threads, work), std::runtime_error);
    EXPECT_EQ(running, 0);
    EXPECT_LT(begun, 1'000'000);
  }
}

}  // namespace
}  // namespace kyr
