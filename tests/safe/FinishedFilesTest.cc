#include <gmock/gmock.h>
#include <sys/resource.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "files/ContentReader.h"
#include "kyr/parquet/SafeStorage.h"
#include "kyr/parquet/StreamableSignal.h"
#include "platform/DiskFile.h"
#include "recording/RecordingTest.h"
#include "safe/SharedStore.h"
#include "signals/SignalPoolImpl.h"
#include "support/ParquetFiles.h"

// Finished files of a safe pool: those of others, which it reads in place, and how many stay open.

namespace kyr::parquet {
namespace {

namespace fs = std::filesystem;
using test::errorOf;
using test::Names;
using test::Samples;
using ::testing::HasSubstr;

// Lends whole files.
class FileLender final : public Lender {
 public:
  std::optional<std::uint64_t> rowsOf(int id) const override {
    return files.count(id) > 0 ? std::optional(files.at(id)->rows()) : std::nullopt;
  }
  ContentSummary summaryOf(int /*id*/) const override { return {}; }
  std::shared_ptr<ContentReader> open(int id) override { return files.at(id); }

  std::map<int, std::shared_ptr<ContentReader>> files;
};

// Files "4" (times) and "9" (int16) of somebody else, and a pool in which signal 1 is over them.
class BorrowedFiles : public test::RecordingTest {
 protected:
  BorrowedFiles() {
    SafeStorage kept;
    kept.keepsFiles = true;
    const test::Folder made(temp.file("made"));
    SignalPool writer(made.path(), kept);
    const auto signal = put(writer, 1, samples);
    fs::rename(made.file(signal->getStorageId(0)), others.file(4));
    fs::rename(made.file(signal->getStorageId(1)), others.file(9));
    before = everythingIn(others.file(""));
    borrow(1);
  }
  ~BorrowedFiles() override {
    // Neither the pool nor its end has changed or deleted anything.
    borrower.reset();
    EXPECT_TRUE(!isUntouched || everythingIn(others.file("")) == before);
  }

  // Makes a signal over the files.
  void borrow(int signalId) {
    SignalPoolImpl& impl = PoolAccess::of(*borrower);
    auto lender = std::make_shared<FileLender>();
    for (const int id : {4, 9}) {
      lender->files[id] =
          std::make_shared<ContentReader>(std::make_shared<InputFile>(std::make_shared<DiskFile>(
                                              others.file(id), DiskFile::Mode::readOnly)),
                                          std::make_shared<RowGroupCache>());
    }
    impl.sharedStore()->offer(lender);
    impl.adopt({signalId, 4, 9});
    impl.sharedStore()->endOffers();
  }
  std::shared_ptr<ParquetSignal> borrowed() {
    auto signal = borrower->getSignal(1);
    signal->setDataType(Int16);
    signal->setCategory(Scalar);
    return signal;
  }

