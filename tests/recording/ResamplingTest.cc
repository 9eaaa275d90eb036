#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <set>

#include "kyr/recording/Resampling.h"
#include "recording/ReaderTest.h"

namespace kyr::recording {
namespace {

using test::errorOf;
using ::testing::HasSubstr;
using Method = ResampleOptions::Method;
using Times = std::vector<double>;

class ResamplingTest : public test::ReaderTest {
 protected:
  // Signals of these times, whose sample i is i * i.
  void record(const std::vector<Times>& signals) {
    int id = 0;
    for (const Times& times : signals) {
      std::vector<int> samples;
      for (std::size_t i = 0; i < times.size(); ++i) samples.push_back(int(i % 30'000 * (i % 7)));
      put(pool, ++id, {times, test::bytesOf(samples), {}, {}}, Int32);
      values.emplace_back(samples.begin(), samples.end());
    }
    save(rec);
  }

  // The same by a look at all samples for each time.
  std::optional<double> expected(const Times& times, const std::vector<double>& samples,
                                 double time, double tolerance, Method method) const {
    std::ptrdiff_t before = -1;
    std::ptrdiff_t after = -1;
    const auto timeOf = [&times](std::ptrdiff_t i) { return times[std::size_t(i)]; };
    for (std::ptrdiff_t i = 0; i < std::ptrdiff_t(times.size()); ++i) {
      if (timeOf(i) <= time + tolerance) {
        if (before < 0 || timeOf(i) >= timeOf(before)) before = i;
      } else if (after < 0 || timeOf(i) <= timeOf(after)) {
        after = i;
      }
    }
    const auto sample = [&](std::ptrdiff_t i) { return samples[std::size_t(i)]; };
    const bool isAt = before >= 0 && time <= timeOf(before) + tolerance;
    if (method == Method::nearest && before < 0) return sample(after);
    if (before < 0) return std::nullopt;
    if (method == Method::previous || isAt) return sample(before);
    if (method == Method::nearest) {
      const bool isLater =
          after >= 0 && timeOf(after) - time < time - timeOf(before) - 1e-12 * std::abs(time);
      return sample(isLater ? after : before);
    }
    if (after < 0) return std::nullopt;
    const double part = (time - timeOf(before)) / (timeOf(after) - timeOf(before));
    return Resampling::between(sample(before), sample(after), part);
  }

  std::vector<std::vector<double>> values;
};

TEST_F(ResamplingTest, IsThatOfALookAtEachSample) {
  const std::vector<Times> signals{
      {0, 1, 2, 3, 10}, {0.5, 0.5, 1, 1, 1, 4}, {3, 2, 1, 0, 3, 2.5}, {7}, {-1, 0.1 + 0.2, 12}};
  record(signals);
  const RecordingReader reader = read();
  std::set<double> all;
  for (const Times& times : signals) all.insert(times.begin(), times.end());
  for (const std::optional<double> step : {std::optional<double>(), {0.3}, {1}, {50}}) {
    for (const Method method : {Method::previous, Method::nearest, Method::linear}) {
      const Resampling resampling(reader, {1, 2, 3, 4, 5}, {step, method});
      const Times grid = resampling.times();
      ASSERT_EQ(grid.size(), resampling.rows());
      if (step) {
        EXPECT_EQ(grid.size(), static_cast<std::size_t>(std::floor(13 / *step + 1e-6)) + 1);
        EXPECT_EQ(grid.front(), -1);
        EXPECT_LE(grid.back(), 12);
      } else {
        EXPECT_EQ(grid, Times(all.begin(), all.end()));
      }
      const double tolerance = step ? std::min(1e-9 * *step + 48 * 2.3e-16, *step / 4) : 0;
      for (std::size_t i = 0; i < signals.size(); ++i) {
        const auto found = resampling.numbers(int(i) + 1);
        for (std::size_t row = 0; row < grid.size(); ++row) {
          const auto wanted = expected(signals[i], values[i], grid[row], tolerance, method);
          ASSERT_EQ(found[row].has_value(), wanted.has_value()) << i << " at " << grid[row];
          ASSERT_DOUBLE_EQ(found[row].value_or(0), wanted.value_or(0)) << i << " at " << grid[row];
          const auto one = resampling.numbers(int(i) + 1, {row, row + 1});
          ASSERT_EQ(one.front(), found[row]) << i << " at " << grid[row];
        }
      }
    }
  }
}

TEST_F(ResamplingTest, LongSignalsAreReadInPieces) {
  Times slow;
  Times fast;
  for (int i = 0; i < 200'000; ++i) {
    slow.push_back(i * 1.5);
    fast.push_back(i - i % 3);  // each time thrice
  }
  record({slow, fast});
  const RecordingReader reader = read();
  const Resampling united(reader, {1, 2}, {{}, Method::linear});
  Times all;
  fast.erase(std::unique(fast.begin(), fast.end()), fast.end());
  std::set_union(slow.begin(), slow.end(), fast.begin(), fast.end(), std::back_inserter(all));
  EXPECT_EQ(united.times(), all);
  EXPECT_EQ(united.times({131'071, 131'074}), Times(all.begin() + 131'071, all.begin() + 131'074));
  const auto whole = united.numbers(2);
  for (const std::uint64_t row : {0U, 65'535U, 65'536U, 100'000U, 131'071U}) {
    EXPECT_EQ(united.numbers(2, {row, row + 1}).front(), whole[row]);
    const auto place = united.places(2, {row, row + 1}).front();
    const std::int64_t last = static_cast<std::int64_t>(all[row] / 3) * 3 + 2;
    EXPECT_EQ(place.before, std::min<std::int64_t>(last, 199'999));
  }
}

TEST_F(ResamplingTest, WhatCannotBeResampledIsRefused) {
  record({{0, 1e9}, {0, std::numeric_limits<double>::quiet_NaN()}, {0, 1}});
  put(pool, 4, {{0, 1}, {'a', 'b'}, {}, {1, 1}}, Binary, Bus);
  fs::remove_all(rec);
  save(rec);
  const RecordingReader reader = read();
  const auto refusal = [&](std::vector<int> ids, std::optional<double> step) {
    return errorOf([&] { Resampling(reader, std::move(ids), {step, {}}); });
  };
  EXPECT_THAT(refusal({1}, 1e-12), HasSubstr("take longer steps"));
  EXPECT_THAT(refusal({1}, 1e-3), HasSubstr("rows: take longer"));
  EXPECT_THAT(refusal({1}, -1), HasSubstr("above 0"));
  EXPECT_THAT(refusal({3, 2}, {}), HasSubstr("\"signal 2\" cannot be resampled"));
  EXPECT_THAT(refusal({}, {}), HasSubstr("no signals"));
  EXPECT_THAT(refusal({9}, {}), HasSubstr("no signal 9"));
  const Resampling fine(reader, {3, 4}, {0.5, {}});
  EXPECT_THROW(fine.numbers(4), std::invalid_argument);
  EXPECT_THROW(fine.numbers(1), std::invalid_argument);
  EXPECT_EQ(fine.places(4).back().before, 1);
}

}  // namespace
}  // namespace kyr::recording
