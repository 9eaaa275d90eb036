#include "csv/RowRecorder.h"

#include <fmt/format.h>

#include <cmath>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "cli/Text.h"
#include "print/TypeNames.h"

namespace kyr::tool {

namespace {

bool isEmpty(std::string_view cell) { return trimmed(cell).empty(); }

bool isTruthValue(std::string_view cell) {
  std::vector<char> value;
  return !cellParser(Double)(cell, value) && cellParser(Boolean)(cell, value);
}

}  // namespace

RowRecorder::RowRecorder(recording::LiveRecording& live, std::string source, CsvHeader header,
                         bool skipsBad)
    : live_(live), source_(std::move(source)), header_(std::move(header)), skipsBad_(skipsBad) {}

void RowRecorder::begin() {
  if (columns_.empty()) makeSignals();
}

// A column without a type is one of truth values if its first cell is one, else of doubles.
void RowRecorder::makeSignals() {
  for (CsvColumn& described : header_.columns) {
    Column& column = columns_.emplace_back();
    if (!described.isGiven && described.place < cells_.size() &&
        isTruthValue(cells_[described.place])) {
      described.type = Boolean;
    }
    column.parse = cellParser(described.type);
    column.width = parquet::elementWidth(described.type);
    recording::SignalDescription description;
    description.signalId = described.id;
    description.name = described.name;
    description.unit = described.unit;
    column.signal = live_.addSignal(description, described.type, Scalar);
    column.described = std::move(described);
  }
  // From now on a recovery knows the signals.
  live_.flush();
}

void RowRecorder::add(const CsvRecord& record) {
  splitCells(record.text, cells_);
  if (record.isUnclosed) return refuse(record, "a quotation mark is not closed", skippedRows_);
  const std::size_t expected = header_.columns.size() + 1;
  if (cells_.size() != expected) {
    return refuse(
        record,
        fmt::format("{}, where the header has {}", counted(cells_.size(), "cell"), expected),
        skippedRows_);
  }
  begin();
  if (!takeTime(record)) return;
  for (Column& column : columns_) takeCell(record, column);
  for (Column& column : columns_) {
    if (!column.hasSample) continue;
    column.signal->appendTime(&time_, 1);
    column.signal->appendData(column.sample.data(), column.width, {}, {});
  }
  ++rows_;
}

bool RowRecorder::takeTime(const CsvRecord& record) {
  const std::string& cell = cells_[header_.timePlace];
  timeBytes_.clear();
  const auto wrong = [&](const std::string& what) {
    refuse(record, fmt::format("column {} {}", inQuotes(header_.timeName), what), skippedRows_);
    return false;
  };
  if (isEmpty(cell)) return wrong("is empty, and every row needs a time");
  double time = 0;
  if (cellParser(Double)(cell, timeBytes_)) {
    std::memcpy(&time, timeBytes_.data(), sizeof(time));
  } else {
    return wrong(
        fmt::format("holds {}, but times must be numbers (--time NAME takes another "
                    "column for time)",
                    inQuotes(cell)));
  }
  if (!std::isfinite(time)) return wrong(fmt::format("is {}, but times must be finite", time));
  if (rows_ > 0 && time < time_) {
    return wrong(fmt::format("is {}, after {}: times must not decrease", time, time_));
  }
  time_ = time;
  return true;
}

void RowRecorder::takeCell(const CsvRecord& record, Column& column) {
  const std::string& cell = cells_[column.described.place];
  column.sample.clear();
  column.hasSample = false;
  if (isEmpty(cell)) return;
  column.hasSample = column.parse(cell, column.sample);
  if (column.hasSample) return;
  refuse(record,
         fmt::format("column {} holds {}, which does not fit {}", inQuotes(column.described.name),
                     inQuotes(cell), typeName(column.described.type)),
         skippedCells_);
}

void RowRecorder::refuse(const CsvRecord& record, const std::string& what, std::uint64_t& count) {
  std::string text = fmt::format("{}, line {}: {}", source_, record.line, what);
  if (!skipsBad_) throw std::runtime_error(text);
  if (firstSkipped_.empty()) firstSkipped_ = std::move(text);
  ++count;
}

std::string RowRecorder::skipped() const {
  if (firstSkipped_.empty()) return {};
  return fmt::format("{} and {} were left out, the first at {}", counted(skippedRows_, "row"),
                     counted(skippedCells_, "cell"), firstSkipped_);
}

}  // namespace kyr::tool
