#include "CsvCells.h"

#include <arrow/api.h>

#include <charconv>
#include <cmath>
#include <cstring>
#include <system_error>

#include "ArrowCells.h"
#include "CsvRecords.h"

namespace kyr::tool {

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isLineEnd(char c) { return c == '\n' || c == '\r'; }

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
    const auto [stop, error] = std::from_chars(at, end_, value);
    if (error != std::errc() || !isEnd(stop)) return false;
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
