#include "recording/EnvelopeIndex.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "platform/Parallel.h"

namespace kyr::recording {

namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr std::size_t kMostColumns = 65'536;
// Below that a further thread costs more than it saves.
constexpr std::uint64_t kRowsPerThread = 2'097'152;
constexpr std::uint64_t kMostThreads = 8;

// Two numbers that the processor handles at once.
using Pair = double __attribute__((vector_size(16)));
using PairMask = std::int64_t __attribute__((vector_size(16)));
constexpr std::size_t kPair = 2;

Pair pairAt(const double* numbers) {
  Pair pair;
  std::memcpy(&pair, numbers, sizeof(pair));
  return pair;
}

bool ascend(const double* times, std::size_t count) {
  bool ascends = true;
  PairMask pairs{-1, -1};
  std::size_t i = 1;
  for (; i + kPair <= count; i += kPair) pairs &= pairAt(times + i - 1) <= pairAt(times + i);
  for (; i < count; ++i) ascends = ascends && times[i - 1] <= times[i];
  return ascends && pairs[0] != 0 && pairs[1] != 0;
}

struct Extremes {
  double min = kInfinity;
  double max = -kInfinity;
  std::uint64_t nans = 0;
};

void note(Extremes& extremes, double value) {
  if (value < extremes.min) extremes.min = value;
  if (value > extremes.max) extremes.max = value;
  if (value != value) ++extremes.nans;
}

// Several lanes, because each comparison waits for the one before it in its lane.
Extremes extremesOf(const double* values, std::size_t count) {
  constexpr std::size_t kLanes = 4;
  constexpr Pair kEmpty{kInfinity, kInfinity};
  Pair min[kLanes] = {kEmpty, kEmpty, kEmpty, kEmpty};
  Pair max[kLanes] = {-kEmpty, -kEmpty, -kEmpty, -kEmpty};
  PairMask nans{0, 0};
  std::size_t i = 0;
  for (; i + kLanes * kPair <= count; i += kLanes * kPair) {
    for (std::size_t lane = 0; lane < kLanes; ++lane) {
      const Pair value = pairAt(values + i + lane * kPair);
      min[lane] = value < min[lane] ? value : min[lane];
      max[lane] = value > max[lane] ? value : max[lane];
      nans -= value != value;  // a true comparison is -1
    }
  }
  Extremes extremes;
  extremes.nans = static_cast<std::uint64_t>(nans[0] + nans[1]);
  for (; i < count; ++i) note(extremes, values[i]);
  for (std::size_t lane = 0; lane < kLanes; ++lane) {
    for (std::size_t k = 0; k < kPair; ++k) {
      extremes.min = std::min(extremes.min, min[lane][k]);
      extremes.max = std::max(extremes.max, max[lane][k]);
    }
  }
  return extremes;
}

// Rows [from, to) of a block, of which there is at least one.
EnvelopeBucket summary(const NumberBlock& block, std::size_t from, std::size_t to) {
  const double* const values = block.values;
  const Extremes extremes = extremesOf(values + from, to - from);
  EnvelopeBucket bucket;
  EnvelopeColumn& column = bucket.sum;
  column.firstRow = block.firstRow + from;
  column.rows = to - from;
  column.nans = extremes.nans;
  column.firstTime = block.times[from];
  column.first = values[from];
  column.lastTime = block.times[to - 1];
  column.last = values[to - 1];
  if (column.nans == column.rows) return bucket;
  const auto placeOf = [&](double value) {
    return static_cast<std::size_t>(std::find(values + from, values + to, value) - values);
  };
  const std::size_t min = placeOf(extremes.min);
  const std::size_t max = placeOf(extremes.max);
  column.min = values[min];
  column.minTime = block.times[min];
  column.max = values[max];
  column.maxTime = block.times[max];
  bucket.minAt = static_cast<std::uint32_t>(min - from);
  bucket.maxAt = static_cast<std::uint32_t>(max - from);
  return bucket;
}

// Adds rows that come later.
void merge(EnvelopeColumn& column, const EnvelopeColumn& later) {
  if (later.rows == 0) return;
  if (column.rows == 0) {
    column = later;
    return;
  }
  column.rows += later.rows;
  column.nans += later.nans;
  column.lastTime = later.lastTime;
  column.last = later.last;
  if (later.min < column.min || std::isnan(column.min)) {
    column.min = later.min;
    column.minTime = later.minTime;
  }
  if (later.max > column.max || std::isnan(column.max)) {
    column.max = later.max;
    column.maxTime = later.maxTime;
  }
}

void merge(EnvelopeBucket& bucket, const EnvelopeBucket& later) {
  if (bucket.sum.rows == 0) {
    bucket = later;
    return;
  }
  const auto rowsBefore = static_cast<std::uint32_t>(later.sum.firstRow - bucket.sum.firstRow);
  if (later.sum.min < bucket.sum.min || std::isnan(bucket.sum.min)) {
    bucket.minAt = rowsBefore + later.minAt;
  }
  if (later.sum.max > bucket.sum.max || std::isnan(bucket.sum.max)) {
    bucket.maxAt = rowsBefore + later.maxAt;
  }
  merge(bucket.sum, later.sum);
}

EnvelopeColumn oneRow(std::uint64_t row, double time, double value) {
  EnvelopeColumn column;
  column.firstRow = row;
  column.rows = 1;
  column.firstTime = column.lastTime = time;
  column.first = column.last = value;
  if (std::isnan(value)) {
    column.nans = 1;
  } else {
    column.min = column.max = value;
    column.minTime = column.maxTime = time;
  }
  return column;
}

// Buckets of consecutive rows, which begin with a multiple of the bucket's size.
struct Buckets {
  std::vector<EnvelopeBucket> all;
  bool ascends = true;
};

Buckets sumUp(NumberSource& source, const RowRange& rows, std::uint64_t bucketRows) {
  Buckets buckets;
  buckets.all.reserve(static_cast<std::size_t>((rows.to - rows.from) / bucketRows + 1));
  double last = -kInfinity;
  source.read(rows, [&](const NumberBlock& block) {
    buckets.ascends = buckets.ascends && block.times[0] >= last && ascend(block.times, block.rows);
    if (!buckets.ascends) return;
    last = block.times[block.rows - 1];
    for (std::size_t begin = 0; begin < block.rows;) {
      const std::uint64_t inBucket = (block.firstRow + begin) % bucketRows;
      const std::size_t end = std::min<std::uint64_t>(block.rows, begin + (bucketRows - inBucket));
      if (inBucket == 0 || buckets.all.empty()) buckets.all.emplace_back();
      merge(buckets.all.back(), summary(block, begin, end));
      begin = end;
    }
  });
  return buckets;
}

}  // namespace

