#include <arrow/io/file.h>
#include <gmock/gmock.h>
#include <parquet/arrow/reader.h>
#include <parquet/arrow/writer.h>

#include <cstring>
#include <optional>
#include <random>

#include "files/InputFile.h"
#include "files/TableWriter.h"
#include "kyr/parquet/ParquetWriterOptions.h"
#include "kyr/parquet/SerializationOptions.h"
#include "platform/DiskFile.h"
#include "support/ParquetFiles.h"
#include "support/StorageTest.h"

namespace kyr::parquet {
namespace {

using test::must;

struct Lists {
  bool operator==(const Lists& other) const { return items == other.items && ends == other.ends; }

  std::vector<char> items;
  std::vector<std::uint64_t> ends;
};

class PlainListsTest : public test::StorageTest {
 protected:
  PlainListsTest() { serialization_options::bDictionary = false; }

  void writeByArrow(const ::arrow::Table& table, std::int64_t groupRows) const {
    const auto out = ::arrow::io::FileOutputStream::Open(store.file(0)).ValueOrDie();
    must(::parquet::arrow::WriteTable(table, ::arrow::default_memory_pool(), out, groupRows,
                                      ParquetWriterOptions().buildWriterProperties()));
  }

  void write(const ::arrow::Table& table, std::int64_t groupRows) const {
    const auto out = ::arrow::io::FileOutputStream::Open(store.file(0)).ValueOrDie();
    const auto format = std::make_shared<FileFormat>(
        table.schema(), ParquetWriterOptions().buildWriterProperties());
    const auto writer = TableWriter::open(format, out).ValueOrDie();
    must(writer->write(table, groupRows));
    must(writer->close());
    must(out->Close());
  }

  std::optional<Lists> read(const ::arrow::DataType& type) const {
    Lists lists{{'?'}, {7}};
    const auto file = std::make_shared<const DiskFile>(store.file(0), DiskFile::Mode::readOnly);
    if (!readOnlyLists(file, type, lists.items, lists.ends)) return std::nullopt;
    return lists;
  }

