#include <gmock/gmock.h>
#include <parquet/arrow/writer.h>

#include <exception>
#include <functional>

#include "files/ContentReader.h"
#include "files/InputFile.h"
#include "files/ParquetTail.h"
#include "platform/DiskFile.h"
#include "support/ParquetFiles.h"
#include "support/TempDir.h"

// Files whose metadata lie. Reading them may fail with an error, and never ends the process.

namespace kyr::parquet {
namespace {

using test::column;
using ::testing::HasSubstr;

class ForgedFiles : public ::testing::Test {
 protected:
  void write(const test::Columns& columns) const {
    test::writeForeignFile(path, *test::tableOf(columns), 2);
  }
  std::shared_ptr<InputFile> input() const {
    return std::make_shared<InputFile>(std::make_shared<DiskFile>(path, DiskFile::Mode::readOnly));
  }
  // Reads all that a reader can ask for. Returns the error, or nothing.
  std::string readAll(bool isPack) const {
    try {
      const auto file = input();
      file->codec("data");
      file->ascendingGroups(0);
      file->rowsIn(10, 20);
      const auto cache = std::make_shared<RowGroupCache>();
      auto content =
          isPack
              ? ContentReader(std::make_shared<ContentFile>(file, ContentFile::Kind::pack, cache),
                              7, 0, file->rows())
              : ContentReader(file, cache);
      if (content.rows() > 1000) return "claims many rows";
      std::vector<char> numbers(static_cast<std::size_t>(content.rows()) * 8);
      for (std::uint64_t row = 0; row < content.rows(); ++row) content.read(row, 1);
      content.read(0, content.rows());
      if (content.isFlat()) content.readNumbers("data", 0, content.rows(), numbers.data());
      file->read(0, file->rows());
      return "";
    } catch (const std::exception& error) {
      EXPECT_THAT(error.what(), HasSubstr(path.string()));
      return error.what();
    }
  }

  test::TempDir folder;
  const std::filesystem::path path = folder.file("forged");
};

const std::function<test::Columns()> kContents[] = {
    [] {
      return test::Columns{{"data", column(::arrow::float64(), {"[1, 2, 3]"})}};
    },
    [] {
      return test::Columns{{"data", column(::arrow::binary(), {R"(["a", "bcd", ""])"})}};
    },
    [] {
      return test::Columns{
          {"data", column(::arrow::list(::arrow::int8()), {"[[1, 2], [3], [4, 5, 6]]"})},
          {"dimension", column(::arrow::list(::arrow::uint64()), {"[[2], [1], [3, 1]]"})}};
    },
    [] {
      return test::Columns{{"data", column(::arrow::int16(), {"[1, 2, 3]"})},
                           {"storage", column(::arrow::int32(), {"[7, 7, 7]"})}};
    },
};

TEST_F(ForgedFiles, AnyOtherByteOfTheMetadataDoesNoHarm) {
  for (const auto& content : kContents) {
    write(content());
    const bool isPack = content().back().first == "storage";
    ASSERT_EQ(readAll(isPack), "");
    const std::string sound = folder.contents("forged");
    const std::size_t metadata = metadataLength(sound.substr(sound.size() - kParquetTailBytes));
    const std::size_t from = sound.size() - kParquetTailBytes - metadata;
    int refused = 0;
    for (std::size_t at = 4; at < sound.size() - kParquetTailBytes; ++at) {
      for (const int byte : {0x00, 0x01, 0x15, 0x7f, 0xff}) {
        if (at < from && byte != 0xff) continue;
        std::string forged = sound;
        forged[at] = static_cast<char>(byte);
        folder.touch("forged", forged);
        refused += readAll(isPack).empty() ? 0 : 1;
      }
    }
    EXPECT_GT(refused, 200);
  }
}

TEST_F(ForgedFiles, ListsLongerThanTheMetadataAreRefusedBeforeRoomIsMadeForThem) {
  // The version is 1, and behind it begins a list of 2^31 - 1 row groups.
  EXPECT_THROW(parseMetadata("\x15\x02\x39\xfc\xff\xff\xff\xff\x07"), ::parquet::ParquetException);
}

TEST_F(ForgedFiles, ColumnsThatMakeNoSamplesAreRefused) {
  struct {
    test::Columns columns;
    const char* says;
  } const cases[] = {
      {{{"data", column(::arrow::float64(), {"[1, null, 3]"})}}, "null"},
      {{{"data", column(::arrow::list(::arrow::int8()), {"[[1], null]"})}}, "null"},
      {{{"data", column(::arrow::list(::arrow::int8()), {"[[1, null]]"})}}, "null"},
      {{{"data", column(::arrow::boolean(), {"[true]"})}}, "make no samples"},
      {{{"data", column(::arrow::list(::arrow::list(::arrow::int8())), {"[[[1]]]"})}},
       "make no samples"},
      {{{"data", column(::arrow::list(::arrow::int8()), {"[[1]]"})},
        {"dimension", column(::arrow::int64(), {"[1]"})}},
       "make no samples"},
      {{{"data", column(::arrow::list(::arrow::int8()), {"[[1]]"})},
        {"dimension", column(::arrow::list(::arrow::int64()), {"[[1]]"})}},
       "make no samples"},
      {{{"data", column(::arrow::list(::arrow::int8()), {"[[1], [2, 3]]"})},
        {"dimension", column(::arrow::list(::arrow::uint64()), {"[[1], [3]]"})}},
       "sample 1 has 2 elements, its shape 3"},
      {{{"samples", column(::arrow::float64(), {"[1]"})}}, "has no column \"data\""},
  };
  for (const auto& [columns, says] : cases) {
    write(columns);
    EXPECT_THAT(readAll(false), HasSubstr(says)) << columns[0].second->ToString();
  }
}

}  // namespace
}  // namespace kyr::parquet
