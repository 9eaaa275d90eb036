#include <fmt/format.h>

#include <tuple>

#include "kyr/parquet/StreamableSignal.h"
#include "kyr/recording/RecordingReader.h"
#include "kyr/recording/Recovery.h"
#include "recording/RecordingFormat.h"
#include "recording/RecordingTest.h"
#include "recording/SampleSignals.h"

namespace kyr::recording {
namespace {

using test::Samples;

// Whether signals are streamed when they are stored and when the recording is opened.
using Modes = std::tuple<bool, bool>;

class GoldenRecording : public test::RecordingTest {};
class RoundTrip : public GoldenRecording, public ::testing::WithParamInterface<Modes> {};

void setStreaming(bool on) { FeatureFlag::set("fKYRUseParquetRowGroup", on); }

Samples readAs(const test::SampleSignal& sample, Recording& opened, bool streaming = false) {
  const int id = sample.description.signalId;
  const std::size_t rows = sample.samples.time.size();
  // A fixed shape is not stored: the reader leaves the one it was given.
  Samples found{{}, {}, sample.samples.dims, {}};
  if (!streaming) return test::read(*opened.pool().getSignal(id), found);
  const auto signal = opened.pool().getStreamableSignal(id);
  std::vector<char> time;
  signal->getTime(0, rows, time);
  found.time.resize(time.size() / sizeof(double));
  std::memcpy(found.time.data(), time.data(), time.size());
  signal->getData(0, rows, found.data, found.dims, found.lengths);
  return found;
}

TEST_P(RoundTrip, EverySignalComesBackAndIsSavedAgainAlike) {
  const auto [streamed, streaming] = GetParam();
  const auto signals = test::sampleSignals();
  auto descriptions = test::descriptionsOf(signals);
  descriptions.push_back({-5, "never written", "", "", {}});
  setStreaming(streamed);
  parquet::SignalPool stored;
  test::storeSignals(stored, signals);
  save(stored, descriptions, rec);
  EXPECT_EQ(faults(rec), "");

  setStreaming(streaming);
  Recording opened = open(rec);
  ASSERT_EQ(opened.info().signals.size(), signals.size() + 1);
  for (const test::SampleSignal& sample : signals) {
    EXPECT_EQ(readAs(sample, opened, streaming), sample.samples) << sample.description.name;
  }
  const fs::path again = temp.file("again");
  save(opened.pool(), opened.descriptions(), again);
  EXPECT_EQ(faults(again), "");
  if (streaming) return;
  EXPECT_EQ(writeRecordingJson(describeRecording(Path::fromFilesystem(again))),
            writeRecordingJson(opened.info()));
}

INSTANTIATE_TEST_SUITE_P(Modes, RoundTrip,
                         ::testing::Combine(::testing::Bool(), ::testing::Bool()));

// Recordings that older versions wrote: plain, packed, and one that was not finished. Whatever
// changes, they stay readable.
void expectSamples(Recording& opened, const std::vector<test::SampleSignal>& signals,
                   std::size_t step) {
  for (std::size_t i = 0; i < signals.size(); i += step) {
    EXPECT_EQ(opened.info().signals[i / step].name, signals[i].description.name);
    EXPECT_EQ(readAs(signals[i], opened), signals[i].samples) << signals[i].description.name;
  }
}

TEST_F(GoldenRecording, ReadsAsOnTheDayItWasMadeAndIsSavedInTheNewestVersion) {
  const auto signals = test::sampleSignals();
  for (const int version : {1, 2}) {
    const fs::path golden = fs::path(KYR_TEST_DATA) / fmt::format("golden-v{}", version);
    EXPECT_EQ(faults(golden), "");
    Recording opened = open(golden);
    EXPECT_EQ(opened.info().formatVersion, version);
    ASSERT_EQ(opened.info().signals.size(), 48U);
    EXPECT_EQ(opened.info().signals[47].name, "never written");
    expectSamples(opened, signals, 1);

    const fs::path now = temp.file(fmt::format("from-{}", version));
    save(opened.pool(), opened.descriptions(), now);
    EXPECT_EQ(faults(now), "");
    Recording again = open(now);
    EXPECT_EQ(again.info().formatVersion, kFormatVersion);
    expectSamples(again, signals, 1);
    for (const FileInfo& file : again.info().files) {
      EXPECT_TRUE(fs::exists(now / pathOf(again.info(), file)));
    }

    // Another description leaves the files, and so the version, as they are.
    const fs::path copy = temp.file(fmt::format("copy-{}", version));
    fs::copy(golden, copy, fs::copy_options::recursive);
    SignalDescription renamed = opened.info().signals[0];
    renamed.name = "renamed";
    updateRecording(Path::fromFilesystem(copy), {renamed}, {});
    EXPECT_EQ(faults(copy), "");
    EXPECT_EQ(open(copy).info().formatVersion, version);
  }
}

TEST_F(GoldenRecording, ThatWasNotFinishedIsReadAndRecovered) {
  const auto signals = test::sampleSignals();
  for (const int version : {1, 2, 3}) {
    const fs::path live = temp.file(fmt::format("live-{}", version));
    fs::copy(fs::path(KYR_TEST_DATA) / fmt::format("golden-live-v{}", version), live,
             fs::copy_options::recursive);
    const Path folder = Path::fromFilesystem(live);
    EXPECT_EQ(describeLiveRecording(folder).formatVersion, version);
    for (const bool isRecovered : {false, true}) {
      if (isRecovered) {
        EXPECT_FALSE(recoverRecording(folder).hasLosses());
      }
      RecordingReader reader(folder);
      ASSERT_EQ(reader.signals().size(), 12U);
      for (std::size_t i = 0; i < signals.size(); i += 4) {
        const SampleRows rows = reader.read(signals[i].description.signalId);
        EXPECT_EQ(rows.times, signals[i].samples.time);
        EXPECT_EQ(rows.bytes, signals[i].samples.data) << signals[i].description.name;
      }
    }
    EXPECT_EQ(faults(live), "");
    Recording opened = open(live);
    EXPECT_EQ(opened.info().formatVersion, kFormatVersion);
    if (version > 1) {
      EXPECT_EQ(opened.info().attributes.at("model"), "\"golden\"");
    }
    expectSamples(opened, signals, 4);
  }
}

class OpenedRecording : public test::RecordingTest {
 protected:
  // Signals 1 and 2 share their time file, 2 and 3 all files; 4 is a clock, whose samples are its
  // time; 5 has its time in its data file.
  void SetUp() override {
    put(pool, 1, one);
    put(pool, 2, two);
    put(pool, 3, two);
    put(pool, 4, {two.time, test::bytesOf(two.time), {}, {}}, Double);
    parquet::serialization_options::bSharedTimeColumn = false;
    put(pool, 5, one);
    parquet::serialization_options::bSharedTimeColumn = true;
    save(rec);
    saved = everythingIn(rec);
    pool.reset(temp.path().join("other"));
    fs::remove_all(store.path().toFilesystem());
  }

