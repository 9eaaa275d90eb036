#include "export/LongTable.h"

#include <arrow/api.h>
#include <arrow/compute/api_vector.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <numeric>
#include <utility>

#include "cli/Errors.h"
#include "export/FieldMetadata.h"
#include "export/HivePath.h"
#include "print/SampleNumbers.h"

namespace kyr::tool {

namespace {

constexpr const char* kSignal = "signal";
constexpr const char* kValue = "value";

// Sorts NaN to the end.
bool isBefore(double a, double b) { return !std::isnan(a) && (std::isnan(b) || a < b); }

const double* doublesOf(const ::arrow::Array& array) {
  return static_cast<const ::arrow::DoubleArray&>(array).raw_values();
}

// The units and descriptions of all signals, for the column that holds their values.
std::shared_ptr<::arrow::KeyValueMetadata> signalMetadata(
    const std::vector<ExportSignal>& signals) {
  auto units = nlohmann::json::object();
  auto descriptions = nlohmann::json::object();
  auto names = nlohmann::json::object();
  for (const ExportSignal& signal : signals) {
    const recording::SignalInfo& info = signal.info;
    if (!info.unit.empty()) units[signal.column] = info.unit;
    if (!info.description.empty()) descriptions[signal.column] = info.description;
    if (info.name != signal.column) names[signal.column] = info.name;
  }
  auto metadata = std::make_shared<::arrow::KeyValueMetadata>();
  if (!units.empty()) metadata->Append("units", units.dump());
  if (!descriptions.empty()) metadata->Append("descriptions", descriptions.dump());
  if (!names.empty()) metadata->Append("names", names.dump());
  return metadata;
}

std::shared_ptr<::arrow::Array> valuesOf(const ExportSignal& signal,
                                         const std::shared_ptr<::arrow::Array>& samples) {
  return signal.info.dataType == Boolean ? truthValues(*samples) : asDoubles(samples).array;
}

// The column "signal", which repeats one name. In CSV the name holds the unit, too.
class NameColumn {
 public:
  NameColumn(const std::vector<ExportSignal>& signals, bool isText) : isText_(isText) {
    ::arrow::StringBuilder builder;
    for (const ExportSignal& signal : signals) {
      check(builder.Append(isText ? csvHeader(signal) : signal.column));
    }
    names_ = check(builder.Finish());
  }

  std::shared_ptr<::arrow::DataType> type() const {
    return isText_ ? ::arrow::utf8() : ::arrow::dictionary(::arrow::int32(), ::arrow::utf8());
  }

  std::shared_ptr<::arrow::Array> rows(std::size_t signal, std::int64_t count) const {
    const auto place = static_cast<std::int64_t>(signal);
    if (isText_) {
      return check(::arrow::MakeArrayFromScalar(*check(names_->GetScalar(place)), count));
    }
    const ::arrow::Int32Scalar index(static_cast<std::int32_t>(place));
    return check(::arrow::DictionaryArray::FromArrays(
        type(), check(::arrow::MakeArrayFromScalar(index, count)), names_));
  }

