#include <arrow/table.h>
#include <gmock/gmock.h>
#include <parquet/exception.h>

#include <cstdint>
#include <limits>

#include "kyr/parquet/ParquetExportSerializerWorker.h"
#include "kyr/parquet/SerializationOptions.h"
#include "support/ParquetFiles.h"
#include "support/StorageTest.h"

namespace kyr::parquet {
namespace {

using test::bytesOf;
using ::testing::HasSubstr;
using ::testing::Throws;
using ::testing::ThrowsMessage;

class ExportWorker : public test::StorageTest {
 protected:
  std::u16string pathOf(const std::string& name) const { return store.path().join(name).text(); }
  std::shared_ptr<::arrow::Array> dataArray(KYRSignalDataType type,
                                            const std::vector<char>& bytes) {
    return exporter.buildArray({{"x", {}, bytes, {}, type}})[1];
  }

  ParquetExportSerializerWorker exporter;
};

TEST_F(ExportWorker, ArraysAreTimeAndDataOfEachSignal) {
  const std::vector<double> time{0, 0.5, -0.0};
  const auto arrays =
      exporter.buildArray({{"a", time, bytesOf<double>({1, 2, 3}), {{1}}, Double},
                           {"b",
                            {7},
                            bytesOf<std::uint64_t>({std::numeric_limits<std::uint64_t>::max()}),
                            {},
                            UInt64}});
  ASSERT_EQ(arrays.size(), 4);
  const auto doubles = [](const char* json) {
    return test::column(::arrow::float64(), {json})->chunk(0);
  };
  EXPECT_TRUE(arrays[0]->Equals(doubles("[0, 0.5, -0.0]")));
  EXPECT_TRUE(arrays[1]->Equals(doubles("[1, 2, 3]")));
  EXPECT_TRUE(arrays[2]->Equals(doubles("[7]")));
  EXPECT_EQ(arrays[3]->ToString(), "[\n  18446744073709551615\n]");
  EXPECT_TRUE(exporter.buildArray({}).empty());
}

TEST_F(ExportWorker, EveryNumericTypeHasItsColumnTypeAndOthersAreRefused) {
  const std::pair<KYRSignalDataType, std::shared_ptr<::arrow::DataType>> types[] = {
      {Double, ::arrow::float64()}, {Single, ::arrow::float32()}, {Int8, ::arrow::int8()},
      {UInt8, ::arrow::uint8()},    {Int16, ::arrow::int16()},    {UInt16, ::arrow::uint16()},
      {Int32, ::arrow::int32()},    {UInt32, ::arrow::uint32()},  {Int64, ::arrow::int64()},
      {UInt64, ::arrow::uint64()}};
  for (const auto& [type, arrowType] : types) {
    SCOPED_TRACE(type);
    const std::size_t width = elementWidth(type);
    const auto array = dataArray(type, std::vector<char>(3 * width + width - 1, '\1'));
    EXPECT_TRUE(array->type()->Equals(arrowType)) << array->type()->ToString();
    EXPECT_EQ(array->length(), 3);  // the trailing part of an element is dropped
    EXPECT_EQ(array->null_count(), 0);
  }
  for (const auto type : {Boolean, UInt64Alt, UInt32Alt, Null, ByteString, Binary,
                          static_cast<KYRSignalDataType>(9)}) {
    EXPECT_THAT([&] { dataArray(type, {'\0'}); },
                ThrowsMessage<std::runtime_error>("Unknown data type encountered."));
  }
}

TEST_F(ExportWorker, FileHoldsTheColumnsInOneRowGroup) {
  constexpr std::size_t kRows = 10000;
  const std::vector<double> time(kRows, 0.25);
  const auto schema =
      exporter.getExportSchema({{Scalar, Double, true, "a"}, {Scalar, Int16, true, "b"}});
  EXPECT_EQ(schema->field_names(), (std::vector<std::string>{"time", "a", "time", "b"}));
  const auto table = exporter.buildTable(
      schema,
      exporter.buildArray({{"a", time, bytesOf(time), {}, Double},
                           {"b", time, bytesOf(std::vector<std::int16_t>(kRows, -3)), {}, Int16}}));
  exporter.write(*table, pathOf("täble"));
  ASSERT_TRUE(exporter.writeStatus().ok()) << exporter.writeStatus().ToString();
  EXPECT_EQ(test::rowGroupsOf(store.file("täble")), std::vector<std::int64_t>{kRows});
  // The codec is that of the options as they were when the worker was made.
  serialization_options::compressionMethod = ::arrow::Compression::ZSTD;
  exporter.write(*table, pathOf("plain"));
  ParquetExportSerializerWorker().write(*table, pathOf("zstd"));
  for (const auto& [name, codec] : {std::pair{"plain", ::arrow::Compression::UNCOMPRESSED},
                                    std::pair{"zstd", ::arrow::Compression::ZSTD}}) {
    EXPECT_EQ(test::metadataOf(store.file(name))->RowGroup(0)->ColumnChunk(3)->compression(),
              codec);
  }
}

// Parquet divides by the batch size.
TEST_F(ExportWorker, BatchSizeBelowOneFailsTheWrite) {
  serialization_options::batchSize = 0;
  ParquetExportSerializerWorker other;
  other.write(*test::tableOf({{"x", test::column(::arrow::int32(), {"[1]"})}}), pathOf("out"));
  EXPECT_THAT(other.writeStatus().ToString(), HasSubstr("BatchSize is 0"));
}

TEST_F(ExportWorker, WriteOverAFileIsLostInSilence) {
  const auto table = test::countingTable(3);
  EXPECT_TRUE(exporter.writeStatus().ok());
  exporter.write(*table, pathOf("out"));
  EXPECT_TRUE(exporter.writeStatus().ok());
  const std::string before = store.contents("out");
  exporter.write(*table, pathOf("out"));
  EXPECT_EQ(store.contents("out"), before);
  EXPECT_THAT(exporter.writeStatus().ToString(), HasSubstr(store.file("out").string()));
  EXPECT_THAT(exporter.writeStatus().ToString(), HasSubstr("Appending to file not implemented."));
  store.touch("empty");
  exporter.write(*table, pathOf("empty"));
  EXPECT_TRUE(exporter.writeStatus().ok());
}

TEST_F(ExportWorker, FileThatCannotBeOpenedIsAnError) {
  EXPECT_THAT([&] { exporter.write(*test::countingTable(1), pathOf("missing/out")); },
              Throws<::parquet::ParquetStatusException>());
  EXPECT_THAT([&] { exporter.write(*test::countingTable(1), u"\xd800"); },
              Throws<std::invalid_argument>());
}

}  // namespace
}  // namespace kyr::parquet
