#include <gmock/gmock.h>
#include <parquet/arrow/reader.h>
#include <parquet/column_writer.h>
#include <parquet/file_writer.h>

#include <cstring>
#include <functional>
#include <stdexcept>

#include "files/CheckedFile.h"
#include "files/ContentReader.h"
#include "files/InputFile.h"
#include "files/growing/GrowingFile.h"
#include "platform/DiskFile.h"
#include "support/ParquetFiles.h"
#include "support/TempDir.h"

namespace kyr::parquet {
namespace {

using test::must;
using ::testing::HasSubstr;
using Properties = ::parquet::WriterProperties::Builder;

class InputFiles : public ::testing::Test {
 protected:
  std::shared_ptr<const DiskFile> disk() const {
    return std::make_shared<const DiskFile>(path, DiskFile::Mode::readOnly);
  }
  std::shared_ptr<InputFile> open() const { return std::make_shared<InputFile>(disk()); }

  void write(const ::arrow::Table& table, std::int64_t groupRows,
             const std::shared_ptr<::parquet::WriterProperties>& properties) const {
    const auto out = ::arrow::io::FileOutputStream::Open(path).ValueOrDie();
    must(::parquet::arrow::WriteTable(table, ::arrow::default_memory_pool(), out, groupRows,
                                      properties));
  }

  std::vector<char> readByArrow() const {
    const auto file = ::arrow::io::ReadableFile::Open(path).ValueOrDie();
    std::unique_ptr<::parquet::arrow::FileReader> reader;
    must(::parquet::arrow::OpenFile(file, ::arrow::default_memory_pool(), &reader));
    std::shared_ptr<::arrow::Table> table;
    must(reader->ReadTable(&table));
    std::vector<char> bytes;
    for (const auto& chunk : table->GetColumnByName("data")->chunks()) {
      const auto& data = *chunk->data();
      const auto* first = reinterpret_cast<const char*>(data.buffers[1]->data());
      bytes.insert(bytes.end(), first, first + chunk->length() * data.type->byte_width());
    }
    return bytes;
  }

