#include <gmock/gmock.h>

#include <algorithm>
#include <map>
#include <tuple>
#include <vector>

#include "files/pack/PackRuns.h"

namespace kyr::parquet {
namespace {

using Found = std::tuple<int, std::uint64_t, std::uint64_t>;

std::vector<std::tuple<std::uint64_t, Found>> runsOf(const PackIndex& index, int id) {
  std::vector<std::tuple<std::uint64_t, Found>> found;
  index.forEachRun(id, [&](std::uint64_t row, const PackRun& run) {
    found.emplace_back(row, Found(run.storageId, run.first, run.count));
  });
  return found;
}

TEST(PackRuns, ContentsThatGrowSideBySideAreOneRange) {
  std::vector<PackRun> runs;
  for (const int id : {9, 4, 3, 5, 2147483647}) runs.push_back({id, 100, 10});
  runs.push_back({7, 0, 3});
  std::sort(runs.begin(), runs.end(), comesBefore);
  const std::string text = writeRuns(runs);
  EXPECT_EQ(text, "0+3 7;100+10 3-5,9,2147483647;");
  auto groups = readRuns(text, 53);
  ASSERT_TRUE(groups);
  PackIndex index;
  index.add(*groups, 53);
  index.add(*groups, 53);
  EXPECT_EQ(index.rows(), 106U);
  using ::testing::ElementsAre;
  EXPECT_THAT(runsOf(index, 7),
              ElementsAre(std::tuple(0, Found(7, 0, 3)), std::tuple(53, Found(7, 0, 3))));
  EXPECT_THAT(runsOf(index, 5),
              ElementsAre(std::tuple(23, Found(5, 100, 10)), std::tuple(76, Found(5, 100, 10))));
  EXPECT_THAT(runsOf(index, 9),
              ElementsAre(std::tuple(33, Found(9, 100, 10)), std::tuple(86, Found(9, 100, 10))));
  EXPECT_THAT(runsOf(index, 6), ElementsAre());
}

// Contents of large groups and of small ones are found in the order of the batches.
TEST(PackRuns, FindsContentsInGroupsOfAllSizes) {
  PackIndex index;
  std::map<int, std::vector<std::tuple<std::uint64_t, Found>>> expected;
  std::uint64_t row = 0;
  for (const int last : {1000, 8, 255, 256, 7, 400, 300, 9}) {
    const std::uint64_t before = row;
    std::vector<PackRunGroup> groups;
    for (const std::uint64_t count : {1U, 3U}) {
      const int from = count == 1 ? 7 : last + 2;
      groups.push_back({before, count, {{from, last + from - 7}, {5000, 5000}}});
      for (int id = from; id <= last + from - 7; ++id, row += count) {
        expected[id].emplace_back(row, Found(id, before, count));
      }
      expected[5000].emplace_back(row, Found(5000, before, count));
      row += count;
    }
    index.add(groups, row - before);
  }
  EXPECT_EQ(index.rows(), row);
  for (const auto& [id, runs] : expected) EXPECT_EQ(runsOf(index, id), runs) << id;
  EXPECT_TRUE(runsOf(index, 6).empty());
}

// A batch says which rows it has. What does not add up to its rows is no such text.
TEST(PackRuns, RefusesWhatAddsUpToOtherRows) {
  for (const char* text :
       {"", "0+53 7", "0+53;", "0+53 ;", "0+0 7;0+53 8;", "0+53 7;x", "0+54 7;", "0+52 7;",
        "0+53 -7;", "0+26 7,7;", "0+26 8-7;", "0+26 8,7;", "-1+53 7;", "0+1 0-2147483647;",
        "0+18446744073709551615 7-8;", "18446744073709551615+53 7;", "0+53 99999999999;",
        "0+53 7-;", "0+53 7,;"}) {
    EXPECT_FALSE(readRuns(text, 53)) << text;
  }
  EXPECT_TRUE(readRuns("18446744073709551562+53 0;", 53));
}

}  // namespace
}  // namespace kyr::parquet
