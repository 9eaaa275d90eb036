#include "Resampling.h"

#include <arrow/api.h>
#include <arrow/compute/api_vector.h>
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <numeric>
#include <stdexcept>
#include <utility>

#include "Errors.h"
#include "Interrupt.h"
#include "Text.h"

namespace kyr::tool {

namespace {

OrderedTimes ordered(const std::vector<double>& times) {
  std::vector<std::int64_t> order(times.size());
  std::iota(order.begin(), order.end(), 0);
  const auto timeOf = [&times](std::int64_t i) { return times[static_cast<std::size_t>(i)]; };
  const auto isBefore = [&](std::int64_t a, std::int64_t b) { return timeOf(a) < timeOf(b); };
  if (!std::is_sorted(times.begin(), times.end())) {
    std::stable_sort(order.begin(), order.end(), isBefore);
  }
  OrderedTimes result;
  for (std::size_t i = 0; i < order.size(); ++i) {
    const double time = timeOf(order[i]);
    if (i + 1 < order.size() && timeOf(order[i + 1]) == time) continue;
    result.times.push_back(time);
    result.samples.push_back(order[i]);
  }
  return result;
}

std::vector<double> stepped(double from, double to, double step) {
  constexpr double kMaxRows = std::numeric_limits<std::int32_t>::max();
  // The last step may miss the end by rounding alone.
  constexpr double kRounding = 1e-9;
  const double steps = std::floor((to - from) / step + kRounding);
  if (!(steps < kMaxRows)) {
    throw std::runtime_error(
        fmt::format("--resample {}: from {} to {} that makes {:.3g} rows: take longer steps", step,
                    from, to, steps));
  }
  std::vector<double> grid(static_cast<std::size_t>(steps) + 1);
  for (std::size_t i = 0; i < grid.size(); ++i) {
    grid[i] = std::min(from + static_cast<double>(i) * step, to);
  }
  return grid;
}

// Position in \p times of the latest one at or before each time of the grid; -1 for none.
template <typename Take>
void forEachLatest(const std::vector<double>& grid, const std::vector<double>& times, Take&& take) {
  std::size_t next = 0;
  for (const double time : grid) {
    while (next < times.size() && times[next] <= time) ++next;
    take(time, static_cast<std::ptrdiff_t>(next) - 1);
  }
}

std::shared_ptr<::arrow::Array> heldSamples(const std::vector<double>& grid,
                                            const OrderedTimes& ordered) {
  ::arrow::Int64Builder builder;
  check(builder.Reserve(static_cast<std::int64_t>(grid.size())));
  forEachLatest(grid, ordered.times, [&](double /*time*/, std::ptrdiff_t latest) {
    if (latest < 0) {
      builder.UnsafeAppendNull();
    } else {
      builder.UnsafeAppend(ordered.samples[static_cast<std::size_t>(latest)]);
    }
  });
  return check(builder.Finish());
}

double between(double a, double b, double part) {
  if (a == b) return a;
  return a * (1 - part) + b * part;  // a + (b - a) * part may be infinite in between
}

}  // namespace

Resampling::Resampling(RecordingFiles& files, const std::vector<ExportSignal>& signals,
                       const ResampleOptions& options) {
  for (const ExportSignal& signal : signals) readTimes(files, signal);
  makeGrid(options);
  for (auto& [column, times] : times_) {
    stopIfInterrupted();
    times.held = heldSamples(grid_, times);
  }
}

void Resampling::readTimes(RecordingFiles& files, const ExportSignal& signal) {
  if (times_.count(signal.time) > 0) return;
  const std::vector<double> times = files.readTimes(signal.time);
  const auto isFinite = [](double time) { return std::isfinite(time); };
  if (!std::all_of(times.begin(), times.end(), isFinite)) {
    throw std::runtime_error(fmt::format(
        "signal {}, {}, cannot be resampled: some of its times are no finite numbers: name other "
        "signals, or export with --long",
        signal.info.signalId, inQuotes(signal.info.name)));
  }
  times_[signal.time] = ordered(times);
}

void Resampling::makeGrid(const ResampleOptions& options) {
  if (options.step) {
    double from = std::numeric_limits<double>::infinity();
    double to = -from;
    for (const auto& [column, times] : times_) {
      from = std::min(from, times.times.front());
      to = std::max(to, times.times.back());
    }
    grid_ = stepped(from, to, *options.step);
    return;
  }
  for (const auto& [column, times] : times_) {
    std::vector<double> merged;
    merged.reserve(grid_.size() + times.times.size());
    std::set_union(grid_.begin(), grid_.end(), times.times.begin(), times.times.end(),
                   std::back_inserter(merged));
    grid_ = std::move(merged);
  }
}

std::shared_ptr<::arrow::Array> Resampling::hold(const ExportSignal& signal,
                                                 const ::arrow::Array& samples) const {
  return check(::arrow::compute::Take(samples, *times_.at(signal.time).held,
                                      ::arrow::compute::TakeOptions::NoBoundsCheck()));
}

std::shared_ptr<::arrow::Array> Resampling::interpolate(const ExportSignal& signal,
                                                        const ::arrow::Array& samples) const {
  const OrderedTimes& ordered = times_.at(signal.time);
  const double* const values = static_cast<const ::arrow::DoubleArray&>(samples).raw_values();
  ::arrow::DoubleBuilder builder;
  check(builder.Reserve(static_cast<std::int64_t>(grid_.size())));
  forEachLatest(grid_, ordered.times, [&](double time, std::ptrdiff_t latest) {
    const auto at = static_cast<std::size_t>(latest);
    if (latest < 0 || time > ordered.times.back()) return builder.UnsafeAppendNull();
    const double value = values[ordered.samples[at]];
    if (time == ordered.times[at]) return builder.UnsafeAppend(value);
    const double span = ordered.times[at + 1] - ordered.times[at];
    builder.UnsafeAppend(
        between(value, values[ordered.samples[at + 1]], (time - ordered.times[at]) / span));
  });
  return check(builder.Finish());
}

}  // namespace kyr::tool
