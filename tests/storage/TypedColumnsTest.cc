#include <gmock/gmock.h>

#include <stdexcept>

#include "kyr/parquet/ParquetSerializerWorker.h"
#include "kyr/parquet/SchemaBuilder.h"
#include "storage/TypedColumns.h"
#include "support/ParquetFiles.h"
#include "support/StorageTest.h"

namespace kyr::parquet {
namespace {

using test::column;
using test::Dims;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Ints = std::vector<int>;
using Worker = ParquetSerializerWorker;

class TypedColumns : public test::StorageTest {
 protected:
  std::vector<std::string> storedColumns(int id) const {
    std::vector<std::string> result;
    for (const auto& field : worker->read(id)->fields()) result.push_back(field->ToString());
    return result;
  }

  Ints offsets{99};
  Dims dims{{99}};
};

TEST(Dimensions, FlattenAndComeBack) {
  const auto flat = Worker::buildDimensionArrayDataAndOffset({{2, 3}, {}, {4}});
  EXPECT_THAT(flat.first, ElementsAre(2, 3, 4));
  EXPECT_THAT(flat.second, ElementsAre(0, 2, 2, 3));
  EXPECT_EQ(Worker::reconstructDimensionArray(flat.first, flat.second), (Dims{{2, 3}, {}, {4}}));
  EXPECT_EQ(Worker::reconstructDimensionArray({}, {0}), Dims{});
}

// The two families over std::vector<char> store different columns, and only one of them shares
// files.
TEST_F(TypedColumns, CharIsAnInt8ColumnSharedAndBytesAreABinaryColumnNeverShared) {
  const auto lists = schemaBuilder::getSchema(FixedDim, Int8, false, "data");
  const auto blobs = schemaBuilder::getSchema(Bus, Binary, false, "data");
  const std::vector<char> data{1, -2, 3};
  const Ints rows{0, 1, 3};
  const int typed = worker->writeBinaryArray<char>(lists, data, rows, {}, {});
  EXPECT_EQ(worker->writeBinaryArray<char>(lists, data, rows, {}, {}), typed);
  const int bytes = worker->writeBinaryArray(blobs, data, rows, {}, {});
  EXPECT_NE(worker->writeBinaryArray(blobs, data, rows, {}, {}), bytes);
  const auto timed = schemaBuilder::getSchema(FixedDim, Int8, true, "data");
  const int withTime = worker->writeBinaryArray<char>(timed, {1, 2}, data, rows, {}, {});
  EXPECT_NE(worker->writeBinaryArray<char>(timed, {1, 2}, data, rows, {}, {}), withTime);
  EXPECT_THAT(storedColumns(typed), ElementsAre("data: list<element: int8>"));
  EXPECT_THAT(storedColumns(bytes), ElementsAre("data: binary"));

  std::vector<char> asTyped, asBytes;
  worker->readBinaryArray<char>(typed, asTyped, offsets, dims);
  EXPECT_EQ(offsets, rows);
  worker->readBinaryArray(bytes, asBytes, offsets, dims);
  EXPECT_EQ(offsets, rows);
  EXPECT_EQ(asTyped, data);
  EXPECT_EQ(asBytes, data);
  EXPECT_EQ(dims, Dims{{99}});  // not stored, so left unchanged
}

TEST_F(TypedColumns, RefusedInputAllocatesNothing) {
  const auto list = schemaBuilder::getSchema(FixedDim, Int8, false, "data");
  const auto blob = schemaBuilder::getSchema(Bus, Binary, false, "data");
  const std::vector<char> data{1, 2};
  for (const Ints& bad : {Ints{-1, 0}, Ints{0, 2, 1}, Ints{0, 3}}) {
    EXPECT_THROW(worker->writeBinaryArray<char>(list, data, bad, {}, {}), std::invalid_argument);
    EXPECT_THROW(worker->writeBinaryArray(blob, {0.5}, data, bad, {}, {}), std::invalid_argument);
    EXPECT_THROW(Worker::binaryArrayBuildHelper("data", data, bad), std::invalid_argument);
  }
  EXPECT_THROW(worker->writeBinaryArray(blob, data, {}, {}, {}), std::invalid_argument);
  EXPECT_THROW(worker->writeBinaryArray(nullptr, data, {0, 1}, {}, {}), std::invalid_argument);
  EXPECT_THROW(worker->writeBinaryArray<char>(nullptr, data, {}, {}, {}), std::invalid_argument);
  EXPECT_TRUE(worker->isParquetDirectoryEmpty());
}

// The values of all chunks follow each other. Chunks may be empty or begin within their arrays.
TEST_F(TypedColumns, ChunksAreJoinedAndTheirOffsetsContinue) {
  const auto table = test::tableOf(
      {{"time", column(::arrow::float64(), {"[99, 1]", "[]", "[2, 3, 99]"})},
       {"data",
        column(::arrow::list(::arrow::int16()), {"[[99], [1, 2]]", "[]", "[[], [3], [99]]"})},
       {"dimension",
        column(::arrow::list(::arrow::uint64()), {"[[99], [2]]", "[]", "[[0, 1], [], [99]]"})}});
  const typedColumns::StoredTable stored("file", table->Slice(1, 3), /*withTime=*/true);
  std::vector<double> time;
  std::vector<short> values;
  stored.readTime(time);
  stored.readValues(::arrow::int16(), values, offsets);
  stored.readDimensions(dims);
  EXPECT_THAT(time, ElementsAre(1, 2, 3));
  EXPECT_THAT(values, ElementsAre(1, 2, 3));
  EXPECT_THAT(offsets, ElementsAre(0, 2, 2, 3));
  EXPECT_EQ(dims, (Dims{{2}, {0, 1}, {}}));

  const auto blobs = column(::arrow::binary(), {"[\"skip\", \"ab\"]", "[]", "[\"\", \"c\"]"});
  std::vector<char> data{'x'};
  Worker::extractDataFromBinaryArray(blobs->Slice(1), nullptr, data, offsets);
  EXPECT_THAT(data, ElementsAre('x', 'a', 'b', 'c'));
  EXPECT_THAT(offsets, ElementsAre(1, 3, 3, 4));
  EXPECT_THROW(Worker::extractDataFromBinaryArray(table->column(0), nullptr, data, offsets),
               std::invalid_argument);
}

TEST_F(TypedColumns, FileOfManyRowGroupsOrOfNoRowsIsReadAsOneTable) {
  const auto table = test::tableOf(
      {{"data", column(::arrow::list(::arrow::int32()), {"[[1, 2], [], [3], [4, 5, 6]]"})}});
  test::writeForeignFile(store.file(0), *table, /*rowsPerGroup=*/1);
  test::writeForeignFile(store.file(1), *table->Slice(4));
  Ints values{99};
  worker->readBinaryArray<int>(0, values, offsets, dims);
  EXPECT_THAT(values, ElementsAre(1, 2, 3, 4, 5, 6));
  EXPECT_THAT(offsets, ElementsAre(0, 2, 2, 3, 6));
  worker->readBinaryArray<int>(1, values, offsets, dims);
  EXPECT_THAT(values, IsEmpty());
  EXPECT_THAT(offsets, ElementsAre(0));
}

}  // namespace
}  // namespace kyr::parquet