  test::TempDir folder;
  const std::filesystem::path path = folder.file("file");
};

// Numbers that repeat every 97 rows, so that each encoding has something to do.
std::shared_ptr<::arrow::Table> numbers(const std::shared_ptr<::arrow::DataType>& type, int rows,
                                        bool isNullable) {
  std::unique_ptr<::arrow::ArrayBuilder> builder;
  must(::arrow::MakeBuilder(::arrow::default_memory_pool(), type, &builder));
  for (int i = 0; i < rows; ++i) {
    must(builder->AppendScalar(
        *::arrow::MakeScalar(std::int64_t{i} % 97)->CastTo(type).ValueOrDie()));
  }
  return ::arrow::Table::Make(::arrow::schema({::arrow::field("data", type, isNullable)}),
                              {builder->Finish().ValueOrDie()});
}

struct Encoded {
  const char* name;
  std::function<void(Properties&)> set;
  bool forFloats = true;
  bool forIntegers = true;
};

const Encoded kEncoded[]{
    {"plain", [](Properties& p) { p.disable_dictionary(); }},
    {"plain, old pages",
     [](Properties& p) {
       p.disable_dictionary()->data_page_version(::parquet::ParquetDataPageVersion::V1);
     }},
    {"dictionary", [](Properties& p) { p.enable_dictionary(); }},
    {"delta",
     [](Properties& p) {
       p.disable_dictionary()->encoding(::parquet::Encoding::DELTA_BINARY_PACKED);
     },
     false},
    {"bytes apart",
     [](Properties& p) {
       p.disable_dictionary()->encoding(::parquet::Encoding::BYTE_STREAM_SPLIT);
     },
     true, false},
    {"zstd",
     [](Properties& p) { p.disable_dictionary()->compression(::parquet::Compression::ZSTD); }},
    {"dictionary and snappy", [](Properties& p) { p.compression(::parquet::Compression::SNAPPY); }},
};

TEST_F(InputFiles, NumbersOfAnyEncodingAreReadInAnyPieces) {
  constexpr int kRows = 5000;
  for (const Encoded& encoded : kEncoded) {
    for (const auto& type : {::arrow::float64(), ::arrow::float32(), ::arrow::int8(),
                             ::arrow::uint16(), ::arrow::int32(), ::arrow::uint64()}) {
      if (::arrow::is_floating(type->id()) ? !encoded.forFloats : !encoded.forIntegers) continue;
      for (const bool isNullable : {false, true}) {
        SCOPED_TRACE(encoded.name + (" " + type->ToString()));
        Properties properties;
        properties.data_page_version(::parquet::ParquetDataPageVersion::V2)
            ->data_pagesize(1000)
            ->write_batch_size(100);
        encoded.set(properties);
        write(*numbers(type, kRows, isNullable), 1300, properties.build());
        const std::vector<char> all = readByArrow();
        const auto width = static_cast<std::size_t>(type->bit_width()) / 8;
        const auto file = open();
        std::vector<char> out(all.size());
        const auto expectRows = [&](std::uint64_t first, std::uint64_t count) {
          file->readNumbers("data", first, count, out.data());
          ASSERT_EQ(std::memcmp(out.data(), all.data() + first * width, count * width), 0)
              << first << " to " << first + count;
        };
        expectRows(0, kRows);
        for (std::uint64_t first = 0; first + 333 <= kRows; first += 333) expectRows(first, 333);
        for (const auto& [first, count] :
             {std::pair{1299, 2}, {4999, 1}, {0, 1}, {2600, 1300}, {1250, 3000}, {17, 0}}) {
          expectRows(static_cast<std::uint64_t>(first), static_cast<std::uint64_t>(count));
        }
        EXPECT_THROW(file->readNumbers("data", kRows, 1, out.data()), std::out_of_range);
      }
    }
  }
}

// Samples of sizes 0 to 6, with their shapes: "data" and "dimension".
std::shared_ptr<::arrow::Table> matrices(const std::shared_ptr<::arrow::DataType>& type, int rows) {
  std::string data;
  std::string shapes;
  for (int i = 0; i < rows; ++i) {
    const int columns = i / 5 % 3;
    data += i == 0 ? "[[" : ", [";
    for (int at = 0; at < 2 * columns; ++at) data += (at == 0 ? "" : ", ") + std::to_string(i % 97);
    data += "]";
    shapes += (i == 0 ? "[[2, " : ", [2, ") + std::to_string(columns) + "]";
  }
  return test::tableOf(
      {{"data", test::column(::arrow::list(type), {data + "]"})},
       {"dimension", test::column(::arrow::list(::arrow::uint64()), {shapes + "]"})}});
}

std::shared_ptr<::arrow::Table> blobs(int rows) {
  ::arrow::BinaryBuilder builder;
  for (int i = 0; i < rows; ++i) {
    must(builder.Append(std::string(static_cast<std::size_t>(i / 5 % 7), static_cast<char>(i))));
  }
  return ::arrow::Table::Make(::arrow::schema({::arrow::field("data", ::arrow::binary())}),
                              {builder.Finish().ValueOrDie()});
}

TEST_F(InputFiles, ListsAndBlobsOfAnyEncodingAreReadInAnyPieces) {
  constexpr int kRows = 3000;
  std::vector<std::shared_ptr<::arrow::Table>> tables{blobs(kRows)};
  for (const auto& type : {::arrow::float64(), ::arrow::float32(), ::arrow::int8(),
                           ::arrow::uint16(), ::arrow::int32(), ::arrow::uint64()}) {
    tables.push_back(matrices(type, kRows));
  }
  for (const Encoded& encoded : kEncoded) {
    if (!encoded.forFloats || !encoded.forIntegers) continue;
    for (const auto& table : tables) {
      SCOPED_TRACE(encoded.name + (" " + table->schema()->ToString()));
      Properties properties;
      properties.data_page_version(::parquet::ParquetDataPageVersion::V2)
          ->data_pagesize(1000)
          ->write_batch_size(100);
      encoded.set(properties);
      write(*table, 1300, properties.build());
      ContentReader reader(open(), std::make_shared<RowGroupCache>());
      RowStore all(reader.schema(), reader.width());
      all.append(*table);
      for (const auto& [first, count] :
           {std::pair{0, kRows}, {0, 1}, {1299, 2}, {1300, 1300}, {2999, 1}, {77, 2500}}) {
        const auto rows =
            reader.read(static_cast<std::uint64_t>(first), static_cast<std::uint64_t>(count));
        EXPECT_TRUE(areEqual(
            rows.rows, all.slice(static_cast<std::size_t>(first), static_cast<std::size_t>(count))))
            << first << " to " << first + count;
      }
    }
  }
}

TEST_F(InputFiles, ListsThatMakeNoSamplesAreRefusedWithTheReason) {
  const auto lists = ::arrow::list(::arrow::int16());
  const auto shapes = ::arrow::list(::arrow::uint64());
  const struct {
    std::shared_ptr<::arrow::Table> table;
    const char* says;
  } cases[] = {
      {test::tableOf({{"data", test::column(lists, {"[[1], null, [3]]"})}}), "holds nulls"},
      {test::tableOf({{"data", test::column(lists, {"[[1], [null], [3]]"})}}), "holds nulls"},
      {test::tableOf({{"data", test::column(::arrow::binary(), {R"(["a", null])"})}}),
       "holds nulls"},
      {test::tableOf({{"data", test::column(lists, {"[[1], [2, 3]]"})},
                      {"dimension", test::column(shapes, {"[[1], [3]]"})}}),
       "sample 1 has 2 elements, its shape 3"},
      {test::tableOf({{"data", test::column(lists, {"[[1], [2, 3]]"})},
                      {"dimension", test::column(shapes, {"[[1], [2, null]]"})}}),
       "holds nulls"},
  };
  for (const auto& [table, says] : cases) {
    write(*table, 10, Properties().build());
    ContentReader reader(open(), std::make_shared<RowGroupCache>());
    try {
      reader.read(0, 2);
      ADD_FAILURE() << says;
    } catch (const std::runtime_error& error) {
      EXPECT_THAT(error.what(), HasSubstr("file: "));
      EXPECT_THAT(error.what(), HasSubstr(says));
    }
  }
}

// Row groups with encodings of their own, among them plain ones that need no decoding.
TEST_F(InputFiles, RowGroupsOfDifferentEncodingsAreReadTogether) {
  const auto schema = test::countingTable(0)->schema();
  const auto out = ::arrow::io::FileOutputStream::Open(path).ValueOrDie();
  const auto properties = Properties().dictionary_pagesize_limit(64)->build();
  auto writer =
      ::parquet::arrow::FileWriter::Open(*schema, ::arrow::default_memory_pool(), out, properties)
          .ValueOrDie();
  for (int i = 0; i < 3; ++i) {
    must(writer->WriteTable(*numbers(::arrow::float64(), 5000, true)));
    must(writer->WriteTable(*test::countingTable(5000, i)));
  }
  must(writer->Close());
  std::vector<char> read(30'000 * sizeof(double));
  open()->readNumbers("data", 0, 30'000, read.data());
  EXPECT_EQ(read, readByArrow());
}

TEST_F(InputFiles, WhatIsNoColumnOfNumbersIsRefusedWithItsName) {
  const auto refusal = [&](const char* column) {
    std::vector<double> out(10);
    try {
      open()->readNumbers(column, 0, 3, reinterpret_cast<char*>(out.data()));
      return std::string("is read");
    } catch (const std::runtime_error& error) {
      return std::string(error.what());
    }
  };
  test::writeForeignFile(
      path,
      *test::tableOf({{"nulls", test::column(::arrow::float64(), {"[1, null, 3]"})},
                      {"text", test::column(::arrow::utf8(), {R"(["a", "b", "c"])"})},
                      {"lists", test::column(::arrow::list(::arrow::int8()), {"[[1], [2], [3]]"})},
                      {"fine", test::column(::arrow::float64(), {"[1, 2, 3]"})}}));
  EXPECT_THAT(refusal("nulls"), HasSubstr("file: a column holds nulls"));
  EXPECT_THAT(refusal("text"), HasSubstr("\"text\" does not hold numbers"));
  EXPECT_THAT(refusal("lists"), HasSubstr("\"lists\" does not hold numbers"));
  EXPECT_THAT(refusal("other"), HasSubstr("has no column \"other\""));
  EXPECT_EQ(refusal("fine"), "is read");
  folder.touch("file", "PAR1 and something else");
  EXPECT_THAT(refusal("fine"), HasSubstr("no complete Parquet file"));
}

// Writes a column whose row groups are all marked as ascending.
void writeMarked(const std::filesystem::path& path,
                 const std::vector<std::vector<double>>& groups) {
  const auto node = ::parquet::schema::GroupNode::Make(
      "schema", ::parquet::Repetition::REQUIRED,
      {::parquet::schema::PrimitiveNode::Make("data", ::parquet::Repetition::REQUIRED,
                                              ::parquet::Type::DOUBLE)});
  const auto out = ::arrow::io::FileOutputStream::Open(path).ValueOrDie();
  const auto properties = Properties().set_sorting_columns({{0, false, false}})->build();
  auto writer = ::parquet::ParquetFileWriter::Open(
      out, std::static_pointer_cast<::parquet::schema::GroupNode>(node), properties);
  for (const auto& group : groups) {
    auto* const rows = writer->AppendRowGroup();
    auto* const column = static_cast<::parquet::DoubleWriter*>(rows->NextColumn());
    column->WriteBatch(static_cast<std::int64_t>(group.size()), nullptr, nullptr, group.data());
    rows->Close();
  }
  writer->Close();
}

TEST_F(InputFiles, AscendingRowGroupsAreToldByTheirMarks) {
  writeMarked(path, {{1, 2, 2, 5}, {5, 7}});
  const auto ranges = open()->ascendingGroups(0);
  ASSERT_EQ(ranges.size(), 2U);
  ASSERT_TRUE(ranges[0] && ranges[1]);
  EXPECT_EQ(ranges[0]->min, 1);
  EXPECT_EQ(ranges[0]->max, 5);
  EXPECT_EQ(ranges[1]->max, 7);
  write(*test::countingTable(10), 5, Properties().build());
  const auto unmarked = open()->ascendingGroups(1);
  ASSERT_EQ(unmarked.size(), 1U);
  EXPECT_FALSE(unmarked[0]);
}

constexpr std::uint64_t kBlock = CheckedFile::kBlockBytes;

class CheckedFiles : public InputFiles {
 protected:
  static FileChecksums checksumsOf(const std::string& content, bool hasBlocks) {
    FileChecksums sums;
    const XXH128_hash_t hash = XXH3_128bits(content.data(), content.size());
    char digits[33];
    std::snprintf(digits, sizeof(digits), "%016llx%016llx",
                  static_cast<unsigned long long>(hash.high64),
                  static_cast<unsigned long long>(hash.low64));
    sums.whole = digits;
    for (std::size_t at = 0; hasBlocks && at < content.size(); at += kBlock) {
      sums.blocks.push_back(
          XXH3_64bits(content.data() + at, std::min<std::size_t>(kBlock, content.size() - at)));
    }
    return sums;
  }

  static std::string readPart(const ByteSource& file, std::uint64_t from, std::size_t size) {
    std::string part(size, '\0');
    part.resize(file.readAt(from, part.data(), size));
    return part;
  }
};

TEST_F(CheckedFiles, GiveTheBytesOfTheFileAndRefuseDamagedBlocksOnly) {
  std::string content(3 * kBlock + 1000, '\0');
  for (std::size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 7 + i / 251);
  for (const bool hasBlocks : {true, false}) {
    folder.touch("file", content);
    const FileChecksums sums = checksumsOf(content, hasBlocks);
    const std::pair<std::uint64_t, std::size_t> parts[] = {{0, 10},
                                                           {kBlock - 5, 10},
                                                           {kBlock, kBlock},
                                                           {17, 3 * kBlock},
                                                           {3 * kBlock, 2000},
                                                           {0, content.size()},
                                                           {content.size(), 5},
                                                           {content.size() + 9, 5}};
    const CheckedFile whole(disk(), sums);
    for (const auto& [from, size] : parts) {
      const CheckedFile fresh(disk(), sums);
      const std::string expected = from < content.size() ? content.substr(from, size) : "";
      EXPECT_EQ(readPart(fresh, from, size), expected) << from;
      EXPECT_EQ(readPart(whole, from, size), expected) << from;
    }
    std::string damaged = content;
    damaged[kBlock + 77] ^= 1;
    folder.touch("file", damaged);
    const CheckedFile file(disk(), sums);
    for (const std::uint64_t from : {std::uint64_t{0}, 2 * kBlock, 3 * kBlock}) {
      if (hasBlocks) {
        EXPECT_EQ(readPart(file, from, 100), content.substr(from, 100));
      } else {
        EXPECT_THROW(readPart(file, from, 100), DamagedBytes);
      }
    }
    for (const std::uint64_t from : {kBlock - 1, kBlock, kBlock + 100}) {
      try {
        readPart(file, from, 100);
        ADD_FAILURE() << from;
      } catch (const DamagedBytes& error) {
        EXPECT_EQ(error.from(), hasBlocks ? kBlock : 0);
        EXPECT_EQ(error.to(), hasBlocks ? 2 * kBlock : content.size());
        EXPECT_THAT(error.what(), HasSubstr("file: bytes "));
      }
    }
    std::filesystem::resize_file(path, kBlock / 2);
    EXPECT_THROW(readPart(file, 0, kBlock), DamagedBytes);
  }
  EXPECT_THROW(CheckedFile(disk(), checksumsOf(content, true)), DamagedBytes);
}

// The exception passes through Arrow's readers, and says which row groups are concerned.
TEST_F(CheckedFiles, DamageIsToldByRowGroup) {
  constexpr int kRows = 100'000;
  const auto lists = [] {
    ::arrow::ListBuilder builder(::arrow::default_memory_pool(),
                                 std::make_shared<::arrow::Int64Builder>());
    auto& values = static_cast<::arrow::Int64Builder&>(*builder.value_builder());
    for (int i = 0; i < kRows; ++i) {
      must(builder.Append());
      must(values.Append(std::int64_t{i} * i));
    }
    return ::arrow::Table::Make(
        ::arrow::schema({::arrow::field("data", ::arrow::list(::arrow::int64()))}),
        {builder.Finish().ValueOrDie()});
  }();
  for (const auto& table : {lists, test::countingTable(kRows)}) {
    write(*table, 20'000, Properties().disable_dictionary()->build());
    std::string content = folder.contents("file");
    const FileChecksums sums = checksumsOf(content, true);
    content[2 * kBlock + 5] ^= 1;
    folder.touch("file", content);
    ContentReader reader(std::make_shared<InputFile>(std::make_shared<CheckedFile>(disk(), sums)),
                         std::make_shared<RowGroupCache>());
    int damaged = 0;
    for (std::uint64_t first = 0; first < kRows; first += 20'000) {
      try {
        reader.read(first, 20'000);
      } catch (const DamagedBytes& error) {
        ++damaged;
        const RowSpan rows = reader.rowsIn(error);
        EXPECT_LE(rows.from, first);
        EXPECT_GE(rows.to, first + 20'000);
        EXPECT_LT(rows.to - rows.from, kRows);
      }
    }
    EXPECT_GT(damaged, 0);
    EXPECT_LT(damaged, 4);
  }
}

class GrowingInput : public CheckedFiles {
 protected:
  std::shared_ptr<InputFile> openGrowing(std::uint64_t rows, BatchChecks checks) const {
    return openGrowingFile(disk(), rows, checks);
  }

  // Batches of 100 rows that count up.
  void append(int batches, bool publish) {
    if (!file) {
      file = GrowingFile::create(path, test::countingTable(0)->schema(), Properties().build());
    }
    for (int i = 0; i < batches; ++i) {
      file->appendBatch(*test::countingTable(100, static_cast<double>(file->rowCount())));
    }
    if (publish) file->publish();
  }

  static double first(InputFile& from, std::uint64_t row) {
    double value = 0;
    from.readNumbers("data", row, 1, reinterpret_cast<char*>(&value));
    return value;
  }

  std::unique_ptr<GrowingFile> file;
};

// Whatever byte is damaged, each batch is read as it was or refused, and one is refused at most.
TEST_F(GrowingInput, BatchesAreComparedOneByOne) {
  for (const bool isPublished : {true, false}) {
    append(4, isPublished);
    const std::string content = folder.contents("file");
    for (std::size_t at = 0; at < content.size(); at += 29) {
      std::string damaged = content;
      damaged[at] = static_cast<char>(damaged[at] ^ 0x10);
      folder.touch("file", damaged);
      std::shared_ptr<InputFile> view;
      try {
        view = openGrowing(400, BatchChecks::yes);
      } catch (const std::runtime_error&) {
        continue;  // the first record
      }
      int refused = 0;
      for (std::uint64_t row = 50; row < view->rows(); row += 100) {
        try {
          ASSERT_EQ(first(*view, row), static_cast<double>(row)) << at;
        } catch (const DamagedBytes&) {
          ++refused;
        }
      }
      // A damaged header or metadata hides the batches behind it where no footer names them.
      ASSERT_LE(refused, 1) << at;
      ASSERT_TRUE(!isPublished || view->rows() == 400) << at;
    }
    file.reset();
    std::filesystem::remove(path);
  }
}

TEST_F(GrowingInput, BatchesThatCameLaterAreFoundWithoutOpeningAnew) {
  append(2, true);
  const auto view = openGrowing(150, BatchChecks::yes);
  EXPECT_EQ(first(*view, 199), 199);
  for (const bool publish : {false, true}) {
    const std::uint64_t before = view->rows();
    append(3, publish);
    view->grow(before + 201);
    EXPECT_EQ(view->rows(), before + 300);
    EXPECT_EQ(first(*view, before + 299), static_cast<double>(before + 299));
  }
  view->grow(10'000);
  EXPECT_EQ(view->rows(), 800U);
}

}  // namespace
}  // namespace kyr::parquet
