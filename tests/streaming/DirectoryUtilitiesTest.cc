#include <gmock/gmock.h>
#include <sys/stat.h>

#include <functional>
#include <stdexcept>

#include "kyr/parquet/DirectoryUtilities.h"
#include "kyr/parquet/FileSelector.h"
#include "kyr/platform/FileSystem.h"
#include "support/TempDir.h"

namespace kyr::parquet {
namespace {

using std::filesystem::filesystem_error;
using test::Names;
using test::TempDir;
using ::testing::ThrowsMessage;

TEST(GenerateTempDirectoryName, IsThePrefixAnd44CharactersWithoutASlash) {
  TempDir temp;
  Names names;
  std::string characters;
  for (int i = 0; i < 100; ++i) {  // enough for each character of the alphabet to turn up
    const Path path = generateTempDirectoryName(u"parquetStorage");
    EXPECT_EQ(temp.path().join(path.fileName()), path);
    EXPECT_FALSE(fileSystem::exists(path));
    const std::string name = path.fileName().toNarrow();
    EXPECT_THAT(name, ::testing::MatchesRegex("parquetStorage_[A-Za-z0-9+_]{43}="));
    characters += name.substr(15);
    names.insert(name);
  }
  EXPECT_EQ(names.size(), 100U);
  EXPECT_NE(characters.find('+'), std::string::npos);
  EXPECT_NE(characters.find('_'), std::string::npos);
}

TEST(CreateDirectory, CreatesMissingParentsAndRefusesWhatExists) {
  TempDir temp;
  test::fs::create_directory(temp.file("a"));
  temp.touch("file");
  createDirectory(temp.path().join("a/b/c"));
  EXPECT_TRUE(fileSystem::isDirectory(temp.path().join("a/b/c")));
  for (const char* name : {"a/b/c", "file"}) {
    EXPECT_THAT([&] { createDirectory(temp.path().join(name)); },
                ThrowsMessage<std::runtime_error>(temp.file(name).string() + " already exists."));
  }
  EXPECT_THROW(createDirectory(temp.path().join("file/below")), filesystem_error);
}

class FileSelectorWalk : public ::testing::Test {
 protected:
  Names walk(const std::function<bool(const directory_iterator&)>& filter) const {
    const auto context = FileSelector::create(dir.path());
    Names names;
    for (auto it = FileSelector::next(context.get(), filter); it != directory_iterator();
         it = FileSelector::next(context.get(), filter)) {
      names.insert(it.entry().filesystemPath().filename());
    }
    EXPECT_EQ(FileSelector::next(context.get()), directory_iterator());  // for good
    return names;
  }

  TempDir dir;
};

TEST_F(FileSelectorWalk, YieldsEveryEntryOrThoseThatTheFilterAccepts) {
  EXPECT_EQ(walk({}), Names{});
  dir.touch("1");
  dir.touch("2");
  EXPECT_EQ(walk([](const auto&) { return true; }), (Names{"1", "2"}));
  EXPECT_THROW(walk({}), std::bad_function_call);
  EXPECT_THROW(FileSelector::create(dir.path().join("missing")), filesystem_error);
}

TEST_F(FileSelectorWalk, ParquetFilterAsksForTheMagicAndNothingElse) {
  test::fs::create_directory(dir.file("folder"));
  test::fs::create_symlink("nowhere", dir.file("dangling"));
  ASSERT_EQ(mkfifo(dir.file("pipe").c_str(), 0600), 0);
  dir.touch("empty");
  dir.touch("short", "PAR");
  dir.touch("late", " PAR1");
  dir.touch("x.txt", "PAR1");
  dir.touch("bad\xff", "PAR1 and more");
  EXPECT_EQ(walk(FileSelector::parquetFileFilter), (Names{"x.txt", "bad\xff"}));
  EXPECT_THROW(FileSelector::parquetFileFilter({}), filesystem_error);
}

}  // namespace
}  // namespace kyr::parquet
