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
        tokens_(text_, dialect, 0),
        bareMark_(dialect.delimiter == dialect.decimalMark ? '\0' : dialect.decimalMark) {
    for (std::size_t i = 0; i < plans.size(); ++i) {
      ways_.push_back(plans[i].isRead ? wayFor(i) : Way::skip);
      if (plans[i].isTime) timeColumn_ = i;
    }
  }

  void read() {
    bool isAgain = true;
    while (isAgain && !values_.failure && cut_ == nullptr) {
      readRows();
      isAgain = planAgain();
    }
    values_.times.first = textOf(firstTime_);
    values_.times.last = textOf(lastTime_);
  }

  // Where the text has to end for its last row to be whole; null if it need not be cut.
  const char* cut() const { return cut_; }

 private:
  static constexpr std::size_t kNone = static_cast<std::size_t>(-1);

  enum class Way { skip, integer, real, text, other, again };

  // Times that turn out to be texts are refused, so nobody wants these texts.
  bool keepsTexts(std::size_t column) const {
    return plans_[column].keepsTexts && plans_[column].timeForm == nullptr;
  }

  Way wayFor(std::size_t column) const {
    const CellKind kind = values_.columns[column].kind;
    if (plans_[column].parser) return Way::other;
    if (plans_[column].timeForm != nullptr && kind != CellKind::text) return Way::other;
    switch (kind) {
      case CellKind::integer:
        return Way::integer;
      case CellKind::real:
        return Way::real;
      case CellKind::text:
        return keepsTexts(column) ? Way::text : Way::skip;
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
      CellValues& cells = values_.columns[i];
      const auto firstText = cells.misfit;
      const bool hadNumbers = cells.hadNumbers;
      cells.clear(cells.kind);
      if (cells.kind == CellKind::text) cells.misfit = firstText;
      cells.hadNumbers = hadNumbers;
      ways_[i] = wayFor(i);
    }
    return isAgain;
  }

  void readRows() {
    tokens_ = CsvTokenizer(text_, dialect_, 0);
    values_.rows = 0;
    if (timeColumn_ != kNone && ways_[timeColumn_] != Way::skip) {
      firstTime_ = lastTime_ = {};
      values_.times.indistinct.reset();
    }
    const char* at = tokens_.nextRow(text_.data());
    while (at != tokens_.end() && !values_.failure && cut_ == nullptr) {
      at = tokens_.nextRow(readRow(at));
      ++values_.rows;
    }
    values_.lines = tokens_.line();
  }

  const char* readRow(const char* at) {
    const std::size_t columns = ways_.size();
    const char* const begin = at;
    for (std::size_t i = 0;; at = tokens_.skipDelimiter(at)) {
      at = readCell(at, i);
      const bool isLast = ++i == columns;
      if (isLast != tokens_.isDelimiter(at)) {
        if (isLast) return at;
        continue;
      }
      return endRagged(begin, at, i);
    }
  }

  // The end of a row that has another number of cells than the header.
  // \param at  behind the last cell that was read
  // \param cells  number of cells that were read
  const char* endRagged(const char* begin, const char* at, std::size_t cells) {
    if (dialect_.ragged == RaggedRows::stop) {
      cut_ = begin;
      return tokens_.end();
    }
    const bool isShort = cells < ways_.size();
    while (dialect_.ragged == RaggedRows::pad && !isShort && tokens_.isDelimiter(at) &&
           tokens_.isCellEnd(tokens_.skipDelimiter(at))) {
      at = tokens_.skipDelimiter(at);
    }
    if (dialect_.ragged != RaggedRows::pad || tokens_.isDelimiter(at)) {
      values_.failure = "a row has too few or too many cells";
      return tokens_.end();
    }
    for (; cells < ways_.size(); ++cells) {
      const bool isRead = ways_[cells] != Way::skip && ways_[cells] != Way::again;
      if (isRead) values_.columns[cells].missing.push_back(values_.rows);
    }
    return at;
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
    if (way == Way::text) return keepText(at, column);
    if (end == nullptr) {
      end = tokens_.skipCell(at);
      readText({at, static_cast<std::size_t>(end - at)}, column);
    }
    if (column == timeColumn_) noteTime({at, static_cast<std::size_t>(end - at)}, cells);
    return end;
  }

  // Returns the end of a number without quotes and blanks, or null if the cell is something else.
  const char* readReal(const char* at, CellValues& cells) {
    const ShortDecimal number = readShortDecimal(at, tokens_.end(), bareMark_);
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
    if (fit != CellFit::exact && !cells.rounded) cells.rounded = values_.rows;
    cells.words.push_back(bitsOf(value));
    return true;
  }

  void readText(std::string_view cell, std::size_t column) {
    CellValues& cells = values_.columns[column];
    const std::string_view text = trimmed(cellText(cell, dialect_, unquoted_));
    if (isMissing(dialect_, text)) {
      cells.missing.push_back(values_.rows);
    } else if (plans_[column].parser) {
      const CellFit fit = plans_[column].parser->append(text, cells.bytes);
      if (fit == CellFit::exact) return;
      if (fit != CellFit::none && !cells.rounded) cells.rounded = values_.rows;
      if (fit != CellFit::none) return;
      cells.misfit = values_.rows;
      ways_[column] = Way::skip;
    } else if (!append(cells.kind, text, column, cells)) {
      changeKind(text, column);
    }
  }

  bool isNumber(std::string_view text) const {
    double value = 0;
    return parseReal(text, dialect_.decimalMark, value) != CellFit::none;
  }

  // Returns the end of a cell of text.
  const char* keepText(const char* at, std::size_t column) {
    const char* const end = tokens_.skipCell(at);
    const std::string_view cell(at, static_cast<std::size_t>(end - at));
    const std::string_view text = cellText(cell, dialect_, unquoted_);
    CellValues& cells = values_.columns[column];
    if (isNamedMissing(dialect_, trimmed(text))) {
      cells.missing.push_back(values_.rows);
      return end;
    }
    cells.hadNumbers = cells.hadNumbers || isNumber(trimmed(text));
    if (!isUtf8(text) && !values_.noUtf8) values_.noUtf8.emplace(values_.rows, column);
    cells.bytes.insert(cells.bytes.end(), text.begin(), text.end());
    cells.words.push_back(text.size());
    return end;
  }

  bool appendTime(CellKind kind, std::string_view text, const TimeForm& form, CellValues& cells) {
    if (kind == CellKind::integer) {
      const auto nanoseconds = form.nanoseconds(text, dialect_.decimalMark);
      if (nanoseconds) cells.words.push_back(static_cast<std::uint64_t>(*nanoseconds));
      return nanoseconds.has_value();
    }
    const auto seconds =
        kind == CellKind::real ? form.seconds(text, dialect_.decimalMark) : std::nullopt;
    if (seconds) cells.words.push_back(bitsOf(*seconds));
    return seconds.has_value();
  }

  bool append(CellKind kind, std::string_view text, std::size_t column, CellValues& cells) {
    if (const TimeForm* const form = plans_[column].timeForm) {
      return appendTime(kind, text, *form, cells);
    }
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
    const bool isText = kind == CellKind::text;
    if (isText) {
      cells.misfit = values_.rows;
      cells.hadNumbers = cells.kind != CellKind::empty;
    }
    cells.kind = kind;
    const bool isWanted = !isText || keepsTexts(column);
    ways_[column] = isWanted && (hasValues || isText) ? Way::again : wayFor(column);
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
    const bool isRounded = cells.kind == CellKind::real && !cells.rounded &&
                           plans_[timeColumn_].timeForm == nullptr &&
                           isRoundedSecond(cell, dialect_.decimalMark);
    if (isRounded) cells.rounded = values_.rows;
  }

  std::string textOf(std::string_view cell) {
    return std::string(trimmed(cellText(cell, dialect_, unquoted_)));
  }

  const CsvDialect& dialect_;
  const std::vector<CellPlan>& plans_;
  BlockValues& values_;
  std::string_view text_;
  CsvTokenizer tokens_;
  char bareMark_;  // the decimal mark of numbers without quotes, which the delimiter ends
  std::vector<Way> ways_;
  std::size_t timeColumn_ = kNone;
  const char* cut_ = nullptr;
  std::string_view firstTime_;  // as they stand in the text
  std::string_view lastTime_;
  std::string unquoted_;
};

