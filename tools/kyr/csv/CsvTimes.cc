#include "csv/CsvTimes.h"

#include <cmath>
#include <cstring>
#include <stdexcept>

#include "csv/CsvMessages.h"

namespace kyr::tool {

void CsvTimes::restart() {
  hasRows_ = false;
  loss_.clear();
}

bool CsvTimes::take(const BlockValues& block, std::int64_t line) {
  const CellValues& cells = block.columns[place_];
  const bool isNew = cells.kind > kind_ && hasRows_;
  if (cells.kind > kind_) kind_ = cells.kind;
  if (cells.kind == CellKind::text) {
    const CsvPlace place = placed(block, line, *cells.misfit);
    throw std::runtime_error(describe(place, timeWithoutNumber(place.cell)));
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

// Returns the first row whose time is rounded.
std::optional<std::uint32_t> CsvTimes::convert(const CellValues& cells) {
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
  if (hasRows_ && times_.front() == last_ &&
      !isSameDecimal(lastCell_, block.times.first, text_.dialect().decimalMark)) {
    indistinct = 0;
  }
  if (rounded && (!indistinct || *rounded <= *indistinct)) {
    const CsvPlace place = placed(block, line, *rounded);
    loss_ = describe(place, roundedNumber(place.cell, Double));
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
  return placeOf(block.block.text, text_.dialect(), line, static_cast<std::uint32_t>(row), place_);
}

std::string CsvTimes::describe(const CsvPlace& place, const std::string& what) const {
  return describePlace(text_.path(), place.line, name_) + " " + what;
}

}  // namespace kyr::tool
