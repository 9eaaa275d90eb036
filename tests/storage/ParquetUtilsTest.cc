#include <arrow/table.h>
#include <gmock/gmock.h>

#include <functional>
#include <string>

#include "kyr/parquet/ParquetUtils.h"
#include "support/ParquetFiles.h"
#include "support/TempDir.h"

namespace kyr::parquet {
namespace {

using test::countingTable;
using test::numbersOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using ::testing::ThrowsMessage;
using Numbers = std::vector<double>;

TEST(ParquetUtils, TablesAreKeptByName) {
  const test::TempDir temp;
  {
    ParquetUtils utils("täbles-");
    const auto names = temp.names();
    ASSERT_THAT(names, ElementsAre(StartsWith("täbles-")));
    const test::Folder folder(temp.file(*names.begin()));
    EXPECT_THAT([&] { utils.readTableFromParquet("a"); },
                ThrowsMessage<std::runtime_error>(EndsWith("/0 does not exists.")));
    utils.writeTableToParquet(countingTable(2), "a");
    utils.writeTableToParquet(countingTable(1, 7), "b");
    utils.setDirectoryName("other");
    utils.writeTableToParquet(countingTable(3), "a");
    EXPECT_TRUE(utils.lastWriteStatus().ok());
    EXPECT_EQ(numbersOf(*utils.readTableFromParquet("a")), (Numbers{0, 1, 2}));
    EXPECT_EQ(numbersOf(*utils.readTableFromParquet("b")), Numbers{7});
    EXPECT_EQ(numbersOf(*utils.readTableFromParquet("never written")), (Numbers{0, 1}));
    EXPECT_EQ(folder.names(), (test::Names{"0", "1", "2"}));
    EXPECT_THAT([&] { utils.writeTableToParquet(nullptr, "c"); },
                ThrowsMessage<std::invalid_argument>(HasSubstr("\"c\"")));
  }
  ASSERT_EQ(temp.names().size(), 1);  // the directory stays, its files do not
  EXPECT_TRUE(test::fs::is_empty(temp.file(*temp.names().begin())));
}

TEST(ParquetUtils, WithoutStorageEveryCallSaysWhatToDo) {
  ParquetUtils utils;
  for (const std::function<void()>& call : std::initializer_list<std::function<void()>>{
           [&] { utils.setDirectoryName("x"); },
           [&] { utils.writeTableToParquet(countingTable(1), "x"); },
           [&] { utils.readTableFromParquet("x"); },
           [&] { static_cast<void>(utils.lastWriteStatus()); }}) {
    EXPECT_THAT(call, ThrowsMessage<std::logic_error>(HasSubstr("ParquetUtils(\"")));
  }
}

}  // namespace
}  // namespace kyr::parquet
