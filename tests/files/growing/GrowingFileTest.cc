#include <gmock/gmock.h>
#include <parquet/arrow/reader.h>
#include <parquet/statistics.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <string>
#include <system_error>
#include <thread>

#include "files/InputFile.h"
#include "files/growing/FileRecovery.h"
#include "files/growing/GrowingFile.h"
#include "platform/DiskFile.h"
#include "support/FaultyDisk.h"
#include "support/ParquetFiles.h"
#include "support/TempDir.h"

namespace kyr::parquet {
namespace {

namespace fs = std::filesystem;

using test::countingTable;
using test::numbersOf;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

using Properties = ::parquet::WriterProperties;

const auto kKeyValues = ::arrow::key_value_metadata({{"unit", "m/s"}, {"empty", ""}});

std::vector<double> countTo(std::uint64_t rows) {
  std::vector<double> values;
  while (values.size() < rows) values.push_back(static_cast<double>(values.size()));
  return values;
}

std::shared_ptr<::arrow::Table> readPlainly(const fs::path& path) {
  std::unique_ptr<::parquet::arrow::FileReader> reader;
  test::must(::parquet::arrow::OpenFile(::arrow::io::ReadableFile::Open(path).ValueOrDie(),
                                        ::arrow::default_memory_pool(), &reader));
  std::shared_ptr<::arrow::Table> table;
  test::must(reader->ReadTable(&table));
  return table;
}

class GrowingFileTest : public ::testing::Test {
 protected:
  GrowingFileTest() : path(folder.file("0")) {}

  std::unique_ptr<GrowingFile> create() {
    return GrowingFile::create(path, countingTable(0)->schema(),
                               Properties::Builder().disable_dictionary()->build(), kKeyValues);
  }
  // Appends rows that go on counting where the file ends.
  static void append(GrowingFile& file, std::int64_t rows, bool publish = false) {
    file.appendBatch(*countingTable(rows, static_cast<double>(file.rowCount())), publish);
  }
  void expectCountsTo(std::uint64_t rows) const {
    EXPECT_EQ(numbersOf(*readPlainly(path)), countTo(rows));
  }

