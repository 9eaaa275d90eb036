#include <sys/stat.h>

#include <cstring>
#include <functional>
#include <random>

#include "kyr/recording/LiveRecording.h"
#include "platform/Folder.h"
#include "recording/ReaderTest.h"

namespace kyr::recording {
namespace {

using test::ReaderTest;
using test::Samples;
using ::testing::AllOf;
using ::testing::HasSubstr;

// A file of doubles of several blocks, and a small one, in every layout.
class DamagedFiles : public ReaderTest {
 protected:
  static constexpr std::size_t kRows = 150'000;

  static Samples large() {
    Samples samples{std::vector<double>(kRows), std::vector<char>(kRows * sizeof(double)), {}, {}};
    std::minstd_rand random(1);
    for (std::size_t i = 0; i < kRows; ++i) {
      samples.time[i] = static_cast<double>(i);
      const double value = static_cast<double>(random()) / 3;
      std::memcpy(samples.data.data() + i * sizeof(value), &value, sizeof(value));
    }
    return samples;
  }

  // Files as a default pool, a safe pool and a live recording write them.
  enum class Layout { oneGroup, growing };

  void record(Layout layout, bool withBlocks) {
    if (layout == Layout::oneGroup) {
      parquet::serialization_options::bDictionary = false;
      parquet::SignalPool whole(Path::fromFilesystem(temp.file("whole")));
      put(whole, 1, data, Double);
      put(whole, 2, small);
      save(whole, {}, rec);
    } else {
      LiveOptions options;
      options.storage.batchRows = 10'000;
      LiveRecording live(Path::fromFilesystem(rec), options);
      const auto signal = live.addSignal({1, "", "", "", {}}, Double, Scalar);
      for (std::size_t row = 0; row < kRows; row += 1000) {
        signal->appendTime(data.time.data() + row, 1000);
        signal->appendData(data.data.data() + row * sizeof(double), 1000 * sizeof(double), {}, {});
      }
      const auto other = live.addSignal({2, "", "", "", {}}, Int16, Scalar);
      other->appendTime(small.time.data(), small.time.size());
      other->appendData(small.data.data(), small.data.size(), {}, {});
      live.finish();
    }
    listFiles(withBlocks);
  }

  fs::path dataFile() const {
    return rec / "storage" / storageName(*read().signal(1).dataStorageId);
  }

