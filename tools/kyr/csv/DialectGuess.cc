#include "csv/DialectGuess.h"

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "cli/Text.h"
#include "csv/CellNumbers.h"
#include "csv/CsvTokenizer.h"

namespace kyr::tool {

namespace {

constexpr std::size_t kRows = 50;

// How well a dialect splits the text: the share of rows with the commonest number of cells, and one
// more if the first row, which mostly names the columns, has as many. 0 for a single column.
double scoreOf(std::string_view text, const CsvDialect& dialect) {
  std::map<std::size_t, std::size_t> counts;
  std::size_t first = 0;
  std::size_t rows = 0;
  CsvRows walker(text, dialect, 1);
  for (CsvRow row; rows < kRows && walker.next(row); ++rows) {
    if (rows == 0) first = row.cells;
    ++counts[row.cells];
  }
  std::size_t common = 0;
  std::size_t most = 0;
  for (const auto& [cells, times] : counts) {
    if (times < most) continue;
    most = times;
    common = cells;
  }
  if (common < 2) return 0;
  const double share = static_cast<double>(most) / static_cast<double>(rows);
  return share + (first == common ? 1 : 0);
}

// Cells in single quotation marks, as many of which begin as end, in a text without any others.
char guessQuote(std::string_view text) {
  if (text.find('"') != std::string_view::npos) return '"';
  constexpr std::string_view kEdges = ",;|\t\r\n";
  const auto isEdge = [&](std::size_t at) {
    return at >= text.size() || kEdges.find(text[at]) != std::string_view::npos;
  };
  std::size_t begins = 0;
  std::size_t ends = 0;
  for (std::size_t at = text.find('\''); at < text.size(); at = text.find('\'', at + 1)) {
    if (at == 0 || isEdge(at - 1)) ++begins;
    if (isEdge(at + 1)) ++ends;
  }
  return begins > 0 && begins == ends ? '\'' : '"';
}

// Where commas separate the cells, numbers with a decimal comma are in quotation marks. The comma
// in "1,234" may separate thousands there, so it does not count.
char guessDecimalMark(std::string_view text, const CsvDialect& dialect) {
  CsvDialect german = dialect;
  german.decimalMark = ',';
  const bool isUnclear = dialect.delimiter == ',' && dialect.decimalMark != ',';
  std::size_t commas = 0;
  std::size_t points = 0;
  std::vector<std::string> cells;
  CsvRows walker(text, dialect, 1);
  CsvRow row;
  for (std::size_t rows = 0; rows < kRows && walker.next(row); ++rows) {
    splitRow(row.text, dialect, cells);
    for (const std::string& cell : cells) {
      const bool hasComma = cell.find(',') != std::string::npos;
      const bool hasPoint = cell.find('.') != std::string::npos;
      const bool isClear = !isUnclear || !hasThousands(trimmed(cell));
      if (hasComma && isClear && isNumberCell(cell, german)) ++commas;
      if (hasPoint && isNumberCell(cell, dialect)) ++points;
    }
  }
  return commas > points ? ',' : '.';
}

// Semicolons and tabs hardly occur otherwise. Blanks do, so they come last.
char guessDelimiter(std::string_view text, CsvDialect dialect) {
  char best = dialect.decimalMark == ',' ? ';' : ',';
  double most = 0;
  for (const char delimiter : {';', '\t', '|', ','}) {
    const bool isDecimal = delimiter == dialect.decimalMark;
    dialect.delimiter = delimiter;
    if (isDecimal && guessDecimalMark(text, dialect) != delimiter) continue;
    const double score = scoreOf(text, dialect);
    if (score <= most) continue;
    most = score;
    best = delimiter;
  }
  dialect.delimiter = ' ';
  return most == 0 && scoreOf(text, dialect) > 1 ? ' ' : best;
}

}  // namespace

bool isNumberCell(std::string_view cell, const CsvDialect& dialect) {
  double value = 0;
  return parseReal(trimmed(cell), dialect.decimalMark, value) != CellFit::none;
}

CsvDialect guessDialect(std::string_view text, const CsvOptions& options) {
  CsvDialect dialect = givenDialect(options);
  if (options.quote.empty()) dialect.quote = guessQuote(text);
  if (options.delimiter.empty()) dialect.delimiter = guessDelimiter(text, dialect);
  if (options.decimal.empty()) dialect.decimalMark = guessDecimalMark(text, dialect);
  return dialect;
}

}  // namespace kyr::tool
