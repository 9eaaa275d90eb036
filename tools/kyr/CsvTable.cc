#include "CsvTable.h"

#include <arrow/api.h>
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <optional>
#include <set>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "CellParser.h"
#include "ColumnCells.h"
#include "Errors.h"
#include "Text.h"
#include "TypeNames.h"

namespace kyr::tool {

namespace {

// The first cell that spells no value of \p type.
std::optional<std::int64_t> firstUnlike(const ::arrow::ChunkedArray& texts,
                                        KYRSignalDataType type) {
  const CellParser parse = cellParser(type);
  std::vector<char> value;
  return firstCell(texts, [&](std::string_view cell, std::int64_t) {
    value.clear();
    return !parse(cell, value);
  });
}

// The cell that keeps a column from being one of numbers; some cell if Arrow alone says why.
std::int64_t firstWithoutNumber(const ::arrow::ChunkedArray& texts) {
  if (const auto row = firstUnlike(texts, Double)) return *row;
  return firstCell(texts, [](std::string_view, std::int64_t) { return true; }).value_or(0);
}

}  // namespace

CsvTable::CsvTable(const std::string& path, const CsvOptions& options, const Progress& progress)
    : text_(path) {
  CsvHeader header = namedColumns(path, text_.header(), options);
  timePlace_ = header.timePlace;
  timeName_ = std::move(header.timeName);
  timeUnit_ = std::move(header.timeUnit);
  columns_ = std::move(header.columns);
  readCells(progress);
}

void CsvTable::readCells(const Progress& progress) {
  std::set<std::size_t> asText;
  for (const CsvColumn& column : columns_) {
    if (column.isText) asText.insert(column.place);
  }
  const auto cells = readColumns(text_, asText, progress);
  readTime(cells[timePlace_]);
  std::set<std::size_t> doubtful;
  for (const CsvColumn& column : columns_) {
    if (hidesText(*cells[column.place])) doubtful.insert(column.place);
  }
  auto texts = readTexts(text_, doubtful);
  std::vector<CsvColumn> accepted;
  for (CsvColumn& column : columns_) {
    column.cells = cells[column.place];
    if (acceptCells(column, texts[column.place])) accepted.push_back(std::move(column));
  }
  columns_ = std::move(accepted);
}

// Decides on the type in which the column is stored; false if there is none. The texts are there
// only if the cells leave a doubt.
bool CsvTable::acceptCells(CsvColumn& column, const Cells& texts) {
  const bool isNameless = text_.header()[column.place].empty();
  if (column.isText) return true;
  switch (column.cells->type()->id()) {
    case ::arrow::Type::NA:
      // A comma at the end of every line makes a column without name and content.
      return !isNameless;
    case ::arrow::Type::INT64:
      column.type = Int64;
      return true;
    case ::arrow::Type::BOOL:
      column.type = Boolean;
      return true;
    case ::arrow::Type::DOUBLE:
      if (texts) reviewLargeNumbers(column, texts);
      return true;
    default:
      break;
  }
  const auto& cells = texts ? *texts : *column.cells;
  const std::int64_t row = firstWithoutNumber(cells);
  losses_.push_back(fmt::format("{} is left out: it holds {}, which is no number",
                                where(row, column.name), inQuotes(cellText(cells, row))));
  return false;
}

// Arrow reads integers beyond int64 as doubles, and numbers beyond double as infinite.
void CsvTable::reviewLargeNumbers(CsvColumn& column, const Cells& texts) {
  if (const auto wrong = firstUnlike(*texts, Double)) {
    throw std::runtime_error(fmt::format("{} holds {}, which does not fit double",
                                         where(*wrong, column.name),
                                         inQuotes(cellText(*texts, *wrong))));
  }
  const auto isFraction = [](std::string_view cell, std::int64_t) {
    return cell.find_first_not_of("0123456789+- \t") != std::string_view::npos;
  };
  if (firstCell(*texts, isFraction)) return;
  const auto beyond = firstUnlike(*texts, UInt64);
  if (!beyond) {
    column.type = UInt64;
    column.isText = true;
    column.cells = texts;
    return;
  }
  losses_.push_back(
      fmt::format("{}: no integer type holds this column ({}): its values are rounded to double",
                  where(*beyond, column.name), inQuotes(cellText(*texts, *beyond))));
}

void CsvTable::readTime(const Cells& cells) {
  const auto type = cells->type()->id();
  time_.reserve(static_cast<std::size_t>(cells->length()));
  if (const auto gap = firstMissing(*cells)) {
    throw std::runtime_error(
        fmt::format("{} is empty, and every row needs a time", where(*gap, timeName_)));
  }
  if (type == ::arrow::Type::INT64) {
    forEachValue<::arrow::Int64Array>(
        *cells, [this](std::int64_t time) { time_.push_back(static_cast<double>(time)); });
  } else if (type == ::arrow::Type::DOUBLE) {
    forEachValue<::arrow::DoubleArray>(*cells, [this](double time) { time_.push_back(time); });
  } else if (type != ::arrow::Type::NA) {
    const Cells texts = readTexts(text_, {timePlace_}).at(timePlace_);
    const std::int64_t row = firstWithoutNumber(*texts);
    throw std::runtime_error(fmt::format(
        "{} holds {}, but times must be numbers (--time NAME takes another column for time)",
        where(row, timeName_), inQuotes(cellText(*texts, row))));
  }
  checkTime();
}

void CsvTable::checkTime() {
  constexpr double kExact = 9007199254740992.0;
  bool isExact = true;
  for (std::size_t i = 0; i < time_.size(); ++i) {
    const auto row = static_cast<std::int64_t>(i);
    if (!std::isfinite(time_[i])) {
      throw std::runtime_error(
          fmt::format("{} is {}, but times must be finite", where(row, timeName_), time_[i]));
    }
    if (i > 0 && time_[i] < time_[i - 1]) {
      throw std::runtime_error(
          fmt::format("{} is {}, after {} in the row before: times must not decrease",
                      where(row, timeName_), time_[i], time_[i - 1]));
    }
    if (isExact && std::abs(time_[i]) > kExact) {
      isExact = false;
      losses_.push_back(
          fmt::format("{}: times beyond 2^53 are rounded to double", where(row, timeName_)));
    }
  }
}

Samples CsvTable::samplesOf(const CsvColumn& column) const {
  Samples samples;
  if (column.isText) {
    appendParsed(column, samples);
    return samples;
  }
  if (column.cells->null_count() == 0) {
    samples.time = time_;
  } else {
    forEachPresent(*column.cells, [&](std::size_t row) { samples.time.push_back(time_[row]); });
  }
  appendCells(*column.cells, samples.bytes);
  return samples;
}

void CsvTable::appendParsed(const CsvColumn& column, Samples& samples) const {
  const CellParser parse = cellParser(column.type);
  const auto wrong = firstCell(*column.cells, [&](std::string_view cell, std::int64_t row) {
    if (!parse(cell, samples.bytes)) return true;
    samples.time.push_back(time_[static_cast<std::size_t>(row)]);
    return false;
  });
  if (wrong) {
    throw std::runtime_error(
        fmt::format("{} holds {}, which does not fit {}", where(*wrong, column.name),
                    inQuotes(cellText(*column.cells, *wrong)), typeName(column.type)));
  }
}

std::string CsvTable::where(std::int64_t row, const std::string& column) const {
  return fmt::format("{}, line {}: column {}", text_.path(), text_.lineOfRow(row),
                     inQuotes(column));
}

}  // namespace kyr::tool
