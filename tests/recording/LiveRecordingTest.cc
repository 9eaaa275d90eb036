#include <fmt/format.h>

#include <functional>
#include <random>
#include <stdexcept>

#include "kyr/recording/LiveRecording.h"
#include "kyr/recording/RecordingReader.h"
#include "kyr/recording/Recovery.h"
#include "recording/FolderFiles.h"
#include "recording/RecordingFormat.h"
#include "recording/RecordingTest.h"

namespace kyr::recording {
namespace {

using Part = parquet::StreamableSignal::SignalPart;
using test::errorOf;
using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Values = std::vector<double>;

// Appends the samples [from, to) of a signal whose sample i is i times \p slope at the time i / 10.
void append(parquet::StreamableSignal& signal, int from, int to, double slope) {
  for (int i = from; i < to; ++i) {
    const double time = i / 10.0;
    const double value = i * slope;
    signal.appendTime(&time, 1);
    signal.appendData(&value, sizeof(value), {}, {});
  }
}

Values sloped(int count, double slope) {
  Values values;
  for (int i = 0; i < count; ++i) values.push_back(i * slope);
  return values;
}

Values numbersIn(const std::vector<char>& bytes) {
  Values values(bytes.size() / sizeof(double));
  if (!bytes.empty()) std::memcpy(values.data(), bytes.data(), bytes.size());
  return values;
}

class LiveRecordings : public test::RecordingTest {
 protected:
  LiveRecordings() { options.storage.batchRows = 16; }

  Path path() const { return Path::fromFilesystem(rec); }
  RecoveryResult recover() const { return recoverRecording(path()); }

  void begin() {
    live = std::make_unique<LiveRecording>(path(), options);
    a = live->addSignal({1, "a", "m", "first", {}}, Double, Scalar);
    b = live->addSignal({2, "b", "", "", {}}, Double, Scalar);
  }

  // The folder as a crash now would leave it, at the place where recordings are recovered.
  void crash(bool flushesFirst = false) {
    if (flushesFirst) live->flush();
    crashBefore([this] {
      a.reset();
      b.reset();
      live.reset();
    });
  }

  void expectSignal(int id, int count, double slope) {
    Recording opened = open(rec);
    const test::Samples samples = test::read(*opened.pool().getSignal(id));
    EXPECT_EQ(numbersIn(samples.data), sloped(count, slope)) << id;
    ASSERT_EQ(samples.time.size(), static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) EXPECT_EQ(samples.time[std::size_t(i)], i / 10.0);
  }

