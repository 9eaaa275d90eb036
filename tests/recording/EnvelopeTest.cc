#include <cmath>
#include <limits>
#include <random>

#include "kyr/recording/LiveRecording.h"
#include "recording/EnvelopeIndex.h"
#include "recording/ReaderTest.h"

namespace kyr::recording {
namespace {

using testing::AllOf;
using testing::Field;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

struct Rows {
  std::vector<double> times;
  std::vector<double> values;
};

// Rows in memory, which are handed out in blocks of some rows.
class MemorySource : public NumberSource {
 public:
  MemorySource(const Rows& rows, std::size_t blockRows) : rows_(rows), blockRows_(blockRows) {}

  std::uint64_t rows() override { return rows_.times.size(); }
  std::vector<RowRange> rowsBetween(double from, double to) override {
    std::vector<RowRange> ranges;
    for (std::uint64_t i = 0; i < rows(); ++i) {
      if (!(rows_.times[i] >= from && rows_.times[i] <= to)) continue;
      if (ranges.empty() || ranges.back().to != i) ranges.push_back({i, i});
      ++ranges.back().to;
    }
    return ranges;
  }
  void read(const RowRange& rows, const Visit& visit) override {
    for (std::uint64_t first = rows.from; first < rows.to; first += blockRows_) {
      const std::size_t count = std::min<std::uint64_t>(blockRows_, rows.to - first);
      visit({first, count, rows_.times.data() + first, rows_.values.data() + first});
      read_ += count;
    }
  }
  std::unique_ptr<NumberSource> copy() override { return std::make_unique<MemorySource>(*this); }

  // Rows that were handed out since the last call.
  std::uint64_t takeRead() { return std::exchange(read_, 0); }

