#include "kyr/recording/Resampling.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <map>
#include <queue>
#include <stdexcept>
#include <utility>

#include "recording/OrderedTimes.h"
#include "schema/ElementTypes.h"

namespace kyr::recording {

namespace {

using Method = ResampleOptions::Method;

// Times of the grid that are handled together.
constexpr std::uint64_t kPieceRows = 65'536;

// Distance of neighbouring doubles near \p from and \p to, or up to twice that.
double resolution(double from, double to) {
  return std::max(std::abs(from), std::abs(to)) * std::numeric_limits<double>::epsilon();
}

// What a time of the grid and that of a sample at it may differ by: both carry rounding errors.
double toleranceOf(double from, double to, double step) {
  constexpr double kPartOfStep = 1e-9;
  return std::min(kPartOfStep * step + 2 * resolution(from, to), step / 4);
}

// How many steps there are from the first time of the grid to its last.
double stepsIn(double from, double to, double step) {
  constexpr double kMaxRows = std::numeric_limits<std::int32_t>::max();
  if (!std::isfinite(step) || step <= 0) {
    throw std::invalid_argument(fmt::format("a step of {} s: it must be above 0", step));
  }
  if (step < 2 * resolution(from, to)) {
    throw std::invalid_argument(
        fmt::format("a step of {} s: times of up to {} are no finer than {:.1g}: take longer steps",
                    step, std::max(std::abs(from), std::abs(to)), resolution(from, to)));
  }
  const double steps = std::floor((to - from + toleranceOf(from, to, step)) / step);
  if (!(steps < kMaxRows)) {
    throw std::invalid_argument(
        fmt::format("a step of {} s: from {} to {} that makes {:.3g} rows: take longer steps", step,
                    from, to, steps));
  }
  return steps;
}

using ToNumber = double (*)(const char*);

template <typename T>
double numberAt(const char* element) {
  T value;
  std::memcpy(&value, element, sizeof(T));
  return static_cast<double>(value);
}

double truthAt(const char* element) { return *element == 0 ? 0 : 1; }

// How samples of a scalar signal become numbers; null for other signals.
ToNumber conversionOf(const SignalInfo& signal) {
  const auto type = parquet::elementTypeId(signal.dataType);
  if (signal.category != Scalar || !parquet::isNumber(type)) return nullptr;
  if (signal.dataType == Boolean) return truthAt;
  return parquet::visitNumber(
      type, [](auto number) -> ToNumber { return numberAt<typename decltype(number)::Value>; });
}

}  // namespace

class Resampling::Impl {
 public:
  Impl(const RecordingReader& reader, std::vector<int> ids, const ResampleOptions& options)
      : reader_(reader), options_(options) {
    if (ids.empty()) throw std::invalid_argument("there are no signals to resample");
    for (const int id : ids) {
      const std::vector<int>& users = reader.withSameTimes(id);
      const int first = users.empty() ? id : users.front();
      times_.try_emplace(first, reader, id);
    }
    options_.step ? makeSteps(*options_.step) : countTimes();
  }

  std::uint64_t rows() const { return rows_; }

  std::vector<double> times(const RowRange& range) const {
    const RowRange wanted = clipped(range);
    std::vector<double> times;
    times.reserve(static_cast<std::size_t>(wanted.to - wanted.from));
    if (wanted.from == wanted.to) return times;
    if (options_.step) {
      for (std::uint64_t i = wanted.from; i < wanted.to; ++i) {
        times.push_back(std::min(from_ + static_cast<double>(i) * *options_.step, to_));
      }
      return times;
    }
    std::uint64_t row = wanted.from / kPieceRows * kPieceRows;
    forEachTime(pieceStarts_[static_cast<std::size_t>(row / kPieceRows)], [&](double time) {
      if (row >= wanted.from) times.push_back(time);
      return ++row < wanted.to;
    });
    return times;
  }

  std::vector<SamplePlace> places(int id, const RowRange& range) const {
    const OrderedTimes& ordered = timesOf(id);
    const RowRange wanted = clipped(range);
    std::vector<SamplePlace> places;
    places.reserve(static_cast<std::size_t>(wanted.to - wanted.from));
    for (std::uint64_t row = wanted.from; row < wanted.to; row += kPieceRows) {
      addPlaces(ordered, times({row, std::min(row + kPieceRows, wanted.to)}), places);
    }
    return places;
  }

  std::vector<std::optional<double>> numbers(int id, const RowRange& range) const {
    const SignalInfo& signal = reader_.signal(id);
    const ToNumber toNumber = conversionOf(signal);
    if (toNumber == nullptr) {
      throw std::invalid_argument(
          fmt::format("signal {} \"{}\": its samples are no single numbers", id, signal.name));
    }
    const RowRange wanted = clipped(range);
    std::vector<std::optional<double>> numbers;
    numbers.reserve(static_cast<std::size_t>(wanted.to - wanted.from));
    for (std::uint64_t row = wanted.from; row < wanted.to; row += kPieceRows) {
      addNumbers(id, toNumber, places(id, {row, std::min(row + kPieceRows, wanted.to)}), numbers);
    }
    return numbers;
  }

 private:
  RowRange clipped(const RowRange& range) const {
    const std::uint64_t to = std::min(range.to, rows_);
    return {std::min(range.from, to), to};
  }

  const OrderedTimes& timesOf(int id) const {
    const std::vector<int>& users = reader_.withSameTimes(id);
    const auto found = times_.find(users.empty() ? id : users.front());
    if (found != times_.end()) return found->second;
    throw std::invalid_argument(fmt::format("signal {} is not among those resampled", id));
  }

