#include <gmock/gmock.h>

#include <cmath>
#include <limits>
#include <optional>
#include <random>
#include <vector>

#include "kyr/parquet/ColumnNames.h"
#include "kyr/parquet/SchemaBuilder.h"
#include "schema/ElementTypes.h"
#include "schema/ValueBounds.h"

namespace kyr::parquet {
namespace {

template <typename T>
ValueBounds boundsOf(const std::vector<T>& values, KYRSignalCategory category = Scalar,
                     KYRSignalDataType type = NumberType<T>::signalType) {
  ValueBounds bounds(SampleSchema(
      schemaBuilder::getSchema(category, type, /*includeTime=*/false, columnNames::data)));
  RowSlice rows;
  rows.rows = values.size();
  rows.elements = reinterpret_cast<const char*>(values.data());
  rows.bytes = values.size() * sizeof(T);
  bounds.add(rows);
  return bounds;
}

template <typename T>
void expectBounds(const std::vector<T>& values, std::optional<double> least,
                  std::optional<double> most) {
  const ValueBounds bounds = boundsOf(values);
  EXPECT_EQ(bounds.minimum(), least) << ::testing::PrintToString(values);
  EXPECT_EQ(bounds.maximum(), most) << ::testing::PrintToString(values);
}

// The extremes stand at each place of runs of each length, among NaN where there are some.
template <typename T>
void expectExtremesFoundAnywhere() {
  using Limits = std::numeric_limits<T>;
  for (std::size_t count = 1; count < 200; count += count < 40 ? 1 : 37) {
    for (std::size_t at = 0; at < count; ++at) {
      std::vector<T> values(count, T(5));
      values[(at + 1) % count] = Limits::has_quiet_NaN ? Limits::quiet_NaN() : T(5);
      values[at] = T(3);
      const double other = count > (Limits::has_quiet_NaN ? 2U : 1U) ? 5 : 3;
      expectBounds(values, 3, other);
      values[at] = T(7);
      expectBounds(values, count > (Limits::has_quiet_NaN ? 2U : 1U) ? 5 : 7, 7);
    }
  }
  expectBounds<T>({Limits::lowest(), Limits::max()}, static_cast<double>(Limits::lowest()),
                  static_cast<double>(Limits::max()));
  expectBounds<T>({}, std::nullopt, std::nullopt);
}

TEST(ValueBounds, TheExtremesAreFoundWhereverTheyStand) {
#define KYR_EXPECT(T, A, S) expectExtremesFoundAnywhere<T>();
  KYR_FOR_EACH_NUMBER_TYPE(KYR_EXPECT)
#undef KYR_EXPECT
}

TEST(ValueBounds, NanDoesNotCountInfinitiesDoAndZerosHaveNoSign) {
  constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
  constexpr double kInf = std::numeric_limits<double>::infinity();
  for (const std::size_t count : {1U, 4U, 31U, 64U}) {
    expectBounds<double>(std::vector<double>(count, kNan), std::nullopt, std::nullopt);
    expectBounds<double>(std::vector<double>(count, kInf), kInf, kInf);
    expectBounds<double>(std::vector<double>(count, -kInf), -kInf, -kInf);
    const ValueBounds zero = boundsOf(std::vector<double>(count, -0.0));
    EXPECT_FALSE(std::signbit(*zero.minimum()) || std::signbit(*zero.maximum()));
  }
  EXPECT_FALSE(boundsOf<unsigned char>({1, 2}, Bus, Binary).minimum());
}

}  // namespace
}  // namespace kyr::parquet
