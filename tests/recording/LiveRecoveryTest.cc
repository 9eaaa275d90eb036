#include <fmt/format.h>

#include <functional>
#include <random>
#include <stdexcept>

#include "kyr/recording/RecordingReader.h"
#include "recording/LiveRecordingTest.h"
#include "recording/RecordingFormat.h"

namespace kyr::recording {
namespace {

using test::errorOf;
using ::testing::HasSubstr;

using LiveRecoveries = LiveRecordings;

// Rows that were not flushed are not read, even where they are in a file that others share.
TEST_F(LiveRecoveries, RecoversExactlyWhatWasFlushed) {
  begin();
  append(*a, 0, 50, 1);
  append(*b, 0, 20, 1);
  live->flush();
  append(*a, 50, 200, 1);
  crash();
  const RecoveryResult result = recover();
  EXPECT_FALSE(result.hasLosses());
  EXPECT_EQ(faults(rec), "");
  expectSignal(1, 50, 1);
  expectSignal(2, 20, 1);
  EXPECT_FALSE(isLiveRecording(path()));
  EXPECT_TRUE(recover().wasComplete);
}

// The file of acknowledged rows stays until a flush has said where they are now.
TEST_F(LiveRecoveries, ForgottenSignalsCostOthersNothing) {
  begin();
  append(*a, 0, 100, 1);
  append(*b, 0, 50, 1);
  live->flush();
  a->resetData();
  append(*b, 50, 60, 3);
  crash();
  EXPECT_EQ(recover().signals.at(1).rowsKept, 50U);
  expectSignal(2, 50, 1);
}

// The last whole line of the journal counts, however the journal ends.
TEST_F(LiveRecoveries, TornJournalLinesAreNoticed) {
  begin();
  std::vector<std::uint64_t> ends;
  for (int flushes = 0; flushes < 3; ++flushes) {
    append(*a, flushes * 10, flushes * 10 + 10, 1);
    append(*b, flushes * 10, flushes * 10 + 10, 2);
    live->flush();
    ends.push_back(fs::file_size(rec / "recording.journal"));
  }
  const std::string journal = test::Folder(rec).contents("recording.journal");
  for (std::uint64_t size = 0; size <= journal.size(); ++size) {
    std::uint64_t expected = 0;
    for (const std::uint64_t end : ends) expected += size >= end ? 10 : 0;
    std::string damaged = journal;
    if (size < journal.size()) damaged[size] ^= 1;
    test::Folder(rec).touch("recording.journal", journal.substr(0, size));
    ASSERT_EQ(describeLiveRecording(path()).signals[1].dataRows, expected) << size;
    test::Folder(rec).touch("recording.journal", damaged);
    // A damaged line feed costs both lines.
    const bool costsBoth = size + 1 == ends[1];
    const bool costsLast = size >= ends[1] && size < journal.size();
    ASSERT_EQ(describeLiveRecording(path()).signals[1].dataRows,
              costsBoth ? 10U : (costsLast ? 20U : 30U))
        << size;
  }
}

// A power cut may leave any part of the lines that were not synced, because a pack has them, too.
TEST_F(LiveRecoveries, APackHasTheLinesThatTheJournalHasLost) {
  options.storage.sync = parquet::SafeStorage::Sync::flush;
  begin();
  const auto c = live->addSignal({3, "c", "", "", {}}, Int32, Scalar);
  std::vector<std::string> journals;
  for (int flushes = 0; flushes < 4; ++flushes) {
    append(*a, flushes * 3, flushes * 3 + 3, 1);
    append(*b, flushes * 3, flushes * 3 + 3, 2);
    for (int i = flushes * 3; i < flushes * 3 + 3; ++i) c->appendData(&i, sizeof(i), {}, {});
    live->flush();
    journals.push_back(test::Folder(rec).contents("recording.journal"));
  }
  const std::string& synced = journals[0];
  const fs::path folder = temp.file("left");
  fs::copy(rec, folder, fs::copy_options::recursive);
  crash();
  for (const std::string& left :
       {synced, synced + std::string(100, '\0'), journals[1],
        journals[1] + journals[3].substr(journals[1].size() + 5), journals[3],
        journals[3] + "2 99 6", journals[3] + std::string(100, '\0')}) {
    SCOPED_TRACE(left);
    fs::remove_all(rec);
    fs::copy(folder, rec, fs::copy_options::recursive);
    test::Folder(rec).touch("recording.journal", left);
    EXPECT_EQ(numbersIn(RecordingReader(path()).read(2).bytes), sloped(12, 2));
    const RecoveryResult result = recover();
    EXPECT_FALSE(result.hasLosses());
    EXPECT_EQ(result.signals.at(2).rowsKept, 12U);
    EXPECT_EQ(faults(rec), "");
    expectSignal(1, 12, 1);
  }
  // Nobody knows which lines a journal had that is damaged elsewhere.
  fs::remove_all(rec);
  fs::copy(folder, rec, fs::copy_options::recursive);
  std::string damaged = journals[3];
  damaged[journals[2].size() + 1] ^= 1;
  test::Folder(rec).touch("recording.journal", damaged);
  EXPECT_TRUE(recover().hasLosses());
  expectSignal(1, 12, 1);
}

// A signal that is reset may get rows that others have, too: fewer than it had of the same content.
TEST_F(LiveRecoveries, LinesAreNewerThatCountFewerRows) {
  options.storage.sync = parquet::SafeStorage::Sync::flush;
  begin();
  const auto c = live->addSignal({3, "c", "", "", {}}, Int32, Scalar);
  const auto appendZeros = [](parquet::StreamableSignal& signal, int count) {
    const Values zeros(static_cast<std::size_t>(count));
    signal.appendData(zeros.data(), zeros.size() * sizeof(double), {}, {});
  };
  for (const int rows : {10, 990}) {
    appendZeros(*a, rows);
    appendZeros(*b, rows);
    live->flush();
  }
  a->resetData();
  appendZeros(*a, 3);
  int rows = 0;
  for (; rows < 5; ++rows) {
    c->appendData(&rows, sizeof(rows), {}, {});
    live->flush();
  }
  crash();
  for (const bool isRecovered : {false, true}) {
    if (isRecovered) {
      EXPECT_FALSE(recover().hasLosses());
    }
    const RecordingReader reader(path());
    EXPECT_EQ(reader.sampleCount(1), 3U);
    EXPECT_EQ(reader.sampleCount(2), 1000U);
    EXPECT_EQ(reader.sampleCount(3), 5U);
  }
}

TEST_F(LiveRecoveries, LostRowsAreTold) {
  begin();
  append(*a, 0, 100, 1);
  append(*b, 0, 100, 2);
  crash(/*flushesFirst=*/true);
  const auto state = describeLiveRecording(path());
  const fs::path file = rec / "storage" / storageName(*state.signals[1].dataStorageId);
  fs::resize_file(file, fs::file_size(file) / 2);
  const std::string missing = errorOf([&] { RecordingReader(path()).read(2, {97, 98}); });
  const RecoveryResult result = recover();
  ASSERT_EQ(result.signals.size(), 2U);
  EXPECT_EQ(result.signals[0].rowsLost, 0U);
  const RecoveredSignal& lost = result.signals[1];
  EXPECT_EQ(lost.rowsKept + lost.rowsLost, 100U);
  EXPECT_EQ(lost.rowsKept % 16, 0U);
  EXPECT_THAT(missing, HasSubstr(fmt::format("{0} rows: row {0} and those", lost.rowsKept)));
  ASSERT_TRUE(lost.secondsLost);
  EXPECT_NEAR(*lost.secondsLost, static_cast<double>(lost.rowsLost) / 10, 1e-9);
  EXPECT_EQ(faults(rec), "");
  expectSignal(1, 100, 1);
  expectSignal(2, static_cast<int>(lost.rowsKept), 2);
}

// A killed recovery leaves cut files, new files, or recording.json beside the journal.
TEST_F(LiveRecoveries, RecoveryThatWasKilledIsRepeated) {
  begin();
  append(*a, 0, 50, 1);
  append(*b, 0, 20, 1);
  crash(/*flushesFirst=*/true);
  const std::string description = test::Folder(rec).contents("recording.live.json");
  const std::string journal = test::Folder(rec).contents("recording.journal");
  recover();
  test::Folder(rec).touch("recording.live.json", description);
  test::Folder(rec).touch("recording.journal", journal);
  test::Folder(rec).touch("storage/77.parquet", "half a file");
  recover();
  EXPECT_EQ(faults(rec), "");
  EXPECT_EQ(test::Folder(rec).names(),
            (test::Names{"recording.json", "signals.parquet", "storage"}));
  expectSignal(1, 50, 1);
  expectSignal(2, 20, 1);
}

// Without a description, signals are made of what the files hold, under makeshift names.
TEST_F(LiveRecoveries, RebuildsWhatFilesTell) {
  struct {
    const char* name;
    bool finishes;
    std::function<void()> damage;
  } const cases[] = {
      {"no description", false, [&] { fs::remove(rec / "recording.live.json"); }},
      {"damaged description", false, [&] { fs::resize_file(rec / "recording.live.json", 30); }},
      {"no recording.json", true, [&] { fs::remove(rec / "recording.json"); }},
      {"cut recording.json", true, [&] { fs::resize_file(rec / "recording.json", 100); }},
      {"one bit of recording.json", true,
       [&] {
         std::string text = test::Folder(rec).contents("recording.json");
         text[text.find("first")] ^= 1;
         test::Folder(rec).touch("recording.json", text);
       }},
  };
  for (const auto& [name, finishes, damage] : cases) {
    SCOPED_TRACE(name);
    begin();
    append(*a, 0, 50, 1);
    append(*b, 0, 50, 2);
    if (finishes) live->finish();
    crash(!finishes);
    damage();
    const RecoveryResult result = recover();
    EXPECT_TRUE(result.hasLosses());
    EXPECT_EQ(faults(rec), "");
    Recording opened = open(rec);
    std::set<Values> found;
    EXPECT_EQ(opened.info().signals[1].name, "b");
    for (const SignalInfo& signal : opened.info().signals) {
      found.insert(numbersIn(test::read(*opened.pool().getSignal(signal.signalId)).data));
    }
    EXPECT_EQ(found.count(sloped(50, 1)), 1U);
    EXPECT_EQ(found.count(sloped(50, 2)), 1U);
    fs::remove_all(rec);
  }
  fs::create_directories(rec / "storage");
  EXPECT_THROW(recover(), std::runtime_error);
  RecordingInfo newer;
  newer.formatVersion = 4;
  const std::string text = writeRecordingJson(newer);
  test::Folder(rec).touch("recording.json", text);
  EXPECT_THAT(errorOf([&] { recover(); }), HasSubstr("newer"));
  EXPECT_EQ(test::Folder(rec).contents("recording.json"), text);
}

// Compares signals of all kinds, which are equal up to random rows, with what they were at the last
// flush.
TEST_F(LiveRecoveries, CrashAtAnyMomentKeepsEveryAcknowledgedRow) {
  for (unsigned round = 0; round < 40; ++round) {
    SCOPED_TRACE(round);
    std::minstd_rand random(round + 1);
    // Rows that are flushed are batches of files, or too few for them.
    options.storage.batchRows = 16U << (round % 3 * 2);
    if (round % 2 == 1) options.storage.batchBytes = 512;
    live = std::make_unique<LiveRecording>(path(), options);
    std::vector<std::shared_ptr<parquet::StreamableSignal>> signals;
    std::vector<Values> times;
    std::vector<Values> samples;
    std::vector<std::pair<Values, Values>> flushed;
    const auto count = 2 + random() % 5;
    const auto steps = 20 + random() % 300;
    for (unsigned long step = 0; step < steps; ++step) {
      if (signals.size() < count && random() % 4 == 0) {
        const int id = static_cast<int>(signals.size());
        signals.push_back(live->addSignal({id, "", "", "", {}}, Double, Scalar));
        times.emplace_back();
        samples.emplace_back();
      }
      for (std::size_t i = 0; i < signals.size(); ++i) {
        if (random() % 20 == 0) continue;
        const double time = static_cast<double>(times[i].size());
        const double value = random() % 30 == 0 ? double(i) : time / 4;
        signals[i]->appendTime(&time, 1);
        signals[i]->appendData(&value, sizeof(value), {}, {});
        times[i].push_back(time);
        samples[i].push_back(value);
      }
      if (random() % 25 != 0) continue;
      live->flush();
      flushed.clear();
      for (std::size_t i = 0; i < signals.size(); ++i) flushed.emplace_back(times[i], samples[i]);
    }
    signals.clear();
    crash();
    if (flushed.empty()) {
      fs::remove_all(rec);
      continue;
    }
    EXPECT_FALSE(recover().hasLosses());
    EXPECT_EQ(faults(rec), "");
    Recording opened = open(rec);
    for (std::size_t i = 0; i < flushed.size(); ++i) {
      const test::Samples found = test::read(*opened.pool().getSignal(static_cast<int>(i)));
      ASSERT_EQ(found.time, flushed[i].first) << i;
      ASSERT_EQ(numbersIn(found.data), flushed[i].second) << i;
    }
    fs::remove_all(rec);
  }
}

}  // namespace
}  // namespace kyr::recording
