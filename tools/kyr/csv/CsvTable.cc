#include "csv/CsvTable.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <utility>

#include "cli/Interrupt.h"
#include "cli/Text.h"
#include "csv/CsvMessages.h"
#include "csv/CsvPipeline.h"

namespace kyr::tool {

namespace {

KYRSignalDataType typeOf(CellKind kind) {
  switch (kind) {
    case CellKind::integer:
      return Int64;
    case CellKind::unsignedInteger:
      return UInt64;
    case CellKind::boolean:
      return Boolean;
    case CellKind::text:
      return ByteString;
    default:
      return Double;
  }
}

}  // namespace

CsvTable::CsvTable(const std::string& path, const CsvOptions& options)
    : text_(path, options),
      header_(describeColumns(text_.name(), text_.layout(), options)),
      times_(text_, header_) {
  for (CsvColumn& described : header_.columns) {
    Column& column = read_.emplace_back();
    column.plan.keepsTexts = options.storesTexts();
    if (described.isGiven && described.type == ByteString) {
      column.plan.kind = CellKind::text;
    } else if (described.isGiven) {
      column.plan.parser.emplace(described.type, text_.dialect().decimalMark);
    }
    column.described = std::move(described);
  }
}

void CsvTable::read(SampleSink& sink, const Progress& progress) {
  do readBlocks(sink, progress);
  while (planNextPass());
  acceptColumns();
}

void CsvTable::readBlocks(SampleSink& sink, const Progress& progress) {
  constexpr unsigned kMaxAhead = 4;
  const std::size_t ahead = std::clamp(std::thread::hardware_concurrency(), 1U, kMaxAhead);
  const std::string_view body = text_.body();
  CsvPipeline blocks(body, text_.dialect());
  times_.restart();
  line_ = text_.bodyLine();
  std::size_t done = 0;
  while (auto block = blocks.next(plans(), hasGuess_ ? ahead : 0)) {
    stopIfInterrupted();
    if (!block->failure && isReadTooStrictly(*block)) {
      const bool wasCut = block->isCut;
      readBlock(block->block, text_.dialect(), plans(), *block);
      block->isCut = block->isCut || wasCut;
    }
    if (block->failure) text_.throwUnreadable(*block->failure);
    requireUtf8(*block);
    takeBlock(*block, sink);
    const std::string_view text = block->block.text;
    MappedText::release(text);
    done += text.size();
    if (progress) progress(static_cast<double>(done) / static_cast<double>(body.size()));
    if (block->isCut) return noteCut(*block);
    blocks.giveBack(std::move(block));
  }
}

void CsvTable::noteCut(const BlockValues& block) {
  if (std::exchange(isCut_, true)) return;
  const char* const end = block.block.text.data() + block.block.text.size();
  const std::string_view body = text_.body();
  CsvRows rest(body.substr(static_cast<std::size_t>(end - body.data())), text_.dialect(), line_);
  CsvRow row;
  rest.next(row);
  header_.notes.push_back(
      fmt::format("warning: {}: {}; it is left out with all that follows (--ragged stop)",
                  describeLine(text_.name(), row.line),
                  row.isUnclosed ? kUnclosedQuote : wrongCellCount(row.cells, header_.width)));
}

void CsvTable::requireUtf8(const BlockValues& block) const {
  if (!block.noUtf8) return;
  const auto [row, place] = *block.noUtf8;
  const CsvPlace found = placeOf(block.block.text, text_.dialect(), line_, row, place);
  const std::string& name = text_.layout().names[place];
  throw std::runtime_error(describePlace(text_.name(), found.line, name) + " " + kNoUtf8);
}

std::vector<CellPlan> CsvTable::plans() const {
  std::vector<CellPlan> plans(header_.width);
  times_.addTo(plans);
  for (const Column& column : read_) plans[column.described.place] = column.plan;
  return plans;
}

// Whether the block was begun before an earlier one ruled out the kind of a column.
bool CsvTable::isReadTooStrictly(const BlockValues& block) const {
  const std::vector<CellPlan> current = plans();
  for (std::size_t i = 0; i < current.size(); ++i) {
    const CellKind found = block.columns[i].kind;
    const CellKind wanted = current[i].kind;
    // What stands for no number, such as NA, is a text.
    const bool isLess = found < wanted && (found != CellKind::empty || wanted == CellKind::text);
    if (current[i].isRead && isLess) return true;
  }
  return false;
}

void CsvTable::takeBlock(const BlockValues& block, SampleSink& sink) {
  if (!times_.take(block, line_)) {
    isTimeStale_ = true;
    for (Column& column : read_) {
      if (column.plan.isRead) startAgain(column, sink);
    }
  }
  for (Column& column : read_) {
    if (column.plan.isRead) takeCells(column, block, sink);
  }
  line_ += block.lines;
  hasGuess_ = true;
}

void CsvTable::takeCells(Column& column, const BlockValues& block, SampleSink& sink) {
  const CellValues& cells = block.columns[column.described.place];
  const auto placed = [&](std::uint32_t row) {
    return placeOf(block.block.text, text_.dialect(), line_, row, column.described.place);
  };
  const bool isLeftOut = cells.kind == CellKind::text && !column.plan.keepsTexts;
  const bool isWrong = cells.misfit && (column.plan.parser || isLeftOut);
  if (isWrong) {
    leaveOut(column, sink);
    column.plan.kind = cells.kind;
    column.misfit = placed(*cells.misfit);
    return;
  }
  column.hasNumbers = column.hasNumbers || cells.hadNumbers;
  if (cells.misfit && !column.firstText) {
    column.hasNumbers = column.hasNumbers || column.plan.kind > CellKind::empty;
    column.firstText = placed(*cells.misfit);
  }
  changeKind(column, cells.kind, sink);
  if (column.isStale) return;
  if (cells.rounded && column.loss.empty()) {
    const CsvPlace place = placed(*cells.rounded);
    column.loss = describe(place, column.described) + " " +
                  roundedNumber(place.cell, text_.dialect().decimalMark, column.described.type);
  }
  takeSamples(column, cells, sink);
}

void CsvTable::takeSamples(Column& column, const CellValues& cells, SampleSink& sink) {
  const CsvColumn& described = column.described;
  ColumnSamples samples;
  samples.count = cells.size(parquet::elementWidth(described.type));
  if (samples.count == 0) return;
  samples.times = times_.timesWithout(cells.missing).data();
  samples.bytes = cells.data();
  if (cells.kind == CellKind::text) {
    lengths_.assign(cells.words.begin(), cells.words.end());
    samples.lengths = &lengths_;
  }
  sink.append(described, samples);
  column.hasSamples = true;
}

void CsvTable::changeKind(Column& column, CellKind kind, SampleSink& sink) {
  if (column.plan.parser || kind <= column.plan.kind) return;
  column.plan.kind = kind;
  column.described.type = typeOf(kind);
  // What stands for no number, such as NA, is a text.
  const bool isText = kind == CellKind::text && hasGuess_;
  if (column.hasSamples || isText) startAgain(column, sink);
}

void CsvTable::leaveOut(Column& column, SampleSink& sink) {
  startAgain(column, sink);
  column.isStale = false;
  column.plan.isRead = false;
}

// The column comes again in the next pass. In this one only its kind matters.
void CsvTable::startAgain(Column& column, SampleSink& sink) {
  if (column.hasSamples) sink.drop(column.described);
  column.hasSamples = false;
  column.isStale = true;
  column.loss.clear();
  column.misfit.reset();
}

// Plans to read those columns again that need it. Returns whether there are any.
bool CsvTable::planNextPass() {
  bool isNeeded = std::exchange(isTimeStale_, false);
  for (Column& column : read_) {
    column.plan.isRead = std::exchange(column.isStale, false);
    isNeeded = isNeeded || column.plan.isRead;
  }
  return isNeeded;
}

void CsvTable::acceptColumns() {
  if (!times_.loss().empty()) losses_.push_back(times_.loss());
  for (const Column& column : read_) {
    const CsvColumn& described = column.described;
    const bool isText = column.plan.kind == CellKind::text;
    if (isText && !column.plan.keepsTexts) {
      if (column.misfit) {
        header_.notes.push_back(fmt::format("{} is left out: it holds {}, which is no number",
                                            describe(*column.misfit, described),
                                            inQuotes(column.misfit->cell)));
      }
      continue;
    }
    if (isText) noteText(column);
    if (!column.loss.empty()) losses_.push_back(column.loss);
    // A comma at the end of every line makes a column without name and content.
    const bool isNothing = !described.isGiven && column.plan.kind == CellKind::empty &&
                           text_.layout().names[described.place].empty();
    if (!isNothing) columns_.push_back(described);
  }
}

// Tells of a column that the user may take for one of numbers.
void CsvTable::noteText(const Column& column) {
  if (!column.firstText) return;
  const std::string_view cell = trimmed(column.firstText->cell);
  const bool isOther = isOtherNumber(cell, text_.dialect().decimalMark);
  if (!isOther && !column.hasNumbers) return;
  header_.notes.push_back(fmt::format(
      "warning: {} {}", describe(*column.firstText, column.described),
      isOther ? otherNumber(cell)
              : fmt::format("holds {0}, which is no number, so the column is stored as text "
                            "(--missing {0} takes it for an empty cell)",
                            inQuotes(cell))));
}

void CsvTable::checkTypes() const {
  for (const Column& column : read_) {
    if (!column.misfit || column.plan.kind == CellKind::text) continue;
    throw std::runtime_error(describe(*column.misfit, column.described) + " " +
                             wrongType(column.misfit->cell, column.described.type));
  }
}

std::string CsvTable::describe(const CsvPlace& place, const CsvColumn& column) const {
  return describePlace(text_.name(), place.line, column.name);
}

}  // namespace kyr::tool
