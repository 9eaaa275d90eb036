#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "kyr/parquet/SafeStorage.h"
#include "kyr/parquet/StreamableSignal.h"
#include "kyr/recording/RecordingReader.h"
#include "recording/FolderFiles.h"
#include "recording/RecordingFolder.h"
#include "recording/RecordingFormat.h"
#include "recording/RecordingTest.h"
#include "recording/SampleSignals.h"

namespace kyr::recording {
namespace {

using test::errorOf;
using test::Samples;
using ::testing::HasSubstr;

SaveOptions packing(std::size_t below) {
  SaveOptions options;
  options.packBelow = below;
  options.sync = false;
  return options;
}

parquet::SafeStorage holding(std::size_t below) {
  parquet::SafeStorage storage;
  storage.holdBelow = below;
  return storage;
}

class PackedRecording : public test::RecordingTest {
 protected:
  void pack(parquet::SignalPool& from, const fs::path& folder, std::size_t below = 1000) {
    saveRecording(from, {}, Path::fromFilesystem(folder), packing(below));
  }
  static std::set<std::string> filesOf(const fs::path& folder) {
    return test::Folder(folder / "storage").names();
  }
  static Samples readSignal(Recording& opened, int id) {
    return test::read(*opened.pool().getSignal(id));
  }