  void makeSteps(double step) {
    from_ = std::numeric_limits<double>::infinity();
    to_ = -from_;
    for (const auto& [id, times] : times_) {
      from_ = std::min(from_, times.first());
      to_ = std::max(to_, times.last());
    }
    rows_ = static_cast<std::uint64_t>(stepsIn(from_, to_, step)) + 1;
    tolerance_ = toleranceOf(from_, to_, step);
  }

  void countTimes() {
    forEachTime(-std::numeric_limits<double>::infinity(), [this](double time) {
      if (rows_ % kPieceRows == 0) pieceStarts_.push_back(time);
      ++rows_;
      return true;
    });
  }

  // Calls \p take with each time that any signal has, ascending and once, from \p from on, as long
  // as it returns true.
  template <typename Take>
  void forEachTime(double from, Take&& take) const {
    std::vector<OrderedTimes::Cursor> cursors;
    cursors.reserve(times_.size());
    const auto isLater = [&cursors](std::size_t a, std::size_t b) {
      return cursors[a].time() > cursors[b].time();
    };
    std::priority_queue<std::size_t, std::vector<std::size_t>, decltype(isLater)> queue(isLater);
    for (const auto& [id, times] : times_) {
      cursors.emplace_back(times, from);
      if (!cursors.back().isAtEnd()) queue.push(cursors.size() - 1);
    }
    while (!queue.empty()) {
      const double time = cursors[queue.top()].time();
      while (!queue.empty() && !(cursors[queue.top()].time() > time)) {
        const std::size_t earliest = queue.top();
        queue.pop();
        cursors[earliest].next();
        if (!cursors[earliest].isAtEnd()) queue.push(earliest);
      }
      if (!take(time)) return;
    }
  }

  void addPlaces(const OrderedTimes& ordered, const std::vector<double>& grid,
                 std::vector<SamplePlace>& places) const {
    const OrderedPiece piece = ordered.around(grid.front() + tolerance_, grid.back() + tolerance_);
    std::size_t next = 0;
    for (const double time : grid) {
      while (next < piece.times.size() && piece.times[next] <= time + tolerance_) ++next;
      SamplePlace place;
      if (next > 0) {
        place.before = piece.samples[next - 1];
        place.isAtBefore = time <= piece.times[next - 1] + tolerance_;
      }
      if (next < piece.times.size()) {
        place.after = piece.samples[next];
        if (next > 0 && !place.isAtBefore) {
          const double span = piece.times[next] - piece.times[next - 1];
          place.part = (time - piece.times[next - 1]) / span;
        }
      }
      places.push_back(place);
    }
  }

  void addNumbers(int id, ToNumber toNumber, const std::vector<SamplePlace>& places,
                  std::vector<std::optional<double>>& numbers) const {
    std::uint64_t first = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t end = 0;
    for (const SamplePlace& place : places) {
      for (const std::int64_t sample : {place.before, place.after}) {
        if (sample < 0) continue;
        first = std::min(first, static_cast<std::uint64_t>(sample));
        end = std::max(end, static_cast<std::uint64_t>(sample) + 1);
      }
    }
    const std::size_t width = reader_.elementBytes(id);
    std::vector<char> bytes(first < end ? static_cast<std::size_t>(end - first) * width : 0);
    const std::uint64_t count =
        bytes.empty() ? 0 : reader_.readElements(id, {first, end}, bytes.data(), bytes.size());
    const auto numberOf = [&](std::int64_t sample) -> std::optional<double> {
      if (sample < 0 || static_cast<std::uint64_t>(sample) >= first + count) return std::nullopt;
      return toNumber(bytes.data() + (static_cast<std::uint64_t>(sample) - first) * width);
    };
    for (const SamplePlace& place : places) numbers.push_back(numberAtPlace(place, numberOf));
  }

  template <typename NumberOf>
  std::optional<double> numberAtPlace(const SamplePlace& place, NumberOf&& numberOf) const {
    switch (options_.method) {
      case Method::nearest:
        if (place.before < 0) return numberOf(place.after);
        return numberOf(place.after >= 0 && place.part > 0.5 ? place.after : place.before);
      case Method::linear: {
        const auto before = numberOf(place.before);
        if (place.isAtBefore) return before;
        const auto after = numberOf(place.after);
        if (!before || !after) return std::nullopt;
        return between(*before, *after, place.part);
      }
      default:
        return numberOf(place.before);
    }
  }

  const RecordingReader& reader_;
  ResampleOptions options_;
  std::map<int, OrderedTimes> times_;  // by the first signal that has these times
  std::uint64_t rows_ = 0;
  double from_ = 0;  // where a grid with steps begins
  double to_ = 0;
  double tolerance_ = 0;             // [s]
  std::vector<double> pieceStarts_;  // every so many times of a grid without steps
};

Resampling::Resampling(const RecordingReader& reader, std::vector<int> ids,
                       const ResampleOptions& options)
    : impl_(std::make_unique<Impl>(reader, std::move(ids), options)) {}
Resampling::~Resampling() = default;
Resampling::Resampling(Resampling&&) noexcept = default;
Resampling& Resampling::operator=(Resampling&&) noexcept = default;

std::uint64_t Resampling::rows() const { return impl_->rows(); }
std::vector<double> Resampling::times(const RowRange& rows) const { return impl_->times(rows); }
std::vector<SamplePlace> Resampling::places(int id, const RowRange& rows) const {
  return impl_->places(id, rows);
}
std::vector<std::optional<double>> Resampling::numbers(int id, const RowRange& rows) const {
  return impl_->numbers(id, rows);
}

double Resampling::between(double before, double after, double part) {
  if (before == after) return before;
  // before + (after - before) * part may be infinite in between.
  return before * (1 - part) + after * part;
}

}  // namespace kyr::recording