 private:
  const Rows& rows_;
  std::size_t blockRows_;
  std::uint64_t read_ = 0;
};

std::size_t columnOf(double time, double from, double to, std::size_t columns) {
  if (from == to) return 0;
  const double part = (time / 2 - from / 2) / (to / 2 - from / 2) * static_cast<double>(columns);
  return std::min(columns - 1, static_cast<std::size_t>(std::max(0.0, part)));
}

// Row by row.
void note(EnvelopeColumn& column, const Rows& rows, std::uint64_t row) {
  const double time = rows.times[row];
  const double value = rows.values[row];
  if (column.rows == 0) {
    column.firstRow = row;
    column.firstTime = time;
    column.first = value;
  }
  ++column.rows;
  column.lastTime = time;
  column.last = value;
  if (std::isnan(value)) {
    ++column.nans;
    return;
  }
  if (!(value >= column.min)) {
    column.min = value;
    column.minTime = time;
  }
  if (!(value <= column.max)) {
    column.max = value;
    column.maxTime = time;
  }
}

std::vector<EnvelopeColumn> expectedColumns(const Rows& rows, double from, double to,
                                            std::size_t count) {
  std::vector<EnvelopeColumn> columns(count);
  for (std::uint64_t row = 0; row < rows.times.size(); ++row) {
    const double time = rows.times[row];
    if (time >= from && time <= to) note(columns[columnOf(time, from, to, count)], rows, row);
  }
  return columns;
}

bool same(double a, double b) { return a == b || (std::isnan(a) && std::isnan(b)); }

void expectSame(const EnvelopeColumn& found, const EnvelopeColumn& expected) {
  ASSERT_EQ(found.rows, expected.rows);
  if (found.rows == 0) return;
  EXPECT_EQ(found.firstRow, expected.firstRow);
  EXPECT_EQ(found.nans, expected.nans);
  for (const auto member :
       {&EnvelopeColumn::firstTime, &EnvelopeColumn::first, &EnvelopeColumn::minTime,
        &EnvelopeColumn::min, &EnvelopeColumn::maxTime, &EnvelopeColumn::max,
        &EnvelopeColumn::lastTime, &EnvelopeColumn::last}) {
    EXPECT_PRED2(same, found.*member, expected.*member);
  }
}

void expectColumns(const std::vector<EnvelopeColumn>& found,
                   const std::vector<EnvelopeColumn>& expected) {
  ASSERT_EQ(found.size(), expected.size());
  for (std::size_t i = 0; i < found.size() && !testing::Test::HasFailure(); ++i) {
    SCOPED_TRACE(i);
    expectSame(found[i], expected[i]);
  }
}

// Random rows with all that is awkward: gaps, bursts, repeated times, NaN and equal values.
Rows randomRows(std::size_t count, std::minstd_rand& random) {
  Rows rows;
  double time = -5;
  for (std::size_t i = 0; i < count; ++i) {
    const auto kind = random() % 40;
    if (kind == 0) {
      time += 200;  // a gap
    } else if (kind > 4) {
      time += i / 97 % 3 == 0 ? 0.001 : 0.25;
    }
    rows.times.push_back(time);
    const double value = double(random() % 2000) - 1000;
    rows.values.push_back(kind == 7 ? kNaN : kind == 8 ? kInfinity : value);
  }
  return rows;
}

constexpr EnvelopeLimits kTiny{/*exactRows=*/50, /*bucketRows=*/8, /*maxBuckets=*/64,
                               /*borderReads=*/1'000'000};

TEST(Envelope, IsThatOfALookAtEachRowInEveryWindow) {
  std::minstd_rand random(7);
  for (const std::size_t count : {0U, 1U, 2U, 9U, 300U, 2000U}) {
    for (const bool ascends : {true, false}) {
      Rows rows = randomRows(count, random);
      constexpr std::size_t kBlock = 37;
      // Times that ascend but for one place, between two blocks, are as hard as any others.
      if (!ascends && count == 300)
        std::rotate(rows.times.begin(), rows.times.begin() + 300 - 4 * kBlock, rows.times.end());
      if (!ascends && count != 300) std::shuffle(rows.times.begin(), rows.times.end(), random);
      if (!ascends && count > 2 && count != 300) rows.times[1] = kNaN;
      MemorySource source(rows, kBlock);
      EnvelopeIndex index(kTiny);
      std::vector<double> ends = rows.times;
      ends.insert(ends.end(), {-5.0, 3.0, -1e308, 1e308, 1e3});
      for (std::size_t i = 0; i < 120; ++i) {
        double from = ends[random() % ends.size()] + (i % 3 == 0 ? 0.1 : 0);
        double to = ends[random() % ends.size()];
        if (std::isnan(from + to)) continue;
        if (from > to) std::swap(from, to);
        const std::size_t columns = std::vector<std::size_t>{1, 2, 7, 100, 5000}[i % 5];
        SCOPED_TRACE(testing::Message() << count << " rows, " << from << " to " << to << ", "
                                        << columns << " columns, ascending " << ascends);
        expectColumns(index.envelope(source, from, to, columns).columns,
                      expectedColumns(rows, from, to, columns));
        if (testing::Test::HasFailure()) return;
      }
    }
  }
}

bool isAmong(const Rows& rows, const EnvelopeColumn& column, double time, double value) {
  const auto [begin, end] = std::equal_range(rows.times.begin(), rows.times.end(), time);
  for (auto each = begin; each != end; ++each) {
    if (same(rows.values[std::size_t(each - rows.times.begin())], value)) {
      return time >= column.firstTime && time <= column.lastTime;
    }
  }
  return false;
}

// Rows at borders need not be told, but what is told of a column lies in it, and no peak is lost.
TEST(Envelope, OfManyRowsTellsOfAColumnWhatLiesInItAndReadsFewRows) {
  std::minstd_rand random(11);
  for (const char* kind : {"noise", "rising", "falling", "peaks", "gaps"}) {
    SCOPED_TRACE(kind);
    Rows rows;
    double time = 0;
    for (int i = 0; i < 40'000; ++i) {
      rows.times.push_back(time);
      time += i >= 30'000 && i < 30'200 ? 0.37 : 0.01;  // a stretch of columns with 12 rows each
      const double noise = double(random() % 1000);
      rows.values.push_back(*kind == 'n'   ? noise
                            : *kind == 'r' ? i
                            : *kind == 'f' ? -i
                            : *kind == 'p' ? (i % 4000 < 16 ? noise + i : 0)
                                           : (random() % 3 == 0 ? kNaN : 1.0));
    }
    MemorySource source(rows, 1000);
    EnvelopeIndex index({/*exactRows=*/100, /*bucketRows=*/16, /*maxBuckets=*/10'000,
                         /*borderReads=*/4});
    const auto expected = expectedColumns(rows, 0.055, 440, 100);
    (void)index.envelope(source, 0.055, 440, 100);
    source.takeRead();
    const auto found = index.envelope(source, 0.055, 440, 100).columns;
    EXPECT_LT(source.takeRead(), 16 * 30) << "rows that the second call read";
    std::uint64_t nextRow = 6;
    double most = -kInfinity;
    double mostExpected = -kInfinity;
    for (std::size_t i = 0; i < found.size() && !HasFailure(); ++i) {
      SCOPED_TRACE(i);
      const EnvelopeColumn& column = found[i];
      EXPECT_LE(std::abs(double(column.rows) - double(expected[i].rows)),
                expected[i].rows < 100 ? 0 : 30);
      EXPECT_EQ(column.nans == column.rows, std::isnan(column.min));
      nextRow += column.rows;
      EXPECT_EQ(rows.times[column.firstRow], column.firstTime);
      EXPECT_PRED2(same, rows.values[column.firstRow], column.first);
      for (const auto& [when, value] :
           {std::pair(column.firstTime, column.first), std::pair(column.lastTime, column.last),
            std::pair(column.minTime, column.min), std::pair(column.maxTime, column.max)}) {
        if (std::isnan(when)) continue;
        EXPECT_EQ(columnOf(when, 0.055, 440, 100), i);
        EXPECT_TRUE(isAmong(rows, column, when, value)) << value << " at " << when;
      }
      most = std::max(most, column.max);
      mostExpected = std::max(mostExpected, expected[i].max);
    }
    EXPECT_EQ(most, mostExpected) << "a peak is lost";
    EXPECT_TRUE(rows.times[nextRow - 1] <= 440 && rows.times[nextRow] > 440) << "rows are lost";
  }
}

TEST(Envelope, GrowsWithTheRowsAndKeepsItsMemory) {
  std::minstd_rand random(3);
  const Rows all = randomRows(3000, random);
  Rows rows;
  MemorySource source(rows, 100);
  EnvelopeIndex index(kTiny);
  for (std::size_t count = 0; count < 3000; count += 1 + random() % 200) {
    rows.times.assign(all.times.begin(), all.times.begin() + std::ptrdiff_t(count));
    rows.values.assign(all.values.begin(), all.values.begin() + std::ptrdiff_t(count));
    SCOPED_TRACE(count);
    expectColumns(index.envelope(source, -10, 30'000, 25).columns,
                  expectedColumns(rows, -10, 30'000, 25));
    EXPECT_LE(index.bytes(), 2 * kTiny.maxBuckets * sizeof(EnvelopeBucket));
  }
}

TEST(Envelope, NamesTheRowsBesideTheWindow) {
  const Rows rows{{0, 1, 1, 2, 5, 5, 9}, {10, 11, 12, 13, 14, kNaN, 16}};
  MemorySource source(rows, 3);
  EnvelopeIndex index;
  const auto rowsBeside = [&](double from, double to) {
    const Envelope envelope = index.envelope(source, from, to, 3);
    return std::pair(envelope.before ? int(envelope.before->row) : -1,
                     envelope.after ? int(envelope.after->row) : -1);
  };
  EXPECT_EQ(rowsBeside(3, 4), std::pair(3, 4));
  EXPECT_EQ(rowsBeside(1, 5), std::pair(0, 6));
  EXPECT_EQ(rowsBeside(-3, -2), std::pair(-1, 0));
  EXPECT_EQ(rowsBeside(10, 11), std::pair(6, -1));
  EXPECT_EQ(rowsBeside(0, 9), std::pair(-1, -1));

  const Rows falling{{5, 6, 0, 1}, {1, 2, 3, 4}};
  MemorySource back(falling, 3);
  const Envelope late = EnvelopeIndex().envelope(back, 5, 6, 3);
  EXPECT_FALSE(late.before.has_value()) << "the rows with earlier times come later";
  const Envelope early = EnvelopeIndex().envelope(back, 0, 1, 3);
  EXPECT_FALSE(early.after.has_value());
}

TEST(Envelope, RefusesWindowsThatAreNone) {
  const Rows rows{{0, 1}, {2, 3}};
  MemorySource source(rows, 3);
  EnvelopeIndex index;
  for (const auto& [from, to, columns] :
       std::vector<std::tuple<double, double, std::size_t>>{{1, 0, 5},
                                                            {kNaN, 1, 5},
                                                            {0, kNaN, 5},
                                                            {-kInfinity, 1, 5},
                                                            {0, kInfinity, 5},
                                                            {0, 1, 0},
                                                            {0, 1, 65'537}}) {
    EXPECT_THROW((void)index.envelope(source, from, to, columns), std::invalid_argument);
  }
}

class SavedEnvelope : public test::ReaderTest {};

TEST_F(SavedEnvelope, SpansJoinEqualValuesAndTellWhereTheyChange) {
  put(pool, 1, {{0, 1, 2, 3, 4, 5}, test::bytesOf<char>({1, 1, 0, 0, 0, 1}), {}, {}}, Boolean);
  put(pool, 2, {{0, 1, 2, 3}, {'o', 'n', 'o', 'n', 'o', 'f', 'f'}, {}, {2, 2, 3, 0}}, Binary);
  save(rec);
  const RecordingReader reader = read();

  const auto state = reader.spans(1, 0.5, 10, 1000);
  ASSERT_EQ(state.size(), 3U);
  EXPECT_THAT(state[0], AllOf(Field(&ValueSpan::from, 0.5), Field(&ValueSpan::to, 2),
                              Field(&ValueSpan::value, 1), Field(&ValueSpan::rows, 1)));
  EXPECT_THAT(state[1], AllOf(Field(&ValueSpan::from, 2), Field(&ValueSpan::to, 5),
                              Field(&ValueSpan::value, 0), Field(&ValueSpan::rows, 3)));
  EXPECT_THAT(state[2], AllOf(Field(&ValueSpan::from, 5), Field(&ValueSpan::to, 5)));
  const auto coarse = reader.spans(1, 0, 5, 2);
  EXPECT_TRUE(coarse[0].isMixed);
  EXPECT_EQ(reader.spans(1, 2.25, 2.5, 10).size(), 1U) << "a window between two rows";

  const auto text = reader.spans(2, 0, 3, 100);
  ASSERT_EQ(text.size(), 3U);
  EXPECT_THAT(text[0], AllOf(Field(&ValueSpan::text, "on"), Field(&ValueSpan::to, 2)));
  EXPECT_EQ(text[1].text, "off");
  EXPECT_EQ(text[2].textBytes, 0U);
  EXPECT_THROW((void)reader.envelope(2, 0, 3, 10), std::invalid_argument);
}

TEST_F(SavedEnvelope, ReadsEachKindOfSamples) {
  put(pool, 1, {{0, 1}, test::bytesOf<short>({1, 2, 3, 4, 5, 6}), {{3}}, {}}, Int16, FixedDim);
  put(pool, 2, {{0, 1}, test::bytesOf<float>({1.5F, 2.5F, -3}), {{2}, {1}}, {}}, Single, VarDim);
  put(pool, 3, {{}, test::bytesOf<unsigned char>({9, 200, 7}), {}, {}}, UInt8);
  save(rec);
  const RecordingReader reader = read();

  EXPECT_EQ(reader.envelope(1, 0, 1, 1, 2).columns[0].max, 6);
  EXPECT_EQ(reader.envelope(1, 0, 1, 1).columns[0].min, 1);
  EXPECT_THAT(test::errorOf([&] { (void)reader.envelope(1, 0, 1, 1, 3); }),
              testing::HasSubstr("3 elements"));
  const EnvelopeColumn varying = reader.envelope(2, 0, 1, 1, 1).columns[0];
  EXPECT_EQ(varying.max, 2.5);
  EXPECT_EQ(varying.nans, 1U) << "the second sample has no second element";
  const std::uint64_t far = std::numeric_limits<std::uint64_t>::max();
  EXPECT_EQ(reader.envelope(2, 0, 1, 1, far).columns[0].nans, 2U);
  const EnvelopeColumn untimed = reader.envelope(3, 0.5, 2, 1).columns[0];
  EXPECT_EQ(untimed.rows, 2U);
  EXPECT_EQ(untimed.maxTime, 1) << "the row number";
  EXPECT_THROW((void)reader.envelope(4, 0, 1, 1), std::out_of_range);
}

TEST_F(SavedEnvelope, FollowsALiveRecording) {
  LiveRecording live(Path::fromFilesystem(rec));
  const auto signal = live.addSignal({1, "speed", "m/s", "", {}}, Double, Scalar);
  std::optional<RecordingReader> reader;
  Rows rows;
  for (int round = 0; round < 4; ++round) {
    for (int i = 0; i < 50; ++i) {
      rows.times.push_back(double(rows.times.size()));
      rows.values.push_back(double((i * 37 + round) % 50));
      signal->appendTime(&rows.times.back(), 1);
      signal->appendData(&rows.values.back(), sizeof(double), {}, {});
    }
    live.flush();
    if (!reader) reader.emplace(Path::fromFilesystem(rec));
    reader->refresh();
    expectColumns(reader->envelope(1, 10, 300, 17).columns, expectedColumns(rows, 10, 300, 17));
  }
}

}  // namespace
}  // namespace kyr::recording