// The columns of an envelope while rows are added to them.
class EnvelopeIndex::Columns {
 public:
  Columns(double from, double to, std::size_t count)
      : from_(from), to_(to), width_(to / 2 - from / 2), columns_(count) {}

  // Halves, because the distance of two finite times may be infinite.
  std::size_t of(double time) const {
    if (!(width_ > 0)) return 0;
    const double part = (time / 2 - from_ / 2) / width_ * static_cast<double>(columns_.size());
    return std::min(columns_.size() - 1, static_cast<std::size_t>(std::max(0.0, part)));
  }

  void add(std::size_t column, const EnvelopeColumn& rows) {
    // Rows at borders are added last, and may come before those in the middle.
    if (columns_[column].rows > 0 && rows.firstRow < columns_[column].firstRow) {
      EnvelopeColumn earlier = rows;
      merge(earlier, columns_[column]);
      columns_[column] = earlier;
    } else {
      merge(columns_[column], rows);
    }
  }

  // Adds a bucket that lies in two columns from the rows that are known of it: the first, smallest,
  // largest and last one, each to its own column. All others are counted in the first column.
  // Returns false, and adds nothing, if only NaN is known of the rows in that.
  bool addAcross(const EnvelopeBucket& bucket) {
    const EnvelopeColumn& all = bucket.sum;
    const std::size_t column = of(all.firstTime);
    EnvelopeColumn start = oneRow(all.firstRow, all.firstTime, all.first);
    EnvelopeColumn end;
    if (all.nans < all.rows) {
      EnvelopeColumn extremes[] = {oneRow(all.firstRow + bucket.minAt, all.minTime, all.min),
                                   oneRow(all.firstRow + bucket.maxAt, all.maxTime, all.max)};
      if (bucket.maxAt < bucket.minAt) std::swap(extremes[0], extremes[1]);
      for (const EnvelopeColumn& extreme : extremes) {
        merge(of(extreme.firstTime) == column ? start : end, extreme);
      }
      if (start.nans == start.rows) return false;
    }
    merge(end, oneRow(all.firstRow + all.rows - 1, all.lastTime, all.last));
    end.nans = std::isnan(all.last) ? 1 : 0;
    end.rows = end.nans + (std::isnan(end.min) ? 0 : 1);
    start.nans = all.nans - end.nans;
    start.rows = all.rows - end.rows;
    add(column, start);
    add(column + 1, end);
    return true;
  }