  void TearDown() override {
    EXPECT_EQ(everythingIn(rec), saved);
    EXPECT_THAT(temp.names(), ::testing::ElementsAre("rec")) << "a working directory is left";
  }

  Samples samplesOf(Recording& opened, int id) { return test::read(*opened.pool().getSignal(id)); }

  const Samples one = ramp({1, 2, 3});
  const Samples two = ramp({4, 5, 6});
  std::map<std::string, std::string> saved;
};

TEST_F(OpenedRecording, NewSignalsTakeNoIdOfTheRecording) {
  const std::vector<std::vector<int>> choices{{1, 2, 3, 4, 5}, {1}, {5, 5}, {}};
  for (const auto& ids : choices) {
    Recording opened = openRecording(Path::fromFilesystem(rec), ids);
    const auto added = put(opened.pool(), 9, ramp({7, 8}));
    for (const char part : {'\0', '\1'}) {
      EXPECT_GT(added->getStorageId(part), opened.info().files.back().storageId);
    }
    for (const int id : ids) EXPECT_EQ(samplesOf(opened, id).data.size(), id == 4 ? 24U : 6U);
    EXPECT_EQ(opened.descriptions().size(), std::set<int>(ids.begin(), ids.end()).size());
    EXPECT_EQ(samplesOf(opened, 9), ramp({7, 8}));
  }
}

TEST_F(OpenedRecording, SharedFilesLastAsLongAsTheirLastSignal) {
  Recording opened = open(rec);
  opened.pool().deleteSignal(1);
  opened.pool().getSignal(2)->resetData();
  EXPECT_EQ(samplesOf(opened, 3), two);
  opened.pool().deleteSignal(3);
  EXPECT_EQ(samplesOf(opened, 4).time, two.time);
  EXPECT_EQ(samplesOf(opened, 4).data, test::bytesOf(two.time));
  EXPECT_EQ(samplesOf(opened, 5), one);
  put(opened.pool(), 2, one);
  EXPECT_EQ(opened.descriptions().size(), 3U);

  save(opened.pool(), opened.descriptions(), temp.file("less"));
  Recording less = open(temp.file("less"));
  EXPECT_EQ(samplesOf(less, 2), one);
  fs::remove_all(temp.file("less"));
}

TEST_F(OpenedRecording, UnwrittenSignalTakesTheTimeLayoutOfTheProcess) {
  Recording opened = open(rec);
  save(opened.pool(), {{9, "", "", "", {}}}, temp.file("more"));
  Recording more = open(temp.file("more"));
  EXPECT_NE(put(more.pool(), 9, ramp({7, 8}))->getStorageId(0), test::kNone);
  fs::remove_all(temp.file("more"));
}

TEST_F(OpenedRecording, HeldSignalOutlivesTheRecording) {
  auto opened = std::make_unique<Recording>(open(rec));
  auto held = opened->pool().getSignal(5);
  const fs::path directory = held->getParquetDirectory().toFilesystem();
  opened.reset();
  EXPECT_EQ(test::read(*held), one);
  held.reset();
  EXPECT_FALSE(fs::exists(directory));
}

TEST_F(OpenedRecording, PartOfARecordingNeedsNoFilesOfOtherSignals) {
  fs::rename(rec / "storage/0.parquet", temp.file("time"));
  EXPECT_THROW(open(rec), std::runtime_error);
  EXPECT_NO_THROW(openRecording(Path::fromFilesystem(rec), {5}));
  fs::rename(temp.file("time"), rec / "storage/0.parquet");
  EXPECT_THROW(openRecording(Path::fromFilesystem(rec), {5, 6}), std::invalid_argument);
}

}  // namespace
}  // namespace kyr::recording
