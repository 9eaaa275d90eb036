#include "csv/BlockReader.h"

#include <cstring>

#include "cli/Text.h"
#include "csv/CsvTokenizer.h"
#include "csv/ShortDecimal.h"

namespace kyr::tool {

namespace {

std::uint64_t bitsOf(double value) {
  std::uint64_t bits = 0;
  std::memcpy(&bits, &value, sizeof(bits));
  return bits;
}

template <typename Integer>
bool appendInteger(std::string_view text, CellValues& cells) {
  Integer value = 0;
  if (!parseInteger(text, value)) return false;
  cells.words.push_back(static_cast<std::uint64_t>(value));
  return true;
}

/// Reads the rows of a block, and again those columns for which a cell rules out the kind so far.
class BlockReader {
 public:
  BlockReader(const CsvDialect& dialect, const std::vector<CellPlan>& plans, BlockValues& values)
      : dialect_(dialect),
        plans_(plans),
        values_(values),
        text_(values.block.text),
        tokens_(text_, dialect, 0) {
    for (std::size_t i = 0; i < plans.size(); ++i) {
      ways_.push_back(plans[i].isRead ? wayFor(i) : Way::skip);
      if (plans[i].isTime) timeColumn_ = i;
    }
  }

  void read() {
    bool isAgain = true;
    while (isAgain && !values_.failure) {
      readRows();
      isAgain = planAgain();
    }
    values_.times.first = textOf(firstTime_);
    values_.times.last = textOf(lastTime_);
  }

 private:
  enum class Way { skip, integer, real, other, again };

  Way wayFor(std::size_t column) const {
    if (plans_[column].parser) return Way::other;
    switch (values_.columns[column].kind) {
      case CellKind::integer:
        return Way::integer;
      case CellKind::real:
        return Way::real;
      case CellKind::text:
        return Way::skip;
      default:
        return Way::other;
    }
  }

  // Whether there is a column to read again; the others are not.
  bool planAgain() {
    bool isAgain = false;
    for (std::size_t i = 0; i < ways_.size(); ++i) {
      if (ways_[i] != Way::again) {
        ways_[i] = Way::skip;
        continue;
      }
      isAgain = true;
      values_.columns[i].clear(values_.columns[i].kind);
      ways_[i] = wayFor(i);
    }
    return isAgain;
  }

  void readRows() {
    tokens_ = CsvTokenizer(text_, dialect_, 0);
    values_.rows = 0;
    if (ways_[timeColumn_] != Way::skip) {
      firstTime_ = lastTime_ = {};
      values_.times.indistinct.reset();
    }
    const char* at = tokens_.nextRow(text_.data());
    while (at != tokens_.end() && !values_.failure) {
      at = tokens_.nextRow(readRow(at));
      ++values_.rows;
    }
    values_.lines = tokens_.line();
  }

  const char* readRow(const char* at) {
    const std::size_t columns = ways_.size();
    for (std::size_t i = 0;; ++at) {
      at = readCell(at, i);
      const bool isLast = ++i == columns;
      if (isLast != tokens_.isDelimiter(at)) {
        if (isLast) return at;
        continue;
      }
      values_.failure = "a row has too few or too many cells";
      return tokens_.end();
    }
  }

  const char* readCell(const char* at, std::size_t column) {
    const Way way = ways_[column];
    if (way == Way::skip || way == Way::again) return tokens_.skipCell(at);
    CellValues& cells = values_.columns[column];
    if (tokens_.isCellEnd(at)) {
      cells.missing.push_back(values_.rows);
      return at;
    }
    const char* end = nullptr;
    if (way == Way::real) end = readReal(at, cells);
    if (way == Way::integer) end = readInteger(at, cells);
    if (end == nullptr) {
      end = tokens_.skipCell(at);
      readText({at, static_cast<std::size_t>(end - at)}, column);
    }
    if (column == timeColumn_) noteTime({at, static_cast<std::size_t>(end - at)}, cells);
    return end;
  }

  // Returns the end of a number without quotes and blanks, or null if the cell is something else.
  const char* readReal(const char* at, CellValues& cells) {
    const ShortDecimal number = readShortDecimal(at, tokens_.end(), dialect_.decimalMark);
    if (number.end == nullptr || !tokens_.isCellEnd(number.end)) return nullptr;
    if (number.isExact) {
      cells.words.push_back(bitsOf(number.value));
      return number.end;
    }
    const std::string_view text(at, static_cast<std::size_t>(number.end - at));
    return appendReal(text, cells) ? number.end : nullptr;
  }

