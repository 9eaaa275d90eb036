#include "print/SampleTable.h"

#include <fmt/compile.h>

#include <cmath>
#include <cstring>
#include <numeric>
#include <optional>
#include <stdexcept>
#include <utility>

#include "cli/Interrupt.h"
#include "cli/Text.h"
#include "csv/HeaderNames.h"

namespace kyr::tool {

namespace {

// Compares bit for bit, because the times are printed once for all signals.
bool areSame(const std::vector<double>& a, const std::vector<double>& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(double)) == 0;
}

// NaN comes last, so that merging ends.
bool isBefore(double a, double b) { return !std::isnan(a) && (std::isnan(b) || a < b); }

// Steps through several time vectors together, from the smallest time to the largest.
class RowCursor {
 public:
  explicit RowCursor(const std::vector<std::vector<double>>& times)
      : times_(times), next_(times.size(), 0), isIn_(times.size(), false) {}

  bool next() {
    std::optional<double> earliest;
    for (std::size_t i = 0; i < times_.size(); ++i) {
      if (isIn_[i]) ++next_[i];
      isIn_[i] = next_[i] < times_[i].size();
      if (isIn_[i] && (!earliest || isBefore(head(i), *earliest))) earliest = head(i);
    }
    if (!earliest) return false;
    time_ = *earliest;
    for (std::size_t i = 0; i < times_.size(); ++i) {
      isIn_[i] = isIn_[i] && !isBefore(time_, head(i));
    }
    return true;
  }

  double time() const { return time_; }
  bool isIn(std::size_t i) const { return isIn_[i]; }
  std::size_t sample(std::size_t i) const { return next_[i]; }

 private:
  double head(std::size_t i) const { return times_[i][next_[i]]; }

  const std::vector<std::vector<double>>& times_;
  std::vector<std::size_t> next_;
  std::vector<char> isIn_;
  double time_ = 0;
};

}  // namespace

SampleTable::SampleTable(std::vector<recording::SignalInfo> signals, const Load& load)
    : signals_(std::move(signals)) {
  std::vector<double> time;
  for (const recording::SignalInfo& signal : signals_) {
    stopIfInterrupted();
    Column& column = columns_.emplace_back();
    if (!signal.dataStorageId) continue;
    column.samples = load(signal, time);
    if (column.samples.size() == 0 && time.empty()) continue;
    column.times = placeOf(signal, time);
    checkSize(signal, column);
  }
}

std::size_t SampleTable::placeOf(const recording::SignalInfo& signal, std::vector<double>& time) {
  if (time.empty()) {
    time.resize(columns_.back().samples.size());
    std::iota(time.begin(), time.end(), 0.0);
    hasCounts_ = true;
  } else {
    hasTime_ = true;
  }
  if (hasTime_ && hasCounts_) {
    throw std::runtime_error(
        fmt::format("signal {} and others cannot stand in one table, because only some have times: "
                    "name signals of one kind",
                    inQuotes(signal.name)));
  }
  if (signal.timeStorageId) {
    const auto known = timeFiles_.find(*signal.timeStorageId);
    if (known != timeFiles_.end()) return known->second;
  }
  std::size_t place = 0;
  while (place < times_.size() && !areSame(times_[place], time)) ++place;
  if (place == times_.size()) times_.push_back(std::move(time));
  if (signal.timeStorageId) timeFiles_[*signal.timeStorageId] = place;
  return place;
}

void SampleTable::checkSize(const recording::SignalInfo& signal, const Column& column) const {
  const std::size_t times = times_[column.times].size();
  if (times == column.samples.size()) return;
  throw std::runtime_error(fmt::format("signal {} has {} but {}: kyr verify tells more",
                                       inQuotes(signal.name), counted(times, "time"),
                                       counted(column.samples.size(), "sample")));
}

void SampleTable::printHeader(Output& out) const {
  out.print("{}", hasCounts_ ? "row" : "time");
  for (const recording::SignalInfo& signal : signals_) {
    out.print(",{}", csvCell(joinHeader(signal.name, signal.unit)));
  }
  out.endRow();
}

void SampleTable::printRows(Output& out, const Window& window) const {
  const bool isWhole = std::isinf(window.from) && std::isinf(window.to);
  fmt::memory_buffer& buffer = out.buffer();
  RowCursor cursor(times_);
  for (std::size_t row = 0; row < window.endRow && cursor.next(); ++row) {
    const double time = cursor.time();
    const bool isInside = isWhole || (time >= window.from && time <= window.to);
    if (row < window.firstRow || !isInside) continue;
    fmt::format_to(fmt::appender(buffer), FMT_COMPILE("{}"), time);
    for (const Column& column : columns_) {
      buffer.push_back(',');
      if (column.samples.size() == 0 || !cursor.isIn(column.times)) continue;
      column.samples.append(buffer, cursor.sample(column.times));
    }
    out.endRow();
  }
}

}  // namespace kyr::tool