  // None if Arrow cannot read the file, or if something is null.
  std::optional<Lists> readByArrow() const {
    const auto file = ::arrow::io::ReadableFile::Open(store.file(0)).ValueOrDie();
    std::unique_ptr<::parquet::arrow::FileReader> reader;
    std::shared_ptr<::arrow::Table> table;
    if (!::parquet::arrow::OpenFile(file, ::arrow::default_memory_pool(), &reader).ok() ||
        !reader->ReadTable(&table).ok() || table->num_columns() != 1) {
      return std::nullopt;
    }
    Lists result;
    for (const auto& chunk : table->column(0)->chunks()) {
      if (chunk->type_id() != ::arrow::Type::LIST || chunk->null_count() > 0) return std::nullopt;
      const auto& lists = static_cast<const ::arrow::ListArray&>(*chunk);
      const auto width = static_cast<std::size_t>(lists.value_type()->byte_width());
      const auto* first = reinterpret_cast<const char*>(lists.values()->data()->buffers[1]->data());
      for (std::int64_t row = 0; row < lists.length(); ++row) {
        const auto* from = first + static_cast<std::size_t>(lists.value_offset(row)) * width;
        const auto* end = first + static_cast<std::size_t>(lists.value_offset(row + 1)) * width;
        result.items.insert(result.items.end(), from, end);
        result.ends.push_back(result.items.size() / width);
      }
      if (lists.values()->null_count() > 0) return std::nullopt;
    }
    return result;
  }
};

/// \param longest  lists have from 1 to so many items; all have 9 if it is 0
std::shared_ptr<::arrow::Table> randomLists(const std::shared_ptr<::arrow::DataType>& type,
                                            int rows, unsigned longest) {
  std::mt19937 random(longest);
  ::arrow::Int32Builder offsets;
  std::int32_t end = 0;
  must(offsets.Append(0));
  for (int row = 0; row < rows; ++row) {
    const auto number = static_cast<std::uint32_t>(random());
    end += longest == 0 ? 9 : static_cast<std::int32_t>(1 + number % longest);
    must(offsets.Append(end));
  }
  std::vector<std::int64_t> numbers(static_cast<std::size_t>(end));
  for (std::int64_t& number : numbers) number = static_cast<std::int64_t>(random() % 128);
  std::unique_ptr<::arrow::ArrayBuilder> items;
  must(::arrow::MakeBuilder(::arrow::default_memory_pool(), type, &items));
  for (const std::int64_t number : numbers) {
    must(items->AppendScalar(*::arrow::MakeScalar(number)->CastTo(type).ValueOrDie()));
  }
  const auto lists =
      ::arrow::ListArray::FromArrays(*offsets.Finish().ValueOrDie(), *items->Finish().ValueOrDie())
          .ValueOrDie();
  return test::tableOf({{"data", std::make_shared<::arrow::ChunkedArray>(lists)}});
}

TEST_F(PlainListsTest, GivesTheListsThatArrowReads) {
  for (const auto& type :
       {::arrow::float64(), ::arrow::float32(), ::arrow::int8(), ::arrow::uint16()}) {
    for (const unsigned longest : {0U, 1U, 3U, 200U}) {
      for (const int batchSize : {1, 64, 4096}) {
        serialization_options::batchSize = batchSize;
        const auto table = randomLists(type, 2'000, longest);
        write(*table, 700);
        const auto ours = read(*type);
        ASSERT_TRUE(ours);
        EXPECT_TRUE(ours == readByArrow()) << type->ToString() << " up to " << longest;
        writeByArrow(*table, 700);
        EXPECT_TRUE(read(*type) == ours) << type->ToString() << " up to " << longest;
      }
    }
  }
}

TEST_F(PlainListsTest, DecodesOtherListsAndLeavesOtherFiles) {
  const auto lists = ::arrow::list(::arrow::field("element", ::arrow::int16()));
  const auto tableOf = [&](const char* rows) {
    return test::tableOf({{"data", test::column(lists, {rows})}});
  };
  write(*tableOf("[[1, 2], [], [3]]"), 2);
  EXPECT_EQ(read(*::arrow::int16())->ends, (std::vector<std::uint64_t>{2, 2, 3}));
  EXPECT_EQ(read(*::arrow::uint16()), std::nullopt);
  for (const char* rows : {"[[1, null]]", "[[1], null]"}) {
    write(*tableOf(rows), 9);
    EXPECT_EQ(read(*::arrow::int16()), std::nullopt) << rows;
  }
  serialization_options::compressionMethod = ::arrow::Compression::SNAPPY;
  serialization_options::bDictionary = true;
  writeByArrow(*randomLists(::arrow::int16(), 1'000, 5), 300);
  EXPECT_TRUE(read(*::arrow::int16()) == readByArrow());
}

// A damaged file is read as Arrow reads it, as it was, or not at all.
TEST_F(PlainListsTest, ReadsNoDamagedFileOtherwiseThanArrow) {
  for (const bool byArrow : {false, true}) {
    const auto table = randomLists(::arrow::int16(), 20, 4);
    byArrow ? writeByArrow(*table, 13) : write(*table, 13);
    const std::string whole = store.contents("0");
    const auto sound = read(*::arrow::int16());
    for (std::size_t at = 0; at < whole.size(); ++at) {
      for (const char flip : {'\x02', '\x81'}) {
        std::string changed = whole;
        changed[at] = static_cast<char>(changed[at] ^ flip);
        store.touch("0", changed);
        const auto ours = read(*::arrow::int16());
        EXPECT_TRUE(!ours || ours == sound || ours == readByArrow())
            << "byte " << at << (byArrow ? " of Arrow's file" : "");
      }
      store.touch("0", whole.substr(0, at));
      EXPECT_EQ(read(*::arrow::int16()), std::nullopt) << at << " bytes";
    }
  }
}

}  // namespace
}  // namespace kyr::parquet
