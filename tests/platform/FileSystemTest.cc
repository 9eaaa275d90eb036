#include <gmock/gmock.h>

#include <map>
#include <stdexcept>

#include "kyr/platform/FileSystem.h"
#include "support/TempDir.h"

namespace kyr {
namespace {

using std::filesystem::filesystem_error;
using test::TempDir;

TEST(DirectoryIterator, EndAndMissingDirectoryAreErrorsAndCopiesShareTheirPosition) {
  TempDir dir;
  directory_iterator end(dir.path());
  EXPECT_EQ(end, directory_iterator());
  EXPECT_THROW(end.entry(), filesystem_error);
  EXPECT_THROW(++end, filesystem_error);
  EXPECT_THROW(directory_iterator(dir.path().join("missing")), filesystem_error);

  for (const char* name : {"1", "2"}) dir.touch(name);
  const directory_iterator walk(dir.path());
  const Path first = walk.entry().fileName();
  directory_iterator copy = walk;
  ++copy;
  EXPECT_NE(walk.entry().fileName(), first);
}

TEST(DirectoryEntry, TypeFollowsLinksAndNameMustBeText) {
  using Type = DirectoryEntry::Type;
  TempDir dir;
  dir.touch("file");
  test::fs::create_symlink(".", dir.file("link"));
  test::fs::create_symlink("nowhere", dir.file("dangling"));
  std::map<std::string, Type> types;
  for (directory_iterator it(dir.path()); it != directory_iterator(); ++it) {
    types[it.entry().fileName().toNarrow()] = it.entry().type();
  }
  EXPECT_EQ(types,
            (std::map<std::string, Type>{
                {"file", Type::file}, {"link", Type::directory}, {"dangling", Type::other}}));
  const test::Folder other(dir.file("other"));
  other.touch("bad\xff");
  EXPECT_THROW(directory_iterator(other.path()).entry().fileName(), std::invalid_argument);
}

TEST(FileSystem, UniqueNameLiesInTheDirectoryAndDoesNotExist) {
  TempDir dir;
  const Path name = fileSystem::uniqueName(dir.path(), u"pre-", u".post");
  EXPECT_THAT(name.fileName().toNarrow(), ::testing::MatchesRegex("pre-[0-9a-f]{16}\\.post"));
  EXPECT_EQ(dir.path().join(name.fileName()), name);
  EXPECT_FALSE(fileSystem::exists(name));
}

}  // namespace
}  // namespace kyr