// The start of the row in which a quotation mark is not closed.
const char* beginOfUnclosed(std::string_view text, const CsvDialect& dialect) {
  CsvRows rows(text, dialect, 0);
  CsvRow row;
  while (rows.next(row) && !row.isUnclosed) {
  }
  return row.text.data();
}

void cutBlock(BlockValues& values, const char* end) {
  CsvBlock& block = values.block;
  block.text = block.text.substr(0, static_cast<std::size_t>(end - block.text.data()));
  block.isUnclosed = false;
  values.isCut = true;
}

}  // namespace

void CellValues::clear(CellKind newKind) {
  kind = newKind;
  missing.clear();
  words.clear();
  bytes.clear();
  misfit.reset();
  rounded.reset();
  hadNumbers = false;
}

void readBlock(const CsvBlock& block, const CsvDialect& dialect, const std::vector<CellPlan>& plans,
               BlockValues& values) {
  values.block = block;
  values.isCut = false;
  if (block.isUnclosed && dialect.ragged == RaggedRows::stop) {
    const char* const end = beginOfUnclosed(block.text, dialect);
    cutBlock(values, end);
  }
  const char* cut = nullptr;
  do {
    if (cut != nullptr) cutBlock(values, cut);
    values.rows = 0;
    values.lines = 0;
    values.failure.reset();
    values.noUtf8.reset();
    values.columns.resize(plans.size());
    for (std::size_t i = 0; i < plans.size(); ++i) values.columns[i].clear(plans[i].kind);
    if (values.block.isUnclosed) {
      values.failure = "a quotation mark is not closed";
      return;
    }
    BlockReader reader(dialect, plans, values);
    reader.read();
    cut = reader.cut();
  } while (cut != nullptr);
}

}  // namespace kyr::tool
