#include "csv/CsvCells.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "csv/CsvRecords.h"
#include "export/ArrowCells.h"

namespace kyr::tool {

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isLineEnd(char c) { return c == '\n' || c == '\r'; }

// Digits, of which the first one stands at \p at, behind those of \p number.
const char* readDigits(const char* at, const char* end, std::uint64_t& number) {
  for (; at != end && isDigit(*at); ++at) {
    number = number * 10 + static_cast<std::uint64_t>(*at - '0');
  }
  return at;
}

// Reads a decimal number of few digits, "-1.25e-3", faster than the standard library does. Where
// the digits as a whole number and the power of ten are doubles both, the one operation on them
// rounds as the number has to be rounded. Where they are not, or it is no such number, null.
const char* readShortDecimal(const char* at, const char* end, double& value) {
  constexpr std::array<double, 23> kPowers{1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                           1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                           1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
  constexpr std::ptrdiff_t kMaxLength = 17;  // with a point, so that digits do not overflow
  constexpr std::uint64_t kMaxExact = std::uint64_t{1} << 53U;
  const bool isNegative = *at == '-';
  const char* const first = isNegative ? at + 1 : at;
  std::uint64_t digits = 0;
  const char* stop = readDigits(first, end, digits);
  std::int64_t power = 0;
  if (stop != first && stop != end && *stop == '.') {
    const char* const fraction = stop + 1;
    stop = readDigits(fraction, end, digits);
    power = fraction - stop;
  }
  if (stop == first || stop - first > kMaxLength || digits > kMaxExact) return nullptr;
  if (stop != end && (*stop == 'e' || *stop == 'E')) {
    const char* exponent = stop + 1;
    const bool isDown = exponent != end && *exponent == '-';
    if (exponent != end && (isDown || *exponent == '+')) ++exponent;
    std::uint64_t size = 0;
    stop = readDigits(exponent, std::min(end, exponent + 4), size);
    if (stop == exponent) return nullptr;
    power += isDown ? -static_cast<std::int64_t>(size) : static_cast<std::int64_t>(size);
  }
  const auto scale = static_cast<std::size_t>(std::abs(power));
  if (scale >= kPowers.size()) return nullptr;
  const auto number = static_cast<double>(digits);
  const double size = power < 0 ? number / kPowers[scale] : number * kPowers[scale];
  value = isNegative ? -size : size;
  return stop;
}

/// Reads a block cell by cell.
class PlainReader {
 public:
  PlainReader(std::string_view text, const std::vector<CellPlan>& plans, BlockValues& values)
      : end_(text.data() + text.size()), plans_(plans), values_(values) {
    for (const CellPlan& plan : plans) ways_.push_back(wayFor(plan));
  }

  // From the block's start to its end, or to a ragged row.
  void read(const char* at) {
    while (at != end_ && !values_.failure) {
      if (!isLineEnd(*at)) {
        at = readRow(at);
        ++values_.rows;
      }
      if (at == end_) return;
      at = skipLineEnd(at);
    }
  }

  /// Columns that have cells for Arrow to read.
  std::vector<std::size_t> unclearColumns() const {
    std::vector<std::size_t> unclear;
    for (std::size_t i = 0; i < ways_.size(); ++i) {
      if (ways_[i] == Way::unclear) unclear.push_back(i);
    }
    return unclear;
  }

 private:
  enum class Way { skip, empty, integer, boolean, real, parse, unclear };

  static Way wayFor(const CellPlan& plan) {
    if (!plan.isRead) return Way::skip;
    if (plan.parse) return Way::parse;
    switch (plan.kind) {
      case CellKind::empty:
        return Way::empty;
      case CellKind::integer:
        return Way::integer;
      case CellKind::boolean:
        return Way::boolean;
      case CellKind::real:
        return Way::real;
      case CellKind::text:
        return Way::skip;
      default:
        return Way::unclear;
    }
  }

  const char* readRow(const char* at) {
    const std::size_t columns = ways_.size();
    for (std::size_t i = 0;; ++at) {
      at = readCell(at, i);
      const bool isLast = ++i == columns;
      if (isLast == (at == end_ || *at != ',')) {
        if (isLast) return at;
        continue;
      }
      values_.failure = "a row has too few or too many cells";
      return at;
    }
  }

  bool isEnd(const char* at) const { return at == end_ || *at == ',' || isLineEnd(*at); }

  const char* skipLineEnd(const char* at) {
    ++values_.lines;
    return *at == '\r' && at + 1 != end_ && at[1] == '\n' ? at + 2 : at + 1;
  }

  // Past a cell; a quotation mark means something at its start and, doubled, behind that.
  const char* cellEnd(const char* at) {
    while (at != end_ && *at == '"') {
      for (++at; at != end_ && *at != '"';) at = isLineEnd(*at) ? skipLineEnd(at) : at + 1;
      if (at != end_) ++at;
    }
    while (!isEnd(at)) ++at;
    return at;
  }

  const char* readCell(const char* at, std::size_t column) {
    const Way way = ways_[column];
    if (way == Way::skip || way == Way::unclear) return cellEnd(at);
    CellValues& cells = values_.columns[column];
    if (isEnd(at)) {
      cells.missing.push_back(values_.rows);
      return at;
    }
    const char* const cell = at;
    bool isClear = false;
    if (*cell == '"') {
      // What is inside the quotation marks is for Arrow to say.
    } else if (way == Way::real) {
      isClear = readReal(at, cells);
    } else if (way == Way::integer) {
      isClear = readInteger(at, cells);
    } else if (way == Way::boolean) {
      at = cellEnd(cell);
      isClear = readBoolean({cell, static_cast<std::size_t>(at - cell)}, cells);
    } else if (way == Way::parse) {
      at = cellEnd(cell);
      isClear = true;
      if (!plans_[column].parse({cell, static_cast<std::size_t>(at - cell)}, cells.bytes)) {
        cells.misfit = values_.rows;
        ways_[column] = Way::skip;
      }
    }
    if (isClear) return at;
    ways_[column] = Way::unclear;
    return cellEnd(cell);
  }

  bool readReal(const char*& at, CellValues& cells) const {
    const char* first = *at == '-' && at + 1 != end_ ? at + 1 : at;
    if (!isDigit(*first)) return false;
    double value = 0;
    const char* stop = readShortDecimal(at, end_, value);
    if (stop == nullptr || !isEnd(stop)) {
      const auto [standardStop, error] = std::from_chars(at, end_, value);
      if (error != std::errc() || !isEnd(standardStop)) return false;
      stop = standardStop;
    }
    at = stop;
    cells.isHuge = cells.isHuge || std::abs(value) >= kHuge;
    std::uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof(bits));
    cells.words.push_back(bits);
    return true;
  }

  // Of so few digits that int64 holds them.
  bool readInteger(const char*& at, CellValues& cells) const {
    constexpr std::ptrdiff_t kDigits = 18;
    const bool isNegative = *at == '-';
    const char* const first = isNegative ? at + 1 : at;
    const char* digit = first;
    std::uint64_t value = 0;
    for (; digit != end_ && isDigit(*digit) && digit - first < kDigits; ++digit) {
      value = value * 10 + static_cast<std::uint64_t>(*digit - '0');
    }
    if (digit == first || !isEnd(digit)) return false;
    at = digit;
    cells.words.push_back(isNegative ? 0 - value : value);
    return true;
  }

  static bool readBoolean(std::string_view cell, CellValues& cells) {
    const bool isTrue = cell == "true" || cell == "True" || cell == "TRUE" || cell == "1";
    if (!isTrue && cell != "false" && cell != "False" && cell != "FALSE" && cell != "0") {
      return false;
    }
    cells.bytes.push_back(isTrue ? 1 : 0);
    return true;
  }

  const char* end_;
  const std::vector<CellPlan>& plans_;
  BlockValues& values_;
  std::vector<Way> ways_;
};

void clear(const std::vector<CellPlan>& plans, BlockValues& values) {
  values.rows = 0;
  values.lines = 0;
  values.failure.reset();
  values.columns.resize(plans.size());
  for (std::size_t i = 0; i < plans.size(); ++i) clear(plans[i].kind, values.columns[i]);
}

}  // namespace

void clear(CellKind kind, CellValues& cells) {
  cells.kind = kind;
  cells.missing.clear();
  cells.misfit.reset();
  cells.isHuge = false;
  cells.words.clear();
  cells.bytes.clear();
}

void readBlock(const CsvBlock& block, const std::vector<CellPlan>& plans, BlockValues& values) {
  values.block = block;
  clear(plans, values);
  if (block.isUnclosed) {
    values.failure = "a quotation mark is not closed";
    return;
  }
  PlainReader reader(block.text, plans, values);
  reader.read(block.text.data());
  if (values.failure) return;
  const std::vector<std::size_t> unclear = reader.unclearColumns();
  if (unclear.empty()) return;
  readWithArrow(block.text, plans, unclear, values);
}

}  // namespace kyr::tool
