#include <gmock/gmock.h>

#include <random>
#include <stdexcept>
#include <unordered_map>
#include <vector>

#include "kyr/parquet/RedundancyChecker.h"
#include "streaming/HashNumbers.h"

namespace kyr::parquet::RedundancyChecker {
namespace {

using ::testing::ThrowsMessage;

// Restores the process-wide hasher after each test.
class RedundancyCheckerTest : public ::testing::Test {
 protected:
  ~RedundancyCheckerTest() override { defaultHasher = &_defaultHasher; }

  Context<unsigned long> context;
};

TEST(DefaultHasher, MixesWordsThenSignedBytesIntoTheType) {
  const std::vector<unsigned char> zeros(8);
  const std::vector<unsigned char> mixed{1, 2, 3, 4, 5, 6, 7, 8, 0x7f, 0x80, 0xff, 0, 0x10};
  const double doubles[] = {0.5, -1.0};
  struct {
    const void* data;
    unsigned long size;
    int type;
    unsigned long hash;
  } const cases[] = {
      {zeros.data(), 0, Double, 0},
      {zeros.data(), 0, Binary, 20000},
      {zeros.data(), 0, -1, 0xffffffff},
      {zeros.data(), 8, Double, 0x9e3779b9},
      {&mixed[10], 1, Double, 0x9e3779b8},  // the byte 0xff is -1
      {mixed.data(), 12, Double, 0x2f9ffb13a97027fe},
      {mixed.data(), 13, Double, 0xdc7938bc4deda4b6},
      {mixed.data(), 13, Binary, 0xdc7a974817b1e3e0},
      {doubles, 16, Double, 0xf8080028cd94bfde},
      {doubles, 16, UInt64, 0xf8080028c85e9c48},
      {doubles + 1, 8, Double, 0xbff000009e3779b9},
  };
  for (const auto& [data, size, type, hash] : cases) {
    EXPECT_EQ(_defaultHasher(data, size, static_cast<KYRSignalDataType>(type)), hash)
        << size << " bytes of type " << type;
  }
  EXPECT_THAT([] { _defaultHasher(nullptr, 0, Double); },
              ThrowsMessage<std::invalid_argument>("Data is empty"));
}

TEST_F(RedundancyCheckerTest, NumbersRunInOrderOfFirstAppearance) {
  const double values[] = {1.5, 2.5};
  EXPECT_EQ(processDataAndCheck(&context, values, 16, Double), 0);
  EXPECT_EQ(processDataAndCheck(&context, values, 8, Double), 1);
  EXPECT_EQ(processDataAndCheck(&context, values, 16, Int64), 2);  // the type belongs to it
  EXPECT_EQ(processDataAndCheck(&context, values, 16, Double), 0);
  EXPECT_EQ(processTimeAndCheck(&context, values, 2), 0);  // time is data of doubles
  EXPECT_EQ(processTimeAndCheck(&context, values, 0), 3);
  EXPECT_EQ(processDataAndCheck(&context, values, 0, Double), 3);
  EXPECT_EQ(context.nextNumber, 4);
  EXPECT_EQ(context.seen.size(), 4);
  EXPECT_EQ(context.seen.at(_defaultHasher(values, 8, Double)), 1);
  EXPECT_EQ(context.seen.count(1), 0);
  EXPECT_THROW(context.seen.at(1), std::out_of_range);
}

TEST_F(RedundancyCheckerTest, NextNumberIsTheNumberOfTheNextNewContent) {
  const double values[] = {1.5, 2.5, 3.5, 4.5};
  EXPECT_EQ(processTimeAndCheck(&context, values, 1), 0);
  context.nextNumber = 10;
  EXPECT_EQ(processTimeAndCheck(&context, values, 2), 10);
  Context<unsigned long> copy = context;
  EXPECT_EQ(processTimeAndCheck(&context, values, 3), 11);
  copy.nextNumber = 1;
  EXPECT_EQ(processTimeAndCheck(&copy, values, 4), 1);
  for (const unsigned long count : {1UL, 2UL, 3UL}) {
    EXPECT_EQ(processTimeAndCheck(&context, values, count), count == 1 ? 0 : 8 + count);
  }
}

TEST(HashNumbersTest, NumbersHashesOfAllKindsAsAMapDoes) {
  HashNumbers table;
  unsigned long next = 0;
  std::unordered_map<unsigned long, unsigned long> model;
  std::mt19937_64 random(1);
  for (unsigned long i = 0; i < 200'000; ++i) {
    // Hashes that differ in low bits, in high bits and in all bits, and hashes that came before. 0
    // is a hash like all others.
    for (const unsigned long hash :
         {i, i << 40U, random(), random() % (i + 1), ~i, (i << 57U) ^ (i % 8 << 20U)}) {
      const unsigned long expected = model.try_emplace(hash, model.size()).first->second;
      const unsigned long guess = i % 3 == 0 ? expected : random() % 1000;
      ASSERT_EQ(table.of(hash, next, guess), expected) << hash;
    }
  }
  EXPECT_EQ(table.size(), model.size());

  // A copy knows the same hashes, and both go on by themselves.
  HashNumbers copy;
  copy.of(12345, next, 0);
  copy = table;
  for (const auto& [hash, number] : model) ASSERT_EQ(copy.at(hash), number) << hash;
  unsigned long nextOfCopy = next;
  const unsigned long fresh = random();
  EXPECT_EQ(copy.of(fresh, nextOfCopy), next);
  EXPECT_FALSE(table.contains(fresh));
  EXPECT_THROW(table.at(fresh), std::out_of_range);
}

TEST_F(RedundancyCheckerTest, HashAloneDecidesWhatIsEqual) {
  const double value = 1;
  defaultHasher = [](const void*, unsigned long size, KYRSignalDataType type) {
    return type == Double ? 7 : size;
  };
  EXPECT_EQ(processDataAndCheck(&context, &value, 8, Double), 0);
  EXPECT_EQ(processDataAndCheck(&context, &value, 1, Double), 0);
  EXPECT_EQ(processDataAndCheck(&context, &value, 7, Int8), 0);
  EXPECT_EQ(processTimeAndCheck(&context, &value, 1), 0);
  EXPECT_EQ(processDataAndCheck(&context, &value, 8, Int8), 1);
}

TEST_F(RedundancyCheckerTest, RefusedChunkLeavesTheNumbersAsTheyAre) {
  const double value = 1;
  const auto says = [](const char* text) { return ThrowsMessage<std::invalid_argument>(text); };
  EXPECT_THAT([&] { processDataAndCheck(nullptr, nullptr, 8, Double); }, says("Context is empty"));
  EXPECT_THAT([&] { processTimeAndCheck(nullptr, &value, 1); }, says("Context is empty"));
  EXPECT_THAT([&] { processTimeAndCheck(nullptr, nullptr, 5); }, says("Time is empty"));
  EXPECT_THAT([&] { processDataAndCheck(&context, nullptr, 0, Int8); }, says("Data is empty"));
  defaultHasher = nullptr;
  EXPECT_THROW(processDataAndCheck(&context, nullptr, 8, Double), std::bad_function_call);
  EXPECT_EQ(context.nextNumber, 0);
  EXPECT_TRUE(context.seen.empty());
}

}  // namespace
}  // namespace kyr::parquet::RedundancyChecker
