#include "csv/RowRecorder.h"

#include <fmt/format.h>

#include <cmath>
#include <stdexcept>
#include <utility>

#include "cli/Output.h"
#include "cli/Text.h"
#include "csv/CsvMessages.h"

namespace kyr::tool {

RowRecorder::RowRecorder(recording::LiveRecording& live, std::string source, CsvDialect dialect,
                         CsvHeader header, Strictness strictness)
    : live_(live),
      source_(std::move(source)),
      dialect_(std::move(dialect)),
      header_(std::move(header)),
      strictness_(strictness) {}

void RowRecorder::begin() {
  if (columns_.empty()) makeSignals();
}

void RowRecorder::makeSignals() {
  for (CsvColumn& described : header_.columns) {
    Column& column = columns_.emplace_back();
    described.type = typeOf(described);
    column.parser.emplace(described.type, dialect_.decimalMark);
    column.width = parquet::elementWidth(described.type);
    recording::SignalDescription description;
    description.signalId = described.id;
    description.name = described.name;
    description.unit = described.unit;
    column.signal = live_.addSignal(description, described.type, Scalar);
    column.described = std::move(described);
  }
  // A recovery knows the signals from the next flush on.
  live_.flush();
}

KYRSignalDataType RowRecorder::typeOf(const CsvColumn& column) const {
  if (column.isGiven || column.place >= cells_.size()) return column.type;
  const std::string_view cell = trimmed(cells_[column.place]);
  constexpr std::int64_t kExactEnd = std::int64_t{1} << 53U;
  std::int64_t number = 0;
  if (parseInteger(cell, number)) {
    return number > -kExactEnd && number < kExactEnd ? Double : Int64;
  }
  std::uint64_t positive = 0;
  if (parseInteger(cell, positive)) return UInt64;
  bool isTrue = false;
  return parseTruthValue(cell, isTrue) ? Boolean : Double;
}

void RowRecorder::add(const CsvRow& row) {
  splitRow(row.text, dialect_, cells_);
  const std::size_t expected = header_.columns.size() + 1;
  if (row.isUnclosed || row.cells != expected) {
    const std::string what = row.isUnclosed ? kUnclosedQuote : wrongCellCount(row.cells, expected);
    return refuse(describeLine(source_, row.line) + ": " + what, skippedRows_);
  }
  begin();
  if (!takeTime(row)) return;
  for (Column& column : columns_) takeCell(row, column);
  for (Column& column : columns_) {
    if (!column.hasSample) continue;
    column.signal->appendTime(&time_, 1);
    column.signal->appendData(column.sample.data(), column.width, {}, {});
  }
  ++rows_;
}

bool RowRecorder::takeTime(const CsvRow& row) {
  const std::string_view cell = trimmed(cells_[header_.timePlace]);
  const auto describe = [&](const std::string& what) {
    return describePlace(source_, row.line, header_.timeName) + " " + what;
  };
  const auto wrong = [&](const std::string& what) {
    refuse(describe(what), skippedRows_);
    return false;
  };
  if (cell.empty()) return wrong(kNoTime);
  double time = 0;
  const CellFit fit = parseReal(cell, dialect_.decimalMark, time);
  if (fit == CellFit::none) return wrong(timeWithoutNumber(cell));
  if (!std::isfinite(time)) return wrong(infiniteTime(time));
  if (rows_ > 0 && time < time_) return wrong(fallingTime(time, time_));
  if (fit == CellFit::rounded) {
    noteRounding(describe(roundedNumber(cell, Double)), isTimeRoundingTold_);
  } else if (rows_ > 0 && time == time_ && !isSameDecimal(timeCell_, cell, dialect_.decimalMark)) {
    noteRounding(describe(indistinctTime(cell, timeCell_)), isTimeRoundingTold_);
  }
  time_ = time;
  timeCell_ = cell;
  return true;
}

void RowRecorder::takeCell(const CsvRow& row, Column& column) {
  const std::string_view cell = trimmed(cells_[column.described.place]);
  column.sample.clear();
  column.hasSample = false;
  if (cell.empty()) return;
  const CellFit fit = column.parser->append(cell, column.sample);
  column.hasSample = !column.sample.empty();
  if (fit == CellFit::exact) return;
  const KYRSignalDataType type = column.described.type;
  const std::string place = describePlace(source_, row.line, column.described.name) + " ";
  if (!column.hasSample) return refuse(place + wrongType(cell, type), skippedCells_);
  noteRounding(fmt::format("{}{} (--type {}=int64 keeps integers)", place,
                           roundedNumber(cell, type), column.described.name),
               column.isRoundingTold);
}

// Counts what cannot be stored, or throws.
void RowRecorder::refuse(const std::string& what, std::uint64_t& count) {
  if (strictness_ != Strictness::lenient) {
    throw std::runtime_error(what + " (--skip-bad leaves it out)");
  }
  if (firstSkipped_.empty()) firstSkipped_ = what;
  ++count;
}

void RowRecorder::noteRounding(const std::string& what, bool& isTold) const {
  if (strictness_ == Strictness::exact) throw std::runtime_error(what + ", which --strict refuses");
  if (!isTold) tell("warning: " + what);
  isTold = true;
}

std::string RowRecorder::skipped() const {
  if (firstSkipped_.empty()) return {};
  return fmt::format("{} and {} were left out, the first at {}", counted(skippedRows_, "row"),
                     counted(skippedCells_, "cell"), firstSkipped_);
}

}  // namespace kyr::tool
