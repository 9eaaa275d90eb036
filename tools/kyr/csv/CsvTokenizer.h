#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "csv/CsvDialect.h"

namespace kyr::tool {

/// Splits a CSV text into rows and cells. Everything that reads CSV uses these rules:
///
/// - A row ends at "\n", "\r\n" or "\r", or where the text ends.
/// - Empty lines and comment lines are no rows.
/// - A quote at the start of a cell opens a quoted part, in which delimiters and line ends are
///   content and two quotes stand for one. Text behind the closing quote belongs to the cell, too.
///   A quote anywhere else is content.
/// - Where blanks are delimiters, several count as one, and none as one at the ends of a row.
///
/// Positions are pointers into the text. Text and dialect must outlive the tokenizer.
class CsvTokenizer {
 public:
  /// \param line  number of the line at which \p text begins
  CsvTokenizer(std::string_view text, const CsvDialect& dialect, std::int64_t line)
      : end_(text.data() + text.size()),
        dialect_(&dialect),
        delimiter_(dialect.delimiter),
        skipsBlanks_(dialect.delimiter == ' '),
        line_(line) {}

  /// The end of the text.
  const char* end() const { return end_; }

  /// The start of the first row at or behind \p at, which is the start or the end of a line; end()
  /// if there is none.
  const char* nextRow(const char* at) {
    at = skipBlanks(at);
    while (at != end_ && (isLineEnd(*at) || isComment(at))) {
      at = skipBlanks(isLineEnd(*at) ? skipLineEnd(at) : findLineEnd(at));
    }
    return at;
  }

  /// The end of the cell that starts at \p at.
  const char* skipCell(const char* at) {
    if (at != end_ && *at == dialect_->quote) at = skipQuoted(at);
    while (!isCellEnd(at)) ++at;
    return at;
  }

  /// Whether a cell without quotes ends at \p at.
  bool isCellEnd(const char* at) const { return at == end_ || *at == delimiter_ || isLineEnd(*at); }

  /// Whether another cell follows the one that ends at \p at.
  bool isDelimiter(const char* at) const {
    return at != end_ && *at == delimiter_ && (!skipsBlanks_ || hasCellBehind(at));
  }

  /// The start of the cell behind the delimiter at \p at.
  const char* skipDelimiter(const char* at) const { return skipBlanks(at + 1); }

  /// Skips blanks if they are delimiters.
  const char* skipBlanks(const char* at) const {
    while (skipsBlanks_ && at != end_ && *at == ' ') ++at;
    return at;
  }

  /// The line of the last position that was returned.
  std::int64_t line() const { return line_; }

  /// Whether the text ended within quotes.
  bool isUnclosed() const { return isUnclosed_; }

 private:
  static bool isLineEnd(char c) { return c == '\n' || c == '\r'; }

  bool hasCellBehind(const char* at) const {
    at = skipBlanks(at);
    return at != end_ && !isLineEnd(*at);
  }
  bool isComment(const char* at) const {
    return !dialect_->commentPrefixes.empty() && startsComment(at);
  }
  bool startsComment(const char* at) const;
  const char* findLineEnd(const char* at) const;
  const char* skipQuoted(const char* at);

  const char* skipLineEnd(const char* at) {
    ++line_;
    return *at == '\r' && at + 1 != end_ && at[1] == '\n' ? at + 2 : at + 1;
  }

  const char* end_;
  const CsvDialect* dialect_;
  char delimiter_;
  bool skipsBlanks_;
  std::int64_t line_;
  bool isUnclosed_ = false;
};

/// One row of a CSV text.
struct CsvRow {
  std::int64_t line = 0;    ///< line at which it begins
  std::string_view text;    ///< without the line end
  std::size_t cells = 0;    ///< number of cells
  bool isUnclosed = false;  ///< whether the text ends within quotes
  bool isEnded = false;     ///< whether a line end follows
};

/// Walks over the rows of a CSV text.
class CsvRows {
 public:
  /// \param line  number of the line at which \p text begins
  CsvRows(std::string_view text, const CsvDialect& dialect, std::int64_t line)
      : text_(text), at_(text.data()), tokens_(text, dialect, line) {}

  /// Steps to the next row; false at the end of the text.
  bool next(CsvRow& row);

  /// Where the last row ended, and in which line. The line end comes after it.
  std::size_t position() const { return static_cast<std::size_t>(at_ - text_.data()); }
  std::int64_t line() const { return tokens_.line(); }

 private:
  std::string_view text_;
  const char* at_;
  CsvTokenizer tokens_;
};

/// What a cell says: the cell itself, or \p unquoted, which is replaced, if it is quoted.
std::string_view cellText(std::string_view cell, const CsvDialect& dialect, std::string& unquoted);

/// Whether a text is UTF-8.
bool isUtf8(std::string_view text);

/// Replaces \p cells with what the cells of a row say.
void splitRow(std::string_view row, const CsvDialect& dialect, std::vector<std::string>& cells);
/// Does so without copies: cells lie in \p row, and those that are quoted in \p unquoted.
void splitRow(std::string_view row, const CsvDialect& dialect, std::vector<std::string_view>& cells,
              std::deque<std::string>& unquoted);

/// A cell that a message names.
struct CsvPlace {
  std::int64_t line = 0;  ///< line at which its row begins
  std::string cell;
};

/// The cell in row \p row, counted from 0, and column \p column of a text.
/// \param line  number of the line at which \p text begins
CsvPlace placeOf(std::string_view text, const CsvDialect& dialect, std::int64_t line,
                 std::uint32_t row, std::size_t column);

}  // namespace kyr::tool
