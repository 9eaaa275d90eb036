#include "view/SignalPairs.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>
#include <stdexcept>

#include "cli/Text.h"
#include "kyr/recording/Resampling.h"
#include "print/SampleCursor.h"
#include "print/SampleNumbers.h"
#include "view/PlotPanels.h"

namespace kyr::tool {

namespace {

using recording::RecordingReader;
using recording::RowRange;

constexpr double kNone = std::numeric_limits<double>::quiet_NaN();

// The rows in a window. The rows of a signal without times are their own times.
std::vector<RowRange> rowsIn(const RecordingReader& reader, int id, double from, double to) {
  const std::uint64_t pairs = reader.pairCount(id);
  std::vector<RowRange> ranges;
  if (reader.timeCount(id) > 0) {
    ranges = reader.rowsBetween(id, from, to);
  } else if (from <= to && to >= 0) {
    const auto rowAt = [pairs](double row) {
      return static_cast<std::uint64_t>(std::clamp(row, 0.0, static_cast<double>(pairs)));
    };
    ranges.push_back({rowAt(std::ceil(from)), rowAt(std::floor(to) + 1)});
  }
  for (RowRange& range : ranges) range = {std::min(range.from, pairs), std::min(range.to, pairs)};
  return ranges;
}

// From the first one of the rows to the last one. The range is empty if there are none.
RowRange wholeOf(const std::vector<RowRange>& ranges) {
  if (ranges.empty()) return {0, 0};
  return {ranges.front().from, std::max(ranges.front().from, ranges.back().to)};
}

// Goes through times and values of some rows.
class ValueCursor {
 public:
  ValueCursor(const RecordingReader& reader, const SignalElement& signal, const RowRange& rows)
      : element_(signal.element),
        width_(reader.elementBytes(signal.id)),
        convert_(toDoublesFor(reader.signal(signal.id).dataType)),
        blocks_(reader.blocks(signal.id, rows)) {
    if (convert_ == nullptr) {
      throw std::runtime_error(
          fmt::format("{} has no numbers", inQuotes(reader.signal(signal.id).name)));
    }
  }

  // The row must not lie before that of the last call. Returns false if there is no such row.
  bool moveTo(std::uint64_t row) {
    while (block_ == nullptr || row - block_->firstRow >= block_->rows) {
      block_ = isAtEnd_ ? nullptr : blocks_.next();
      isAtEnd_ = block_ == nullptr;
      if (isAtEnd_) return false;
    }
    row_ = row - block_->firstRow;
    return true;
  }

  double time() const {
    return block_->times != nullptr ? block_->times[row_]
                                    : static_cast<double>(block_->firstRow + row_);
  }

  double value() const {
    const auto* const bytes = static_cast<const char*>(block_->elements);
    if (bytes == nullptr) return kNone;
    const auto [begin, end] = elementsOf(*block_, row_);
    double value = kNone;
    if (element_ < end - begin) convert_(bytes + (begin + element_) * width_, 1, &value);
    return value;
  }

 private:
  std::uint64_t element_;
  std::size_t width_;
  ToDoubles convert_;
  recording::SampleBlocks blocks_;
  const recording::SampleBlock* block_ = nullptr;
  std::size_t row_ = 0;  // in the block
  bool isAtEnd_ = false;
};

// Values of a signal between its rows.
class Interpolation {
 public:
  // Also reads a row on both sides of the window.
  Interpolation(const RecordingReader& reader, const SignalElement& signal, double from, double to)
      : name_(reader.signal(signal.id).name),
        isSmooth_(hasFractions(reader.signal(signal.id))),
        row_(firstRow(reader, signal.id, from)),
        cursor_(reader, signal, {row_, std::max(row_, endRow(reader, signal.id, to))}) {
    advance();
  }

  // The time must not be before that of the last call.
  double at(double time) {
    if (!(time >= asked_)) fail();
    asked_ = time;
    while (next_ && next_->time <= time) advance();
    if (!previous_) return kNone;
    if (previous_->time == time) return previous_->value;
    if (!next_) return kNone;
    if (!isSmooth_) return previous_->value;
    const double part = partOf(time, previous_->time, next_->time);
    return recording::Resampling::between(previous_->value, next_->value, part);
  }

