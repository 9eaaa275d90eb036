#include "csv/RowRecorder.h"

#include <fmt/format.h>

#include <cmath>
#include <stdexcept>
#include <utility>

#include "cli/Output.h"
#include "cli/Text.h"
#include "csv/CsvMessages.h"
#include "csv/DialectGuess.h"

namespace kyr::tool {

RowRecorder::RowRecorder(recording::LiveRecording& live, std::string source, CsvDialect dialect,
                         CsvHeader header, bool storesTexts, Strictness strictness)
    : live_(live),
      source_(std::move(source)),
      dialect_(std::move(dialect)),
      header_(std::move(header)),
      storesTexts_(storesTexts),
      strictness_(strictness),
      isLastUnknown_(header_.timePlace != header_.width - 1 &&
                     header_.columns.back().place != header_.width - 1) {
  makeSignals();
}

void RowRecorder::makeSignals() {
  for (CsvColumn& described : header_.columns) {
    if (isLeftOut(described)) continue;
    Column& column = columns_.emplace_back();
    if (described.type != ByteString) column.parser.emplace(described.type, dialect_.decimalMark);
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

bool RowRecorder::isLeftOut(const CsvColumn& column) const {
  if (storesTexts_ || column.isGiven || column.type != ByteString) return false;
  tell(fmt::format("{}: column {} is left out, because it holds text", source_,
                   inQuotes(column.name)));
  return true;
}

// Fills rows up that are to be padded.
bool RowRecorder::hasRightWidth(const CsvRow& row) {
  if (row.isUnclosed) return false;
  const bool isPadded = dialect_.ragged == RaggedRows::pad;
  if (isPadded && cells_.size() < header_.width) cells_.resize(header_.width);
  while (isPadded && cells_.size() > header_.width && trimmed(cells_.back()).empty()) {
    cells_.pop_back();
  }
  return cells_.size() == header_.width;
}

bool RowRecorder::add(const CsvRow& row) {
  splitRow(row.text, dialect_, cells_, unquoted_);
  if (!hasRightWidth(row)) {
    const std::string what =
        row.isUnclosed ? kUnclosedQuote : wrongCellCount(row.cells, header_.width);
    const std::string line = describeLine(source_, row.line) + ": " + what;
    if (dialect_.ragged == RaggedRows::stop) {
      tell(fmt::format("warning: {}; it is left out with all that follows (--ragged stop)", line));
      return false;
    }
    refuse(row.isUnclosed ? line : line + kRaggedHint, skippedRows_);
    return true;
  }
  if (isLastUnknown_ && !trimmed(cells_.back()).empty()) {
    refuse(fmt::format("{}: the last cell holds {}, but its column has no name, and was empty in "
                       "the first rows (--type \"column {}=double\" records it)",
                       describeLine(source_, row.line), inQuotes(cells_.back()), header_.width),
           skippedCells_);
  }
  if (!takeTime(row)) return true;
  takeCells(row);
  times_.push_back(time_);
  ++rows_;
  constexpr std::size_t kBlockRows = 256;
  if (times_.size() == kBlockRows) store();
  return true;
}

void RowRecorder::takeCells(const CsvRow& row) {
  std::size_t taken = 0;
  try {
    for (Column& column : columns_) {
      column.bytesBefore = column.samples.size();
      column.countBefore = column.count;
      ++taken;
      takeCell(row, column);
    }
  } catch (...) {
    for (std::size_t i = 0; i < taken; ++i) {
      Column& column = columns_[i];
      column.samples.resize(column.bytesBefore);
      column.count = column.countBefore;
      if (!column.parser) column.lengths.resize(column.count);
      if (!column.times.empty()) column.times.resize(column.count);
    }
    throw;
  }
}

// Notes a sample whose bytes were added. Most columns have one in each row.
void RowRecorder::addSample(Column& column) const {
  if (column.count < times_.size() && column.times.size() != column.count) {
    column.times.assign(times_.begin(), times_.begin() + static_cast<std::ptrdiff_t>(column.count));
  }
  if (column.count < times_.size()) column.times.push_back(time_);
  if (!column.parser) {
    column.lengths.push_back(static_cast<int>(column.samples.size() - column.bytesBefore));
  }
  ++column.count;
}

void RowRecorder::store() {
  for (Column& column : columns_) {
    if (column.count == 0) continue;
    const std::vector<double>& times = column.times.empty() ? times_ : column.times;
    if (!column.areTimesStored) column.signal->appendTime(times.data(), column.count);
    column.areTimesStored = true;
    column.signal->appendData(column.samples.data(), column.samples.size(), {}, column.lengths);
    column.areTimesStored = false;
    column.samples.clear();
    column.lengths.clear();
    column.times.clear();
    column.count = 0;
  }
  times_.clear();
}

void RowRecorder::flush() {
  store();
  live_.flush();
}

bool RowRecorder::takeTime(const CsvRow& row) {
  if (!header_.timePlace) {
    time_ = static_cast<double>(rows_ + skippedRows_);
    return true;
  }
  const std::string_view cell = trimmed(cells_[*header_.timePlace]);
  const auto describe = [&](const std::string& what) {
    return describePlace(source_, row.line, header_.timeName) + " " + what;
  };
  const auto wrong = [&](const std::string& what) {
    refuse(describe(what), skippedRows_);
    return false;
  };
  if (isMissing(dialect_, cell)) return wrong(kNoTime);
  const std::optional<double> read = readTime(row, cell);
  if (!read) return wrong(wrongTime(cell, header_.timeForm));
  const double time = *read;
  if (!std::isfinite(time)) return wrong(infiniteTime(time));
  if (rows_ > 0 && time < time_) return wrong(fallingTime(time, time_));
  const bool isNumber = header_.timeForm.kind == TimeForm::Kind::number;
  if (isNumber && rows_ > 0 && time == time_ &&
      !isSameDecimal(timeCell_, cell, dialect_.decimalMark)) {
    noteRounding(describe(indistinctTime(cell, timeCell_)), isTimeRoundingTold_);
  }
  time_ = time;
  timeCell_ = cell;
  return true;
}

std::optional<double> RowRecorder::readTime(const CsvRow& row, std::string_view cell) {
  const TimeForm& form = header_.timeForm;
  const std::string place = describePlace(source_, row.line, header_.timeName) + " ";
  if (form.isPlain()) {
    double time = 0;
    const CellFit fit = parseReal(cell, dialect_.decimalMark, time);
    if (fit == CellFit::none) return std::nullopt;
    if (fit == CellFit::rounded || isRoundedSecond(cell, dialect_.decimalMark)) {
      noteRounding(place + roundedNumber(cell, dialect_.decimalMark, Double), isTimeRoundingTold_);
    }
    return time;
  }
  const auto nanoseconds = form.nanoseconds(cell, dialect_.decimalMark);
  if (!nanoseconds) return form.seconds(cell, dialect_.decimalMark);
  if (!form.isExact(*nanoseconds)) noteRounding(place + roundedTime(cell), isTimeRoundingTold_);
  return form.sinceOrigin(*nanoseconds);
}

void RowRecorder::takeCell(const CsvRow& row, Column& column) {
  if (!column.parser) return takeText(row, column);
  const std::string_view cell = trimmed(cells_[column.described.place]);
  if (isMissing(dialect_, cell)) return;
  const CellFit fit = column.parser->append(cell, column.samples);
  const bool hasSample = column.samples.size() > column.bytesBefore;
  if (hasSample) addSample(column);
  if (fit == CellFit::exact) return;
  const KYRSignalDataType type = column.described.type;
  const std::string place = describePlace(source_, row.line, column.described.name) + " ";
  if (!hasSample) return refuse(place + wrongType(cell, type), skippedCells_);
  std::string what = place + roundedNumber(cell, dialect_.decimalMark, type);
  std::int64_t number = 0;
  std::uint64_t positive = 0;
  const bool isSmaller = parseInteger(cell, number);
  if (isSmaller || parseInteger(cell, positive)) {
    what += fmt::format(" (--type {}={} keeps integers)", column.described.name,
                        isSmaller ? "int64" : "uint64");
  }
  noteRounding(what, column.isRoundingTold);
}

void RowRecorder::takeText(const CsvRow& row, Column& column) {
  const std::string_view cell = cells_[column.described.place];
  if (isNamedMissing(dialect_, trimmed(cell))) return;
  if (!isUtf8(cell)) {
    const std::string place = describePlace(source_, row.line, column.described.name) + " ";
    return refuse(place + kNoUtf8, skippedCells_);
  }
  noteNumber(row, column);
  column.samples.insert(column.samples.end(), cell.begin(), cell.end());
  addSample(column);
}

// The user may have wanted numbers, of which the first rows have none.
void RowRecorder::noteNumber(const CsvRow& row, Column& column) const {
  const std::string_view cell = trimmed(cells_[column.described.place]);
  if (column.described.isGiven || column.isNumberTold || isMissing(dialect_, cell)) return;
  const bool isNumber = isNumberCell(cell, dialect_);
  const bool isFirst = column.firstText.empty();
  if (isFirst) column.firstText = cell;
  const bool isOther = !isNumber && isFirst && isOtherNumber(cell, dialect_.decimalMark);
  if (!isNumber && !isOther) return;
  const std::string& name = column.described.name;
  const std::string first = inQuotes(column.firstText);
  tell(fmt::format(
      "warning: {} {}", describePlace(source_, row.line, name),
      isOther ? otherNumber(cell)
              : fmt::format("holds the number {}, but the column is stored as text, because it "
                            "begins with {} (--missing {} takes that for an empty cell, --type "
                            "{}=double wants numbers)",
                            inQuotes(cell), first, first, name)));
  column.isNumberTold = true;
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
