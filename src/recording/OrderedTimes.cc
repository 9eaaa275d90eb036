#include "recording/OrderedTimes.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <stdexcept>
#include <utility>

namespace kyr::recording {

namespace {

constexpr std::uint64_t kPieceRows = 65'536;
constexpr double kInfinity = std::numeric_limits<double>::infinity();

// Takes repetitions out of ascending times. \p sampleOf gives the sample of a place.
template <typename SampleOf>
OrderedPiece withoutRepetitions(const std::vector<double>& times, SampleOf&& sampleOf) {
  OrderedPiece piece;
  for (std::size_t i = 0; i < times.size(); ++i) {
    if (i + 1 < times.size() && times[i + 1] == times[i]) continue;
    piece.times.push_back(times[i]);
    piece.samples.push_back(sampleOf(i));
  }
  return piece;
}

}  // namespace

OrderedTimes::OrderedTimes(const RecordingReader& reader, int id)
    : reader_(&reader), id_(id), count_(reader.timeCount(id)) {
  const auto refuse = [&](const char* why) {
    throw std::invalid_argument(
        fmt::format("signal {} \"{}\" cannot be resampled: {}", id, reader.signal(id).name, why));
  };
  if (count_ == 0) refuse("it has no times");
  std::vector<double> times(static_cast<std::size_t>(std::min(count_, kPieceRows)));
  bool ascends = true;
  double last = -kInfinity;
  for (std::uint64_t row = 0; row < count_;) {
    const std::uint64_t rows = reader.readTimes(id, {row, row + times.size()}, times.data());
    times.resize(static_cast<std::size_t>(rows));
    const auto isFinite = [](double time) { return std::isfinite(time); };
    if (!std::all_of(times.begin(), times.end(), isFinite)) {
      refuse("some of its times are no finite numbers");
    }
    if (row == 0) first_ = times.front();
    ascends = ascends && times.front() >= last && std::is_sorted(times.begin(), times.end());
    last = times.back();
    row += rows;
  }
  last_ = last;
  if (!ascends) readAll();
}

void OrderedTimes::readAll() {
  const std::vector<double> times = reader_->times(id_);
  std::vector<std::int64_t> order(times.size());
  std::iota(order.begin(), order.end(), 0);
  const auto timeOf = [&times](std::int64_t i) { return times[static_cast<std::size_t>(i)]; };
  std::stable_sort(order.begin(), order.end(),
                   [&](std::int64_t a, std::int64_t b) { return timeOf(a) < timeOf(b); });
  std::vector<double> sorted(times.size());
  std::transform(order.begin(), order.end(), sorted.begin(), timeOf);
  sorted_ = withoutRepetitions(sorted, [&](std::size_t i) { return order[i]; });
  first_ = sorted_->times.front();
  last_ = sorted_->times.back();
}

std::uint64_t OrderedTimes::countUpTo(double time) const {
  const auto ranges = reader_->rowsBetween(id_, -kInfinity, time);
  return ranges.empty() ? 0 : ranges.back().to;
}

OrderedPiece OrderedTimes::around(double from, double to) const {
  if (sorted_) {
    const auto& times = sorted_->times;
    auto begin = std::upper_bound(times.begin(), times.end(), from) - times.begin();
    auto end = std::upper_bound(times.begin(), times.end(), to) - times.begin();
    begin = std::max<std::ptrdiff_t>(0, begin - 1);
    end = std::min<std::ptrdiff_t>(static_cast<std::ptrdiff_t>(times.size()), end + 1);
    return {{times.begin() + begin, times.begin() + end},
            {sorted_->samples.begin() + begin, sorted_->samples.begin() + end}};
  }
  const std::uint64_t before = countUpTo(from);
  const std::uint64_t begin = before == 0 ? 0 : before - 1;
  std::uint64_t end = countUpTo(to);
  // The next time may be repeated, and its last sample counts.
  if (end < count_) end = countUpTo(reader_->times(id_, {end, end + 1}).front());
  return withoutRepetitions(reader_->times(id_, {begin, end}), [begin](std::size_t i) {
    return static_cast<std::int64_t>(begin) + static_cast<std::int64_t>(i);
  });
}

OrderedTimes::Cursor::Cursor(const OrderedTimes& times, double from) : times_(&times) {
  if (times.sorted_) {
    piece_ = times.around(from, kInfinity);
  } else {
    const std::uint64_t begin = times.countUpTo(std::nextafter(from, -kInfinity));
    read(begin);
  }
  while (!isAtEnd() && time() < from) ++at_;
}

void OrderedTimes::Cursor::read(std::uint64_t begin) {
  const std::uint64_t end = std::min(times_->count_, begin + kPieceRows);
  piece_ = withoutRepetitions(times_->reader_->times(times_->id_, {begin, end}),
                              [](std::size_t) { return std::int64_t{0}; });
  next_ = end;
  at_ = 0;
}

void OrderedTimes::Cursor::next() {
  const double before = time();
  ++at_;
  while (isAtEnd() && next_ < times_->count_) {
    read(next_);
    // A time may be repeated in the next piece.
    while (!isAtEnd() && time() == before) ++at_;
  }
}

}  // namespace kyr::recording
