#include "export/Resampling.h"

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

#include "cli/Errors.h"
#include "cli/Interrupt.h"
#include "cli/Memory.h"
#include "cli/Span.h"
#include "cli/Text.h"
#include "kyr/parquet/SchemaBuilder.h"

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

// The distance of neighbouring doubles near \p from and \p to, or up to twice as much.
double resolution(double from, double to) {
  return std::max(std::abs(from), std::abs(to)) * std::numeric_limits<double>::epsilon();
}

// The most by which a time of the grid and the time of a sample there may differ. Both are rounded.
double toleranceOf(double from, double to, double step) {
  constexpr double kPartOfStep = 1e-9;
  return std::min(kPartOfStep * step + 2 * resolution(from, to), step / 4);
}

// The number of steps from the first time of the grid to the last.
double stepsIn(double from, double to, double step) {
  constexpr double kMaxRows = std::numeric_limits<std::int32_t>::max();
  if (step < 2 * resolution(from, to)) {
    throw std::runtime_error(
        fmt::format("--resample {}: times of up to {} are no finer than {:.1g}: take longer steps",
                    step, std::max(std::abs(from), std::abs(to)), resolution(from, to)));
  }
  const double steps = std::floor((to - from + toleranceOf(from, to, step)) / step);
  if (!(steps < kMaxRows)) {
    throw std::runtime_error(
        fmt::format("--resample {}: from {} to {} that makes {:.3g} rows: take longer steps", step,
                    from, to, steps));
  }
  return steps;
}

// For each time of the grid, the position in \p times of the latest time up to it; -1 for none.
template <typename Take>
void forEachLatest(const std::vector<double>& grid, double tolerance,
                   const std::vector<double>& times, Take&& take) {
  std::size_t next = 0;
  for (const double time : grid) {
    while (next < times.size() && times[next] <= time + tolerance) ++next;
    take(time, static_cast<std::ptrdiff_t>(next) - 1);
  }
}

std::shared_ptr<::arrow::Array> heldSamples(const std::vector<double>& grid, double tolerance,
                                            const OrderedTimes& ordered) {
  ::arrow::Int64Builder builder;
  check(builder.Reserve(static_cast<std::int64_t>(grid.size())));
  forEachLatest(grid, tolerance, ordered.times, [&](double /*time*/, std::ptrdiff_t latest) {
    if (latest < 0) {
      builder.UnsafeAppendNull();
    } else {
      builder.UnsafeAppend(ordered.samples[static_cast<std::size_t>(latest)]);
    }
  });
  return check(builder.Finish());
}

// The bytes of a sample in the table. Samples of different sizes may take more.
std::uint64_t widthOf(const recording::SignalInfo& signal, bool isLinear) {
  constexpr std::uint64_t kOffset = sizeof(std::int32_t);
  const auto isFixed = [](const ::arrow::DataType& type) { return type.byte_width() > 0; };
  if (isNumber(signal) && isLinear) return sizeof(double);
  const auto type = parquet::schemaBuilder::getSchema(signal.category, signal.dataType, false, "")
                        ->field(0)
                        ->type();
  if (isFixed(*type)) return static_cast<std::uint64_t>(type->byte_width());
  if (type->num_fields() == 0 || !isFixed(*type->field(0)->type())) return kOffset;
  auto width = static_cast<std::uint64_t>(type->field(0)->type()->byte_width());
  for (const auto length : signal.dimensions) width *= static_cast<std::uint64_t>(length);
  return kOffset + (signal.dimensions.empty() ? 0 : width);
}

// The bytes of the table and its parts for one time of the grid: the time twice, the held sample of
// each time vector, and a sample of each signal.
std::uint64_t bytesPerRow(const std::vector<ExportSignal>& signals, std::size_t timeVectors,
                          bool isLinear) {
  std::uint64_t bytes = 2 * sizeof(double) + timeVectors * sizeof(std::int64_t);
  for (const ExportSignal& signal : signals) bytes += widthOf(signal.info, isLinear);
  return bytes;
}

// Uses half of the memory. Encoding the table takes the other half.
void checkMemory(std::size_t rows, std::size_t columns, std::uint64_t rowBytes, bool isStepped) {
  constexpr double kPart = 0.5;
  constexpr double kGigabyte = 1e9;
  const auto available = availableMemory();
  const double needed = static_cast<double>(rows) * static_cast<double>(rowBytes);
  if (!available || needed <= kPart * static_cast<double>(*available)) return;
  throw std::runtime_error(fmt::format(
      "--resample: {} rows of {} columns need {:.1f} GB of memory, more than half of the {:.1f} GB "
      "that are free: {}name fewer signals at a time, or export with --long",
      grouped(rows), grouped(columns), needed / kGigabyte,
      static_cast<double>(*available) / kGigabyte, isStepped ? "take longer steps, " : ""));
}

double between(double a, double b, double part) {
  if (a == b) return a;
  return a * (1 - part) + b * part;  // a + (b - a) * part may overflow
}

}  // namespace

Resampling::Resampling(RecordingFiles& files, const std::vector<ExportSignal>& signals,
                       const ResampleOptions& options) {
  const Span span("resample: grid");
  for (const ExportSignal& signal : signals) readTimes(files, signal);
  const std::uint64_t rowBytes = bytesPerRow(signals, times_.size(), options.isLinear);
  const auto requireMemory = [&](std::size_t rows) {
    checkMemory(rows, signals.size() + 1, rowBytes, options.step.has_value());
  };
  options.step ? makeSteps(*options.step, requireMemory) : uniteTimes(requireMemory);
  for (auto& [column, times] : times_) {
    stopIfInterrupted();
    times.held = heldSamples(grid_, tolerance_, times);
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

void Resampling::makeSteps(double step, const RequireMemory& requireMemory) {
  double from = std::numeric_limits<double>::infinity();
  double to = -from;
  for (const auto& [column, times] : times_) {
    from = std::min(from, times.times.front());
    to = std::max(to, times.times.back());
  }
  const auto rows = static_cast<std::size_t>(stepsIn(from, to, step)) + 1;
  requireMemory(rows);
  tolerance_ = toleranceOf(from, to, step);
  grid_.resize(rows);
  for (std::size_t i = 0; i < rows; ++i) {
    grid_[i] = std::min(from + static_cast<double>(i) * step, to);
  }
}

void Resampling::uniteTimes(const RequireMemory& requireMemory) {
  for (const auto& [column, times] : times_) {
    std::vector<double> merged;
    merged.reserve(grid_.size() + times.times.size());
    std::set_union(grid_.begin(), grid_.end(), times.times.begin(), times.times.end(),
                   std::back_inserter(merged));
    grid_ = std::move(merged);
  }
  requireMemory(grid_.size());
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
  forEachLatest(grid_, tolerance_, ordered.times, [&](double time, std::ptrdiff_t latest) {
    const auto at = static_cast<std::size_t>(latest);
    if (latest < 0) return builder.UnsafeAppendNull();
    const double value = values[ordered.samples[at]];
    if (time <= ordered.times[at] + tolerance_) return builder.UnsafeAppend(value);
    if (at + 1 == ordered.times.size()) return builder.UnsafeAppendNull();
    const double span = ordered.times[at + 1] - ordered.times[at];
    builder.UnsafeAppend(
        between(value, values[ordered.samples[at + 1]], (time - ordered.times[at]) / span));
  });
  return check(builder.Finish());
}

}  // namespace kyr::tool
