#include "csv/CsvTimes.h"

#include <fmt/format.h>

#include <cmath>
#include <cstring>
#include <stdexcept>

#include "cli/Text.h"
#include "csv/CsvReview.h"

namespace kyr::tool {

namespace {

CsvRecordScanner rowsOf(const BlockValues& block, std::int64_t line) {
  return {block.block.text, line};
}

}  // namespace

bool CsvTimes::isNumeric() const {
  return kind_ == CellKind::empty || kind_ == CellKind::integer || kind_ == CellKind::real;
}

bool CsvTimes::isBroken() const { return !isNumeric() || gap_ || !fault_.empty(); }

void CsvTimes::restart() {
  hasRows_ = false;
  gap_.reset();
  fault_.clear();
  loss_.clear();
}

bool CsvTimes::take(const CsvText& text, const BlockValues& block, std::int64_t line) {
  const CellValues& cells = block.columns[place_];
  const bool isNew = cells.kind > kind_ && hasRows_;
  if (cells.kind > kind_) kind_ = cells.kind;
  if (!gap_ && !cells.missing.empty()) {
    gap_ = recordAt(rowsOf(block, line), cells.missing.front()).line;
  }
  if (isNumeric() && !gap_) {
    times_.resize(cells.words.size());
    for (std::size_t i = 0; i < times_.size(); ++i) {
      const std::uint64_t bits = cells.words[i];
      if (cells.kind == CellKind::integer) {
        times_[i] = static_cast<double>(static_cast<std::int64_t>(bits));
      } else {
        std::memcpy(&times_[i], &bits, sizeof(bits));
      }
    }
    checkValues(text, block, line);
  }
  hasRows_ = hasRows_ || block.rows > 0;
  return !isNew;
}

void CsvTimes::checkValues(const CsvText& text, const BlockValues& block, std::int64_t line) {
  constexpr double kExact = 9007199254740992.0;
  const auto placed = [&](std::size_t row) {
    const auto record = recordAt(rowsOf(block, line), static_cast<std::uint32_t>(row));
    return where(text, record.line);
  };
  double last = hasRows_ ? last_ : -HUGE_VAL;
  for (std::size_t i = 0; i < times_.size() && fault_.empty(); ++i) {
    const double time = times_[i];
    if (!std::isfinite(time)) {
      fault_ = fmt::format("{} is {}, but times must be finite", placed(i), time);
    } else if (time < last) {
      fault_ = fmt::format("{} is {}, after {} in the row before: times must not decrease",
                           placed(i), time, last);
    } else if (loss_.empty() && std::abs(time) > kExact) {
      loss_ = fmt::format("{}: times beyond 2^53 are rounded to double", placed(i));
    }
    last = time;
  }
  last_ = last;
}

void CsvTimes::check(const CsvText& text) const {
  if (gap_ && kind_ != CellKind::text) {
    throw std::runtime_error(where(text, *gap_) + " is empty, and every row needs a time");
  }
  if (!isNumeric()) {
    const auto isDone = [](const CellReview& review) { return review.firstNoDouble.has_value(); };
    const CellReview review = reviewCells(text.rows(), {place_}, isDone).at(place_);
    const CsvPlace& found = review.firstNoDouble ? *review.firstNoDouble : *review.first;
    throw std::runtime_error(fmt::format(
        "{} holds {}, but times must be numbers (--time NAME takes another column for time)",
        where(text, found.line), inQuotes(found.cell)));
  }
  if (!fault_.empty()) throw std::runtime_error(fault_);
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

std::string CsvTimes::where(const CsvText& text, std::int64_t line) const {
  return fmt::format("{}, line {}: column {}", text.path(), line, inQuotes(name_));
}

}  // namespace kyr::tool
