#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/BackgroundWork.h"

namespace kyr {
namespace {

void pause() { std::this_thread::sleep_for(std::chrono::milliseconds(2)); }

TEST(BackgroundWork, RunsTasksInOrderAndLetsFewWait) {
  constexpr int kMost = 2;
  std::atomic<int> added{0};
  std::vector<int> ran;
  BackgroundWork work(kMost);
  for (int i = 0; i < 20; ++i) {
    work.add([&added, &ran, i] {
      pause();
      EXPECT_LE(added, i + 1 + kMost);
      ran.push_back(i);
    });
    ++added;
  }
  work.wait();
  ASSERT_EQ(ran.size(), 20U);
  for (int i = 0; i < 20; ++i) EXPECT_EQ(ran[static_cast<std::size_t>(i)], i);
}

TEST(BackgroundWork, AFailureIsThrownToTheCallerAndEndsTheWork) {
  int later = 0;
  BackgroundWork work(3);
  work.add([] {
    pause();
    throw std::runtime_error("disk full");
  });
  work.add([&later] { ++later; });
  EXPECT_THROW(work.wait(), std::runtime_error);
  EXPECT_THROW(work.add([&later] { ++later; }), std::runtime_error);
  EXPECT_THROW(work.wait(), std::runtime_error);
  EXPECT_EQ(later, 0);
}

TEST(BackgroundWork, ItsEndWaitsForTheTaskThatRunsAndDropsTheOthers) {
  std::atomic<bool> hasBegun{false};
  bool hasEnded = false;
  int later = 0;
  {
    BackgroundWork work(1);
    work.add([&] {
      hasBegun = true;
      for (int i = 0; i < 10; ++i) pause();
      hasEnded = true;
    });
    while (!hasBegun) std::this_thread::yield();
    work.add([&later] { ++later; });
  }
  EXPECT_TRUE(hasEnded);
  EXPECT_EQ(later, 0);
}

TEST(BackgroundWork, RunsInTheCallersThreadWhereThereIsNoOther) {
  pthread_attr_t before;
  ASSERT_EQ(pthread_getattr_default_np(&before), 0);
  pthread_attr_t tooLarge = before;
  ASSERT_EQ(pthread_attr_setstacksize(&tooLarge, std::size_t{1} << 47U), 0);
  ASSERT_EQ(pthread_setattr_default_np(&tooLarge), 0);
  int ran = 0;
  {
    BackgroundWork work(1);
    work.add([&ran] { ++ran; });
    EXPECT_THROW(work.add([] { throw std::runtime_error("disk full"); }), std::runtime_error);
    EXPECT_THROW(work.add([&ran] { ++ran; }), std::runtime_error);
    EXPECT_THROW(work.wait(), std::runtime_error);
  }
  pthread_setattr_default_np(&before);
  EXPECT_EQ(ran, 1);
}

}  // namespace
}  // namespace kyr
