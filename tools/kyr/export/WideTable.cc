#include "export/WideTable.h"

#include <arrow/api.h>
#include <arrow/compute/cast.h>
#include <fmt/format.h>
#include <xxhash.h>

#include <cstring>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "cli/Errors.h"
#include "cli/Text.h"
#include "export/FieldMetadata.h"
#include "kyr/arrow/ArrayHelpers.h"
#include "kyr/parquet/ColumnNames.h"
#include "print/SampleNumbers.h"

namespace kyr::tool {

namespace {

// Replaces types that the export worker does not take by the type that is stored in the same way.
KYRSignalDataType exportType(KYRSignalDataType type) {
  if (type == UInt32Alt) return UInt32;
  return type == UInt64Alt ? UInt64 : type;
}

std::vector<char> bytesOf(const ::arrow::Array& numbers) {
  const ::arrow::ArrayData& data = *numbers.data();
  const auto width = static_cast<std::size_t>(
                         static_cast<const ::arrow::FixedWidthType&>(*data.type).bit_width()) /
                     8;
  const char* const first = reinterpret_cast<const char*>(data.buffers[1]->data()) +
                            static_cast<std::size_t>(data.offset) * width;
  return {first, first + static_cast<std::size_t>(data.length) * width};
}

// Converts lists of bytes to lists of bool.
std::shared_ptr<::arrow::Array> truthLists(const std::shared_ptr<::arrow::Array>& lists) {
  const auto item = lists->type()->field(0)->WithType(::arrow::boolean());
  return check(::arrow::compute::Cast(*lists, ::arrow::list(item)));
}

// Reads the times, which must be equal for all signals, bit for bit.
std::vector<double> sharedTimes(RecordingFiles& files, const std::vector<ExportSignal>& signals) {
  using Key = std::tuple<std::size_t, std::uint64_t, std::uint64_t>;
  std::vector<double> first;
  std::set<StoredColumn> read;
  std::set<Key> different;
  for (const ExportSignal& signal : signals) {
    if (!read.insert(signal.time).second) continue;
    std::vector<double> times = files.readTimes(signal.time);
    const std::size_t bytes = times.size() * sizeof(double);
    const XXH128_hash_t hash = XXH3_128bits(times.data(), bytes);
    different.emplace(times.size(), hash.low64, hash.high64);
    if (read.size() == 1) {
      first = std::move(times);
    } else if (different.size() == 1 && std::memcmp(times.data(), first.data(), bytes) != 0) {
      different.emplace(0, 0, 0);  // same hash as the first one, but different times
    }
  }
  if (different.size() == 1) return first;
  throw std::runtime_error(fmt::format(
      "the {} have {} different time vectors, so they cannot stand side by side: export them one "
      "below the other with --long, bring them to the same times with --resample, or name signals "
      "that share their times",
      counted(signals.size(), "signal"), different.size()));
}

}  // namespace

WideTable::WideTable(parquet::ParquetExportSerializerWorker& worker, RecordingFiles& files,
                     const recording::RecordingReader& reader,
                     const std::vector<ExportSignal>& signals, const ExportOptions& options,
                     Losses& losses, const Progress& progress)
    : worker_(worker),
      files_(files),
      losses_(losses),
      isLinear_(options.resample && options.resample->isLinear) {
  if (options.resample) {
    resampling_.emplace(reader, signals, *options.resample);
    addTimes(resampling_->times());
  } else {
    addTimes(sharedTimes(files, signals));
  }
  for (const ExportSignal& signal : signals) names_.insert(signal.column);
  std::size_t done = 0;
  for (const ExportSignal& signal : signals) {
    addSignal(signal);
    progress(static_cast<double>(++done) / static_cast<double>(signals.size()));
  }
  table_ = worker_.buildTable(schema(), arrays_);
}

void WideTable::addTimes(const std::vector<double>& times) {
  const std::string& name = parquet::columnNames::time;
  names_.insert(name);
  columns_.emplace_back(Scalar, Double, false, name);
  fields_.push_back(timeField());
  csvHeader_.push_back(name);
  arrays_.push_back(worker_.buildArray({{name, times, {}, {}, Double}}).front());
}

void WideTable::addSignal(const ExportSignal& signal) {
  const recording::SignalInfo& info = signal.info;
  ArrayPtr samples = files_.readData(info);
  if (info.category == Scalar && info.dataType == Boolean) {
    samples = kyr::arrow::getArrowArray<bool>(bytesOf(*samples));
  } else if (isNumber(info)) {
    samples =
        worker_.buildArray({{signal.column, {}, bytesOf(*samples), {}, exportType(info.dataType)}})
            .back();
  }
  if (info.category != Scalar && info.dataType == Boolean) samples = truthLists(samples);
  if (resampling_) samples = resampled(signal, samples);
  columns_.emplace_back(info.category, info.dataType, false, signal.column);
  fields_.push_back(
      ::arrow::field(signal.column, samples->type(), fieldMetadata(info, signal.column)));
  arrays_.push_back(std::move(samples));
  csvHeader_.push_back(tool::csvHeader(signal));
  if (info.category == VarDim || info.category == VarDimBus) addDimensions(signal);
}

// A reader needs the shapes of samples whose shape changes.
void WideTable::addDimensions(const ExportSignal& signal) {
  const StoredColumn column{signal.info.dataStorageId.value(), parquet::columnNames::dimension};
  ArrayPtr shapes = files_.readColumn(column);
  if (resampling_) shapes = resampling_->hold(signal, *shapes);
  const std::string name = freeName(signal.column + ".dimension");
  fields_.push_back(::arrow::field(name, shapes->type()));
  arrays_.push_back(std::move(shapes));
  csvHeader_.push_back(name);
}

std::string WideTable::freeName(std::string name) const {
  while (names_.count(name) > 0) name += "_";
  return name;
}

WideTable::ArrayPtr WideTable::resampled(const ExportSignal& signal, const ArrayPtr& samples) {
  if (!isLinear_) return resampling_->hold(signal, *samples);
  const recording::SignalInfo& info = signal.info;
  if (!isNumber(info) || info.dataType == Boolean) {
    losses_.add(
        fmt::format("signal {}, {}, is held and not interpolated: its samples are no "
                    "numbers to interpolate",
                    info.signalId, inQuotes(info.name)));
    return resampling_->hold(signal, *samples);
  }
  const Doubles doubles = asDoubles(samples);
  if (doubles.inexact > 0) losses_.add(inexactText(info, doubles.inexact));
  return resampling_->interpolate(signal, *doubles.array);
}

// The schema of the worker, with the names, types and metadata of our fields.
std::shared_ptr<::arrow::Schema> WideTable::schema() const {
  const auto exported = worker_.getExportSchema(columns_);
  ::arrow::FieldVector fields;
  for (const auto& field : fields_) {
    const auto& base = exported->field(static_cast<int>(fields.size()));
    fields.push_back(
        base->WithName(field->name())->WithType(field->type())->WithMetadata(field->metadata()));
  }
  return ::arrow::schema(std::move(fields));
}

}  // namespace kyr::tool