 private:
  static std::uint64_t firstRow(const RecordingReader& reader, int id, double from) {
    const auto later = rowsIn(reader, id, from, std::numeric_limits<double>::infinity());
    const std::uint64_t row = later.empty() ? reader.pairCount(id) : later.front().from;
    return row - std::min<std::uint64_t>(row, 1);
  }

  static std::uint64_t endRow(const RecordingReader& reader, int id, double to) {
    return wholeOf(rowsIn(reader, id, -std::numeric_limits<double>::infinity(), to)).to + 1;
  }

  void advance() {
    previous_ = next_;
    next_.reset();
    if (!cursor_.moveTo(row_++)) return;
    next_ = PlotPoint{cursor_.time(), cursor_.value()};
    if (!(previous_ ? next_->time >= previous_->time : next_->time == next_->time)) fail();
  }

  [[noreturn]] void fail() const {
    throw std::runtime_error(fmt::format(
        "{} and the other signal have different times, which do not ascend", inQuotes(name_)));
  }

  std::string name_;
  bool isSmooth_;
  std::uint64_t row_;
  ValueCursor cursor_;
  std::optional<PlotPoint> previous_;
  std::optional<PlotPoint> next_;
  double asked_ = -std::numeric_limits<double>::infinity();
};

bool haveSameTimes(const RecordingReader& reader, int a, int b) {
  if (reader.timeCount(a) == 0 && reader.timeCount(b) == 0) return true;
  const std::vector<int>& alike = reader.withSameTimes(a);
  return a == b || std::find(alike.begin(), alike.end(), b) != alike.end();
}

std::uint64_t countOf(const RowRange& rows) { return rows.to - rows.from; }

}  // namespace

SignalPairs pairsOf(const RecordingReader& reader, const SignalElement& x, const SignalElement& y,
                    double from, double to, std::size_t most) {
  SignalPairs pairs;
  pairs.isInterpolated = !haveSameTimes(reader, x.id, y.id);
  const RowRange xRows = wholeOf(rowsIn(reader, x.id, from, to));
  const RowRange yRows = wholeOf(rowsIn(reader, y.id, from, to));
  const bool isOverX = !pairs.isInterpolated || countOf(xRows) >= countOf(yRows);
  const RowRange& rows = isOverX ? xRows : yRows;
  pairs.rows = countOf(rows);
  const std::uint64_t stride = pairs.rows / std::max<std::size_t>(1, most) + 1;
  ValueCursor base(reader, isOverX ? x : y, rows);
  const SignalElement& other = isOverX ? y : x;
  std::optional<ValueCursor> beside;
  std::optional<Interpolation> between;
  if (pairs.isInterpolated) {
    between.emplace(reader, other, from, to);
  } else {
    beside.emplace(reader, other, rows);
  }
  for (std::uint64_t row = rows.from; row < rows.to && base.moveTo(row); row += stride) {
    double value = kNone;
    if (between) {
      value = between->at(base.time());
    } else if (beside->moveTo(row)) {
      value = beside->value();
    }
    pairs.values.push_back(isOverX ? base.value() : value);
    pairs.values.push_back(isOverX ? value : base.value());
  }
  return pairs;
}

std::vector<double> rowsOf(const RecordingReader& reader, const SignalElement& signal, double from,
                           double to, std::uint64_t most) {
  const std::vector<RowRange> ranges = rowsIn(reader, signal.id, from, to);
  std::uint64_t count = 0;
  for (const RowRange& range : ranges) count += countOf(range);
  std::vector<double> numbers{static_cast<double>(count)};
  if (count > most) return numbers;
  numbers.reserve(1 + 2 * count);
  for (const RowRange& range : ranges) {
    ValueCursor cursor(reader, signal, range);
    for (std::uint64_t row = range.from; row < range.to && cursor.moveTo(row); ++row) {
      numbers.push_back(cursor.time());
      numbers.push_back(cursor.value());
    }
  }
  return numbers;
}

}  // namespace kyr::tool
