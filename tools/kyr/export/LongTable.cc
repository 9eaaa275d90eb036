#include "export/LongTable.h"

#include <arrow/api.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <numeric>
#include <utility>

#include "cli/Errors.h"
#include "export/FieldMetadata.h"
#include "export/HivePath.h"
#include "print/MergedTimes.h"
#include "print/SampleCursor.h"
#include "print/SampleNumbers.h"

namespace kyr::tool {

namespace {

constexpr const char* kSignal = "signal";
constexpr const char* kValue = "value";

// Sorts NaN to the end.
bool isBefore(double a, double b) { return !std::isnan(a) && (std::isnan(b) || a < b); }

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

// The samples of a signal from `row` on as doubles. Returns the row behind the last.
std::uint64_t addDoubles(SampleCursor& cursor, const ExportSignal& signal, std::uint64_t row,
                         std::vector<double>& doubles) {
  const recording::SampleBlock& block = cursor.blockOf(row);
  const std::size_t size = doubles.size();
  const auto skipped = static_cast<std::size_t>(row - block.firstRow);
  doubles.resize(size + block.rows - skipped);
  toDoublesFor(signal.info.dataType)(
      static_cast<const char*>(block.elements) + skipped * cursor.width(), block.rows - skipped,
      doubles.data() + size);
  return block.firstRow + block.rows;
}

std::shared_ptr<::arrow::Array> arrayOf(std::vector<double> doubles) {
  const auto size = static_cast<std::int64_t>(doubles.size());
  return std::make_shared<::arrow::DoubleArray>(size,
                                                ::arrow::Buffer::FromVector(std::move(doubles)));
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

LongTable::LongTable(const recording::RecordingReader& reader,
                     const std::vector<ExportSignal>& signals, const Window& window,
                     Progress progress)
    : reader_(reader), signals_(signals), window_(window), progress_(std::move(progress)) {
  for (const ExportSignal& signal : signals) allRows_ += signal.info.rowCount;
}

void LongTable::checkExact(Losses& losses) {
  for (const ExportSignal& signal : signals_) {
    const std::uint64_t rounded = roundedSamples(reader_, signal.info);
    if (rounded > 0) losses.add(roundedText(signal.info, rounded));
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
  if (isAscending(signal.times)) {
    stream(signal, counting);
  } else {
    streamSorted(signal, counting);
  }
}

// The rows of the window, for times that ascend.
recording::RowRange LongTable::rowsOf(const ExportSignal& signal) const {
  const std::uint64_t all = signal.info.rowCount;
  if (window_.hasAllTimes()) {
    const std::uint64_t end = std::min(all, window_.endRow);
    return {std::min(window_.firstRow, end), end};
  }
  const auto ranges = reader_.rowsBetween(signal.times, window_.from, window_.to);
  return ranges.empty() ? recording::RowRange{all, all} : ranges.front();
}

void LongTable::stream(const ExportSignal& signal, const Take& take) {
  const recording::RowRange rows = rowsOf(signal);
  const std::uint64_t end = rows.to;
  SampleCursor cursor(reader_, signal.info, end, blockRowsFor(2));
  for (std::uint64_t row = rows.from; row < end;) {
    std::vector<double> values;
    const std::uint64_t next = addDoubles(cursor, signal, row, values);
    take(arrayOf(reader_.times(signal.times, {row, next})), arrayOf(std::move(values)));
    row = next;
  }
}

void LongTable::streamSorted(const ExportSignal& signal, const Take& take) {
  const std::vector<double> times = reader_.times(signal.times);
  std::vector<double> values;
  values.reserve(times.size());
  SampleCursor cursor(reader_, signal.info, times.size(), blockRowsFor(2));
  for (std::uint64_t row = 0; row < times.size();) row = addDoubles(cursor, signal, row, values);
  std::vector<std::size_t> order(times.size());
  std::iota(order.begin(), order.end(), 0);
  const auto isOutside = [&](std::size_t row) {
    return row < window_.firstRow || row >= window_.endRow || !window_.isIn(times[row]);
  };
  order.erase(std::remove_if(order.begin(), order.end(), isOutside), order.end());
  std::stable_sort(order.begin(), order.end(),
                   [&times](std::size_t a, std::size_t b) { return isBefore(times[a], times[b]); });
  const auto sorted = [&order](const std::vector<double>& numbers) {
    std::vector<double> result;
    result.reserve(order.size());
    for (const std::size_t i : order) result.push_back(numbers[i]);
    return arrayOf(std::move(result));
  };
  take(sorted(times), sorted(values));
}

bool LongTable::isAscending(int times) {
  const auto known = ascending_.find(times);
  if (known != ascending_.end()) return known->second;
  double last = -std::numeric_limits<double>::infinity();
  bool isAscending = true;
  const recording::RowRange rows{0, reader_.timeCount(times)};
  for (TimeWalk walk(reader_, times, {rows}, blockRowsFor(1)); !walk.isAtEnd() && isAscending;
       walk.next()) {
    isAscending = !isBefore(walk.time(), last);
    last = walk.time();
  }
  return ascending_[times] = isAscending;
}

}  // namespace kyr::tool
