#include "csv/CsvReview.h"

#include <utility>

#include "csv/CellParser.h"

namespace kyr::tool {

namespace {

bool spells(KYRSignalDataType type, const std::string& cell) {
  std::vector<char> value;
  return cellParser(type)(cell, value);
}

void review(const CsvPlace& place, CellReview& found) {
  const std::string& cell = place.cell;
  if (cell.empty()) return;
  if (!found.first) found.first = place;
  if (!found.firstNoDouble && !spells(Double, cell)) found.firstNoDouble = place;
  if (!found.firstNoUInt64 && !spells(UInt64, cell)) found.firstNoUInt64 = place;
  if (cell.find_first_not_of("0123456789+- \t") != std::string::npos) found.hasFraction = true;
}

}  // namespace

std::map<std::size_t, CellReview> reviewCells(
    CsvRecordScanner rows, const std::vector<std::size_t>& places,
    const std::function<bool(const CellReview& review)>& isDone) {
  std::map<std::size_t, CellReview> reviews;
  std::vector<std::size_t> open = places;
  for (const std::size_t place : places) reviews[place];
  std::vector<std::string> cells;
  for (CsvRecord row; !open.empty() && rows.next(row);) {
    splitCells(row.text, cells);
    std::vector<std::size_t> stillOpen;
    for (const std::size_t place : open) {
      review({row.line, cells[place]}, reviews[place]);
      if (!isDone(reviews[place])) stillOpen.push_back(place);
    }
    open = std::move(stillOpen);
  }
  return reviews;
}

CsvRecord recordAt(CsvRecordScanner rows, std::uint32_t row) {
  CsvRecord record;
  for (std::uint32_t i = 0; i <= row; ++i) rows.next(record);
  return record;
}

CsvPlace placeIn(const CsvRecord& record, std::size_t place) {
  std::vector<std::string> cells;
  splitCells(record.text, cells);
  return {record.line, cells.at(place)};
}

}  // namespace kyr::tool
