#include <fmt/format.h>

#include <algorithm>
#include <numeric>

#include "kyr/recording/Recovery.h"
#include "platform/DiskFile.h"
#include "recording/LiveFormat.h"
#include "recording/LiveJournal.h"
#include "recording/LivePacksTest.h"
#include "support/FaultyDisk.h"

// Calls of the system that fail while a recording grows, and what a crash behind them leaves.

namespace kyr::recording {
namespace {

using test::errorOf;

// What the work says when its calls fail from a number on, and no more than some of them.
template <typename Work>
std::string errorWithFailures(int failAt, int failures, Work&& work) {
  test::faultyDisk::Plan plan;
  plan.failAt = failAt;
  plan.failures = failures;
  plan.error = EIO;
  test::faultyDisk::start(plan);
  std::string error = errorOf(work);
  test::faultyDisk::stop();
  return error;
}

using LiveFailures = LivePacksTest;

// A recording.json that a failed finish() leaves would hide the rows of later flushes.
TEST_F(LiveFailures, RowsThatAreFlushedBehindAFailedFinishCount) {
  int later = 0;
  for (int call = 1;; ++call) {
    SCOPED_TRACE(call);
    streams.clear();
    begin(2);
    appendAll(0, 30);
    live->flush();
    if (errorWithFailures(call, 1, [&] { live->finish(); }).empty()) break;
    const bool goesOn = errorOf([&] {
                          appendAll(30, 50);
                          live->flush();
                        }).empty();
    crash();
    recoverRecording(path());
    {
      RecordingReader reader(path());
      for (const int id : {1, 2}) expectRows(reader, id, goesOn ? 50 : 30);
    }
    later += goesOn ? 1 : 0;
    fs::remove_all(rec);
  }
  EXPECT_GT(later, 10);
}

// Times without samples are left out by a finish() that succeeds, and by no other.
TEST_F(LiveFailures, SamplesThatFollowAFailedFinishGetTheirTimes) {
  int failed = 0;
  for (int call = 1;; ++call) {
    SCOPED_TRACE(call);
    streams.clear();
    begin(2);
    appendAll(0, 30);
    const Values times{30, 31};
    streams[0]->appendTime(times.data(), times.size());
    if (errorWithFailures(call, 1, [&] { live->finish(); }).empty()) break;
    const Values samples{valueOf(1, 30), valueOf(1, 31)};
    const bool goesOn = errorOf([&] {
                          streams[0]->appendData(samples.data(), 2 * sizeof(double), {}, {});
                        }).empty();
    EXPECT_EQ(live->finish().unpaired.size(), goesOn ? 0U : 1U);
    EXPECT_EQ(test::Folder(rec).names(),
              (test::Names{"recording.json", "signals.parquet", "storage"}));
    EXPECT_EQ(faults(rec), "");
    RecordingReader reader(path());
    expectRows(reader, 1, goesOn ? 32 : 30);
    expectRows(reader, 2, 30);
    failed += goesOn ? 1 : 0;
    fs::remove_all(rec);
  }
  EXPECT_GT(failed, 10);
}

// Each call fails once, also those that close files. Nothing is lost, and the recording takes more
// rows and is finished.
TEST_F(LiveFailures, WhatFailsOnceWhileFilesAreFinishedSucceedsAfterwards) {
  using Sync = parquet::SafeStorage::Sync;
  options.storage.batchRows = 20;  // so that contents have files, and their last rows packs
  for (const bool isAll : {false, true}) {
    options.storage.sync = isAll ? Sync::flush : Sync::never;
    bool isReached = true;
    for (int call = 1; isReached; ++call) {
      SCOPED_TRACE(fmt::format("call {} of {}", call, isAll ? "the recording" : "a signal"));
      streams.clear();
      begin(1);
      appendAll(0, 30);
      live->flush();
      appendAll(30, 33);
      const auto finish = [&] { isAll ? void(live->finish()) : streams[0]->finish(); };
      test::faultyDisk::start({call, 1, EIO, /*shortWrites=*/false, /*alsoOpening=*/true});
      errorOf(finish);
      isReached = test::faultyDisk::stop() >= call;
      if (!isAll) appendAll(33, 34);
      ASSERT_EQ(errorOf([&] { live->finish(); }), "");
      RecordingReader reader(path());
      expectRows(reader, 1, isAll ? 33 : 34);
      fs::remove_all(rec);
    }
  }
}

// One flush fails, and the process ends in the next one. What a line of the journal counts are rows
// of the contents that the signal had when the line was written.
TEST_F(LiveFailures, RowsThatWereForgottenStayThroughFailedFlushes) {
  options.storage.sync = parquet::SafeStorage::Sync::flush;
  const auto flushWith = [&](int failAt, int failures) {
    return errorWithFailures(failAt, failures, [&] { live->flush(); });
  };
  bool fails = true;
  for (int first = 1; fails; ++first) {
    for (int second = 1;; ++second) {
      SCOPED_TRACE(fmt::format("calls {} and {}", first, second));
      streams.clear();
      begin(1);
      append(0, 0, 50);
      live->flush();
      streams[0]->resetData();
      append(0, 100, 130);
      fails = !flushWith(first, 1).empty();
      streams[0]->resetData();
      append(0, 200, 240);
      const bool ends = !flushWith(second, 1000).empty();
      crash();
      recoverRecording(path());
      const auto times = RecordingReader(path()).times(1, {0, 1000});
      // Nothing older than what was acknowledged last, and all of it.
      ASSERT_GE(times.at(0), !ends ? 200 : (fails ? 0 : 100));
      ASSERT_EQ(times.size(), times[0] == 0 ? 50U : (times[0] == 100 ? 30U : 40U));
      fs::remove_all(rec);
      if (!ends) break;
    }
  }
}

// Three flushes in a row fail near their end, where the list, the packs and the journal are written
// one after the other. What is recovered is what one of them would have acknowledged.
TEST_F(LiveFailures, WhatSeveralFailedFlushesLeaveFitsTogether) {
  options.storage.sync = parquet::SafeStorage::Sync::flush;
  struct {
    bool resets;
    int first, end;
  } const flushes[] = {{true, 100, 130}, {false, 130, 140}, {true, 200, 240}};
  const std::vector<std::uint64_t> rows{50, 30, 40, 40};  // after none of them, and after each
  std::vector<int> calls;
  // Each of them fails with its last calls, or none of them does.
  constexpr int kLast = 5;
  for (int run = -1; run < kLast * kLast * kLast; ++run) {
    SCOPED_TRACE(run);
    streams.clear();
    begin(1);
    append(0, 0, 50);
    live->flush();
    std::size_t acknowledged = 0;
    int choice = run;
    for (std::size_t i = 0; i < std::size(flushes); ++i) {
      if (flushes[i].resets) streams[0]->resetData();
      append(0, flushes[i].first, flushes[i].end);
      test::faultyDisk::Plan plan;
      if (run >= 0) plan = {calls[i] - choice % kLast, 1000, EIO};
      choice /= kLast;
      test::faultyDisk::start(plan);
      const bool succeeds = errorOf([&] { live->flush(); }).empty();
      const int count = test::faultyDisk::stop();
      if (succeeds) acknowledged = i + 1;
      if (run < 0) calls.push_back(count);
    }
    crash();
    recoverRecording(path());
    const auto times = RecordingReader(path()).times(1, {0, 1000});
    const std::size_t state =
        times.at(0) == 0 ? 0 : (times[0] == 200 ? 3 : (times.size() == 30 ? 1 : 2));
    ASSERT_GE(state, acknowledged);
    ASSERT_EQ(times.size(), rows[state]);
    fs::remove_all(rec);
  }
}

TEST(LiveJournals, ANameThatIsNotOnTheDiskIsSyncedAgain) {
  const test::TempDir temp;
  LiveJournal journal(temp.path().toFilesystem());
  JournalLine line{1, 1, std::vector<std::uint64_t>(5000)};
  std::iota(line.rows.begin(), line.rows.end(), 0);
  const auto append = [&] {
    journal.append(line, /*syncs=*/true, /*isElsewhere=*/false);
    journal.syncName();
  };
  // A line is written and synced. The third call syncs the name of a journal that is replaced.
  std::string error;
  for (int i = 0; i < 100 && error.empty(); ++i) error = errorWithFailures(3, 1, append);
  EXPECT_NE(error, "");
  EXPECT_NE(errorWithFailures(3, 1, append), "");
  EXPECT_EQ(errorWithFailures(4, 1, append), "");
  EXPECT_EQ(errorWithFailures(3, 1, append), "");
}

// What was not synced may come to the disk as zeros. A synced line is among the bytes that are read
// then, however many lines are in packs, too.
TEST(LiveJournals, ALineIsFoundBeforeAllThatWasNotSynced) {
  for (const std::size_t signals : {1U, 3000U, 20'000U}) {
    SCOPED_TRACE(signals);
    const test::TempDir temp;
    const fs::path path = temp.file("recording.journal");
    LiveJournal journal(temp.path().toFilesystem());
    LiveDescription live;
    live.sequence = 1;
    live.signals.resize(signals);
    JournalLine line{1, 0, std::vector<std::uint64_t>(2 * signals)};
    std::iota(line.rows.begin(), line.rows.end(), std::uint64_t{1} << 50U);
    std::uint64_t synced = 0;
    int syncs = 0;
    for (; syncs < 5; ++line.number) {
      test::faultyDisk::start({});
      journal.append(line, /*syncs=*/true, /*isElsewhere=*/line.number > 0);
      const std::uint64_t size = fs::file_size(path);
      if (test::faultyDisk::stop() > 1) {
        synced = size;
        ++syncs;
      }
      if (line.number % std::max<std::uint64_t>(1, 20'000 / signals) != 0) continue;
      const fs::path left = temp.file("left");
      fs::copy_file(path, left, fs::copy_options::overwrite_existing);
      fs::resize_file(left, synced);
      fs::resize_file(left, size);
      const DiskFile file(left, DiskFile::Mode::readOnly);
      ASSERT_TRUE(lastJournalLine(file, live, NewerLines::skipped)) << line.number;
    }
    EXPECT_GT(line.number, 5U);
  }
}

// A journal may be long, and full of lines that claim parts that no signal has.
TEST(LiveJournals, OnlySoundLinesAtTheEndAreRead) {
  const test::TempDir temp;
  const fs::path path = temp.file("recording.journal");
  LiveDescription live;
  live.sequence = 2;
  live.signals.resize(1);
  std::string claims;
  const std::string other = writeJournalLine({2, 1, std::vector<std::uint64_t>(3, 7)});
  const std::string newer = writeJournalLine({3, 2, std::vector<std::uint64_t>(300, 7)});
  for (int i = 0; i < 100; ++i) claims += other + newer;
  const std::string sound = writeJournalLine({2, 3, {5, 6}});
  test::Folder(temp.path().toFilesystem()).touch("recording.journal", sound + claims);
  const DiskFile journal(path, DiskFile::Mode::readOnly);
  const auto found = lastJournalLine(journal, live, NewerLines::skipped);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->line.rows, (std::vector<std::uint64_t>{5, 6}));
  EXPECT_EQ(found->end, sound.size());
  const auto last = lastJournalLine(journal, live, NewerLines::found);
  ASSERT_TRUE(last);
  EXPECT_EQ(last->line.sequence, 3U);
  EXPECT_TRUE(last->line.rows.empty());
  fs::resize_file(path, std::uint64_t{1} << 40U);
  EXPECT_FALSE(lastJournalLine(journal, live, NewerLines::found));
}

}  // namespace
}  // namespace kyr::recording
