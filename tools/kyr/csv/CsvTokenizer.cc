#include "csv/CsvTokenizer.h"

#include <arrow/util/utf8.h>

#include <algorithm>

namespace kyr::tool {

bool CsvTokenizer::startsComment(const char* at) const {
  const std::string_view rest(at, static_cast<std::size_t>(end_ - at));
  return std::any_of(
      dialect_->commentPrefixes.begin(), dialect_->commentPrefixes.end(),
      [&](const std::string& prefix) { return rest.substr(0, prefix.size()) == prefix; });
}

const char* CsvTokenizer::findLineEnd(const char* at) const {
  return std::find_if(at, end_, isLineEnd);
}

// Skips the quoted part that starts at \p at. A doubled quote looks like the end of one part and
// the start of the next.
const char* CsvTokenizer::skipQuoted(const char* at) {
  while (at != end_ && *at == dialect_->quote) {
    ++at;
    while (at != end_ && *at != dialect_->quote) at = isLineEnd(*at) ? skipLineEnd(at) : at + 1;
    isUnclosed_ = at == end_;
    if (!isUnclosed_) ++at;
  }
  return at;
}

bool CsvRows::next(CsvRow& row) {
  at_ = tokens_.nextRow(at_);
  if (at_ == tokens_.end()) return false;
  const char* const begin = at_;
  row = {};
  row.line = tokens_.line();
  bool hasMore = true;
  while (hasMore) {
    at_ = tokens_.skipCell(at_);
    ++row.cells;
    hasMore = tokens_.isDelimiter(at_);
    if (hasMore) at_ = tokens_.skipDelimiter(at_);
  }
  row.text = {begin, static_cast<std::size_t>(at_ - begin)};
  row.isUnclosed = tokens_.isUnclosed();
  at_ = tokens_.skipBlanks(at_);
  row.isEnded = at_ != tokens_.end();
  return true;
}

std::string_view cellText(std::string_view cell, const CsvDialect& dialect, std::string& unquoted) {
  if (cell.empty() || cell.front() != dialect.quote) return cell;
  unquoted.clear();
  std::size_t at = 0;
  while (at < cell.size() && cell[at] == dialect.quote) {
    if (at > 0) unquoted.push_back(dialect.quote);
    const std::size_t close = std::min(cell.find(dialect.quote, at + 1), cell.size());
    unquoted.append(cell.substr(at + 1, close - at - 1));
    at = close + 1;
  }
  if (at < cell.size()) unquoted.append(cell.substr(at));
  return unquoted;
}

bool isUtf8(std::string_view text) {
  static const bool isReady = (::arrow::util::InitializeUTF8(), true);
  return isReady && ::arrow::util::ValidateUTF8(text);
}

void splitRow(std::string_view row, const CsvDialect& dialect, std::vector<std::string>& cells) {
  std::vector<std::string_view> views;
  std::deque<std::string> unquoted;
  splitRow(row, dialect, views, unquoted);
  cells.assign(views.begin(), views.end());
}

void splitRow(std::string_view row, const CsvDialect& dialect, std::vector<std::string_view>& cells,
              std::deque<std::string>& unquoted) {
  CsvTokenizer tokens(row, dialect, 0);
  cells.clear();
  unquoted.clear();
  const char* at = row.data();
  for (bool hasMore = true; hasMore;) {
    const char* const end = tokens.skipCell(at);
    const std::string_view cell(at, static_cast<std::size_t>(end - at));
    const bool isQuoted = !cell.empty() && cell.front() == dialect.quote;
    cells.push_back(isQuoted ? cellText(cell, dialect, unquoted.emplace_back()) : cell);
    hasMore = tokens.isDelimiter(end);
    if (hasMore) at = tokens.skipDelimiter(end);
  }
}

CsvPlace placeOf(std::string_view text, const CsvDialect& dialect, std::int64_t line,
                 std::uint32_t row, std::size_t column) {
  CsvRows rows(text, dialect, line);
  CsvRow found;
  for (std::uint32_t i = 0; i <= row; ++i) rows.next(found);
  std::vector<std::string> cells;
  splitRow(found.text, dialect, cells);
  return {found.line, column < cells.size() ? cells[column] : std::string()};
}

}  // namespace kyr::tool
