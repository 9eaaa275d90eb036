#include <gmock/gmock.h>
#include <sys/stat.h>

#include <functional>
#include <string>
#include <system_error>

#include "platform/DiskFile.h"
#include "support/FaultyDisk.h"
#include "support/TempDir.h"

namespace kyr {
namespace {

namespace disk = test::faultyDisk;
using test::TempDir;
using test::fs::path;
using ::testing::AnyOf;
using ::testing::HasSubstr;

std::string failureOf(const std::function<void()>& operation) {
  try {
    operation();
  } catch (const std::system_error& error) {
    return error.what();
  }
  return {};
}

TEST(DiskFile, PipesAndDevicesAreRefusedWithoutWaitingForTheirOtherEnd) {
  TempDir dir;
  const path pipe = dir.file("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  for (const path& file : {pipe, path("/dev/null")}) {
    for (const auto mode : {DiskFile::Mode::readOnly, DiskFile::Mode::readWrite}) {
      EXPECT_THAT(failureOf([&] { DiskFile(file, mode); }), HasSubstr(file.string()));
    }
  }
  EXPECT_THAT(failureOf([&] { readWholeFile(dir.file(".")); }), HasSubstr("Is a directory"));
}

TEST(DiskFile, WritingANewFileReplacesNothingAndLeavesNothingHalf) {
  TempDir dir;
  const path file = dir.file("text");
  writeNewFile(file, "whole");
  EXPECT_THAT(failureOf([&] { writeNewFile(file, "other"); }), HasSubstr(file.string()));
  EXPECT_EQ(readWholeFile(file), "whole");
  disk::Plan plan;
  plan.failAt = 1;
  plan.shortWrites = true;
  disk::start(plan);
  EXPECT_THAT(failureOf([&] { writeNewFile(dir.file("half"), "content"); }), HasSubstr("half"));
  disk::stop();
  EXPECT_EQ(dir.names(), test::Names{"text"});
}

TEST(DiskFile, NamesAreReplacedOrExchangedInOneStep) {
  TempDir dir;
  const test::Folder one(dir.file("one"));
  one.touch("1");
  const test::Folder two(dir.file("two"));
  two.touch("2");
  const auto refusal = [&](const char* to) {
    try {
      renamePath(dir.file("one"), dir.file(to));
    } catch (const std::system_error& error) {
      EXPECT_THAT(error.what(), HasSubstr(to));
      return error.code();
    }
    return std::error_code();
  };
  EXPECT_EQ(refusal("missing/name"), std::errc::no_such_file_or_directory);
  EXPECT_THAT(refusal("two"), AnyOf(std::errc::directory_not_empty, std::errc::file_exists));
  EXPECT_THAT(failureOf([&] { exchangePaths(dir.file("one"), dir.file("gone")); }),
              HasSubstr("gone"));

  if (exchangePaths(dir.file("one"), dir.file("two"))) {
    EXPECT_EQ(one.names(), test::Names{"2"});
    EXPECT_EQ(two.names(), test::Names{"1"});
  }
  const test::Names moved = one.names();
  test::fs::remove(two.file(*two.names().begin()));
  EXPECT_EQ(refusal("two"), std::error_code());
  EXPECT_EQ(two.names(), moved);
}

}  // namespace
}  // namespace kyr