  test::TempDir folder;
  fs::path path;
};

TEST_F(GrowingFileTest, AllTypesComeBackInAnyWindow) {
  using namespace ::arrow;  // NOLINT: names of column types
  const auto table = test::tableOf(
      {{"time", test::column(float64(), {"[0, 1, 2, 2, 2, 2, 2]"})},
       {"data",
        test::column(list(field("element", uint16())), {"[[1,2], [], [3], [4], [5], [6], [7]]"})},
       {"blob", test::column(binary(), {R"(["a", "", "PAR1", "b", "b", "b", "\u0000"])"})}});
  for (const bool dictionary : {false, true}) {
    for (const int batches : {0, 1, 11, 50}) {
      Properties::Builder builder;
      if (!dictionary) builder.disable_dictionary();
      builder.compression(Compression::ZSTD)->enable_write_page_index();
      const auto file = GrowingFile::create(path, table->schema(), builder.build(), kKeyValues);
      std::vector<std::shared_ptr<Table>> parts{table->Slice(0, 0)};
      for (int i = 0; i < batches; ++i) {
        parts.push_back(table->Slice(i % 3, 1 + i % 5));
        file->appendBatch(*parts.back());
        EXPECT_EQ(file->batchRows(static_cast<std::size_t>(i)), 1 + i % 5);
      }
      const auto all = ConcatenateTables(parts).ValueOrDie();
      const auto rows = static_cast<std::uint64_t>(all->num_rows());
      ASSERT_EQ(file->rowCount(), rows);
      for (std::uint64_t first = 0; first <= rows; first += 3) {
        for (const std::uint64_t count : {std::uint64_t{0}, std::uint64_t{1}, rows / 2, rows}) {
          if (count > rows - first) continue;
          const auto part =
              all->Slice(static_cast<std::int64_t>(first), static_cast<std::int64_t>(count));
          EXPECT_TRUE(file->read(first, count)->Equals(*part));
          EXPECT_TRUE(file->read(first, count, {table->field(2)->name()})
                          ->Equals(*part->SelectColumns({2}).ValueOrDie()));
        }
      }
      file->finish();
      EXPECT_TRUE(file->read(0, rows)->Equals(*all));
      EXPECT_TRUE(readPlainly(path)->Equals(*all));
      EXPECT_EQ(test::rowGroupsOf(path).size(), static_cast<std::size_t>(batches));
      EXPECT_TRUE(test::metadataOf(path)->key_value_metadata()->Equals(*kKeyValues));
      EXPECT_TRUE(file->keyValueMetadata()->Equals(*kKeyValues));
      fs::remove(path);
    }
  }
}

TEST_F(GrowingFileTest, IsPublishedAsLongAsFootersAreSmall) {
  const auto file = create();
  expectCountsTo(0);
  for (int i = 0; i < 20; ++i) {
    append(*file, 8000);
    EXPECT_TRUE(file->isPublished());
    expectCountsTo(file->rowCount());
  }
  // A short record is written over a long footer, of which nothing may be left.
  append(*file, 1);
  EXPECT_FALSE(file->isPublished());
  EXPECT_ANY_THROW(test::metadataOf(path));
  int published = 0;
  for (int i = 0; i < 2000; ++i) {
    append(*file, 1);
    published += file->isPublished() ? 1 : 0;
  }
  EXPECT_GT(published, 1);
  std::uint64_t footers = file->footerBytes();
  file->publish();
  const std::uint64_t last = file->footerBytes() - footers;
  EXPECT_LE(footers, fs::file_size(path) / 16 + 5 * last);
  footers += last;
  file->publish();
  EXPECT_EQ(file->footerBytes(), footers);
  expectCountsTo(file->rowCount());
}

TEST_F(GrowingFileTest, RefusesWhatItCannotKeep) {
  const auto properties = Properties::Builder().max_row_group_length(10)->build();
  const auto schema = countingTable(0)->schema();
  const auto file = GrowingFile::create(path, schema, properties);
  append(*file, 10);
  append(*file, 0);
  const auto before = folder.contents("0");
  const auto other = test::tableOf({{"data", test::column(::arrow::float32(), {"[1]"})}});
  struct {
    const char* says;
    std::function<void()> call;
  } const cases[] = {
      {"data: float", [&] { file->appendBatch(*other); }},
      {"a batch of 11 rows, at most 10", [&] { append(*file, 11); }},
      {"rows 9 and the 2 behind are asked for, there are 10", [&] { file->read(9, 2); }},
      {"rows 11 and the 0 behind", [&] { file->read(11, 0); }},
      {"batch 1 is asked for, there are 1", [&] { file->batchRows(1); }},
      {"cannot create: File exists", [&] { GrowingFile::create(path, schema, properties); }},
  };
  for (const auto& [says, call] : cases) {
    EXPECT_THAT(call, ThrowsMessage<std::exception>(
                          ::testing::AllOf(HasSubstr(path.string()), HasSubstr(says))));
    EXPECT_EQ(folder.contents("0"), before);
  }
  file->finish();
  EXPECT_THROW(append(*file, 1), std::logic_error);
  EXPECT_EQ(numbersOf(*file->read(0, 10)), countTo(10));
}

TEST_F(GrowingFileTest, CanBeReadByOthersWhileItGrows) {
  const auto file = create();
  append(*file, 5);
  auto early = openGrowingFile(path);
  std::atomic<std::uint64_t> stored{5};
  std::atomic<int> opened{0};
  std::thread writer([&] {
    for (int i = 0; i < 3000 || opened < 50; ++i) {
      append(*file, 1 + i % 7, i % 3 == 0);
      stored = file->rowCount();
    }
  });
  for (std::uint64_t last = 0; last < 3000; ++opened) {
    const std::uint64_t before = stored;
    auto view = openGrowingFile(path);
    last = view->rows();
    EXPECT_GE(last, before);
    const auto rows = numbersOf(*view->read(0, last));
    ASSERT_EQ(rows, countTo(last));
  }
  opened = 50;
  writer.join();
  EXPECT_EQ(numbersOf(*early->read(0, early->rows())), countTo(5));
  EXPECT_TRUE(early->keyValueMetadata()->Equals(*kKeyValues));
}

// Lets every call that touches the disk fail, one after the other, alone or together with the calls
// that clean up after it. Each operation that failed is called once more.
TEST_F(GrowingFileTest, FailedCallsChangeNothingAndMayBeRepeated) {
  namespace disk = test::faultyDisk;
  const disk::Plan plans[] = {{1, 1, ENOSPC, false},
                              {1, 1, EIO, true},
                              {1, 2, ENOSPC, true},
                              {1, 3, EIO, true},
                              {1, 1, EINTR, true}};
  for (disk::Plan plan : plans) {
    for (bool reached = true; reached; ++plan.failAt) {
      std::unique_ptr<GrowingFile> file;
      int failed = 0;
      const auto twice = [&](const std::function<void()>& call) {
        for (int left = plan.failures; left >= 0; --left) {
          const std::uint64_t rows = file ? file->rowCount() : 0;
          try {
            return call();
          } catch (const std::runtime_error& error) {
            ++failed;
            EXPECT_THAT(error.what(), HasSubstr(path.parent_path().string()));
            EXPECT_EQ(file ? file->rowCount() : 0, rows);
          }
        }
        ADD_FAILURE() << "call " << plan.failAt << " was made good in vain";
      };
      disk::start(plan);
      twice([&] { file = create(); });
      for (int i = 0; i < 4; ++i) twice([&, i] { append(*file, 100 * (5 - i), i == 1); });
      twice([&] { file->publish(); });
      twice([&] { append(*file, 1); });
      twice([&] { EXPECT_EQ(numbersOf(*file->read(450, 1)), std::vector<double>{450}); });
      twice([&] { file->sync(); });
      twice([&] { syncDirectoryOf(path); });
      twice([&] { file->finish(); });
      reached = disk::stop() >= plan.failAt;
      EXPECT_EQ(failed > 0, reached && plan.error != EINTR) << "call " << plan.failAt;
      expectCountsTo(1401);
      EXPECT_TRUE(recoverFile(kyr::Folder(path.parent_path()), path.filename()).wasComplete);
      fs::remove(path);
    }
    EXPECT_GT(plan.failAt, 10);
  }
}

// Closing a file may fail because the system could not write what it had accepted.
TEST_F(GrowingFileTest, BytesThatAFailedCloseMayHaveLostAreLookedAtAgain) {
  auto file = create();
  append(*file, 100, /*publish=*/true);
  test::faultyDisk::start({1, 1, EIO, /*shortWrites=*/false, /*alsoOpening=*/true});
  EXPECT_THROW(file->finish(), std::system_error);
  test::faultyDisk::stop();
  const std::string sound = readWholeFile(path);
  DiskFile disk(path, DiskFile::Mode::readWrite);
  disk.writeAt(sound.size() / 2, {std::string(100, '\0')});
  EXPECT_THROW(file->finish(), std::runtime_error);
  disk.writeAt(0, {sound});
  append(*file, 100);
  file->finish();
  expectCountsTo(200);
}

TEST_F(GrowingFileTest, FootersKeepWhichBatchesAscend) {
  const auto noise = test::tableOf({{"data", test::column(::arrow::float64(), {"[2, 1]"})}});
  const FileLayout layout(*noise->schema(), Properties::Builder().build(), {true, true, true});
  auto file = GrowingFile::create(path, layout);
  append(*file, 1000);
  file->appendBatch(*noise);
  file->appendBatch(*countingTable(3, 5), /*publish=*/true);
  const auto expectMarks = [&] {
    const auto metadata = test::metadataOf(path);
    ASSERT_EQ(metadata->num_row_groups(), 3);
    for (const int group : {0, 1, 2}) {
      const bool ascends = group != 1;
      EXPECT_EQ(metadata->RowGroup(group)->sorting_columns().size(), ascends ? 1 : 0);
      EXPECT_EQ(metadata->RowGroup(group)->ColumnChunk(0)->is_stats_set(), ascends);
    }
    const auto last = metadata->RowGroup(2)->ColumnChunk(0)->statistics();
    EXPECT_EQ(static_cast<const ::parquet::DoubleStatistics&>(*last).max(), 7);
  };
  expectMarks();
  file.reset();
  fs::resize_file(path, fs::file_size(path) - 1);
  EXPECT_EQ(recoverFile(kyr::Folder(path.parent_path()), path.filename()).batchesKept, 3);
  expectMarks();
}

}  // namespace
}  // namespace kyr::parquet
