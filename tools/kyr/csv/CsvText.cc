#include "csv/CsvText.h"

#include <stdexcept>

#include "csv/CsvMessages.h"
#include "csv/CsvTokenizer.h"

namespace kyr::tool {

CsvText::CsvText(const std::string& path, const CsvOptions& options)
    : name_(path == "-" ? "standard input" : path), mapped_(path, options.encoding) {
  const std::size_t mark = byteOrderMarkSize(mapped_.text());
  const std::string_view text = mapped_.text().substr(mark);
  const std::string_view sample = sampleOf(text);
  layout_ = findLayout(name_, sample, sample.size() == text.size(), options);
  bodyPosition_ = mark + layout_.bodyPosition;
}

void CsvText::throwUnreadable(const std::string& otherwise) const {
  std::string ragged;
  CsvRows rows(body(), dialect(), bodyLine());
  for (CsvRow row; rows.next(row);) {
    const std::string line = describeLine(name_, row.line) + ": ";
    if (row.isUnclosed) throw std::runtime_error(line + kUnclosedQuote);
    const bool isPadded = dialect().ragged == RaggedRows::pad && row.cells < layout_.names.size();
    if (!ragged.empty() || row.cells == layout_.names.size() || isPadded) continue;
    ragged = line + wrongCellCount(row.cells, layout_.names.size()) + kRaggedHint;
  }
  throw std::runtime_error(ragged.empty() ? name_ + " cannot be read: " + otherwise : ragged);
}

}  // namespace kyr::tool