  // Adds those rows of a block that lie in the window.
  void add(const NumberBlock& block) {
    const bool ascends = ascend(block.times, block.rows);
    for (std::size_t begin = 0; begin < block.rows;) {
      if (!(block.times[begin] >= from_ && block.times[begin] <= to_)) {
        ++begin;
        continue;
      }
      const std::size_t column = of(block.times[begin]);
      const std::size_t end = endOf(column, block, begin, ascends);
      add(column, summary(block, begin, end).sum);
      begin = end;
    }
  }

  std::uint64_t rowsOf(std::size_t column) const { return columns_[column].rows; }
  std::vector<EnvelopeColumn> take() { return std::move(columns_); }

 private:
  bool isIn(std::size_t column, double time) const {
    return time >= from_ && time <= to_ && of(time) == column;
  }

  std::size_t endOf(std::size_t column, const NumberBlock& block, std::size_t begin,
                    bool ascends) const {
    if (ascends) {
      const double* const end =
          std::partition_point(block.times + begin, block.times + block.rows,
                               [&](double time) { return isIn(column, time); });
      return static_cast<std::size_t>(end - block.times);
    }
    std::size_t end = begin + 1;
    while (end < block.rows && isIn(column, block.times[end])) ++end;
    return end;
  }

  double from_;
  double to_;
  double width_;
  std::vector<EnvelopeColumn> columns_;
};

namespace {

std::optional<EnvelopePoint> pointAt(NumberSource& source, std::uint64_t row) {
  std::optional<EnvelopePoint> point;
  source.read({row, row + 1}, [&](const NumberBlock& block) {
    point = {block.firstRow, block.times[0], block.values[0]};
  });
  return point;
}

// The rows beside those in the window, unless times go back and forth.
void addNeighbours(NumberSource& source, double from, double to,
                   const std::vector<RowRange>& inside, Envelope& envelope) {
  if (inside.size() > 1) return;
  const auto earlier = source.rowsBetween(-kInfinity, std::nextafter(from, -kInfinity));
  const auto later = source.rowsBetween(std::nextafter(to, kInfinity), kInfinity);
  if (earlier.size() > 1 || later.size() > 1) return;
  const std::uint64_t begin = inside.empty() ? 0 : inside.front().from;
  const std::uint64_t end = inside.empty() ? 0 : inside.front().to;
  if (!earlier.empty() && (inside.empty() || earlier[0].to <= begin)) {
    envelope.before = pointAt(source, earlier[0].to - 1);
  }
  if (!later.empty() && later[0].from >= end) envelope.after = pointAt(source, later[0].from);
  if (envelope.before && envelope.after && envelope.before->row > envelope.after->row) {
    envelope.before.reset();
    envelope.after.reset();
  }
}

}  // namespace

