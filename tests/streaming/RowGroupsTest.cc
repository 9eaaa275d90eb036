#include <arrow/io/memory.h>
#include <gmock/gmock.h>

#include <limits>
#include <numeric>
#include <stdexcept>

#include "streaming/RowGroups.h"
#include "support/ParquetFiles.h"

namespace kyr::parquet {
namespace {

using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();

// A file that counts the bytes that are read.
class MeteredFile : public ::arrow::io::RandomAccessFile {
 public:
  explicit MeteredFile(std::shared_ptr<::arrow::Buffer> contents) : file_(std::move(contents)) {}

  ::arrow::Result<std::int64_t> Read(std::int64_t bytes, void* out) override {
    bytesRead += bytes;
    return file_.Read(bytes, out);
  }
  ::arrow::Result<std::shared_ptr<::arrow::Buffer>> Read(std::int64_t bytes) override {
    bytesRead += bytes;
    return file_.Read(bytes);
  }
  ::arrow::Status Seek(std::int64_t position) override { return file_.Seek(position); }
  ::arrow::Result<std::int64_t> Tell() const override { return file_.Tell(); }
  ::arrow::Result<std::int64_t> GetSize() override { return file_.GetSize(); }
  ::arrow::Status Close() override { return file_.Close(); }
  bool closed() const override { return file_.closed(); }

  std::int64_t bytesRead = 0;

 private:
  ::arrow::io::BufferReader file_;
};

// A file of rows that count up, in row groups of the given sizes.
struct CountedFile {
  explicit CountedFile(const std::vector<int>& sizes) {
    const auto out = ::arrow::io::BufferOutputStream::Create().ValueOrDie();
    test::writeRowGroups(out, sizes);
    source = std::make_shared<MeteredFile>(out->Finish().ValueOrDie());
    ::parquet::arrow::FileReaderBuilder builder;
    test::must(builder.Open(source));
    ::parquet::ArrowReaderProperties properties;
    properties.set_pre_buffer(false);  // as the writer opens its files
    test::must(builder.properties(properties)->Build(&reader));
    metadata = reader->parquet_reader()->metadata();
  }

  std::shared_ptr<::arrow::Table> read(std::uint64_t from, std::uint64_t to) const {
    return readRows(*reader, *metadata, from, to);
  }

