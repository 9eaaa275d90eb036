#include <arrow/io/memory.h>
#include <gmock/gmock.h>
#include <parquet/arrow/reader.h>

#include <cstring>
#include <optional>

#include "files/InputFile.h"
#include "kyr/parquet/ParquetWriterOptions.h"
#include "kyr/parquet/SerializationOptions.h"
#include "platform/DiskFile.h"
#include "support/ParquetFiles.h"
#include "support/StorageTest.h"

namespace kyr::parquet {
namespace {

using test::must;

class PlainColumnTest : public test::StorageTest {
 protected:
  PlainColumnTest() { serialization_options::bDictionary = false; }

  void write(const ::arrow::Table& table, std::int64_t groupRows) {
    const auto properties = ParquetWriterOptions().buildWriterProperties();
    const auto out = ::arrow::io::FileOutputStream::Open(store.file(0)).ValueOrDie();
    must(::parquet::arrow::WriteTable(table, ::arrow::default_memory_pool(), out, groupRows,
                                      properties));
  }

  std::shared_ptr<const DiskFile> disk() const {
    return std::make_shared<const DiskFile>(store.file(0), DiskFile::Mode::readOnly);
  }

  /// The elements of rows [from, from + count).
  std::vector<char> read(std::uint64_t from, std::uint64_t count, std::size_t width) const {
    InputFile file(disk());
    std::vector<char> out(3, '?');
    readColumn(file, "data", width, from, count, out);
    return out;
  }

  /// All elements, if the file holds nothing else and is sound.
  std::optional<std::vector<char>> readAll() const {
    std::vector<char> out(3, '?');
    if (!readOnlyColumn(disk(), nullptr, out)) return std::nullopt;
    return out;
  }

  std::optional<std::vector<char>> readByArrow() const {
    const auto file = ::arrow::io::ReadableFile::Open(store.file(0)).ValueOrDie();
    std::unique_ptr<::parquet::arrow::FileReader> reader;
    std::shared_ptr<::arrow::Table> table;
    if (!::parquet::arrow::OpenFile(file, ::arrow::default_memory_pool(), &reader).ok() ||
        !reader->ReadTable(&table).ok() || table->num_columns() == 0) {
      return std::nullopt;
    }
    std::vector<char> bytes;
    for (const auto& chunk : table->column(0)->chunks()) {
      const auto& data = *chunk->data();
      if (chunk->null_count() > 0 || data.buffers.size() != 2) return std::nullopt;
      const auto* first = reinterpret_cast<const char*>(data.buffers[1]->data());
      bytes.insert(bytes.end(), first, first + chunk->length() * data.type->byte_width());
    }
    return bytes;
  }
};

std::shared_ptr<::arrow::Table> ascending(const std::shared_ptr<::arrow::DataType>& type,
                                          int rows) {
  std::unique_ptr<::arrow::ArrayBuilder> builder;
  must(::arrow::MakeBuilder(::arrow::default_memory_pool(), type, &builder));
  for (int i = 0; i < rows; ++i) {
    must(builder->AppendScalar(
        *::arrow::MakeScalar(std::int64_t{i} % 128)->CastTo(type).ValueOrDie()));
  }
  return test::tableOf(
      {{"data", std::make_shared<::arrow::ChunkedArray>(builder->Finish().ValueOrDie())}});
}

TEST_F(PlainColumnTest, GivesTheElementsOfAnyRows) {
  for (const auto& type : {::arrow::float64(), ::arrow::float32(), ::arrow::int8(),
                           ::arrow::uint16(), ::arrow::int32(), ::arrow::uint64()}) {
    write(*ascending(type, 1000), 300);
    const auto all = readByArrow();
    ASSERT_TRUE(all);
    const auto width = static_cast<std::size_t>(type->bit_width()) / 8;
    for (const auto& [from, count] : std::vector<std::pair<std::uint64_t, std::uint64_t>>{
             {0, 1000}, {0, 0}, {1000, 0}, {299, 2}, {300, 300}, {1, 998}, {999, 1}}) {
      const auto begin = all->begin() + static_cast<std::ptrdiff_t>(from * width);
      EXPECT_EQ(read(from, count, width),
                std::vector<char>(begin, begin + static_cast<std::ptrdiff_t>(count * width)))
          << type->ToString() << " from " << from;
    }
  }
  serialization_options::batchSize = 1;  // pages of nearly any length
  const auto manyPages = ascending(::arrow::float64(), 300'000);
  write(*manyPages, 200'000);
  EXPECT_EQ(readAll(), readByArrow());
  EXPECT_EQ(read(131'071, 2, 8).size(), 16);
}

TEST_F(PlainColumnTest, LeavesOtherFilesToArrow) {
  const auto nulls = test::tableOf({{"data", test::column(::arrow::float64(), {"[1, null, 3]"})}});
  write(*nulls, 10);
  EXPECT_EQ(readAll(), std::nullopt);
  const auto doubles = ascending(::arrow::float64(), 10);
  write(*test::tableOf({{"time", doubles->column(0)}}), 10);
  EXPECT_EQ(readAll(), std::nullopt);
  write(*test::tableOf({{"data", doubles->column(0)}, {"more", doubles->column(0)}}), 10);
  EXPECT_EQ(readAll(), std::nullopt);
}

TEST_F(PlainColumnTest, DecodesRowGroupsThatAreNotPlain) {
  const auto doubles = ascending(::arrow::float64(), 10);
  test::writeForeignFile(store.file(0), *doubles);  // with a dictionary
  EXPECT_EQ(readAll(), readByArrow());
  serialization_options::compressionMethod = ::arrow::Compression::SNAPPY;
  write(*doubles, 4);
  EXPECT_EQ(readAll(), readByArrow());
}

// A damaged file is read as Arrow reads it.
TEST_F(PlainColumnTest, ReadsNoDamagedFileOtherwiseThanArrow) {
  write(*ascending(::arrow::int16(), 20), 13);
  const std::string whole = store.contents("0");
  for (std::size_t at = 0; at < whole.size(); ++at) {
    for (const char flip : {'\x01', '\x80'}) {
      std::string changed = whole;
      changed[at] = static_cast<char>(changed[at] ^ flip);
      store.touch("0", changed);
      if (const auto ours = readAll()) {
        EXPECT_EQ(ours, readByArrow()) << "byte " << at;
      }
    }
    store.touch("0", whole.substr(0, at));
    EXPECT_EQ(readAll(), std::nullopt) << at << " bytes";
  }
}

}  // namespace
}  // namespace kyr::parquet
