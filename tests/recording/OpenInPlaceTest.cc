#include <sys/resource.h>

#include <cstdlib>

#include "kyr/parquet/SafeStorage.h"
#include "kyr/parquet/SerializationOptions.h"
#include "kyr/parquet/StreamableSignal.h"
#include "kyr/recording/RecordingReader.h"
#include "recording/RecordingTest.h"

// An opened recording is read where it lies.

namespace kyr::recording {
namespace {

using test::errorOf;
using test::Samples;
using ::testing::HasSubstr;

// Signals 1 and 2 share their times. The times of signal 3 are a column of its file.
class OpenInPlace : public test::RecordingTest {
 protected:
  OpenInPlace() {
    put(pool, 1, one);
    put(pool, 2, two);
    parquet::serialization_options::bSharedTimeColumn = false;
    put(pool, 3, two);
    parquet::serialization_options::bSharedTimeColumn = true;
    save(rec);
    unshare(rec);
    saved = everythingIn(rec);
  }

  static Samples samplesOf(Recording& opened, int id) {
    return test::read(*opened.pool().getSignal(id));
  }
  static void resave(Recording& opened, const fs::path& folder) {
    save(opened.pool(), opened.descriptions(), folder);
  }

  const Samples one = ramp({1, 2, 3});
  const Samples two = ramp({4, 5, 6});
  std::map<std::string, std::string> saved;
};

TEST_F(OpenInPlace, NothingIsCopiedBeforeSomethingChanges) {
  for (const bool streams : {false, true}) {
    FeatureFlag::set("fKYRUseParquetRowGroup", streams);
    const auto before = temp.names();
    Recording opened = open(rec);
    std::vector<char> times;
    std::vector<char> data;
    std::vector<std::vector<unsigned long>> dims;
    for (const int id : {1, 2, 3}) {
      if (streams) {
        const auto signal = opened.pool().getStreamableSignal(id);
        signal->getTime(1, 3, times);
        EXPECT_EQ(times, test::bytesOf<double>({1, 2})) << id;
        signal->getData(0, 9, data, dims);
        EXPECT_EQ(data, id == 1 ? one.data : two.data) << id;
      } else {
        EXPECT_EQ(samplesOf(opened, id), id == 1 ? one : two);
      }
    }
    EXPECT_EQ(temp.names(), before);
    if (!streams) put(opened.pool(), 9, one);
    EXPECT_EQ(temp.names().size(), before.size() + (streams ? 0 : 1));
    EXPECT_EQ(everythingIn(rec), saved);
  }
}

TEST_F(OpenInPlace, ReadingNeedsNoTemporaryFolder) {
  const std::string usual = std::getenv("TMPDIR");
  setenv("TMPDIR", "/nonexistent/folder", 1);
  {
    Recording opened = open(rec);
    for (const int id : {1, 2, 3}) EXPECT_EQ(samplesOf(opened, id), id == 1 ? one : two);
    EXPECT_THAT(errorOf([&] { put(opened.pool(), 9, ramp({7})); }),
                HasSubstr("/nonexistent/folder"));
    EXPECT_EQ(samplesOf(opened, 1), one);
  }
  setenv("TMPDIR", usual.c_str(), 1);
}

TEST_F(OpenInPlace, SavedOverItsOwnFolderItGoesOnWithTheNewFiles) {
  for (const bool streams : {false, true}) {
    FeatureFlag::set("fKYRUseParquetRowGroup", streams);
    for (const std::size_t packBelow : {0U, 1000U, 0U}) {
      Recording opened = open(rec);
      SaveOptions options;
      options.packBelow = packBelow;
      std::shared_ptr<parquet::ParquetSignal> gone;
      if (!streams) {
        put(opened.pool(), 9, one);
        gone = opened.pool().getSignal(9);
        opened.pool().deleteSignal(9);
      }
      for (int time = 0; time < 2; ++time) {
        saveRecording(opened.pool(), opened.descriptions(), Path::fromFilesystem(rec), options);
        EXPECT_EQ(faults(rec), "");
      }
      if (gone) {
        EXPECT_EQ(test::read(*gone), one);
      }
      for (const int id : {1, 2, 3}) {
        if (!streams) {
          EXPECT_EQ(samplesOf(opened, id), id == 1 ? one : two);
          continue;
        }
        std::vector<char> data;
        std::vector<std::vector<unsigned long>> dims;
        opened.pool().getStreamableSignal(id)->getData(0, 9, data, dims);
        EXPECT_EQ(data, id == 1 ? one.data : two.data) << id;
      }
    }
  }
}

TEST_F(OpenInPlace, SignalsThatLeftThePoolOutliveTheirFilesWhenItIsSavedOverItself) {
  Recording opened = open(rec);
  const auto held = opened.pool().getSignal(2);
  opened.pool().deleteSignal(2);
  resave(opened, rec);
  EXPECT_EQ(describeRecording(Path::fromFilesystem(rec)).signals.size(), 2U);
  EXPECT_EQ(test::read(*held), two);
  EXPECT_EQ(samplesOf(opened, 3), two);
}

TEST_F(OpenInPlace, RenamedFoldersStayReadableAndOthersAreNeverTakenForThem) {
  Recording opened = open(rec);
  EXPECT_EQ(samplesOf(opened, 1), one);
  fs::rename(rec, temp.file("elsewhere"));
  parquet::SignalPool other;
  put(other, 1, two);
  put(other, 2, one);
  save(other, {}, rec);
  EXPECT_EQ(samplesOf(opened, 2), two);
  fs::remove_all(temp.file("elsewhere"));
  EXPECT_EQ(samplesOf(opened, 1), one);  // its files are open
  EXPECT_THAT(errorOf([&] { samplesOf(opened, 3); }), HasSubstr("was replaced"));
  EXPECT_EQ(samplesOf(opened, 2), two);
}

TEST_F(OpenInPlace, ManySignalsNeedFewDescriptors) {
  parquet::SignalPool many;
  constexpr int kSignals = 150;
  for (int id = 0; id < kSignals; ++id) put(many, id, ramp({short(id), 2}));
  save(many, {}, rec);
  struct rlimit before {};
  getrlimit(RLIMIT_NOFILE, &before);
  struct rlimit lower = before;
  lower.rlim_cur = 80;
  setrlimit(RLIMIT_NOFILE, &lower);
  {
    Recording opened = open(rec);
    Recording again = open(rec);
    for (int id = 0; id < kSignals; ++id) {
      ASSERT_EQ(samplesOf(opened, id), ramp({short(id), 2}));
      ASSERT_EQ(samplesOf(again, id), ramp({short(id), 2}));
    }
  }
  setrlimit(RLIMIT_NOFILE, &before);
}

// Reading leaves the folder only where that is asked for.
TEST_F(OpenInPlace, LinksAreFollowedOnRequest) {
  const Path folder = Path::fromFilesystem(rec);
  for (const char* name : {"storage/1.parquet", "storage", "recording.json"}) {
    SCOPED_TRACE(name);
    fs::rename(rec / name, temp.file("elsewhere"));
    fs::create_symlink(temp.file("elsewhere"), rec / name);
    EXPECT_NE(faults(rec), "");
    EXPECT_THROW(openRecording(folder).pool().getSignal(1), std::runtime_error);
    EXPECT_THROW(RecordingReader(folder).read(1), std::runtime_error);

    EXPECT_THAT(verifyRecording(folder, Links::followed), ::testing::IsEmpty());
    EXPECT_TRUE(openRecording(folder, Links::followed).pool().getSignal(1));
    ReaderOptions options;
    options.links = Links::followed;
    EXPECT_EQ(RecordingReader(folder, options).sampleCount(1), 3U);
    fs::remove(rec / name);
    fs::rename(temp.file("elsewhere"), rec / name);
  }
}

}  // namespace
}  // namespace kyr::recording