Envelope EnvelopeIndex::envelope(NumberSource& source, double from, double to,
                                 std::size_t columns) {
  if (!std::isfinite(from) || !std::isfinite(to) || from > to) {
    throw std::invalid_argument(fmt::format("no window reaches from {} s to {} s", from, to));
  }
  if (columns == 0 || columns > kMostColumns) {
    throw std::invalid_argument(
        fmt::format("an envelope of {} columns: it has 1 to {}", columns, kMostColumns));
  }
  Columns sums(from, to, columns);
  const std::vector<RowRange> ranges = source.rowsBetween(from, to);
  if (!ranges.empty()) {
    const RowRange rows{ranges.front().from, std::min(ranges.back().to, source.rows())};
    if (rows.to - rows.from > limits_.exactRows) extend(source);
    if (rows.to - rows.from > limits_.exactRows && ascends_) {
      lookUp(source, rows, sums);
    } else {
      source.read(rows, [&](const NumberBlock& block) { sums.add(block); });
    }
  }
  Envelope envelope;
  envelope.columns = sums.take();
  addNeighbours(source, from, to, ranges, envelope);
  return envelope;
}

void EnvelopeIndex::extend(NumberSource& source) {
  const std::uint64_t rows = source.rows();
  if (rows < rows_) *this = EnvelopeIndex(limits_);
  if (rows == rows_ || !ascends_) return;
  while ((rows - 1) / bucketRows_ + 1 > limits_.maxBuckets) widenBuckets();
  // A bucket that was not full is made anew.
  const std::uint64_t begin = rows_ - rows_ % bucketRows_;
  buckets_.resize(static_cast<std::size_t>(begin / bucketRows_));
  rows_ = begin;
  const std::uint64_t threads =
      std::min<std::uint64_t>({(rows - begin) / kRowsPerThread + 1, coreCount(), kMostThreads});
  // Buckets are counted instead of rows: a damaged journal may name almost 2^64 rows.
  const std::uint64_t buckets = (rows - begin - 1) / bucketRows_ + 1;
  const std::uint64_t share = (buckets - 1) / threads + 1;
  const auto work = [&](NumberSource& rowsOf, std::uint64_t first) {
    const bool isLast = first + share >= buckets;
    return sumUp(
        rowsOf,
        {begin + first * bucketRows_, isLast ? rows : begin + (first + share) * bucketRows_},
        bucketRows_);
  };
  std::vector<Buckets> shares(static_cast<std::size_t>((buckets - 1) / share + 1));
  std::vector<decltype(source.copy())> copies(shares.size());
  for (std::size_t i = 1; i < copies.size(); ++i) copies[i] = source.copy();
  forEachInThreads(shares.size(), shares.size(), [&](std::size_t i, std::size_t /*thread*/) {
    shares[i] = work(i == 0 ? source : *copies[i], i * share);
  });
  for (Buckets& part : shares) {
    ascends_ = ascends_ && part.ascends;
    if (ascends_) append(std::move(part.all));
  }
  rows_ = rows;
  if (!ascends_) buckets_ = std::vector<EnvelopeBucket>();  // {} would keep the memory
}

void EnvelopeIndex::append(std::vector<EnvelopeBucket> buckets) {
  if (buckets.empty()) return;
  ascends_ = buckets_.empty() || buckets_.back().sum.lastTime <= buckets.front().sum.firstTime;
  if (buckets_.empty()) {
    buckets_ = std::move(buckets);
  } else {
    buckets_.insert(buckets_.end(), buckets.begin(), buckets.end());
  }
}

void EnvelopeIndex::widenBuckets() {
  for (std::size_t i = 0; i < buckets_.size(); ++i) {
    if (i % 2 == 0) {
      buckets_[i / 2] = EnvelopeBucket(buckets_[i]);
    } else {
      merge(buckets_[i / 2], buckets_[i]);
    }
  }
  buckets_.resize((buckets_.size() + 1) / 2);
  bucketRows_ *= 2;
}

