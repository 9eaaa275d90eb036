#include <gmock/gmock.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "kyr/parquet/SafeStorage.h"
#include "kyr/parquet/SignalPool.h"
#include "support/FaultyDisk.h"
#include "support/StorageTest.h"

// Times that a pool keeps in memory must be those of the file that it is asked for, also where the
// file was replaced within a tick of the file system's clock.

namespace kyr::parquet {
namespace {

namespace fs = std::filesystem;
using test::Samples;

constexpr long kTick = 4'000'000;  // [ns]
constexpr int kRounds = 40;

enum class Rules { byDefault, safe };

struct Way {
  const char* name;
  void (*replace)(const fs::path& file, const fs::path& other);
};

const Way kWays[] = {
    {"Renamed", [](const fs::path& file, const fs::path& other) { fs::rename(other, file); }},
    {"DeletedAndMade",
     [](const fs::path& file, const fs::path& other) {
       fs::remove(file);
       fs::copy_file(other, file);
     }},
    {"Overwritten",
     [](const fs::path& file, const fs::path& other) {
       fs::copy_file(other, file, fs::copy_options::overwrite_existing);
     }},
};

class KeptTimes : public test::StorageTest {
 protected:
  KeptTimes() { serialization_options::bDictionary = false; }

  static Samples samplesOf(int round) {
    return {std::vector<double>(100, round + 0.5), std::vector<char>(100, 'a'), {}, {}};
  }
  static std::shared_ptr<ParquetSignal> signal(SignalPool& pool, int id) {
    auto result = pool.getSignal(id);
    result->setCategory(Scalar);
    result->setDataType(Int8);
    return result;
  }
  static std::unique_ptr<SignalPool> makePool(Rules rules, const Path& path) {
    return rules == Rules::safe ? std::make_unique<SignalPool>(path, SafeStorage())
                                : std::make_unique<SignalPool>(path);
  }

  const test::faultyDisk::CoarseFileTimes coarse{kTick};
};

class ReplacedFiles : public KeptTimes,
                      public ::testing::WithParamInterface<std::tuple<Rules, Way>> {};

TEST_P(ReplacedFiles, TimesAreThoseThatTheFileHoldsNow) {
  const auto& [rules, way] = GetParam();
  // Files of equal size that hold the times of each round.
  const test::Folder others(temp.file("others"));
  SafeStorage kept;
  kept.keepsFiles = true;
  SignalPool writer(others.path(), kept);
  std::vector<int> timeIds;
  for (int round = 0; round <= kRounds; ++round) {
    const auto made = signal(writer, round);
    test::write(*made, samplesOf(round));
    timeIds.push_back(made->getStorageId(0));
  }
  fs::copy_file(others.file(timeIds[0]), store.file(0));
  fs::copy_file(others.file(1), store.file(1));
  const auto pool = makePool(rules, store.path());
  pool->deserializeSignalRecords(R"([{"dataStorageId":[1],"signalId":7,"timeStorageId":[0]}])");
  const auto reader = signal(*pool, 7);
  ASSERT_EQ(test::read(*reader), samplesOf(0));
  for (int round = 1; round <= kRounds; ++round) {
    way.replace(store.file(0), others.file(timeIds[static_cast<std::size_t>(round)]));
    ASSERT_EQ(test::read(*reader), samplesOf(round)) << "round " << round;
    ASSERT_EQ(test::read(*reader), samplesOf(round)) << "round " << round << ", again";
    // Now and then the file is old enough for its times to be kept.
    if (round % 16 == 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(60));
      ASSERT_EQ(test::read(*reader), samplesOf(round));
    }
  }
}

TEST_F(KeptTimes, OfAFileThatThePoolHasWrittenGoWhenOthersOverwriteIt) {
  const test::Folder others(temp.file("others"));
  SignalPool otherPool(others.path(), SafeStorage());
  SignalPool pool(store.path(), SafeStorage());
  const auto written = signal(pool, 1);
  test::write(*written, samplesOf(0));
  ASSERT_EQ(test::read(*written), samplesOf(0));
  for (int round = 1; round <= kRounds; ++round) {
    const auto other = signal(otherPool, round);
    test::write(*other, samplesOf(round));
    fs::copy_file(others.file(other->getStorageId(0)), store.file(written->getStorageId(0)),
                  fs::copy_options::overwrite_existing);
    ASSERT_EQ(test::read(*written), samplesOf(round)) << "round " << round;
  }
}

std::string nameOf(Rules rules) { return rules == Rules::safe ? "Safe" : "Default"; }

INSTANTIATE_TEST_SUITE_P(All, ReplacedFiles,
                         ::testing::Combine(::testing::Values(Rules::byDefault, Rules::safe),
                                            ::testing::ValuesIn(kWays)),
                         [](const auto& each) {
                           return nameOf(std::get<0>(each.param)) + std::get<1>(each.param).name;
                         });

class RewrittenSignals : public KeptTimes, public ::testing::WithParamInterface<Rules> {};

TEST_P(RewrittenSignals, TimesAreThoseThatWereWrittenLast) {
  const auto pool = makePool(GetParam(), store.path());
  const auto other = makePool(GetParam(), store.path());
  const auto rewritten = signal(*pool, 1);
  const auto beside = signal(*other, 1);
  for (int round = 0; round < 300; ++round) {
    test::write(*rewritten, samplesOf(round));
    ASSERT_EQ(test::read(*rewritten), samplesOf(round)) << "round " << round;
    rewritten->resetData();
    // The default rules give both pools the same ids.
    test::write(*beside, samplesOf(-round));
    ASSERT_EQ(test::read(*beside), samplesOf(-round)) << "round " << round;
    beside->resetData();
  }
}

INSTANTIATE_TEST_SUITE_P(All, RewrittenSignals, ::testing::Values(Rules::byDefault, Rules::safe),
                         [](const auto& each) { return nameOf(each.param); });

TEST_F(KeptTimes, TimesThatSignalsShareAreReadFromTheFileOnce) {
  for (const Rules rules : {Rules::byDefault, Rules::safe}) {
    const test::Folder folder(temp.file(rules == Rules::safe ? "safe" : "default"));
    const auto pool = makePool(rules, folder.path());
    for (int id = 0; id < 3; ++id) test::write(*signal(*pool, id), samplesOf(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    std::vector<int> calls;
    for (int id = 0; id < 3; ++id) {
      test::faultyDisk::Plan counting;
      counting.failAt = 1'000'000;
      test::faultyDisk::start(counting);
      EXPECT_EQ(test::read(*signal(*pool, id)), samplesOf(1));
      calls.push_back(test::faultyDisk::stop());
    }
    EXPECT_LT(calls[1], calls[0]);
    EXPECT_EQ(calls[1], calls[2]);
  }
}

}  // namespace
}  // namespace kyr::parquet