  // Signals 1 and 2 are equal, 1 to 3 have the same times; 4 has more rows.
  void storeFour(parquet::SignalPool& into) const {
    put(into, 1, one);
    put(into, 2, one);
    put(into, 3, two);
    put(into, 4, four);
  }
  const Samples one = ramp({1, 2, 3});
  const Samples two = ramp({4, 5, 6});
  const Samples four = ramp({1, 2, 3, 4, 5});
};

// Whether the contents are in files or in memory when they are packed, and how they are read.
class PackedKinds : public PackedRecording,
                    public ::testing::WithParamInterface<std::tuple<bool, bool>> {};

TEST_P(PackedKinds, EverySignalComesBackAlsoOfAnUnpackedCopy) {
  const auto [holds, streaming] = GetParam();
  const auto signals = test::sampleSignals();
  parquet::SignalPool stored{holding(holds ? 1000 : 0)};
  test::storeSignals(stored, signals);
  saveRecording(stored, test::descriptionsOf(signals), Path::fromFilesystem(rec), packing(1000));
  EXPECT_EQ(faults(rec), "");
  EXPECT_THAT(filesOf(rec), ::testing::Each(::testing::StartsWith("pack-")));

  FeatureFlag::set("fKYRUseParquetRowGroup", streaming);
  const fs::path again = temp.file("again");
  {
    Recording opened = open(rec);
    save(opened.pool(), opened.descriptions(), again);
  }
  EXPECT_EQ(faults(again), "");
  EXPECT_TRUE(describeRecording(Path::fromFilesystem(again)).packs.empty());
  for (const fs::path& folder : {rec, again}) {
    Recording opened = open(folder);
    for (const test::SampleSignal& sample : signals) {
      const int id = sample.description.signalId;
      Samples found{{}, {}, sample.samples.dims, {}};
      if (streaming) {
        const auto signal = opened.pool().getStreamableSignal(id);
        std::vector<char> times;
        signal->getTime(0, 100, times);
        EXPECT_EQ(times, test::bytesOf(sample.samples.time));
        found.time = sample.samples.time;
        signal->getData(0, 100, found.data, found.dims, found.lengths);
      } else {
        found = test::read(*opened.pool().getSignal(id), found);
      }
      EXPECT_EQ(found, sample.samples) << sample.description.name;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Modes, PackedKinds,
                         ::testing::Combine(::testing::Bool(), ::testing::Bool()));

TEST_F(PackedRecording, ContentsOfManyRowGroupsAndPacksComeBack) {
  std::vector<short> numbers(70000);
  for (std::size_t i = 0; i < numbers.size(); ++i) numbers[i] = short(i * 7);
  const Samples longer = ramp(numbers);
  const Samples wide{{0, 1, 2}, std::vector<char>(3 * 500'000, 'x'), {{500'000}}, {}};
  parquet::SignalPool stored{holding(std::size_t{1} << 30U)};
  put(stored, 1, one);
  put(stored, 2, longer);
  put(stored, 3, wide, Int8, FixedDim);
  put(stored, 4, four);
  pack(stored, rec, std::size_t{1} << 30U);
  EXPECT_EQ(faults(rec), "");
  Recording opened = open(rec);
  EXPECT_EQ(readSignal(opened, 4), four);
  EXPECT_EQ(readSignal(opened, 2), longer);
  EXPECT_EQ(readSignal(opened, 1), one);
  EXPECT_EQ(readSignal(opened, 3).data, wide.data);
}

TEST_F(PackedRecording, OpenedSignalsAreDeletedResetWrittenAndSavedAgain) {
  parquet::SignalPool stored{holding(1000)};
  storeFour(stored);
  pack(stored, rec);
  EXPECT_EQ(filesOf(rec), (std::set<std::string>{"pack-0.parquet", "pack-1.parquet"}));
  EXPECT_EQ(describeRecording(Path::fromFilesystem(rec)).files.size(), 5U);
  const auto saved = everythingIn(rec);
  const fs::path again = temp.file("again");
  {
    Recording opened = open(rec);
    EXPECT_EQ(everythingIn(rec), saved);
    EXPECT_EQ(readSignal(opened, 1), one);
    EXPECT_EQ(readSignal(opened, 4), four);
    fs::remove_all(rec);  // what is open stays
    auto& opens = opened.pool();
    EXPECT_EQ(opens.getSignal(1)->getStorageId(1), opens.getSignal(2)->getStorageId(1));
    opens.deleteSignal(1);
    opens.getSignal(3)->resetData();
    put(opens, 3, four);
    put(opens, 5, two);
    EXPECT_EQ(readSignal(opened, 2), one);
    pack(opens, again);
    EXPECT_EQ(faults(again), "");
    // Others may have the records: the files that they name are there then.
    const std::string records = opens.serializeSignalRecords();
    parquet::SignalPool other(opens.getParquetDirectory(), parquet::SafeStorage());
    other.deserializeSignalRecords(records);
    other.getSignal(2)->setDataType(Int16);
    other.getSignal(2)->setCategory(Scalar);
    EXPECT_EQ(test::read(*other.getSignal(2)), one);
  }
  Recording opened = open(again);
  EXPECT_EQ(opened.info().signals.size(), 4U);
  for (const auto& [id, samples] : {std::pair{2, one}, {3, four}, {4, four}, {5, two}}) {
    EXPECT_EQ(readSignal(opened, id), samples) << id;
  }
}

TEST_F(PackedRecording, AppendingToAPackedSignalKeepsWhatOthersHave) {
  parquet::SignalPool stored{holding(1000)};
  storeFour(stored);
  pack(stored, rec);
  FeatureFlag::set("fKYRUseParquetRowGroup", true);
  Recording opened = open(rec);
  const std::vector<short> more{9, 9};
  opened.pool().getStreamableSignal(1)->appendData(more.data(), 4, {}, {});
  std::vector<char> bytes;
  std::vector<std::vector<unsigned long>> dims;
  opened.pool().getStreamableSignal(1)->getData(1, 9, bytes, dims);
  EXPECT_EQ(bytes, test::bytesOf(std::vector<short>{2, 3, 9, 9}));
  opened.pool().getStreamableSignal(2)->getData(0, 9, bytes, dims);
  EXPECT_EQ(bytes, one.data);
}

TEST_F(PackedRecording, HeldContentsGetFilesWhenTheyAreDue) {
  auto storage = holding(30);  // contents of 24, 6 and 10 bytes stay in memory, one of 40 does not
  storage.holdTotal = 36;
  parquet::SignalPool stored(Path::fromFilesystem(temp.file("held")), storage);
  const test::Folder folder(temp.file("held"));
  storeFour(stored);
  EXPECT_EQ(folder.names(), (std::set<std::string>{"3", "4"}));  // 40 > 30; 24 + 6 + 10 > 36
  EXPECT_EQ(stored.getSignal(1)->getStorageId(1), stored.getSignal(2)->getStorageId(1));
  EXPECT_EQ(test::read(*stored.getSignal(1)), one);
  stored.flush();
  EXPECT_EQ(folder.names().size(), 5U);
  EXPECT_EQ(test::read(*stored.getSignal(3)), two);
  stored.getSignal(1)->resetData();
  put(stored, 1, four);
  stored.deleteSignal(2);
  EXPECT_EQ(folder.names().size(), 4U);
}

struct Fault {
  const char* name;
  std::function<void(const fs::path& pack)> damage;   // of the file of float64
  std::function<void(RecordingInfo& info)> describe;  // in place of it
  const char* says;
};

const Fault kFaults[]{
    {"cut", [](const fs::path& pack) { fs::resize_file(pack, fs::file_size(pack) / 2); }, nullptr,
     "bytes long, expected"},
    {"missing", [](const fs::path& pack) { fs::remove(pack); }, nullptr, "missing"},
    {"another byte",
     [](const fs::path& pack) {
       DiskFile file(pack, DiskFile::Mode::readWrite);
       file.writeAt(40, {"x"});
     },
     nullptr, "checksum is"},
    {"rows of another", nullptr, [](RecordingInfo& info) { info.files[0].firstRow = 1; },
     "are not all of storage id 0"},
    {"rows behind the end", nullptr, [](RecordingInfo& info) { info.files[0].firstRow = 6; },
     "which has 8"},
    {"another pack", nullptr, [](RecordingInfo& info) { info.files[0].pack = 7; },
     "pack-7.parquet, which is not listed"},
    {"a pack with fewer rows", nullptr, [](RecordingInfo& info) { info.packs[0].rowCount = 9; },
     "holds 8 rows, expected 9"},
};

TEST_F(PackedRecording, DamageIsNamed) {
  for (const Fault& fault : kFaults) {
    SCOPED_TRACE(fault.name);
    parquet::SignalPool stored{holding(1000)};
    storeFour(stored);
    pack(stored, rec);
    if (fault.damage) fault.damage(rec / "storage/pack-0.parquet");
    if (fault.describe) {
      RecordingInfo info = describeRecording(Path::fromFilesystem(rec));
      fault.describe(info);
      test::Folder(rec).touch("recording.json", writeRecordingJson(info));
    }
    EXPECT_THAT(faults(rec), HasSubstr("pack-"));
    const std::string error = errorOf([&] {
      Recording opened = open(rec);
      readSignal(opened, 1);
    });
    EXPECT_THAT(error, HasSubstr(fault.says));
    EXPECT_THAT(error, HasSubstr("pack-"));
    fs::remove_all(rec);
  }
}

// Storage ids may be negative, unlike the numbers of packs.
TEST_F(PackedRecording, FilesOfAnyNumbersAreReadBesidePacks) {
  parquet::SignalPool stored{holding(1000)};
  storeFour(stored);
  pack(stored, rec);
  const fs::path plain = temp.file("plain");
  saveRecording(stored, {}, Path::fromFilesystem(plain));
  RecordingInfo info = describeRecording(Path::fromFilesystem(rec));
  for (const int id : {-1, -2, -3, 100}) {
    FileInfo file = describeRecording(Path::fromFilesystem(plain)).files[0];
    fs::copy(storagePath(plain, file.storageId), storagePath(rec, id));
    file.storageId = id;
    info.files.push_back(file);
    info.signals.push_back(info.signals[0]);
    info.signals.back().signalId = 10 + id;
    info.signals.back().timeStorageId = id;
  }
  test::Folder(rec).touch("recording.json", writeRecordingJson(info));
  EXPECT_EQ(faults(rec), "");
  RecordingReader reader(Path::fromFilesystem(rec));
  for (const SignalInfo& signal : info.signals) {
    reader.read(signal.signalId);
    EXPECT_EQ(reader.timeCount(signal.signalId), signal.rowCount);
  }
}

// Other programs may lay the text out in other ways.
TEST_F(PackedRecording, DescriptionIsReadHoweverItIsWritten) {
  parquet::SignalPool stored{holding(1000)};
  storeFour(stored);
  const std::string odd = "a \"b\"\\ \n\x01 \xC3\xA9 \xF0\x9F\x9A\x97";
  saveRecording(stored, {{3, odd, "°C", odd, {2, 3}}, {9, "never written", "", "", {}}},
                Path::fromFilesystem(rec), packing(1000));
  const std::string text = readWholeFile(rec / "recording.json");
  const RecordingInfo info = describeRecording(Path::fromFilesystem(rec));
  EXPECT_EQ(info.signals[2].name, odd);
  EXPECT_EQ(info.signals[2].description, odd);
  EXPECT_EQ(writeRecordingJson(info), text);
  const RecordingInfo loose = readRecordingJson(nlohmann::json::parse(text).dump(2), "");
  EXPECT_EQ(writeRecordingJson(loose), text);
  EXPECT_EQ(loose.files[1].size, info.files[1].size);
  for (std::size_t at = 0; at < text.size(); at += 7) {
    std::string damaged = text;
    damaged[at] = damaged[at] == '1' ? '2' : '1';
    EXPECT_NE(errorOf([&] { readRecordingJson(damaged, "rec"); }), "") << at;
  }
}

}  // namespace
}  // namespace kyr::recording