  // Does what readReal() does, for integers of so few digits that int64 holds them.
  const char* readInteger(const char* at, CellValues& cells) const {
    constexpr std::ptrdiff_t kDigits = 18;
    const bool isNegative = *at == '-';
    const char* const first = isNegative ? at + 1 : at;
    std::uint64_t value = 0;
    const char* const end = readDigits(first, tokens_.end(), value);
    if (end == first || end - first > kDigits || !tokens_.isCellEnd(end)) return nullptr;
    cells.words.push_back(isNegative ? 0 - value : value);
    return end;
  }

  bool appendReal(std::string_view text, CellValues& cells) {
    double value = 0;
    const CellFit fit = parseReal(text, dialect_.decimalMark, value);
    if (fit == CellFit::none) return false;
    if (fit == CellFit::tooLarge && !cells.misfit) cells.misfit = values_.rows;
    if (fit == CellFit::rounded && !cells.rounded) cells.rounded = values_.rows;
    cells.words.push_back(bitsOf(value));
    return true;
  }

  void readText(std::string_view cell, std::size_t column) {
    CellValues& cells = values_.columns[column];
    const std::string_view text = trimmed(cellText(cell, dialect_, unquoted_));
    if (text.empty()) {
      cells.missing.push_back(values_.rows);
    } else if (plans_[column].parser) {
      const CellFit fit = plans_[column].parser->append(text, cells.bytes);
      if (fit == CellFit::rounded && !cells.rounded) cells.rounded = values_.rows;
      if (fit == CellFit::exact || fit == CellFit::rounded) return;
      cells.misfit = values_.rows;
      ways_[column] = Way::skip;
    } else if (!append(cells.kind, text, column, cells)) {
      changeKind(text, column);
    }
  }

  bool append(CellKind kind, std::string_view text, std::size_t column, CellValues& cells) {
    switch (kind) {
      case CellKind::integer:
        return appendInteger<std::int64_t>(text, cells);
      case CellKind::unsignedInteger:
        return appendInteger<std::uint64_t>(text, cells);
      case CellKind::boolean: {
        bool isTrue = false;
        if (column == timeColumn_ || !parseTruthValue(text, isTrue)) return false;
        cells.bytes.push_back(isTrue ? 1 : 0);
        return true;
      }
      case CellKind::real:
        return appendReal(text, cells);
      default:
        return false;
    }
  }

  // Goes on to the next kind that fits the cell. Values of the kind before are read again.
  void changeKind(std::string_view text, std::size_t column) {
    CellValues& cells = values_.columns[column];
    const bool hasValues = !cells.isEmpty();
    CellValues unused;
    CellValues& target = hasValues ? unused : cells;
    CellKind kind = cells.kind;
    do {
      kind = static_cast<CellKind>(static_cast<int>(kind) + 1);
    } while (kind != CellKind::text && !append(kind, text, column, target));
    cells.kind = kind;
    if (kind == CellKind::text) cells.misfit = values_.rows;
    ways_[column] = hasValues && kind != CellKind::text ? Way::again : wayFor(column);
  }

  // Compares a time with the one before, if they have the same double.
  void noteTime(std::string_view cell, CellValues& cells) {
    const std::size_t count = cells.words.size();
    if (firstTime_.empty()) firstTime_ = cell;
    if (cells.kind == CellKind::real && !values_.times.indistinct && count > 1 &&
        cells.words[count - 1] == cells.words[count - 2] && lastTime_ != cell &&
        !isSameDecimal(textOf(lastTime_), textOf(cell), dialect_.decimalMark)) {
      values_.times.indistinct = values_.rows;
    }
    lastTime_ = cell;
  }

  std::string textOf(std::string_view cell) {
    return std::string(trimmed(cellText(cell, dialect_, unquoted_)));
  }

  const CsvDialect& dialect_;
  const std::vector<CellPlan>& plans_;
  BlockValues& values_;
  std::string_view text_;
  CsvTokenizer tokens_;
  std::vector<Way> ways_;
  std::size_t timeColumn_ = 0;
  std::string_view firstTime_;  // as they stand in the text
  std::string_view lastTime_;
  std::string unquoted_;
};

}  // namespace

void CellValues::clear(CellKind newKind) {
  kind = newKind;
  missing.clear();
  words.clear();
  bytes.clear();
  misfit.reset();
  rounded.reset();
}

void readBlock(const CsvBlock& block, const CsvDialect& dialect, const std::vector<CellPlan>& plans,
               BlockValues& values) {
  values.block = block;
  values.rows = 0;
  values.lines = 0;
  values.failure.reset();
  values.columns.resize(plans.size());
  for (std::size_t i = 0; i < plans.size(); ++i) values.columns[i].clear(plans[i].kind);
  if (block.isUnclosed) {
    values.failure = "a quotation mark is not closed";
    return;
  }
  BlockReader(dialect, plans, values).read();
}

}  // namespace kyr::tool