  const Samples data = large();
  const Samples small = ramp({5, 6, 7});
};

TEST_F(DamagedFiles, DamageCostsTheRowsAroundItOnly) {
  for (const Layout layout : {Layout::oneGroup, Layout::growing}) {
    for (const bool withBlocks : {true, false}) {
      SCOPED_TRACE(testing::Message() << int(layout) << withBlocks);
      record(layout, withBlocks);
      EXPECT_EQ(samplesOf(read(), 1), data);
      const fs::path file = dataFile();
      DiskFile(file, DiskFile::Mode::readWrite).writeAt(fs::file_size(file) * 5 / 8, {"damage"});
      const RecordingReader reader = read();
      int refused = 0;
      for (std::uint64_t first = 0; first < kRows; first += 5000) {
        std::vector<double> values(5000);
        try {
          reader.readElements(1, {first, first + 5000}, values.data(), 5000 * sizeof(double));
        } catch (const DamagedError& error) {
          ++refused;
          EXPECT_THAT(error.what(), AllOf(HasSubstr(file.string()), HasSubstr("bytes "),
                                          HasSubstr("rows "), HasSubstr("cannot be read")));
          continue;
        }
        EXPECT_EQ(std::memcmp(values.data(), data.data.data() + first * sizeof(double),
                              values.size() * sizeof(double)),
                  0);
      }
      const bool isWhole = layout == Layout::oneGroup && !withBlocks;
      EXPECT_GT(refused, isWhole ? 29 : 0);
      EXPECT_LT(refused, isWhole ? 31 : 16);
      EXPECT_EQ(samplesOf(reader, 2), small);
      EXPECT_EQ(reader.times(1, {140'000, 140'001}).front(), 140'000);
      // Without checks the damage is handed out.
      EXPECT_FALSE(samplesOf(read(/*checks=*/false), 1) == data);
      EXPECT_THAT(faults(rec), HasSubstr("its checksum is"));
      fs::remove_all(rec);
    }
  }
}

TEST_F(DamagedFiles, WrongChecksumsOfBlocksAreTold) {
  record(Layout::oneGroup, true);
  describe([](RecordingInfo& info) {
    for (FileInfo& file : info.files) {
      if (!file.blocks.empty()) file.blocks[1] ^= 1;
    }
  });
  EXPECT_THAT(faults(rec), HasSubstr("the checksums of its blocks are wrong"));
  EXPECT_THROW(samplesOf(read(), 1), DamagedError);
}

struct Fault {
  const char* name;
  std::function<void(const fs::path& storage)> damage;
  const char* says;
};

void replace(const fs::path& file, const ::arrow::Table& table) {
  fs::remove(file);
  test::writeForeignFile(file, table);
}

// Whatever storage/1.parquet is, the samples of signal 1 are refused and named. The others stay.
TEST_F(ReaderTest, FilesThatAreNotAsDescribedAreRefused) {
  const auto& doubles = ::arrow::float64();
  const auto lists = ::arrow::list(::arrow::int8());
  const Fault faults[]{
      {"missing", [](const fs::path& file) { fs::remove(file); }, "storage/1.parquet: missing"},
      {"shorter", [](const fs::path& file) { fs::resize_file(file, 100); },
       "100 bytes long, expected"},
      {"pipe",
       [](const fs::path& file) {
         fs::remove(file);
         mkfifo(file.c_str(), 0600);
       },
       "storage/1.parquet: is no regular file"},
      {"folder",
       [](const fs::path& file) {
         fs::remove(file);
         fs::create_directory(file);
       },
       "storage/1.parquet: is no regular file"},
      {"another file of this size",
       [](const fs::path& file) {
         test::Folder(file.parent_path()).touch("1.parquet", std::string(fs::file_size(file), 'x'));
       },
       "bytes 0 to"},
  };
  // Files that are sound by themselves, with checksums that fit.
  const std::pair<const char*, std::shared_ptr<::arrow::Table>> others[]{
      {"has the columns [data: double], expected [data: list",
       test::tableOf({{"data", test::column(doubles, {"[1, 2, 3]"})}})},
      {"has no column \"data\"",
       test::tableOf({{"other", test::column(lists, {"[[1], [2], [3]]"})}})},
      {"holds 2 rows, expected 3",
       test::tableOf({{"data", test::column(lists, {"[[1, 2], [3, 4]]"})}})},
      {"holds nulls", test::tableOf({{"data", test::column(lists, {"[[1, 2], null, [3, 4]]"})}})},
      {"holds nulls",
       test::tableOf({{"data", test::column(lists, {"[[1, 2], [3, null], [3, 4]]"})}})},
      {"sample 2 has 1 elements, its shape 2",
       test::tableOf({{"data", test::column(lists, {"[[1, 2], [3, 4], [5]]"})}})},
      {"has the columns [time: int64, data",
       test::tableOf({{"time", test::column(::arrow::int64(), {"[1, 2, 3]"})},
                      {"data", test::column(lists, {"[[1, 2], [3, 4], [5, 6]]"})}})},
  };
  const auto expectRefusal = [&](const std::string& says, bool checks) {
    const RecordingReader reader = read(checks);
    std::vector<char> out(6);
    for (const auto& call : std::vector<std::function<void()>>{
             [&] { reader.read(1); },
             [&] {
               reader.readElements(1, {0, 3}, out.data(), out.size());
             },
             [&] {
               SampleBlocks blocks = reader.blocks(1);
               while (blocks.next() != nullptr) continue;
             }}) {
      try {
        call();
        ADD_FAILURE() << "is read";
      } catch (const DamagedError& error) {
        EXPECT_THAT(error.what(), AllOf(HasSubstr(says), HasSubstr("cannot be read")));
      }
    }
    EXPECT_EQ(samplesOf(reader, 2).data, std::vector<char>({1, 0, 2, 0}));
  };
  put(pool, 1, {{0, 1, 2}, {1, 2, 3, 4, 5, 6}, {{2}}, {}}, Int8, FixedDim);
  put(pool, 2, ramp({1, 2}));
  const auto record = [&] {
    fs::remove_all(rec);
    saveRecording(pool, {{1, "", "", "", {2}}}, Path::fromFilesystem(rec));
    copyIfLinked(kyr::Folder(rec / "storage"), "1.parquet");  // the pool's file is to stay as it is
  };
  for (const Fault& fault : faults) {
    SCOPED_TRACE(fault.name);
    record();
    fault.damage(rec / "storage/1.parquet");
    expectRefusal(fault.says, true);
  }
  for (const auto& [says, table] : others) {
    SCOPED_TRACE(says);
    record();
    replace(rec / "storage/1.parquet", *table);
    listFiles(false);
    expectRefusal(says, true);
    expectRefusal(says, false);
    EXPECT_NE(this->faults(rec), "");
  }
}

// Bytes of small files: what is read is as it was, or it is refused. Without checks nothing worse
// than wrong numbers or a refusal comes of it.
TEST_F(ReaderTest, NoFlippedBitIsReadUnnoticed) {
  put(pool, 1, ramp({1, 2, 3}));
  put(pool, 2, {{0, 1}, {1, 2, 3}, {{1}, {2, 1}}, {}}, UInt8, VarDim);
  for (const std::size_t packBelow : {0U, 1000U}) {
    fs::remove_all(rec);
    SaveOptions options;
    options.packBelow = packBelow;
    saveRecording(pool, {}, Path::fromFilesystem(rec), options);
    const Samples one = samplesOf(read(), 1);
    const Samples two = samplesOf(read(), 2);
    for (const auto& entry : fs::directory_iterator(rec / "storage")) {
      const std::string sound = readWholeFile(entry.path());
      const test::Folder storage(rec / "storage");
      for (std::size_t i = 0; i < sound.size(); i += 3) {
        std::string flipped = sound;
        flipped[i] = static_cast<char>(flipped[i] ^ (1 << i % 8));
        storage.touch(entry.path().filename(), flipped);
        int refused = 0;
        for (const auto& [id, expected] : {std::pair{1, one}, {2, two}}) {
          try {
            EXPECT_EQ(samplesOf(read(), id), expected);
          } catch (const DamagedError&) {
            ++refused;
          }
          try {
            samplesOf(read(/*checks=*/false), id);
          } catch (const std::exception&) {
            continue;
          }
        }
        ASSERT_GT(refused, 0) << entry.path() << ", byte " << i;
      }
      storage.touch(entry.path().filename(), sound);
    }
  }
}

}  // namespace
}  // namespace kyr::recording