  LiveOptions options;
  std::unique_ptr<LiveRecording> live;
  std::shared_ptr<parquet::StreamableSignal> a;
  std::shared_ptr<parquet::StreamableSignal> b;
};

TEST_F(LiveRecordings, FinishedIsAnOrdinaryRecording) {
  begin();
  append(*a, 0, 100, 1);
  append(*b, 0, 100, 2);
  live->flush();
  append(*a, 100, 150, 1);
  const auto whole = live->pool().getSignal(9);
  whole->setDataType(Double);
  whole->setCategory(Scalar);
  whole->setData({0, 1}, std::vector<char>(16), {}, {});
  EXPECT_THROW(live->addSignal({1, "again", "", "", {}}, Double, Scalar), std::invalid_argument);
  EXPECT_THROW(live->addSignal({3, "\xff", "", "", {}}, Double, Scalar), std::invalid_argument);
  live->finish();
  live->finish();
  EXPECT_EQ(test::Folder(rec).names(),
            (test::Names{"recording.json", "signals.parquet", "storage"}));
  EXPECT_EQ(faults(rec), "");
  expectSignal(1, 150, 1);
  expectSignal(2, 100, 2);
  const auto info = describeRecording(path()).signals;
  EXPECT_EQ(info[0].unit + info[0].description, "mfirst");
  EXPECT_EQ(info.back().name, "signal 9");
  EXPECT_THROW(live->flush(), std::logic_error);
  EXPECT_TRUE(recover().wasComplete);
}

// What the calls of a signal refuse would be faults of the finished recording.
TEST_F(LiveRecordings, SignalsRefuseWhatDoesNotFitTheirDescription) {
  live = std::make_unique<LiveRecording>(path(), options);
  const auto matrix = live->addSignal({1, "m", "", "", {2, 2}}, Double, FixedDim);
  const auto number = live->addSignal({2, "n", "", "", {}}, Int32, Scalar);
  const Values nine(9, 1.0);
  const double times[]{0, 1};
  matrix->appendTime(times, 2);
  EXPECT_THAT(errorOf([&] {
                matrix->appendData(nine.data(), 72, {{3, 3}}, {});
              }),
              AllOf(HasSubstr("signal 1 \"m\""), HasSubstr("[3, 3]"), HasSubstr("[2, 2]")));
  EXPECT_THROW(matrix->appendData(nine.data(), 32, {{1, 4}}, {}), std::invalid_argument);
  EXPECT_THROW(matrix->appendData(nine.data(), 32, {}, {}), std::invalid_argument);
  matrix->appendData(nine.data(), 64, {{2, 2}, {2, 2}}, {});
  const int one = 1;
  number->appendTime(times, 1);
  number->appendData(&one, sizeof(one), {}, {});
  EXPECT_THAT(errorOf([&] { number->setCategory(FixedDim); }), HasSubstr("signal 2 \"n\""));
  EXPECT_THROW(number->setDataType(Double), std::logic_error);
  number->setCategory(Scalar);
  EXPECT_TRUE(live->finish().unpaired.empty());
  EXPECT_EQ(faults(rec), "");
  EXPECT_THROW(number->appendTime(times, 1), std::logic_error);
  live.reset();
  EXPECT_THAT(errorOf([&] { number->appendData(&one, sizeof(one), {}, {}); }),
              HasSubstr("its recording is closed"));
}

TEST_F(LiveRecordings, FinishLeavesRowsWithoutPartnerOutAndTellsThem) {
  for (const bool sharesTimes : {false, true}) {
    SCOPED_TRACE(sharesTimes);
    fs::remove_all(rec);
    begin();
    append(*a, 0, 40, 1);
    append(*b, 0, 30, 2);
    const Values more = sloped(7, 0.5);
    a->appendTime(more.data(), 7);
    b->appendData(more.data(), 5 * sizeof(double), {}, {});
    // A third signal whose times go on where those of the first end, and one without samples.
    const auto c = live->addSignal({3, "c", "", "", {}}, Double, Scalar);
    if (sharesTimes) {
      append(*c, 0, 40, 3);
      c->appendTime(more.data(), 7);
      c->appendData(more.data(), 7 * sizeof(double), {}, {});
    }
    const auto times = live->addSignal({4, "times", "", "", {}}, Double, Scalar);
    times->appendTime(more.data(), 7);
    live->flush();
    const FinishReport report = live->finish();
    ASSERT_EQ(report.unpaired.size(), 2U);
    EXPECT_EQ(report.unpaired[0].signalId, 1);
    EXPECT_EQ(report.unpaired[0].name, "a");
    EXPECT_EQ(report.unpaired[0].times, 7U);
    EXPECT_EQ(report.unpaired[0].samples, 0U);
    EXPECT_EQ(report.unpaired[1].signalId, 2);
    EXPECT_EQ(report.unpaired[1].samples, 5U);
    EXPECT_EQ(faults(rec), "");
    expectSignal(1, 40, 1);
    expectSignal(2, 30, 2);
    EXPECT_EQ(describeRecording(path()).signals[2].rowCount, sharesTimes ? 47U : 0U);
    live.reset();
  }
}

// Two signals are cut to rows in which their longer times, which differ later, are still the same.
TEST_F(LiveRecordings, SignalsThatAreCutWhereTheirTimesWereSharedShareThem) {
  live = std::make_unique<LiveRecording>(path(), options);
  Values other = sloped(10, 1);
  for (std::size_t i = 5; i < other.size(); ++i) other[i] += 0.5;
  const Values rows[] = {sloped(10, 1), other, sloped(10, 1), other};
  for (int id = 1; id <= 4; ++id) {
    const auto signal = live->addSignal({id, "", "", "", {}}, Double, Scalar);
    const Values& times = rows[id - 1];
    signal->appendTime(times.data(), times.size());
    signal->appendData(sloped(10, id).data(), (id <= 2 ? 10 : 3) * sizeof(double), {}, {});
  }
  EXPECT_EQ(live->finish().unpaired.size(), 2U);
  EXPECT_EQ(faults(rec), "");
  const auto signals = describeRecording(path()).signals;
  EXPECT_EQ(signals[2].timeStorageId, signals[3].timeStorageId);
  EXPECT_NE(signals[0].timeStorageId, signals[1].timeStorageId);
}

TEST_F(LiveRecordings, RowsOfASignalThatThePoolLostAreThereUntilTheRecordingIsFinished) {
  for (const bool crashes : {true, false}) {
    fs::remove_all(rec);
    begin();
    append(*a, 0, 40, 1);
    append(*b, 0, 40, 2);
    live->flush();
    live->pool().deleteSignal(1);
    live->pool().getStreamableSignal(1);  // another one
    append(*a, 40, 50, 1);
    append(*b, 40, 50, 2);
    live->flush();
    EXPECT_EQ(RecordingReader(path()).sampleCount(1), 50U);
    if (crashes) {
      crash();
      recover();
      expectSignal(1, 50, 1);
    } else {
      live->finish();
      EXPECT_EQ(describeRecording(path()).signals[0].rowCount, 0U);
    }
    expectSignal(2, 50, 2);
    EXPECT_EQ(faults(rec), "");
    live.reset();
  }
}

TEST_F(LiveRecordings, SignalsOfThePoolStoreNothingInAClosedRecording) {
  using Signal = parquet::StreamableSignal;
  const std::function<void(Signal&)> calls[] = {
      [](Signal& signal) {
        append(signal, 40, 80, 1);
        signal.flush();
      },
      [](Signal& signal) { signal.finish(); },
      [](Signal& signal) { signal.flush(); },
  };
  for (const bool finishes : {true, false}) {
    for (const auto& call : calls) {
      fs::remove_all(rec);
      begin();
      append(*a, 0, 40, 1);
      append(*b, 0, 40, 2);
      live->flush();
      const auto held = live->pool().getStreamableSignal(1);
      const auto fresh = live->pool().getStreamableSignal(7);
      fresh->setDataType(Double);
      fresh->setCategory(Scalar);
      append(*fresh, 100, 140, 3);
      const auto lost = live->pool().getStreamableSignal(2);
      live->pool().deleteSignal(2);
      if (finishes) {
        live->finish();
      } else {
        crash();
        recover();
      }
      for (const auto& signal : {held, fresh, lost}) {
        const std::string error = errorOf([&] { call(*signal); });
        EXPECT_THAT(error, AnyOf("", HasSubstr("its recording is closed")));
      }
      if (a) a->finish();
      live.reset();
      EXPECT_EQ(faults(rec), "");
      expectSignal(1, 40, 1);
    }
  }
}

TEST_F(LiveRecordings, PoolsInAnotherDirectoryAcknowledgeNothing) {
  begin();
  append(*a, 0, 40, 1);
  append(*b, 0, 40, 2);
  live->flush();
  live->pool().setParquetDirectory(Path::fromFilesystem(temp.file("other")));
  EXPECT_THAT(errorOf([&] { live->flush(); }), HasSubstr("has another directory"));
  crash();
  recover();
  expectSignal(1, 40, 1);
}

// What a flush acknowledged can be finished and recovered, however long the names are.
TEST_F(LiveRecordings, LongNamesOfManySignalsCanBeFinished) {
  live = std::make_unique<LiveRecording>(path(), options);
  const std::string name(60'000, 'n');
  EXPECT_THROW(live->addSignal({1, std::string(65'537, 'n'), "", "", {}}, Double, Scalar),
               std::invalid_argument);
  std::vector<std::shared_ptr<parquet::StreamableSignal>> signals;
  for (int i = 1; i <= 300; ++i) {
    signals.push_back(live->addSignal({i, name + std::to_string(i), "", "", {}}, Double, Scalar));
  }
  for (int round = 0; round < 3; ++round) {
    for (const auto& signal : signals) append(*signal, round * 10, round * 10 + 10, 1);
    live->flush();
  }
  crash();
  EXPECT_EQ(recover().signals.size(), signals.size());
  EXPECT_EQ(faults(rec), "");
}

TEST_F(LiveRecordings, ADeletedSignalDoesNotComeBack) {
  begin();
  append(*a, 0, 40, 1);
  live->flush();
  live->pool().deleteSignal(1);
  EXPECT_THAT(errorOf([&] {
                live->addSignal({1, "again", "", "", {}}, Double, Scalar);
              }),
              HasSubstr("signal 1 was added before"));
  live->finish();
  EXPECT_EQ(faults(rec), "");
}

TEST_F(LiveRecordings, RefusesFoldersThatAreNotEmpty) {
  fs::create_directory(rec);
  test::Folder(rec).touch("notes.txt");
  EXPECT_THROW(LiveRecording(path(), options), std::runtime_error);
  EXPECT_EQ(test::Folder(rec).names(), test::Names{"notes.txt"});
  fs::remove(rec / "notes.txt");
  begin();
  EXPECT_THROW(LiveRecording(path(), options), std::runtime_error);
  EXPECT_THROW(LiveRecording(Path::fromFilesystem(temp.file("no/folder")), options),
               std::exception);
}

TEST_F(LiveRecordings, OthersReadAlong) {
  begin();
  EXPECT_TRUE(isLiveRecording(path()));
  live->flush();
  RecordingReader reader(path());
  const auto samplesOf = [&](int id, std::uint64_t from) {
    return numbersIn(reader.read(id, {from, 1000}).bytes);
  };
  append(*a, 0, 40, 1);
  append(*b, 0, 40, 1);
  live->flush();
  append(*a, 40, 60, 1);
  const auto early = live->addSignal({3, "early", "", "", {}}, Double, Scalar);
  append(*early, 0, 5, 7);
  early->finish();
  EXPECT_EQ(samplesOf(1, 0), Values());
  ASSERT_TRUE(reader.refresh());
  EXPECT_FALSE(reader.refresh());
  EXPECT_EQ(reader.state(), RecordingState::beingRecorded);
  EXPECT_EQ(reader.sampleCount(1), 40U);
  EXPECT_EQ(samplesOf(1, 38), Values({38, 39}));
  SampleBlocks blocks = reader.blocks(1, {10, 50}, 7);
  // The second signal differs from the first from here on, and gets files of its own.
  append(*b, 40, 60, 3);
  live->flush();
  ASSERT_TRUE(reader.refresh());
  EXPECT_EQ(samplesOf(2, 39), [] {
    Values values{39};
    for (int i = 40; i < 60; ++i) values.push_back(i * 3);
    return values;
  }());
  EXPECT_EQ(reader.times(2, {59, 99}), Values{5.9});
  EXPECT_EQ(samplesOf(3, 3), Values({21, 28}));
  EXPECT_EQ(reader.rowsBetween(1, 3.9, 4.05), std::vector<RowRange>({{39, 41}}));
  EXPECT_EQ(reader.timeSpan(1)->to, 5.9);
  // A span with an infinite time is none, as in a finished recording.
  const double never = std::numeric_limits<double>::infinity();
  const auto endless = live->addSignal({4, "endless", "", "", {}}, Double, Scalar);
  append(*endless, 0, 1, 1);
  endless->appendTime(&never, 1);
  live->flush();
  ASSERT_TRUE(reader.refresh());
  EXPECT_EQ(reader.timeCount(4), 2U);
  EXPECT_FALSE(reader.timeSpan(4));
  for (const std::string& error :
       {errorOf([&] { describeRecording(path()); }), errorOf([&] { openRecording(path()); }),
        errorOf([&] { verifyRecording(path()); }), errorOf([&] { recover(); })}) {
    EXPECT_THAT(error, HasSubstr("still being recorded"));
  }
  live.reset();
  EXPECT_FALSE(describeLiveRecording(path()).isBeingWritten);
  ASSERT_TRUE(reader.refresh());
  EXPECT_EQ(reader.state(), RecordingState::notFinished);
  EXPECT_EQ(samplesOf(1, 59), Values{59});
  EXPECT_THAT(errorOf([&] { describeRecording(path()); }), HasSubstr("kyr recover"));
  recover();
  ASSERT_TRUE(reader.refresh());
  EXPECT_EQ(reader.state(), RecordingState::finished);
  EXPECT_EQ(samplesOf(2, 59), Values{177});
  // Blocks that were asked for before the refresh give the rows of that time.
  Values walked;
  while (const SampleBlock* block = blocks.next()) {
    const auto* const values = static_cast<const double*>(block->elements);
    walked.insert(walked.end(), values, values + block->rows);
  }
  ASSERT_EQ(walked.size(), 30U);
  EXPECT_EQ(walked.back(), 39);
}

// Rows that were not flushed are not read, even where they are in a file that others share.
TEST_F(LiveRecordings, RecoversExactlyWhatWasFlushed) {
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
TEST_F(LiveRecordings, ForgottenSignalsCostOthersNothing) {
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
TEST_F(LiveRecordings, TornJournalLinesAreNoticed) {
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

TEST_F(LiveRecordings, LostRowsAreTold) {
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
TEST_F(LiveRecordings, RecoveryThatWasKilledIsRepeated) {
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
TEST_F(LiveRecordings, RebuildsWhatFilesTell) {
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
TEST_F(LiveRecordings, CrashAtAnyMomentKeepsEveryAcknowledgedRow) {
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
