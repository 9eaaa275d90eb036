#include "print/SignalStatistics.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "cli/Interrupt.h"
#include "print/SampleCursor.h"
#include "print/SampleNumbers.h"

namespace kyr::tool {

namespace {

// Mean and sum of squares are brought up to date number by number, which keeps the digits of
// numbers that are far from 0.
class NumberCounter {
 public:
  void add(double number) {
    if (std::isnan(number)) {
      ++result_.nan;
      return;
    }
    if (std::isinf(number)) {
      ++result_.infinite;
      return;
    }
    const bool isFirst = result_.finite == 0;
    ++result_.finite;
    result_.min = isFirst ? number : std::min(result_.min, number);
    result_.max = isFirst ? number : std::max(result_.max, number);
    const long double distance = number - mean_;
    mean_ += distance / static_cast<long double>(result_.finite);
    squares_ += distance * (number - mean_);
  }

  NumberStatistics result() const {
    NumberStatistics result = result_;
    result.mean = static_cast<double>(mean_);
    if (result.finite > 1) {
      result.deviation =
          static_cast<double>(std::sqrt(squares_ / static_cast<long double>(result.finite - 1)));
    }
    return result;
  }

 private:
  NumberStatistics result_;
  long double mean_ = 0;
  long double squares_ = 0;
};

class TimeCounter {
 public:
  void add(double time) {
    if (!result_) {
      result_ = TimeStatistics{time, time, 0, std::nullopt};
    } else {
      result_->largestGap = std::max(result_->largestGap, time - result_->last);
      result_->last = time;
    }
    ++count_;
  }

  std::optional<TimeStatistics> result() const {
    std::optional<TimeStatistics> result = result_;
    if (result) result->rate = rateOf(count_, recording::TimeSpan{result->first, result->last});
    return result;
  }

 private:
  std::optional<TimeStatistics> result_;
  std::uint64_t count_ = 0;
};

}  // namespace

std::optional<double> rateOf(std::uint64_t times, const std::optional<recording::TimeSpan>& span) {
  if (!span || times < 2 || !(span->to > span->from)) return std::nullopt;
  return static_cast<double>(times - 1) / (span->to - span->from);
}

std::optional<TimeStatistics> timeStatisticsOf(const recording::RecordingReader& reader,
                                               const recording::SignalInfo& signal) {
  const int id = signal.signalId;
  const std::uint64_t end = reader.timeCount(id);
  TimeCounter times;
  std::vector<double> piece(blockRowsFor(1));
  for (std::uint64_t row = 0; row < end;) {
    stopIfInterrupted();
    const std::uint64_t read =
        reader.readTimes(id, {row, std::min<std::uint64_t>(end, row + piece.size())}, piece.data());
    for (std::size_t i = 0; i < read; ++i) times.add(piece[i]);
    row += read;
    if (read == 0) break;
  }
  return times.result();
}

SignalStatistics statisticsOf(const recording::RecordingReader& reader,
                              const recording::SignalInfo& signal) {
  SignalStatistics result;
  result.rows = reader.pairCount(signal.signalId);
  const ToDoubles toDoubles = signal.category == Scalar ? toDoublesFor(signal.dataType) : nullptr;
  NumberCounter numbers;
  TimeCounter times;
  std::vector<double> converted(blockRowsFor(1));
  recording::SampleBlocks blocks = reader.blocks(signal.signalId, {}, converted.size());
  while (const recording::SampleBlock* block = blocks.next()) {
    stopIfInterrupted();
    for (std::size_t i = 0; block->times != nullptr && i < block->rows; ++i) {
      times.add(block->times[i]);
    }
    if (toDoubles == nullptr || block->elements == nullptr) continue;
    toDoubles(static_cast<const char*>(block->elements), block->rows, converted.data());
    for (std::size_t i = 0; i < block->rows; ++i) numbers.add(converted[i]);
  }
  result.times = times.result();
  if (toDoubles != nullptr) result.numbers = numbers.result();
  return result;
}

}  // namespace kyr::tool
