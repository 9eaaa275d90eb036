#include "csv/CsvLayout.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "cli/Text.h"
#include "csv/CsvMessages.h"
#include "csv/CsvTokenizer.h"
#include "csv/DialectGuess.h"
#include "csv/TimeColumn.h"
#include "csv/TimeStamps.h"
#include "kyr/platform/Path.h"

namespace kyr::tool {

namespace {

constexpr std::size_t kSampleRows = 100;

struct SampleRow {
  CsvRow row;
  std::vector<std::string> cells;
  std::size_t end = 0;       ///< position behind it
  std::int64_t endLine = 0;  ///< the line there
};

using SampleRows = std::vector<SampleRow>;

// Steps over lines and counts them.
struct LineWalk {
  std::string_view text;
  std::size_t at = 0;
  std::int64_t line = 1;

  bool isAtEnd() const { return at >= text.size(); }
  std::string_view current() const {
    return text.substr(at, std::min(text.find_first_of("\r\n", at), text.size()) - at);
  }
  void next() {
    at = std::min(text.find_first_of("\r\n", at), text.size());
    if (isAtEnd()) return;
    at += text.substr(at, 2) == "\r\n" ? 2 : 1;
    ++line;
  }
};

bool isComment(std::string_view line) {
  return !line.empty() && (line.front() == '#' || line.front() == '%');
}

// Whether a cell says a moment or a number, as cells with values do.
bool isValue(const std::string& cell, const CsvDialect& dialect) {
  return isNumberCell(cell, dialect) || parseIso(cell) || parseClock(cell);
}

bool isMissingCell(const std::string& cell, const CsvDialect& dialect) {
  return isMissing(dialect, cell);
}

bool hasValue(const SampleRow& row, const CsvDialect& dialect) {
  return std::any_of(row.cells.begin(), row.cells.end(),
                     [&](const std::string& cell) { return isValue(cell, dialect); });
}

bool hasValuesOnly(const SampleRow& row, const CsvDialect& dialect) {
  return hasValue(row, dialect) &&
         std::all_of(row.cells.begin(), row.cells.end(), [&](const std::string& cell) {
           return isMissingCell(cell, dialect) || isValue(cell, dialect);
         });
}

// Where the names, or else the values, begin.
struct Beginning {
  LineWalk start;
  std::string_view comment;  // the last one above; empty without one
  CsvOptions options;        // with the delimiter that the text itself tells
};

// Spreadsheets tell the delimiter in a line of its own, "sep=;".
Beginning findBeginning(std::string_view text, const CsvOptions& options) {
  Beginning result{{text}, {}, options};
  LineWalk& walk = result.start;
  const std::size_t skipped = options.headerLine ? *options.headerLine - 1 : options.skippedLines;
  for (std::size_t i = 0; i < skipped && !walk.isAtEnd(); ++i) walk.next();
  constexpr std::string_view kSeparator = "sep=";
  const std::string_view first = walk.current();
  if (first.size() == kSeparator.size() + 1 && first.substr(0, kSeparator.size()) == kSeparator) {
    if (options.delimiter.empty()) result.options.delimiter = first.back();
    walk.next();
  }
  const auto isSkipped = [&] {
    return !options.headerLine && !walk.isAtEnd() &&
           (walk.current().empty() || isComment(walk.current()));
  };
  for (; isSkipped(); walk.next()) result.comment = walk.current();
  walk.at = std::min(walk.at, text.size());
  return result;
}

SampleRows readRows(std::string_view text, bool isWhole, const CsvDialect& dialect,
                    const LineWalk& start) {
  SampleRows rows;
  CsvRows walker(text.substr(start.at), dialect, start.line);
  for (CsvRow row; rows.size() < kSampleRows && walker.next(row);) {
    if (!row.isEnded && !isWhole && !rows.empty()) break;
    SampleRow& sample = rows.emplace_back();
    sample.row = row;
    splitRow(row.text, dialect, sample.cells);
    for (std::string& cell : sample.cells) cell = std::string(trimmed(cell));
    sample.end = start.at + walker.position();
    sample.endLine = walker.line();
  }
  return rows;
}

void requireReadable(const std::string& source, const CsvRow& row) {
  const std::string line = describeLine(source, row.line);
  if (row.isUnclosed) throw std::runtime_error(line + ": " + kUnclosedQuote);
  if (row.text.find('\0') != std::string_view::npos) {
    throw std::runtime_error(line +
                             ": the header holds zero bytes, as those of UTF-16 do "
                             "(--encoding utf-16le, or the name of another encoding, converts it)");
  }
  try {
    static_cast<void>(toUtf16(row.text));
  } catch (const std::invalid_argument&) {
    throw std::runtime_error(line +
                             ": the header is not UTF-8 text (--encoding latin1, or the "
                             "name of another encoding, converts it)");
  }
}

// Units in brackets or without, such as a row below the names has them.
std::string bareUnit(const std::string& cell) {
  const bool isBracketed = cell.size() > 1 && ((cell.front() == '[' && cell.back() == ']') ||
                                               (cell.front() == '(' && cell.back() == ')'));
  return isBracketed ? std::string(trimmed(std::string_view(cell).substr(1, cell.size() - 2)))
                     : cell;
}

// A row without values below the names, if values follow in the row after it.
bool hasUnits(const SampleRows& rows, const CsvDialect& dialect) {
  constexpr std::size_t kLongestUnit = 20;
  if (rows.size() < 3 || rows[1].cells.size() != rows[0].cells.size()) return false;
  const std::vector<std::string>& cells = rows[1].cells;
  if (hasValue(rows[1], dialect) || !hasValue(rows[2], dialect)) return false;
  const auto isUnit = [](const std::string& cell) {
    return !isTimeName(cell) && cell.size() <= kLongestUnit &&
           cell.find_first_of(",;\"") == std::string::npos;
  };
  // A column of text has text in both rows.
  for (std::size_t i = 0; i < cells.size() && i < rows[2].cells.size(); ++i) {
    const std::string& below = rows[2].cells[i];
    const bool isText = !isValue(below, dialect) && !isMissingCell(below, dialect);
    if (isText && !cells[i].empty() && bareUnit(cells[i]) == cells[i]) return false;
  }
  return std::all_of(cells.begin(), cells.end(), isUnit);
}

void noteDialect(const std::string& source, const CsvOptions& options, CsvLayout& layout) {
  const CsvDialect& dialect = layout.dialect;
  const bool isUsual =
      dialect.delimiter == ',' && dialect.quote == '"' && dialect.decimalMark == '.';
  if (!options.delimiter.empty() || isUsual) return;
  const std::string delimiter = dialect.delimiter == '\t'  ? "tabs"
                                : dialect.delimiter == ' ' ? "blanks"
                                                           : inQuotes({&dialect.delimiter, 1});
  std::string note = fmt::format("{}: the cells are separated by {}", source, delimiter);
  if (dialect.decimalMark == ',') note += ", and numbers have a decimal comma";
  if (dialect.quote != '"') note += fmt::format(", and are enclosed in {}", dialect.quote);
  layout.notes.push_back(note + " (--delimiter, --decimal and --quote say otherwise)");
}

// Names of columns without a header: those in a comment of as many cells above them, or numbers.
void nameWithoutHeader(const std::string& source, const SampleRow& first, std::string_view comment,
                       const CsvOptions& options, CsvLayout& layout) {
  const std::size_t begin = comment.find_first_not_of("#% \t");
  if (begin != std::string_view::npos && !options.hasNoHeader) {
    std::vector<std::string> names;
    splitRow(comment.substr(begin), layout.dialect, names);
    if (names.size() == first.cells.size()) {
      for (std::string& name : names) name = std::string(trimmed(name));
      layout.names = std::move(names);
      layout.notes.push_back(
          fmt::format("{}: the comment above the first row names the columns "
                      "(--no-header says otherwise)",
                      source));
      return;
    }
  }
  for (std::size_t i = 0; i < first.cells.size(); ++i) {
    layout.names.push_back(fmt::format("column {}", i + 1));
  }
  if (options.hasNoHeader) return;
  layout.notes.push_back(fmt::format(
      "{}: line {} holds values and no names, so the columns are called column 1 to column {} "
      "(--header LINE says otherwise)",
      source, first.row.line, first.cells.size()));
}

[[noreturn]] void throwNoHeader(const std::string& source, const LineWalk& start) {
  if (start.text.find_first_not_of("\r\n") == std::string_view::npos) {
    throw std::runtime_error(source + " is empty: the first line must name the columns");
  }
  throw std::runtime_error(fmt::format("{}: there is no row from line {} on", source, start.line));
}

}  // namespace

std::size_t byteOrderMarkSize(std::string_view text) {
  constexpr std::string_view kUtf8Mark = "\xef\xbb\xbf";
  return text.substr(0, kUtf8Mark.size()) == kUtf8Mark ? kUtf8Mark.size() : 0;
}

std::string_view sampleOf(std::string_view text) {
  constexpr std::size_t kBytes = std::size_t{1} << 18U;
  constexpr std::size_t kFewLines = 20;
  std::size_t at = 0;
  for (std::size_t lines = 0; lines < kSampleRows; ++lines) {
    const std::size_t end = text.find_first_of("\r\n", at);
    if (end == std::string_view::npos) return text;
    at = end + (text.substr(end, 2) == "\r\n" ? 2 : 1);
    if (at > kBytes && lines >= kFewLines) break;
  }
  return text.substr(0, at);
}

bool isEnoughForLayout(std::string_view text, const CsvOptions& options) {
  constexpr std::size_t kEnough = 5;
  const Beginning beginning = findBeginning(text, options);
  const LineWalk& start = beginning.start;
  const CsvDialect dialect = guessDialect(text.substr(start.at), beginning.options);
  const SampleRows rows = readRows(text, /*isWhole=*/false, dialect, start);
  if (rows.size() < 2) return false;
  return rows.size() >= kEnough || hasValue(rows.back(), dialect);
}

CsvLayout findLayout(const std::string& source, std::string_view text, bool isWhole,
                     const CsvOptions& options) {
  const Beginning beginning = findBeginning(text, options);
  const LineWalk& start = beginning.start;
  CsvLayout layout;
  layout.dialect = guessDialect(text.substr(start.at), beginning.options);
  SampleRows rows = readRows(text, isWhole, layout.dialect, start);
  if (rows.empty()) throwNoHeader(source, start);
  noteDialect(source, options, layout);

  const bool hasHeader =
      !options.hasNoHeader && (options.headerLine || !hasValuesOnly(rows[0], layout.dialect));
  std::size_t body = 0;
  layout.bodyPosition = static_cast<std::size_t>(rows[0].row.text.data() - text.data());
  layout.bodyLine = rows[0].row.line;
  if (hasHeader) {
    requireReadable(source, rows[0].row);
    layout.names = rows[0].cells;
    layout.isHeaderEnded = rows[0].row.isEnded;
    body = 1;
    if (hasUnits(rows, layout.dialect)) {
      requireReadable(source, rows[1].row);
      for (const std::string& cell : rows[1].cells) layout.units.push_back(bareUnit(cell));
      body = 2;
    }
    layout.bodyPosition = rows[body - 1].end;
    layout.bodyLine = rows[body - 1].endLine;
  } else {
    nameWithoutHeader(source, rows[0], beginning.comment, options, layout);
  }
  for (std::size_t i = body; i < rows.size(); ++i) layout.rows.push_back(std::move(rows[i].cells));
  return layout;
}

}  // namespace kyr::tool
