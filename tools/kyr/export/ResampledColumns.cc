#include "export/ResampledColumns.h"

#include <arrow/api.h>
#include <arrow/compute/api_vector.h>
#include <fmt/format.h>

#include <algorithm>
#include <set>
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

// Places that are in memory at once.
constexpr std::uint64_t kPieceRows = 65'536;

recording::Resampling resamplingOf(const recording::RecordingReader& reader,
                                   const std::vector<ExportSignal>& signals,
                                   const ResampleOptions& options) {
  const Span span("resample: grid");
  std::vector<int> ids;
  ids.reserve(signals.size());
  for (const ExportSignal& signal : signals) ids.push_back(signal.info.signalId);
  recording::ResampleOptions asked;
  asked.step = options.step;
  try {
    return {reader, std::move(ids), asked};
  } catch (const std::invalid_argument& error) {
    throw std::runtime_error(
        fmt::format("--resample: {}: name other signals, or export with --long", error.what()));
  }
}

// Bytes of a sample in the table, or fewer where samples differ in size.
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

// The table and its parts for each time of the grid: the time itself, twice, the sample that is
// held of each time vector, and a sample of each signal.
std::uint64_t bytesPerRow(const std::vector<ExportSignal>& signals, std::size_t timeVectors,
                          bool isLinear) {
  std::uint64_t bytes = 2 * sizeof(double) + timeVectors * sizeof(std::int64_t);
  for (const ExportSignal& signal : signals) bytes += widthOf(signal.info, isLinear);
  return bytes;
}

// The other half is for encoding the table.
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

}  // namespace

ResampledColumns::ResampledColumns(const recording::RecordingReader& reader,
                                   const std::vector<ExportSignal>& signals,
                                   const ResampleOptions& options)
    : reader_(reader), resampling_(resamplingOf(reader, signals, options)) {
  std::set<int> times;
  for (const ExportSignal& signal : signals) times.insert(timesOf(signal));
  checkMemory(resampling_.rows(), signals.size() + 1,
              bytesPerRow(signals, times.size(), options.isLinear), options.step.has_value());
}

int ResampledColumns::timesOf(const ExportSignal& signal) const {
  return reader_.withSameTimes(signal.info.signalId).front();
}

std::shared_ptr<::arrow::Array> ResampledColumns::hold(const ExportSignal& signal,
                                                       const ::arrow::Array& samples) {
  auto& held = held_[timesOf(signal)];
  if (!held) {
    ::arrow::Int64Builder builder;
    check(builder.Reserve(static_cast<std::int64_t>(resampling_.rows())));
    for (std::uint64_t row = 0; row < resampling_.rows(); row += kPieceRows) {
      stopIfInterrupted();
      for (const auto& place : resampling_.places(signal.info.signalId, {row, row + kPieceRows})) {
        if (place.before < 0) {
          builder.UnsafeAppendNull();
        } else {
          builder.UnsafeAppend(place.before);
        }
      }
    }
    held = check(builder.Finish());
  }
  return check(
      ::arrow::compute::Take(samples, *held, ::arrow::compute::TakeOptions::NoBoundsCheck()));
}

std::shared_ptr<::arrow::Array> ResampledColumns::interpolate(const ExportSignal& signal,
                                                              const ::arrow::Array& samples) const {
  const double* const values = static_cast<const ::arrow::DoubleArray&>(samples).raw_values();
  ::arrow::DoubleBuilder builder;
  check(builder.Reserve(static_cast<std::int64_t>(resampling_.rows())));
  for (std::uint64_t row = 0; row < resampling_.rows(); row += kPieceRows) {
    stopIfInterrupted();
    for (const auto& place : resampling_.places(signal.info.signalId, {row, row + kPieceRows})) {
      if (place.before < 0 || (!place.isAtBefore && place.after < 0)) {
        builder.UnsafeAppendNull();
      } else if (place.isAtBefore) {
        builder.UnsafeAppend(values[place.before]);
      } else {
        builder.UnsafeAppend(
            recording::Resampling::between(values[place.before], values[place.after], place.part));
      }
    }
  }
  return check(builder.Finish());
}

}  // namespace kyr::tool
