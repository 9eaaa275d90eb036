#include <gtest/gtest.h>

#include <limits>

#include "storage/ContentHash.h"
#include "support/StorageTest.h"

namespace kyr::parquet {
namespace {

template <typename T>
std::uint64_t hashOf(const std::vector<T>& values, const test::Dims& dims = {}) {
  return contentHash<T>(values.data(), values.size(), dims);
}

TEST(ContentHash, ElementsCountByTheirBitsOrTheirSignedness) {
  constexpr std::uint64_t kMinusOne = std::numeric_limits<std::uint64_t>::max();
  EXPECT_EQ(hashElement(1.0), 0x3ff0000000000000U);
  EXPECT_EQ(hashElement(-1.0F), 0xbf800000U);  // extended with zeros
  EXPECT_EQ(hashElement(-0.0), 0U);
  EXPECT_EQ(hashElement(-0.0F), 0U);
  EXPECT_EQ(hashElement('\xff'), kMinusOne);
  EXPECT_EQ(hashElement(static_cast<short>(-1)), kMinusOne);
  EXPECT_EQ(hashElement(static_cast<unsigned char>(0xff)), 0xffU);
  EXPECT_EQ(hashElement(0xffffffffU), 0xffffffffU);
}

TEST(ContentHash, EqualContentIsThatOfTypeValuesAndRunOfExtents) {
  const std::vector<double> v{1, 2};
  const double nan = std::numeric_limits<double>::quiet_NaN();
  struct {
    const char* name;
    std::uint64_t a, b;
    bool equal;
  } const cases[] = {
      {"both zeros", hashOf<double>({0.0}), hashOf<double>({-0.0}), true},
      {"one NaN", hashOf<double>({nan}), hashOf<double>({nan}), true},
      {"signs of NaN", hashOf<double>({nan}), hashOf<double>({-nan}), false},
      {"grouping of extents", hashOf(v, {{2, 2}}), hashOf(v, {{2}, {2}}), true},
      {"extents beyond 32 bits", hashOf(v, {{2}}), hashOf(v, {{0x100000002}}), true},
      {"order of extents", hashOf(v, {{2, 3}}), hashOf(v, {{3, 2}}), false},
      {"an extent more", hashOf(v), hashOf(v, {{1}}), false},
      {"order of values", hashOf(v), hashOf<double>({2, 1}), false},
      {"number of zeros", hashOf<int>({0}), hashOf<int>({0, 0}), false},
      {"value as an extent", hashOf<int>({1, 2}), hashOf<int>({1}, {{2}}), false},
      {"type without values", hashOf<char>({}), hashOf<unsigned char>({}), false},
  };
  for (const auto& [name, a, b, equal] : cases) EXPECT_EQ(a == b, equal) << name;
}

}  // namespace
}  // namespace kyr::parquet