  std::shared_ptr<MeteredFile> source;
  std::unique_ptr<::parquet::arrow::FileReader> reader;
  std::shared_ptr<::parquet::FileMetaData> metadata;
};

std::vector<double> upFrom(std::uint64_t first, std::uint64_t count) {
  std::vector<double> result(count);
  std::iota(result.begin(), result.end(), static_cast<double>(first));
  return result;
}

TEST(RowGroups, WalkTakesEverySizeOneStepLate) {
  struct {
    std::vector<int> sizes;
    std::vector<std::tuple<std::uint64_t, int, std::uint64_t>> positions;
  } const cases[] = {
      {{10, 10, 3},
       {{0, 0, 0}, {9, 0, 9}, {10, 1, 0}, {22, 2, 2}, {23, 2, 3}, {24, 2, 23}, {99, 2, 23}}},
      // The walk takes the row groups for ones of 10, 10 and 20 rows.
      {{10, 20, 30},
       {{10, 1, 0}, {19, 1, 9}, {20, 2, 0}, {39, 2, 19}, {40, 2, 19}, {60, 2, 19}, {61, 2, 60}}},
      {{5, 1, 1, 9},
       {{4, 0, 4},
        {5, 1, 0},
        {9, 1, 4},
        {10, 2, 0},
        {11, 3, 0},
        {12, 3, 0},
        {16, 3, 0},
        {17, 3, 16}}},
      {{4}, {{4, 0, 3}, {5, 0, 4}}},
      {{0, 4}, {{0, 1, kMax}, {4, 1, kMax}, {5, 1, 4}}},
      {{}, {{0, 0, 0}, {1, -1, 0}}},
      // The lower 32 bits, signed, decide whether a row lies beyond the end.
      {{4},
       {{0x7fffffff, 0, 4},
        {0x80000000, 0, 3},
        {0x100000004, 0, 3},
        {0x100000005, 0, 4},
        {kMax, 0, 3}}},
  };
  for (const auto& [sizes, positions] : cases) {
    const CountedFile file(sizes);
    for (const auto& [row, group, offset] : positions) {
      SCOPED_TRACE(::testing::PrintToString(sizes) + " row " + std::to_string(row));
      const RowPosition found = locateRow(*file.metadata, row);
      EXPECT_EQ(found.rowGroup, group);
      EXPECT_EQ(found.offset, offset);
    }
  }
}

TEST(RowGroups, RangesAreExactWhereOnlyTheLastGroupIsShorter) {
  for (const auto& sizes : {std::vector{10, 10, 3}, {10, 10}, {10}, {1, 1, 1}}) {
    const CountedFile file(sizes);
    const auto rows = static_cast<std::uint64_t>(file.metadata->num_rows());
    for (std::uint64_t from = 0; from <= rows + 2; ++from) {
      for (std::uint64_t to = 0; to <= rows + 2; ++to) {
        SCOPED_TRACE(::testing::PrintToString(std::make_tuple(sizes, from, to)));
        const auto table = file.read(from, to);
        const std::uint64_t end = std::min(rows, to);
        ASSERT_EQ(table == nullptr, end < from);
        if (table) {
          EXPECT_EQ(test::numbersOf(*table), upFrom(from, end - from));
        }
      }
    }
    EXPECT_EQ(test::numbersOf(*file.read(0, kMax)), upFrom(0, rows));
    EXPECT_EQ(test::numbersOf(*file.read(1, kMax)), upFrom(1, rows - 1));
  }
}

TEST(RowGroups, RangesOfUnequalGroupsAreShiftedCutOrRefusedButNeverAbort) {
  struct {
    std::vector<int> sizes;
    std::uint64_t from, to;
    std::vector<double> rows;
  } const cases[] = {
      {{10, 20, 30}, 15, 45, upFrom(15, 30)},
      {{10, 20, 30}, 20, 25, upFrom(30, 5)},   // shifted
      {{10, 20, 30}, 25, 60, upFrom(35, 25)},  // and cut at the end
      {{10, 20, 30}, 60, 61, {}},
      {{100, 5, 5}, 104, 110, {104}},
      {{100, 5, 5}, 105, 110, {}},
      {{100, 5, 5}, 106, 106, {}},
      {{0, 4}, 2, 2, {}},
      {{0, 4}, 0, kMax, upFrom(0, 4)},
  };
  for (const auto& [sizes, from, to, rows] : cases) {
    SCOPED_TRACE(::testing::PrintToString(std::make_tuple(sizes, from, to)));
    EXPECT_EQ(test::numbersOf(*CountedFile(sizes).read(from, to)), rows);
  }
  const auto refusal =
      ThrowsMessage<std::range_error>(HasSubstr("row groups are of unequal length"));
  EXPECT_THAT([] { CountedFile({100, 5, 5}).read(106, 110); }, refusal);
  EXPECT_THAT([] { CountedFile({0, 4}).read(0, 2); }, refusal);
}

TEST(RowGroups, FileWithoutGroupsIsAnEmptyTableOfItsSchema) {
  const CountedFile file({});
  for (const std::uint64_t to : {std::uint64_t{0}, std::uint64_t{5}, kMax}) {
    const auto table = file.read(0, to);
    EXPECT_EQ(table->num_rows(), 0);
    EXPECT_EQ(table->schema()->field(0)->ToString(), "data: double");
  }
  EXPECT_EQ(file.read(1, 5), nullptr);
}

TEST(RowGroups, GroupsAndColumnsAreReadAsListedAndMustExist) {
  const CountedFile file({2, 3, 4});
  EXPECT_EQ(test::numbersOf(*readRowGroups(*file.reader, {{2, 0}}, {{0}})),
            (std::vector<double>{5, 6, 7, 8, 0, 1}));
  EXPECT_EQ(readRowGroups(*file.reader, {{1}}, std::vector<int>{})->num_columns(), 0);
  EXPECT_EQ(readRowGroups(*file.reader, std::vector<int>{}, {{0}})->num_rows(), 9);
  for (const int wrong : {3, -1}) {
    EXPECT_THAT(
        [&] {
          readRowGroups(*file.reader, {{0, wrong}}, std::nullopt);
        },
        ThrowsMessage<std::range_error>("Requested row group exceeds number of row groups"));
  }
}

TEST(RowGroups, RangeReadTakesNoByteOfOtherGroups) {
  const CountedFile file(std::vector<int>(50, 1000));
  const auto before = file.source->bytesRead;
  EXPECT_EQ(test::numbersOf(*file.read(25500, 26500)), upFrom(25500, 1000));
  std::int64_t expected = 0;
  for (const int group : {25, 26}) {
    expected += file.metadata->RowGroup(group)->ColumnChunk(0)->total_compressed_size();
  }
  EXPECT_EQ(file.source->bytesRead - before, expected);

  KeptRowGroups kept;
  const auto readKept = [&](std::uint64_t from) {
    return test::numbersOf(*readRows(*file.reader, *file.metadata, from, from + 10, &kept));
  };
  EXPECT_EQ(readKept(3100), upFrom(3100, 10));
  const auto once = file.source->bytesRead;
  EXPECT_EQ(readKept(3900), upFrom(3900, 10));
  EXPECT_EQ(file.source->bytesRead, once);
  EXPECT_EQ(readKept(3995), upFrom(3995, 10));
  EXPECT_GT(file.source->bytesRead, once);
}

}  // namespace
}  // namespace kyr::parquet
