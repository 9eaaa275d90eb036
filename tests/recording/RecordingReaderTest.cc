#include <sys/resource.h>
#include <sys/stat.h>

#include <cstring>
#include <functional>
#include <stdexcept>

#include "kyr/parquet/SafeStorage.h"
#include "kyr/recording/LiveRecording.h"
#include "kyr/recording/RecordingReader.h"
#include "recording/ReaderTest.h"
#include "recording/SampleSignals.h"
#include "recording/SignalNames.h"

namespace kyr::recording {
namespace {

using test::bytesOf;
using test::errorOf;
using test::ReaderTest;
using test::Samples;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

// Rows [from, to) of samples that have a length each, or one in common.
Samples part(const Samples& all, std::size_t from, std::size_t to, std::size_t width) {
  std::vector<std::size_t> ends{0};
  for (std::size_t i = 0; i < all.time.size(); ++i) {
    const std::size_t elements = all.lengths.empty() ? 1 : static_cast<std::size_t>(all.lengths[i]);
    ends.push_back(ends.back() + elements * width);
  }
  const auto cut = [](const auto& values, std::size_t begin, std::size_t end) {
    using Values = std::decay_t<decltype(values)>;
    return values.empty() ? Values()
                          : Values(values.begin() + static_cast<std::ptrdiff_t>(begin),
                                   values.begin() + static_cast<std::ptrdiff_t>(end));
  };
  return {cut(all.time, from, to), cut(all.data, ends[from], ends[to]), cut(all.dims, from, to),
          cut(all.lengths, from, to)};
}

// Writes a recording, and returns what must live while it is read.
struct Origin {
  const char* name;
  std::function<std::shared_ptr<void>(const fs::path& rec,
                                      const std::vector<test::SampleSignal>& signals)>
      record;
};

std::shared_ptr<void> recordLive(const fs::path& rec,
                                 const std::vector<test::SampleSignal>& signals) {
  LiveOptions options;
  options.storage.batchRows = 3;
  auto live = std::make_shared<LiveRecording>(Path::fromFilesystem(rec), options);
  for (const test::SampleSignal& sample : signals) {
    const auto signal = live->addSignal(sample.description, sample.type, sample.category);
    const Samples& samples = sample.samples;
    signal->appendTime(samples.time.data(), samples.time.size());
    signal->appendData(samples.data.data(), samples.data.size(), samples.dims, samples.lengths);
  }
  live->flush();
  return live;
}

std::shared_ptr<void> saveFrom(parquet::SignalPool& pool, const fs::path& rec,
                               const std::vector<test::SampleSignal>& signals,
                               std::size_t packBelow) {
  test::storeSignals(pool, signals);
  SaveOptions options;
  options.packBelow = packBelow;
  options.sync = false;
  saveRecording(pool, test::descriptionsOf(signals), Path::fromFilesystem(rec), options);
  return nullptr;
}

const Origin kOrigins[]{
    {"default pool",
     [](const fs::path& rec, const auto& signals) {
       parquet::SignalPool pool(Path::fromFilesystem(rec.parent_path() / "origin"));
       return saveFrom(pool, rec, signals, 0);
     }},
    {"streams of a safe pool",
     [](const fs::path& rec, const auto& signals) {
       FeatureFlag::set("fKYRUseParquetRowGroup", true);
       parquet::SignalPool pool(Path::fromFilesystem(rec.parent_path() / "origin"),
                                parquet::SafeStorage());
       saveFrom(pool, rec, signals, 0);
       FeatureFlag::set("fKYRUseParquetRowGroup", false);
       return nullptr;
     }},
    {"packs",
     [](const fs::path& rec, const auto& signals) {
       parquet::SignalPool pool(Path::fromFilesystem(rec.parent_path() / "origin"),
                                parquet::SafeStorage());
       return saveFrom(pool, rec, signals, 1000);
     }},
    {"a recording that goes on", recordLive},
    {"an earlier version",
     [](const fs::path& rec, const auto&) {
       fs::copy(fs::path(KYR_TEST_DATA) / "golden-v1", rec, fs::copy_options::recursive);
       return nullptr;
     }},
};

TEST_F(ReaderTest, EverySignalIsReadInEveryWay) {
  const auto signals = test::sampleSignals();
  for (const Origin& origin : kOrigins) {
    SCOPED_TRACE(origin.name);
    fs::create_directory(temp.file("origin"));
    auto recorder = origin.record(rec, signals);
    const auto before = everythingIn(rec);
    const RecordingReader reader = read();
    EXPECT_EQ(reader.state(), recorder ? RecordingState::beingRecorded : RecordingState::finished);
    for (const test::SampleSignal& sample : signals) {
      const int id = sample.description.signalId;
      SCOPED_TRACE(sample.description.name);
      ASSERT_EQ(reader.sampleCount(id), 7U);
      ASSERT_EQ(reader.timeCount(id), 7U);
      const Samples all = samplesOf(reader, id);
      EXPECT_EQ(all.time, sample.samples.time);
      EXPECT_EQ(all.data, sample.samples.data);
      const bool isVariable = sample.category == VarDim || sample.category == VarDimBus;
      EXPECT_EQ(all.dims, isVariable ? sample.samples.dims : test::Dims());
      const auto& lengths = sample.samples.lengths;
      EXPECT_TRUE(lengths.empty() || all.lengths == lengths);
      for (const auto& [from, to] :
           {std::pair<std::size_t, std::size_t>{0, 7}, {2, 5}, {6, 7}, {3, 3}}) {
        const Samples expected = part(all, from, to, reader.elementBytes(id));
        EXPECT_EQ(samplesOf(reader, id, {from, to}), expected) << from << " to " << to;
        Samples walked = walk(reader, id, {from, to}, 2);
        if (reader.elementsPerSample(id) > 0) {
          std::vector<char> bytes(expected.data.size());
          EXPECT_EQ(reader.readElements(id, {from, to}, bytes.data(), bytes.size()), to - from);
          EXPECT_EQ(bytes, expected.data);
          walked.lengths = expected.lengths;  // blocks tell the size of equal samples once
        }
        EXPECT_EQ(walked, expected) << from << " to " << to;
      }
      const auto table = arrowOf(reader, id);
      EXPECT_EQ(table->num_rows(), 7);
      EXPECT_EQ(table->schema()->metadata()->Get("unit").ValueOrDie(), "°C");
      EXPECT_EQ(table->GetColumnByName("shape") != nullptr,
                sample.category == VarDim && sample.type != Binary);
    }
    EXPECT_EQ(everythingIn(rec), before);
    recorder.reset();
    fs::remove_all(rec);
    fs::remove_all(temp.file("origin"));
  }
}

TEST_F(ReaderTest, ArrowStreamsHaveTheirOwnTypesAndOutliveTheReader) {
  put(pool, 1, {{0, 1, 2}, {1, 0, 1}, {}, {}}, Boolean);
  put(pool, 2, {{0, 1}, {1, 2, 3, 4, 5, 6, 7, 8}, {{2, 2}}, {}}, Int8, FixedDim);
  put(pool, 3, {{0, 1}, {1, 2, 3}, {{1}, {2, 1}}, {}}, UInt8, VarDim);
  put(pool, 4, {{0, 1}, {'a', 'b', 'c'}, {}, {1, 2}}, Binary, Bus);
  put(pool, 5, ramp({1, 2}));
  saveRecording(pool, {{2, "m", "", "", {2, 2}}, {9, "never", "V", "", {}}},
                Path::fromFilesystem(rec));
  describe([](RecordingInfo& info) { info.signals[4].dataStorageId.reset(); });  // times alone
  struct {
    int id;
    const char* type;
    const char* values;
  } const cases[]{
      {1, "bool", "[true, false, true]"},
      {2, "fixed_size_list<item: int8>[4]", "[[1, 2, 3, 4], [5, 6, 7, 8]]"},
      {3, "list<item: uint8>", "[[1], [2, 3]]"},
      {4, "binary", R"(["a", "bc"])"},
      {9, "double", "[]"},
  };
  for (const auto& [id, type, values] : cases) {
    SCOPED_TRACE(id);
    const auto table = arrowOf(read(), id, {}, 2);
    const auto column = table->GetColumnByName("value");
    ASSERT_TRUE(column);
    EXPECT_EQ(column->type()->ToString(), type);
    const auto expected = test::column(column->type(), {values});
    EXPECT_TRUE(column->Equals(*expected)) << column->ToString();
  }
  EXPECT_EQ(arrowOf(read(), 5)->num_columns(), 1);
  EXPECT_EQ(arrowOf(read(), 9)->num_columns(), 1);
  const auto shapes = arrowOf(read(), 3)->GetColumnByName("shape");
  EXPECT_TRUE(shapes->Equals(*test::column(shapes->type(), {"[[1], [2, 1]]"})));

  ArrowArrayStream stream;
  {
    const RecordingReader reader = read();
    reader.exportTo(1, &stream, {1, 3});
    fs::remove_all(rec);
  }
  const auto imported = ::arrow::ImportRecordBatchReader(&stream).ValueOrDie();
  EXPECT_EQ(imported->ToTable().ValueOrDie()->num_rows(), 2);
}

TEST_F(ReaderTest, SignalsAreFoundByNameAndPattern) {
  for (const int id : {1, 2, 3, 7}) put(pool, id, ramp({1, 2, short(id)}));
  saveRecording(pool,
                {{1, "floor1_temp", "", "", {}},
                 {2, "floor2_temp", "", "", {}},
                 {3, "Tür", "", "", {}},
                 {7, "Tür", "", "", {}}},
                Path::fromFilesystem(rec));
  const RecordingReader reader = read();
  EXPECT_EQ(reader.idOf("floor2_temp"), 2);
  EXPECT_EQ(reader.signal(7).name, "Tür");
  EXPECT_THAT(reader.matching("floor[0-9]_*"), ElementsAre(1, 2));
  EXPECT_THAT(errorOf([&] { reader.idOf("Tür"); }), HasSubstr("ids 3, 7"));
  EXPECT_THAT(errorOf([&] { reader.idOf("flor1_temp"); }), HasSubstr("is called \"floor1_temp\""));
  EXPECT_THAT(errorOf([&] { reader.idOf("engine"); }), Not(HasSubstr("; one is")));
  EXPECT_THAT(errorOf([&] { reader.read(5); }), HasSubstr("no signal 5; there is 3"));
  EXPECT_THROW(reader.times(4), std::out_of_range);
  EXPECT_THAT(reader.withSameTimes(2), ElementsAre(1, 2, 3, 7));
  EXPECT_THAT(reader.withSameSamples(2), ElementsAre(2));

  struct {
    const char* pattern;
    std::vector<const char*> matches;
    std::vector<const char*> others;
  } const patterns[]{
      {"*", {"", "a", "é*"}, {}},
      {"a*b*c", {"abc", "a1b2c", "abcbc"}, {"ab", "abcd", "xabc"}},
      {"?", {"a", "é", "車"}, {"", "ab"}},
      {"[a-cx]1", {"a1", "c1", "x1"}, {"d1", "-1", "1"}},
      {"[!a-c]", {"d", "é"}, {"a", "b", ""}},
      {"[]a]", {"]", "a"}, {"b"}},
      {"[a-]", {"-", "a"}, {"b"}},
      {"[à-ü]", {"é"}, {"z", "e"}},
      {"\\*[\\]]", {"*]"}, {"a]", "*["}},
      {"[a", {"[a"}, {"a"}},
  };
  for (const auto& [pattern, matches, others] : patterns) {
    for (const char* name : matches) EXPECT_TRUE(matchesPattern(name, pattern)) << pattern << name;
    for (const char* name : others) EXPECT_FALSE(matchesPattern(name, pattern)) << pattern << name;
  }
}

TEST_F(ReaderTest, TimesInAColumnOfTheDataAreReadAsOthers) {
  parquet::serialization_options::bSharedTimeColumn = false;
  put(pool, 1, ramp({1, 2, 3, 4}));
  put(pool, 2, {{0, 1, 2}, {1, 2, 3}, {{1}, {1}, {1}}, {}}, Int8, VarDim);
  put(pool, 3, {{}, {1, 0}, {}, {}});
  save(rec);
  const RecordingReader reader = read();
  EXPECT_FALSE(reader.signal(1).timeStorageId);
  EXPECT_EQ(reader.times(1, {1, 3}), std::vector<double>({1, 2}));
  EXPECT_EQ(reader.rowsBetween(2, 1, 5), std::vector<RowRange>({{1, 3}}));
  EXPECT_THAT(reader.withSameTimes(1), ElementsAre(1));
  EXPECT_EQ(walk(reader, 1, {0, 4}, 3).time, std::vector<double>({0, 1, 2, 3}));
  EXPECT_EQ(samplesOf(reader, 2).data, std::vector<char>({1, 2, 3}));
  EXPECT_EQ(reader.timeCount(3), 0U);
  EXPECT_THAT(reader.withSameTimes(3), ElementsAre());
}

// A recording may have more or fewer times than samples.
TEST_F(ReaderTest, PairsAreRowsWithBoth) {
  put(pool, 1, ramp({1, 2, 3, 4, 5}));
  put(pool, 2, ramp({7, 8, 9}));
  save(rec);
  describe(
      [](RecordingInfo& info) { info.signals[1].timeStorageId = info.signals[0].timeStorageId; });
  const RecordingReader reader = read();
  EXPECT_EQ(reader.timeCount(2), 5U);
  EXPECT_EQ(reader.pairCount(2), 3U);
  EXPECT_EQ(reader.times(2).size(), 5U);
  EXPECT_EQ(arrowOf(reader, 2)->num_rows(), 3);
  EXPECT_EQ(walk(reader, 2, {1, 9}, 2).time.size(), 2U);
}

TEST_F(ReaderTest, FoldersMayBeReplacedReadOnlyOrNoRecordings) {
  put(pool, 1, ramp({1, 2, 3}));
  put(pool, 2, ramp({7, 8}));
  save(rec);
  const RecordingReader reader = read();
  EXPECT_EQ(samplesOf(reader, 1).data, bytesOf(std::vector<short>{1, 2, 3}));
  fs::rename(rec, temp.file("elsewhere"));
  pool.getSignal(2)->resetData();
  put(pool, 2, ramp({9, 9, 9, 9}));
  save(rec);
  EXPECT_EQ(samplesOf(reader, 2).data, bytesOf(std::vector<short>{7, 8}));
  fs::remove_all(temp.file("elsewhere"));
  EXPECT_EQ(samplesOf(reader, 1).data, bytesOf(std::vector<short>{1, 2, 3}));
  EXPECT_EQ(samplesOf(read(), 2).data, bytesOf(std::vector<short>{9, 9, 9, 9}));

  for (const fs::path& path : {rec, rec / "storage"}) fs::permissions(path, fs::perms(0500));
  EXPECT_EQ(samplesOf(read(), 2).data.size(), 8U);
  for (const fs::path& path : {rec, rec / "storage"}) fs::permissions(path, fs::perms(0700));

  fs::remove(rec / "recording.json");
  mkfifo((rec / "recording.json").c_str(), 0600);
  EXPECT_THAT(errorOf([&] { read(); }), HasSubstr("not a recording"));
  fs::remove(rec / "recording.json");
  mkfifo((rec / "recording.live.json").c_str(), 0600);
  writeNewFile(rec / "recording.journal", "");
  EXPECT_THAT(errorOf([&] { read(); }), HasSubstr("recording.live.json: cannot open a pipe"));
  fs::remove_all(rec);
  EXPECT_THAT(errorOf([&] { read(); }), HasSubstr("rec: no such folder"));
}

// There are far more files than descriptors. Streams have descriptors of their own.
TEST_F(ReaderTest, DescriptorsAreBounded) {
  constexpr int kSignals = 60;
  for (int id = 0; id < kSignals; ++id) put(pool, id, ramp({1, 2, short(id)}));
  save(rec);
  struct rlimit before {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  struct rlimit few = before;
  const auto open = static_cast<rlim_t>(
      std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
  few.rlim_cur = open + 16;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
  const RecordingReader reader = read();
  std::vector<short> last;
  for (int round = 0; round < 2; ++round) {
    for (int id = 0; id < kSignals; ++id) {
      const Samples found = samplesOf(reader, id);
      short value = 0;
      std::memcpy(&value, found.data.data() + 4, sizeof(value));
      last.push_back(value);
    }
  }
  setrlimit(RLIMIT_NOFILE, &before);
  for (int i = 0; i < 2 * kSignals; ++i) EXPECT_EQ(last[std::size_t(i)], i % kSignals);
}

TEST_F(ReaderTest, MisuseIsRefused) {
  put(pool, 1, ramp({1, 2, 3}));
  put(pool, 2, {{0, 1}, {1, 2, 3}, {{1}, {2}}, {}}, Int8, VarDim);
  save(rec);
  const RecordingReader reader = read();
  std::vector<short> out(3);
  EXPECT_THROW(reader.readElements(1, {}, out.data(), 5), std::invalid_argument);
  EXPECT_EQ(reader.readElements(1, {2, 900}, out.data(), 2), 1U);
  EXPECT_EQ(out[0], 3);
  EXPECT_EQ(reader.readElements(1, {5, 4}, nullptr, 0), 0U);
  EXPECT_THROW(reader.readElements(2, {}, out.data(), 6), std::invalid_argument);
  EXPECT_THROW(reader.exportTo(1, nullptr), std::invalid_argument);
  EXPECT_TRUE(reader.times(1, {3, 3}).empty());
}

}  // namespace
}  // namespace kyr::recording