  const Samples samples = ramp({3, 1, 4, 1, 5});
  const test::Folder others{temp.file("others")};
  const test::Folder own{temp.file("own")};
  std::unique_ptr<SignalPool> borrower = std::make_unique<SignalPool>(own.path(), SafeStorage());
  std::map<std::string, std::string> before;
  bool isUntouched = true;
};

TEST_F(BorrowedFiles, AreReadWhereTheyLie) {
  EXPECT_EQ(test::read(*borrowed()), samples);
  borrower->flush();
  EXPECT_EQ(own.names(), Names{});
  EXPECT_EQ(put(*borrower, 2, samples)->getStorageId(1), 11);  // behind those that were taken over
  borrowed()->resetData();
  EXPECT_FALSE(borrowed()->hasData());
}

TEST_F(BorrowedFiles, AreCopiedWhereThePoolNamesItsFiles) {
  const std::string records = borrower->serializeSignalRecords();
  EXPECT_EQ(records, R"([{"dataStorageId":[9],"signalId":1,"timeStorageId":[4]}])");
  EXPECT_EQ(everythingIn(own.file("")), before);
  EXPECT_EQ(test::read(*borrowed()), samples);
  borrowed()->resetData();
  EXPECT_EQ(own.names(), Names{});
}

TEST_F(BorrowedFiles, AreSavedAsFilesOrIntoPacks) {
  EXPECT_EQ(test::read(*borrowed()), samples);
  for (const std::size_t packBelow : {0U, 1000U}) {
    recording::SaveOptions options;
    options.packBelow = packBelow;
    recording::saveRecording(*borrower, {}, Path::fromFilesystem(rec), options);
    EXPECT_EQ(faults(rec), "");
    EXPECT_EQ(test::fs::exists(rec / "storage" / "9.parquet"), packBelow == 0);
    const auto info = recording::describeRecording(Path::fromFilesystem(rec));
    ASSERT_TRUE(info.signals.at(0).timeSpan);
    EXPECT_EQ(info.signals.at(0).timeSpan->to, samples.time.back());
    recording::Recording opened = open(rec);
    EXPECT_EQ(test::read(*opened.pool().getSignal(1)), samples);
  }
  EXPECT_EQ(own.names(), Names{});
}

TEST_F(BorrowedFiles, RowsThatFollowGoToAFileOfThePool) {
  borrower->deleteSignal(1);
  FeatureFlag::set("fKYRUseParquetRowGroup", true);
  borrow(2);
  const auto stream = borrower->getStreamableSignal(2);
  stream->setDataType(Int16);
  const std::vector<short> more = {9, 2};
  stream->appendData(more.data(), more.size() * sizeof(short), {}, {});
  stream->finish();
  std::vector<char> data;
  std::vector<std::vector<unsigned long>> dimensions;
  stream->getData(0, 100, data, dimensions);
  EXPECT_EQ(data, test::bytesOf<short>({3, 1, 4, 1, 5, 9, 2}));
  EXPECT_EQ(own.names(), Names{"10"});
}

TEST_F(BorrowedFiles, StayReadableWithoutTheirNames) {
  isUntouched = false;
  EXPECT_EQ(test::read(*borrowed()), samples);
  for (const int id : {4, 9}) fs::rename(others.file(id), others.file(id + 1));
  EXPECT_EQ(test::read(*borrowed()), samples);
  for (const int id : {4, 9}) others.touch(std::to_string(id), "something else");
  EXPECT_EQ(test::read(*borrowed()), samples);
  EXPECT_NE(borrower->serializeSignalRecords(), "[]");
  EXPECT_EQ(own.contents("9"), before.at("9"));
}

// Lowers the number of descriptors that the process may have.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(rlim_t limit) {
    getrlimit(RLIMIT_NOFILE, &before_);
    struct rlimit lower = before_;
    lower.rlim_cur = limit;
    setrlimit(RLIMIT_NOFILE, &lower);
  }
  ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before_); }
  DescriptorLimit(const DescriptorLimit&) = delete;

 private:
  struct rlimit before_ {};
};

