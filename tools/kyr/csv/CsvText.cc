#include "csv/CsvText.h"

#include <stdexcept>
#include <utility>

#include "csv/CsvHeader.h"
#include "csv/CsvMessages.h"

namespace kyr::tool {

CsvText::CsvText(std::string path, CsvDialect dialect)
    : path_(std::move(path)), dialect_(std::move(dialect)), mapped_(path_) {
  readHeader();
}

void CsvText::readHeader() {
  const std::string_view text = mapped_.text();
  const std::size_t begin = byteOrderMarkSize(path_, text);
  CsvRows rows(text.substr(begin), dialect_, 1);
  CsvRow row;
  for (std::size_t i = 0; i < dialect_.headerRow; ++i) {
    if (!rows.next(row)) throwNoHeader(path_);
  }
  header_ = headerCells(path_, row, dialect_);
  bodyPosition_ = begin + rows.position();
  bodyLine_ = rows.line();
}

void CsvText::throwUnreadable(const std::string& otherwise) const {
  std::string ragged;
  CsvRows rows(body(), dialect_, bodyLine_);
  for (CsvRow row; rows.next(row);) {
    const std::string line = describeLine(path_, row.line) + ": ";
    if (row.isUnclosed) throw std::runtime_error(line + kUnclosedQuote);
    if (!ragged.empty() || row.cells == header_.size()) continue;
    ragged = line + wrongCellCount(row.cells, header_.size());
  }
  throw std::runtime_error(ragged.empty() ? path_ + " cannot be read: " + otherwise : ragged);
}

}  // namespace kyr::tool
