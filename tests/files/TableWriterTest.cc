#include <arrow/io/memory.h>
#include <gmock/gmock.h>
#include <parquet/arrow/reader.h>

#include <limits>
#include <random>

#include "files/TableWriter.h"
#include "kyr/parquet/ParquetWriterOptions.h"
#include "kyr/parquet/SerializationOptions.h"
#include "support/ParquetFiles.h"
#include "support/StorageTest.h"

namespace kyr::parquet {
namespace {

using test::must;
using Chunks = ::arrow::ArrayVector;

class TableWriterTest : public test::StorageTest {
 protected:
  TableWriterTest() { serialization_options::bDictionary = false; }

  static std::shared_ptr<::parquet::WriterProperties> properties() {
    return ParquetWriterOptions().buildWriterProperties();
  }
};

std::shared_ptr<::arrow::Array> numbers(const std::shared_ptr<::arrow::DataType>& type,
                                        std::int64_t rows) {
  const auto width = type->bit_width() / 8;
  auto buffer = ::arrow::AllocateBuffer(rows * width).ValueOrDie();
  std::uint32_t state = 1;
  for (std::int64_t i = 0; i < buffer->size(); ++i) {
    state = state * 1664525 + 1013904223;
    buffer->mutable_data()[i] = static_cast<std::uint8_t>(state >> 24U);
  }
  return ::arrow::MakeArray(
      ::arrow::ArrayData::Make(type, rows, {nullptr, std::move(buffer)}, /*null_count=*/0));
}

std::string ours(const ::arrow::Table& table, std::int64_t groupRows,
                 const std::shared_ptr<::parquet::WriterProperties>& properties, int writes) {
  const auto out = ::arrow::io::BufferOutputStream::Create().ValueOrDie();
  const auto format = std::make_shared<FileFormat>(table.schema(), properties);
  EXPECT_NE(format->numberColumns(), nullptr);
  const auto writer = TableWriter::open(format, out).ValueOrDie();
  for (int i = 0; i < writes; ++i) must(writer->write(table, groupRows));
  must(writer->close());
  return out->Finish().ValueOrDie()->ToString();
}

std::string arrows(const ::arrow::Table& table, std::int64_t groupRows,
                   const std::shared_ptr<::parquet::WriterProperties>& properties, int writes) {
  const auto out = ::arrow::io::BufferOutputStream::Create().ValueOrDie();
  const auto writer = ::parquet::arrow::FileWriter::Open(
                          *table.schema(), ::arrow::default_memory_pool(), out, properties)
                          .ValueOrDie();
  for (int i = 0; i < writes; ++i) must(writer->WriteTable(table, groupRows));
  must(writer->Close());
  return out->Finish().ValueOrDie()->ToString();
}

TEST_F(TableWriterTest, WritesTheBytesThatArrowWrites) {
  constexpr std::int64_t kAll = std::numeric_limits<std::int64_t>::max();
  const auto keyValues = ::arrow::key_value_metadata({"unit"}, {"m/s"});
  struct {
    std::vector<std::int64_t> chunks;
    std::int64_t groupRows;
    int writes;
    int batchSize;
  } const cases[] = {
      {{}, kAll, 0, 4096},      {{0}, kAll, 1, 4096},         {{1}, kAll, 2, 4096},
      {{7}, kAll, 1, 4096},     {{1000}, 300, 2, 4096},       {{131072}, kAll, 1, 4096},
      {{131073}, kAll, 1, 100}, {{300001}, kAll, 1, 4096},    {{5000, 0, 300000}, kAll, 1, 4096},
      {{9000}, 4097, 1, 1},     {{70000, 70000}, 99999, 2, 7}};
  for (const auto& type : {::arrow::float64(), ::arrow::float32(), ::arrow::int8(),
                           ::arrow::uint8(), ::arrow::int16(), ::arrow::uint16(), ::arrow::int32(),
                           ::arrow::uint32(), ::arrow::int64(), ::arrow::uint64()}) {
    for (const auto& [chunks, groupRows, writes, batchSize] : cases) {
      serialization_options::batchSize = batchSize;
      const auto written = properties();
      Chunks arrays;
      for (const std::int64_t rows : chunks) arrays.push_back(numbers(type, rows));
      const auto column = ::arrow::ChunkedArray::Make(arrays, type).ValueOrDie();
      const auto table = ::arrow::Table::Make(
          ::arrow::schema({::arrow::field("data", type), ::arrow::field("b", type, false)},
                          keyValues),
          {column, column});
      EXPECT_TRUE(ours(*table, groupRows, written, writes) ==
                  arrows(*table, groupRows, written, writes))
          << type->ToString() << " of " << table->num_rows() << " rows";
    }
  }
}

std::shared_ptr<::arrow::Table> readBack(const std::string& file) {
  std::unique_ptr<::parquet::arrow::FileReader> reader;
  must(::parquet::arrow::OpenFile(
      std::make_shared<::arrow::io::BufferReader>(::arrow::Buffer::FromString(file)),
      ::arrow::default_memory_pool(), &reader));
  std::shared_ptr<::arrow::Table> table;
  must(reader->ReadTable(&table));
  return table;
}

TEST_F(TableWriterTest, NullsComeBack) {
  const auto lists = ::arrow::list(::arrow::field("element", ::arrow::int16()));
  const auto table = test::tableOf(
      {{"data", test::column(::arrow::float64(), {"[null, 1, 2, null]", "[null]", "[3, 4]"})},
       {"b", test::column(::arrow::int16(), {"[1, 2, 3, 4, 5, -6, null]"})},
       {"full", test::column(lists, {"[[1], [2, 3], [4, 5, 6], [7], [8]]", "[[9], [-10]]"})},
       {"c", test::column(lists, {"[[1, 2], [], null]", "[]", "[[null], [3, null], [4], []]"})}});
  for (const std::int64_t groupRows : {5, 2, 100}) {
    const auto read = readBack(ours(*table, groupRows, properties(), 1));
    EXPECT_TRUE(read->Equals(*table)) << read->ToString();
  }
  // Pieces of arrays, whose offsets do not begin at 0.
  EXPECT_TRUE(readBack(ours(*table->Slice(1, 5), 9, properties(), 1))->Equals(*table->Slice(1, 5)));

  const auto required =
      table->schema()
          ->SetField(0, ::arrow::field("data", ::arrow::float64(), /*nullable=*/false))
          .ValueOrDie();
  const auto writer = TableWriter::open(std::make_shared<FileFormat>(required, properties()),
                                        ::arrow::io::BufferOutputStream::Create().ValueOrDie())
                          .ValueOrDie();
  EXPECT_FALSE(writer->write(*::arrow::Table::Make(required, table->columns()), 9).ok());
  const auto empty = ::arrow::Table::MakeEmpty(required).ValueOrDie();
  EXPECT_FALSE(writer->write(*empty, 9).ok());  // nothing more once a write failed
}

// Lists of equal and of random lengths, some of which are empty or null.
TEST_F(TableWriterTest, ListsOfManyPagesComeBack) {
  const auto type = ::arrow::list(::arrow::field("element", ::arrow::float64()));
  std::mt19937 random(1);
  for (const int batchSize : {1, 100, 4096}) {
    for (const unsigned spread : {0U, 1U, 5U, 100U}) {
      serialization_options::batchSize = batchSize;
      const bool hasNulls = batchSize == 100;
      Chunks arrays;
      for (const std::int64_t rows : {3, 20'000, 0, 1'000}) {
        const auto values = std::make_shared<::arrow::DoubleBuilder>();
        ::arrow::ListBuilder builder(::arrow::default_memory_pool(), values, type);
        for (std::int64_t row = 0; row < rows; ++row) {
          const bool isNull = hasNulls && random() % 50 == 0;
          must(isNull ? builder.AppendNull() : builder.Append());
          std::uint32_t length = spread == 0 ? 9 : 1;
          if (spread > 1) length = static_cast<std::uint32_t>(random()) % spread;
          for (unsigned i = 0; i < length && !isNull; ++i) {
            must(values->Append(static_cast<double>(random())));
          }
        }
        arrays.push_back(builder.Finish().ValueOrDie());
      }
      const auto table = test::tableOf({{"data", std::make_shared<::arrow::ChunkedArray>(arrays)}});
      const auto read = readBack(ours(*table, 15'000, properties(), 2));
      const auto twice = ::arrow::ConcatenateTables({table, table}).ValueOrDie();
      EXPECT_TRUE(read->Equals(*twice)) << "spread " << spread << ", batch " << batchSize;
    }
  }
}

TEST_F(TableWriterTest, OtherFilesAreLeftToArrow) {
  const auto isLeft = [](const auto& type, const auto& properties) {
    const auto schema = ::arrow::schema({::arrow::field("data", type)});
    return FileFormat(schema, properties).numberColumns() == nullptr;
  };
  EXPECT_FALSE(isLeft(::arrow::float64(), properties()));
  for (const auto& type : {::arrow::binary(), ::arrow::boolean(), ::arrow::list(::arrow::utf8()),
                           ::arrow::list(::arrow::list(::arrow::int8())),
                           ::arrow::list(::arrow::field("element", ::arrow::int8(), false)),
                           ::arrow::timestamp(::arrow::TimeUnit::NANO)}) {
    EXPECT_TRUE(isLeft(type, properties()));
  }
  EXPECT_TRUE(isLeft(::arrow::float64(),
                     ParquetWriterOptions().buildWriterProperties(::arrow::Compression::SNAPPY)));
  serialization_options::bDictionary = true;
  EXPECT_TRUE(isLeft(::arrow::float64(), properties()));
}

}  // namespace
}  // namespace kyr::parquet