std::size_t openDescriptors() {
  const fs::directory_iterator entries("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

class FinishedFiles : public test::RecordingTest {
 protected:
  static Samples samplesOf(int id) {
    return {{}, std::vector<char>(100, static_cast<char>(id)), {}, {}};
  }
  static std::string fileOf(SignalPool& pool, int id) {
    return std::to_string(pool.getSignal(id)->getStorageId(1));
  }
};

TEST_F(FinishedFiles, AQuarterOfTheDescriptorsStaysOpenAndIsReadWithoutNames) {
  const DescriptorLimit limit(200);
  SignalPool safe(store.path(), SafeStorage());
  constexpr int kSignals = 120;
  for (int id = 0; id < kSignals; ++id) put(safe, id, samplesOf(id), Int8);
  const std::size_t before = openDescriptors();
  for (int id = 0; id < kSignals; ++id) {
    ASSERT_EQ(test::read(*safe.getSignal(id)), samplesOf(id));
  }
  EXPECT_EQ(openDescriptors() - before, 50U);
  for (int id = 0; id < kSignals; ++id) fs::remove(store.file(fileOf(safe, id)));
  for (int id = kSignals - 50; id < kSignals; ++id) {
    EXPECT_EQ(test::read(*safe.getSignal(id)), samplesOf(id));
  }
  EXPECT_THAT(errorOf([&] { test::read(*safe.getSignal(3)); }),
              HasSubstr(store.file(fileOf(safe, 3)).string()));
  for (int id = 0; id < kSignals; ++id) safe.deleteSignal(id);
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(FinishedFiles, OneThatWasReplacedWhileItWasClosedIsAnError) {
  const DescriptorLimit limit(64);
  SignalPool safe(store.path(), SafeStorage());
  for (int id = 0; id < 40; ++id) put(safe, id, samplesOf(id), Int8);
  const fs::path first = store.file(fileOf(safe, 0));
  for (int id = 0; id < 40; ++id) test::read(*safe.getSignal(id));
  fs::remove(first);
  fs::copy_file(store.file(fileOf(safe, 1)), first);
  EXPECT_THAT(errorOf([&] { test::read(*safe.getSignal(0)); }),
              HasSubstr(first.string() + ": was changed or replaced"));
  EXPECT_EQ(test::read(*safe.getSignal(1)), samplesOf(1));
}

// Files of the directory that others made.
TEST_F(FinishedFiles, ColumnsThatDoNotMakeTheRowsOfASignalAreRefused) {
  using test::column;
  const auto lists = ::arrow::list(::arrow::int8());
  const auto shapes = ::arrow::list(::arrow::uint64());
  struct {
    test::Columns times;
    test::Columns data;
    const char* says;
  } const cases[] = {
      {{{"data", column(::arrow::int8(), {"[1, 2, 3, 4, 5]"})}},
       {},
       "not a single column of float64"},
      {{{"data", column(::arrow::float64(), {"[1, null]"})}}, {}, "null"},
      {{}, {{"data", column(::arrow::int16(), {"[1, null]"})}}, "null"},
      {{}, {{"data", column(lists, {"[[1], [2, null]]"})}}, "null"},
      {{},
       {{"data", column(lists, {"[[1], [2, 3]]"})}, {"dimension", column(shapes, {"[[1], [4]]"})}},
       "sample 1 has 2 elements, its shape 4"},
      {{},
       {{"data", column(lists, {"[[1]]"})},
        {"dimension", column(::arrow::list(::arrow::int8()), {"[[1]]"})}},
       "make no samples"},
  };
  for (const auto& [times, data, says] : cases) {
    SignalPool safe(store.path(), SafeStorage());
    const bool hasTimes = !times.empty();
    test::writeForeignFile(store.file("5"), *test::tableOf(hasTimes ? times : data));
    safe.deserializeSignalRecords(
        hasTimes ? R"([{"dataStorageId":[-554114],"signalId":1,"timeStorageId":[5]}])"
                 : R"([{"dataStorageId":[5],"signalId":1,"timeStorageId":[-554114]}])");
    const auto signal = safe.getSignal(1);
    signal->setDataType(hasTimes || data[0].second->type()->id() == ::arrow::Type::LIST ? Int8
                                                                                        : Int16);
    signal->setCategory(data.size() == 2 ? VarDim : Scalar);
    const std::string error = errorOf([&] { test::read(*signal); });
    EXPECT_THAT(error, HasSubstr(says));
    EXPECT_THAT(error, HasSubstr(store.file("5").string()));
  }
}

TEST_F(FinishedFiles, OthersMayUseAllDescriptors) {
  const DescriptorLimit limit(100);
  SignalPool safe(store.path(), SafeStorage());
  for (int id = 0; id < 30; ++id) put(safe, id, samplesOf(id), Int8);
  for (int id = 0; id < 25; ++id) test::read(*safe.getSignal(id));
  std::vector<std::unique_ptr<DiskFile>> all;
  const std::string full = errorOf([&] {
    for (;;) all.push_back(std::make_unique<DiskFile>("/dev/null", DiskFile::Mode::readOnly));
  });
  EXPECT_THAT(full, HasSubstr("/dev/null"));
  EXPECT_EQ(test::read(*safe.getSignal(29)), samplesOf(29));
}

}  // namespace
}  // namespace kyr::parquet
