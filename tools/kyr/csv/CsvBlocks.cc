#include "csv/CsvBlocks.h"

#include <algorithm>

#include "csv/CsvTokenizer.h"

namespace kyr::tool {

// The end of the last row that ends before \p end, or else of the first row. This is a shortcut for
// texts without quotes: it does not look at every character.
std::size_t CsvBlockCutter::endOfRows(std::size_t end) const {
  if (end == text_.size()) return end;
  const std::string_view head = text_.substr(0, end);
  std::size_t last = head.rfind('\n');
  if (last != std::string_view::npos) return last + 1;
  last = head.rfind('\r');
  if (last == std::string_view::npos) last = text_.find_first_of("\r\n", end);
  if (last == std::string_view::npos) return text_.size();
  return text_.substr(last, 2) == "\r\n" ? last + 2 : last + 1;
}

// The end of the row at \p wanted, for texts with quotes. Only lines that have some are split.
std::size_t CsvBlockCutter::endOfQuotedRows(std::size_t wanted, bool& isUnclosed) const {
  std::size_t at = 0;
  std::size_t quote = text_.find(dialect_.quote);
  std::size_t lineEnd = std::min(text_.find('\n'), text_.size() - 1);
  while (at < wanted) {
    if (quote < at) quote = text_.find(dialect_.quote, at);
    if (lineEnd < at) lineEnd = std::min(text_.find('\n', at), text_.size() - 1);
    if (quote > lineEnd) {
      at = lineEnd + 1;
      continue;
    }
    CsvRows rows(text_.substr(at), dialect_, 0);
    CsvRow row;
    if (rows.next(row)) isUnclosed = row.isUnclosed;
    at += rows.position();
  }
  return at;
}

bool CsvBlockCutter::next(CsvBlock& block) {
  block = {};
  if (text_.empty()) return false;
  const std::size_t wanted = std::min(kBlockBytes, text_.size());
  const auto hasQuotes = [this](std::size_t size) {
    return text_.substr(0, size).find(dialect_.quote) != std::string_view::npos;
  };
  std::size_t end = endOfRows(wanted);
  if (hasQuotes(end)) end = endOfQuotedRows(wanted, block.isUnclosed);
  block.text = text_.substr(0, end);
  text_.remove_prefix(end);
  return true;
}

}  // namespace kyr::tool
