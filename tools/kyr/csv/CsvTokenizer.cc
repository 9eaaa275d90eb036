#include "csv/CsvRecords.h"

namespace kyr::tool {

bool CsvRecordScanner::atLineEnd() const {
  return text_[position_] == '\n' || text_[position_] == '\r';
}

void CsvRecordScanner::skipLineEnd() {
  const bool isPair = text_.substr(position_, 2) == "\r\n";
  position_ += isPair ? 2 : 1;
  ++line_;
}

// Past the characters that mean nothing to the state.
void CsvRecordScanner::skipContent(State state) {
  const bool isQuoted = state == State::quoted;
  while (position_ < text_.size()) {
    const char c = text_[position_];
    if (c == '\n' || c == '\r' || c == (isQuoted ? '"' : ',')) return;
    ++position_;
  }
}

CsvRecordScanner::State CsvRecordScanner::skipCharacter(State state, CsvRecord& record) {
  const char c = text_[position_];
  if (state == State::quoted) {
    if (atLineEnd()) {
      skipLineEnd();
      return state;
    }
    ++position_;
    return c == '"' ? State::afterQuote : state;
  }
  ++position_;
  if (c == ',') {
    ++record.cells;
    return State::cellStart;
  }
  // A quotation mark means something at the start of a cell and, doubled, inside a quoted one.
  return c == '"' && state != State::plain ? State::quoted : State::plain;
}

bool CsvRecordScanner::next(CsvRecord& record) {
  while (position_ < text_.size() && atLineEnd()) skipLineEnd();
  if (position_ == text_.size()) return false;
  record = {};
  record.line = line_;
  const std::size_t begin = position_;
  State state = State::cellStart;
  while (position_ < text_.size() && (state == State::quoted || !atLineEnd())) {
    state = skipCharacter(state, record);
    if (state == State::plain || state == State::quoted) skipContent(state);
  }
  record.text = text_.substr(begin, position_ - begin);
  record.isUnclosed = state == State::quoted;
  if (position_ < text_.size()) skipLineEnd();
  return true;
}

void splitCells(std::string_view row, std::vector<std::string>& cells) {
  std::size_t count = 0;
  const auto nextCell = [&]() -> std::string& {
    if (count == cells.size()) cells.emplace_back();
    cells[count].clear();
    return cells[count++];
  };
  std::string* cell = &nextCell();
  bool isStart = true;  // of the cell
  bool isQuoted = false;
  bool isBehind = false;  // a quotation mark that closed, unless it is doubled
  for (const char c : row) {
    if (isQuoted && c != '"') {
      cell->push_back(c);
    } else if (isQuoted) {
      isQuoted = false;
      isBehind = true;
    } else if (c == ',') {
      cell = &nextCell();
      isStart = true;
      isBehind = false;
    } else if (c == '"' && (isStart || isBehind)) {
      if (isBehind) cell->push_back(c);
      isQuoted = true;
      isStart = isBehind = false;
    } else {
      cell->push_back(c);
      isStart = isBehind = false;
    }
  }
  cells.resize(count);
}

}  // namespace kyr::tool
