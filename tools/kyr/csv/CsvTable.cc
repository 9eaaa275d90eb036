#include "csv/CsvTable.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <utility>

#include "cli/Interrupt.h"
#include "cli/Text.h"
#include "csv/CsvPipeline.h"
#include "print/TypeNames.h"

namespace kyr::tool {

namespace {

KYRSignalDataType typeOf(CellKind kind) {
  if (kind == CellKind::integer) return Int64;
  return kind == CellKind::boolean ? Boolean : Double;
}

// Of the others no cell has to be read any more: what refused integer and boolean and is a date or
// a time is no number either.
bool maybeNumeric(CellKind kind) { return kind <= CellKind::boolean || kind == CellKind::real; }

}  // namespace

CsvTable::CsvTable(const std::string& path, const CsvOptions& options)
    : text_(path),
      header_(namedColumns(path, text_.header(), options)),
      times_(header_.timePlace, header_.timeName) {
  for (CsvColumn& described : header_.columns) {
    Column& column = read_.emplace_back();
    if (described.isGiven) column.plan.parse = cellParser(described.type);
    column.described = std::move(described);
  }
}

void CsvTable::read(SampleSink& sink, const Progress& progress) {
  bool isAgain = true;
  while (isAgain) {
    readBlocks(sink, progress);
    isAgain = planNextPass();
    if (isAgain) continue;
    times_.check(text_);
    reviewHugeNumbers(sink);
    isAgain = planNextPass();
  }
  acceptColumns();
}

void CsvTable::readBlocks(SampleSink& sink, const Progress& progress) {
  constexpr unsigned kMaxAhead = 4;
  const std::size_t ahead = std::clamp(std::thread::hardware_concurrency(), 1U, kMaxAhead);
  const std::string_view body = text_.body();
  CsvPipeline blocks(body);
  times_.restart();
  line_ = text_.bodyLine();
  std::size_t done = 0;
  while (auto block = blocks.next(plans(), hasGuess_ ? ahead : 0)) {
    stopIfInterrupted();
    if (!block->failure && isReadTooStrictly(*block)) readBlock(block->block, plans(), *block);
    if (block->failure) text_.throwUnreadable(*block->failure);
    takeBlock(*block, sink);
    const std::string_view text = block->block.text;
    CsvText::release(text);
    done += text.size();
    if (progress) progress(static_cast<double>(done) / static_cast<double>(body.size()));
    blocks.giveBack(std::move(block));
  }
}

std::vector<CellPlan> CsvTable::plans() const {
  std::vector<CellPlan> plans(read_.size() + 1);
  plans[times_.place()].kind = times_.kind();
  for (const Column& column : read_) plans[column.described.place] = column.plan;
  return plans;
}

// Of a block that was begun before another one showed what kind a column is.
bool CsvTable::isReadTooStrictly(const BlockValues& block) const {
  const auto isTooStrict = [&](std::size_t place, CellKind kind) {
    const CellKind found = block.columns[place].kind;
    return found != CellKind::empty && found < kind;
  };
  return isTooStrict(times_.place(), times_.kind()) ||
         std::any_of(read_.begin(), read_.end(), [&](const Column& column) {
           return column.plan.isRead && isTooStrict(column.described.place, column.plan.kind);
         });
}

void CsvTable::takeBlock(const BlockValues& block, SampleSink& sink) {
  if (!times_.take(text_, block, line_)) {
    isTimeStale_ = true;
    for (Column& column : read_) {
      if (maybeNumeric(column.plan.kind) && !column.misfit) startAgain(column, sink);
    }
  }
  for (Column& column : read_) {
    if (column.plan.isRead) takeCells(column, block, sink);
  }
  line_ += block.lines;
  hasGuess_ = true;
}

void CsvTable::takeCells(Column& column, const BlockValues& block, SampleSink& sink) {
  const CsvColumn& described = column.described;
  const CellValues& cells = block.columns[described.place];
  if (cells.misfit) {
    const CsvRecord row = recordAt({block.block.text, line_}, *cells.misfit);
    column.misfit = placeIn(row, described.place);
    leaveOut(column, sink);
  }
  if (!described.isGiven) settleKind(column, cells.kind, sink);
  if (!column.plan.isRead) return;
  column.isHuge = column.isHuge || cells.isHuge;
  const std::size_t count = cells.size(parquet::elementWidth(described.type));
  if (column.isStale || times_.isBroken() || count == 0) return;
  sink.append(described, times_.timesWithout(cells.missing).data(), cells.data(), count);
  column.hasSamples = true;
}

// A block refused the kinds before.
void CsvTable::settleKind(Column& column, CellKind kind, SampleSink& sink) {
  if (kind <= column.plan.kind) return;
  column.plan.kind = kind;
  if (!maybeNumeric(kind)) return leaveOut(column, sink);
  column.described.type = typeOf(kind);
  if (column.hasSamples) startAgain(column, sink);
}

void CsvTable::leaveOut(Column& column, SampleSink& sink) {
  startAgain(column, sink);
  column.isStale = column.isHuge = false;
  column.plan.isRead = false;
}

// In the next pass; in this one, the column's kind is watched only.
void CsvTable::startAgain(Column& column, SampleSink& sink) {
  if (column.hasSamples) sink.drop(column.described);
  column.hasSamples = false;
  column.isStale = true;
}

// Whether there is something to be read again. Other columns are not.
bool CsvTable::planNextPass() {
  bool isNeeded = std::exchange(isTimeStale_, false);
  for (Column& column : read_) {
    column.plan.isRead = std::exchange(column.isStale, false);
    isNeeded = isNeeded || column.plan.isRead;
  }
  return isNeeded;
}

// Arrow reads integers beyond int64 as doubles, and numbers beyond double as infinite.
void CsvTable::reviewHugeNumbers(SampleSink& sink) {
  std::vector<std::size_t> places;
  for (const Column& column : read_) {
    if (column.isHuge) places.push_back(column.described.place);
  }
  const auto reviews = reviewCells(text_.rows(), places, [](const CellReview& review) {
    return review.firstNoDouble.has_value();
  });
  for (Column& column : read_) {
    if (!std::exchange(column.isHuge, false)) continue;
    CsvColumn& described = column.described;
    const CellReview& review = reviews.at(described.place);
    if (review.firstNoDouble) {
      throw std::runtime_error(fmt::format("{} holds {}, which does not fit double",
                                           where(*review.firstNoDouble, described),
                                           inQuotes(review.firstNoDouble->cell)));
    }
    if (review.hasFraction) continue;
    if (review.firstNoUInt64) {
      column.loss = fmt::format(
          "{}: no integer type holds this column ({}): its values are rounded to double",
          where(*review.firstNoUInt64, described), inQuotes(review.firstNoUInt64->cell));
      continue;
    }
    startAgain(column, sink);
    described.type = UInt64;
    described.isGiven = true;
    column.plan.parse = cellParser(UInt64);
  }
}

void CsvTable::acceptColumns() {
  if (!times_.loss().empty()) losses_.push_back(times_.loss());
  std::vector<std::size_t> places;
  for (const Column& column : read_) {
    if (!maybeNumeric(column.plan.kind)) places.push_back(column.described.place);
  }
  const auto reviews = reviewCells(text_.rows(), places, [](const CellReview& review) {
    return review.firstNoDouble.has_value();
  });
  for (Column& column : read_) {
    const CsvColumn& described = column.described;
    const auto review = reviews.find(described.place);
    if (review != reviews.end()) {
      // Some cell, if Arrow alone says why.
      const auto& found =
          review->second.firstNoDouble ? review->second.firstNoDouble : review->second.first;
      losses_.push_back(fmt::format("{} is left out: it holds {}, which is no number",
                                    where(*found, described), inQuotes(found->cell)));
      continue;
    }
    if (!column.loss.empty()) losses_.push_back(column.loss);
    // A comma at the end of every line makes a column without name and content.
    const bool isNothing = !described.isGiven && column.plan.kind == CellKind::empty &&
                           text_.header()[described.place].empty();
    if (!isNothing) columns_.push_back(described);
  }
}

void CsvTable::checkGivenTypes() const {
  for (const Column& column : read_) {
    if (!column.misfit) continue;
    throw std::runtime_error(
        fmt::format("{} holds {}, which does not fit {}", where(*column.misfit, column.described),
                    inQuotes(column.misfit->cell), typeName(column.described.type)));
  }
}

std::string CsvTable::where(const CsvPlace& place, const CsvColumn& column) const {
  return fmt::format("{}, line {}: column {}", text_.path(), place.line, inQuotes(column.name));
}

}  // namespace kyr::tool
