#include "recording/LiveRecordingTest.h"

#include <functional>
#include <limits>
#include <stdexcept>

#include "kyr/recording/RecordingReader.h"

namespace kyr::recording {
namespace {

using test::errorOf;
using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::HasSubstr;

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

}  // namespace
}  // namespace kyr::recording