// Adds the buckets that lie in the window and in one column. Returns the others.
std::vector<std::size_t> EnvelopeIndex::addInnerBuckets(const RowRange& rows,
                                                        Columns& columns) const {
  std::vector<std::size_t> atBorders;
  const auto last = static_cast<std::size_t>((rows.to - 1) / bucketRows_);
  for (auto i = static_cast<std::size_t>(rows.from / bucketRows_); i <= last; ++i) {
    const EnvelopeColumn& bucket = buckets_[i].sum;
    const std::size_t column = columns.of(bucket.firstTime);
    if (bucket.firstRow >= rows.from && bucket.firstRow + bucket.rows <= rows.to &&
        column == columns.of(bucket.lastTime)) {
      columns.add(column, bucket);
    } else {
      atBorders.push_back(i);
    }
  }
  return atBorders;
}

void EnvelopeIndex::lookUp(NumberSource& source, const RowRange& rows, Columns& columns) const {
  const std::vector<std::size_t> atBorders = addInnerBuckets(rows, columns);
  const bool readsAll = atBorders.size() <= limits_.borderReads;
  // A bucket whose rows are few beside those of its columns is not read where that can be avoided.
  // To read all of these would mean to decode a row group for each column.
  constexpr std::uint64_t kFew = 8;
  for (const std::size_t i : atBorders) {
    const EnvelopeColumn& bucket = buckets_[i].sum;
    const std::size_t first = columns.of(bucket.firstTime);
    const std::size_t last = columns.of(bucket.lastTime);
    const bool isInside = bucket.firstRow >= rows.from && bucket.firstRow + bucket.rows <= rows.to;
    const auto isFewBeside = [&](std::size_t column) {
      return columns.rowsOf(column) >= kFew * bucket.rows;
    };
    const bool isKnown = !readsAll && isInside && last - first == 1 && isFewBeside(first) &&
                         isFewBeside(last) && columns.addAcross(buckets_[i]);
    if (!isKnown) {
      source.read(
          {std::max(rows.from, bucket.firstRow), std::min(rows.to, bucket.firstRow + bucket.rows)},
          [&](const NumberBlock& block) { columns.add(block); });
    }
  }
}

namespace {

struct SpanValue {
  bool isMixed = false;
  double value = EnvelopeColumn::kNone;

  bool operator==(const SpanValue& other) const {
    if (isMixed || other.isMixed) return isMixed == other.isMixed;
    return value == other.value || (std::isnan(value) && std::isnan(other.value));
  }
};

}  // namespace

std::vector<ValueSpan> spansOf(const Envelope& envelope, double from, double to) {
  std::vector<ValueSpan> spans;
  std::optional<SpanValue> current;
  const auto begin = [&](double time, std::uint64_t row, const SpanValue& value) {
    if (!spans.empty()) spans.back().to = time;
    if (current && *current == value) return;
    current = value;
    ValueSpan span;
    span.from = span.to = time;
    span.firstRow = row;
    span.isMixed = value.isMixed;
    if (!value.isMixed) span.value = value.value;
    spans.push_back(std::move(span));
  };
  if (envelope.before) begin(from, envelope.before->row, {false, envelope.before->value});
  for (const EnvelopeColumn& column : envelope.columns) {
    if (column.rows == 0) continue;
    const bool isOne = column.nans == 0 ? column.min == column.max : column.nans == column.rows;
    begin(column.firstTime, column.firstRow, {!isOne, column.first});
    spans.back().rows += column.rows;
    spans.back().to = column.lastTime;
  }
  if (!spans.empty() && envelope.after) spans.back().to = std::min(envelope.after->time, to);
  // The value before the window holds until the next row, if there is one.
  if (!spans.empty() && spans.back().rows == 0 && !envelope.after) spans.pop_back();
  return spans;
}

}  // namespace kyr::recording