 private:
  bool isText_;
  std::shared_ptr<::arrow::Array> names_;
};

}  // namespace

LongTable::LongTable(RecordingFiles& files, const std::vector<ExportSignal>& signals,
                     Progress progress)
    : files_(files), signals_(signals), progress_(std::move(progress)) {
  for (const ExportSignal& signal : signals) allRows_ += signal.info.rowCount;
}

void LongTable::checkExact(Losses& losses) {
  for (const ExportSignal& signal : signals_) {
    const KYRSignalDataType type = signal.info.dataType;
    if (type != Int64 && type != UInt64 && type != UInt64Alt) continue;
    ColumnReader reader = files_.openData(signal.info);
    std::uint64_t inexact = 0;
    while (const ArrayPtr slice = reader.next()) inexact += asDoubles(slice).inexact;
    if (inexact > 0) losses.add(inexactText(signal.info, inexact));
  }
}

void LongTable::writeTable(const TableWriter::Target& target) {
  const NameColumn names(signals_, target.format == ExportFormat::csv);
  const auto schema =
      ::arrow::schema({timeField(), ::arrow::field(kSignal, names.type(), signalMetadata(signals_)),
                       ::arrow::field(kValue, ::arrow::float64())});
  TableWriter writer(target, schema, schema->field_names());
  for (std::size_t i = 0; i < signals_.size(); ++i) {
    forEachSlice(signals_[i], [&](const ArrayPtr& times, const ArrayPtr& values) {
      const std::int64_t rows = times->length();
      writer.write(*::arrow::RecordBatch::Make(schema, rows, {times, names.rows(i, rows), values}));
    });
  }
  writer.close();
}

void LongTable::writePartitions(const std::filesystem::path& folder,
                                const TableWriter::Target& target) {
  for (const ExportSignal& signal : signals_) {
    const std::filesystem::path partition = folder / partitionFolder(kSignal, signal.column);
    std::filesystem::create_directory(partition);
    const auto schema =
        ::arrow::schema({timeField(), ::arrow::field(kValue, ::arrow::float64(),
                                                     fieldMetadata(signal.info, signal.column))});
    TableWriter::Target file = target;
    file.file = partition / "part-0.parquet";
    TableWriter writer(file, schema, {});
    forEachSlice(signal, [&](const ArrayPtr& times, const ArrayPtr& values) {
      writer.write(*::arrow::RecordBatch::Make(schema, times->length(), {times, values}));
    });
    writer.close();
  }
}

void LongTable::forEachSlice(const ExportSignal& signal, const Take& take) {
  const Take counting = [&](const ArrayPtr& times, const ArrayPtr& values) {
    take(times, values);
    rows_ += static_cast<std::uint64_t>(times->length());
    progress_(static_cast<double>(rows_) / static_cast<double>(allRows_));
  };
  if (isAscending(signal.time)) {
    stream(signal, counting);
  } else {
    streamSorted(signal, counting);
  }
}

// Reads times and samples side by side. Their slices may end at different rows.
void LongTable::stream(const ExportSignal& signal, const Take& take) {
  ColumnReader timeReader = files_.openTimes(signal.time);
  ColumnReader dataReader = files_.openData(signal.info);
  ArrayPtr times;
  ArrayPtr samples;
  for (;;) {
    if (!times || times->length() == 0) times = timeReader.next();
    if (!samples || samples->length() == 0) samples = dataReader.next();
    if (!times || !samples) return;
    const std::int64_t rows = std::min(times->length(), samples->length());
    take(times->Slice(0, rows), valuesOf(signal, samples->Slice(0, rows)));
    times = times->Slice(rows);
    samples = samples->Slice(rows);
  }
}

void LongTable::streamSorted(const ExportSignal& signal, const Take& take) {
  const std::vector<double> times = files_.readTimes(signal.time);
  const ArrayPtr samples = files_.readData(signal.info);
  std::vector<std::int64_t> order(times.size());
  std::iota(order.begin(), order.end(), 0);
  std::stable_sort(order.begin(), order.end(), [&](std::int64_t a, std::int64_t b) {
    return isBefore(times[static_cast<std::size_t>(a)], times[static_cast<std::size_t>(b)]);
  });
  ::arrow::Int64Builder indices;
  ::arrow::DoubleBuilder sorted;
  check(indices.AppendValues(order));
  for (const std::int64_t i : order) check(sorted.Append(times[static_cast<std::size_t>(i)]));
  take(check(sorted.Finish()),
       valuesOf(signal, check(::arrow::compute::Take(*samples, *check(indices.Finish())))));
}

bool LongTable::isAscending(const StoredColumn& column) {
  const auto known = ascending_.find(column);
  if (known != ascending_.end()) return known->second;
  ColumnReader reader = files_.openTimes(column);
  double last = -std::numeric_limits<double>::infinity();
  bool isAscending = true;
  while (const ArrayPtr slice = reader.next()) {
    const double* const begin = doublesOf(*slice);
    const double* const end = begin + slice->length();
    isAscending = !isBefore(*begin, last) && std::is_sorted(begin, end, isBefore);
    if (!isAscending) break;
    last = end[-1];
  }
  return ascending_[column] = isAscending;
}

}  // namespace kyr::tool
