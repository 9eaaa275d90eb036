#include "csv/CsvTimes.h"

#include <cmath>
#include <cstring>
#include <stdexcept>

#include "csv/CsvMessages.h"

namespace kyr::tool {

void CsvTimes::addTo(std::vector<CellPlan>& plans) const {
  if (!header_.timePlace) return;
  CellPlan& plan = plans[*header_.timePlace];
  plan.isTime = true;
  plan.keepsTexts = false;
  plan.kind = kind_;
  if (!header_.timeForm.isPlain()) plan.timeForm = &header_.timeForm;
}

void CsvTimes::restart() {
  hasRows_ = false;
  counted_ = 0;
  loss_.clear();
}

bool CsvTimes::take(const BlockValues& block, std::int64_t line) {
  if (!header_.timePlace) {
    countRows(block.rows);
    return true;
  }
  const CellValues& cells = block.columns[*header_.timePlace];
  const bool isNew = cells.kind > kind_ && hasRows_;
  if (cells.kind > kind_) kind_ = cells.kind;
  if (cells.kind == CellKind::text) {
    const CsvPlace place = placed(block, line, *cells.misfit);
    throw std::runtime_error(describe(place, wrongTime(place.cell, header_.timeForm)));
  }
  const std::optional<std::uint32_t> rounded = convert(cells);
  checkOrder(block, line, cells.missing.empty() ? block.rows : cells.missing.front());
  if (!cells.missing.empty()) {
    throw std::runtime_error(describe(placed(block, line, cells.missing.front()), kNoTime));
  }
  if (block.rows == 0) return true;
  if (loss_.empty()) noteLoss(block, line, rounded);
  hasRows_ = true;
  last_ = times_.back();
  lastCell_ = block.times.last;
  return !isNew;
}

// The numbers of the rows stand for their times.
void CsvTimes::countRows(std::size_t rows) {
  times_.resize(rows);
  for (double& time : times_) time = static_cast<double>(counted_++);
}

// Returns the first row whose time is rounded.
std::optional<std::uint32_t> CsvTimes::convertNanoseconds(const CellValues& cells) {
  const TimeForm& form = header_.timeForm;
  std::optional<std::uint32_t> rounded;
  times_.resize(cells.words.size());
  for (std::size_t i = 0; i < times_.size(); ++i) {
    const auto nanoseconds = static_cast<std::int64_t>(cells.words[i]);
    times_[i] = form.sinceOrigin(nanoseconds);
    if (!rounded && !form.isExact(nanoseconds)) rounded = static_cast<std::uint32_t>(i);
  }
  return rounded;
}

// Returns the first row whose time is rounded.
std::optional<std::uint32_t> CsvTimes::convert(const CellValues& cells) {
  if (!header_.timeForm.isPlain() && cells.kind == CellKind::integer) {
    return convertNanoseconds(cells);
  }
  std::optional<std::uint32_t> rounded = cells.rounded;
  times_.resize(cells.words.size());
  for (std::size_t i = 0; i < times_.size(); ++i) {
    const std::uint64_t bits = cells.words[i];
    bool isExact = true;
    if (cells.kind == CellKind::integer) {
      const auto number = static_cast<std::int64_t>(bits);
      times_[i] = static_cast<double>(number);
      isExact = isExactInDouble(number);
    } else if (cells.kind == CellKind::unsignedInteger) {
      times_[i] = static_cast<double>(bits);
      isExact = isExactInDouble(bits);
    } else {
      std::memcpy(&times_[i], &bits, sizeof(bits));
    }
    if (!isExact && !rounded) rounded = static_cast<std::uint32_t>(i);
  }
  return rounded;
}

void CsvTimes::checkOrder(const BlockValues& block, std::int64_t line, std::size_t rows) const {
  double last = hasRows_ ? last_ : -HUGE_VAL;
  for (std::size_t i = 0; i < rows; ++i) {
    const double time = times_[i];
    if (std::isfinite(time) && time >= last) {
      last = time;
      continue;
    }
    throw std::runtime_error(describe(placed(block, line, i), std::isfinite(time)
                                                                  ? fallingTime(time, last)
                                                                  : infiniteTime(time)));
  }
}

// Integers need no comparison: of two that have the same double, one is rounded.
void CsvTimes::noteLoss(const BlockValues& block, std::int64_t line,
                        std::optional<std::uint32_t> rounded) {
  std::optional<std::uint32_t> indistinct = block.times.indistinct;
  const bool areNumbers = header_.timeForm.kind == TimeForm::Kind::number;
  if (areNumbers && hasRows_ && times_.front() == last_ &&
      !isSameDecimal(lastCell_, block.times.first, text_.dialect().decimalMark)) {
    indistinct = 0;
  }
  if (rounded && (!indistinct || *rounded <= *indistinct)) {
    const CsvPlace place = placed(block, line, *rounded);
    const bool isPlain = header_.timeForm.isPlain();
    loss_ = describe(place, isPlain ? roundedNumber(place.cell, text_.dialect().decimalMark, Double)
                                    : roundedTime(place.cell));
  } else if (indistinct) {
    const CsvPlace place = placed(block, line, *indistinct);
    const std::string before =
        *indistinct == 0 ? lastCell_ : placed(block, line, *indistinct - 1U).cell;
    loss_ = describe(place, indistinctTime(place.cell, before));
  }
}

const std::vector<double>& CsvTimes::timesWithout(const std::vector<std::uint32_t>& missing) {
  if (missing.empty()) return times_;
  present_.clear();
  std::size_t row = 0;
  for (const std::uint32_t gap : missing) {
    present_.insert(present_.end(), times_.begin() + static_cast<std::ptrdiff_t>(row),
                    times_.begin() + gap);
    row = gap + std::size_t{1};
  }
  present_.insert(present_.end(), times_.begin() + static_cast<std::ptrdiff_t>(row), times_.end());
  return present_;
}

CsvPlace CsvTimes::placed(const BlockValues& block, std::int64_t line, std::size_t row) const {
  return placeOf(block.block.text, text_.dialect(), line, static_cast<std::uint32_t>(row),
                 *header_.timePlace);
}

std::string CsvTimes::describe(const CsvPlace& place, const std::string& what) const {
  return describePlace(text_.name(), place.line, header_.timeName) + " " + what;
}

}  // namespace kyr::tool
