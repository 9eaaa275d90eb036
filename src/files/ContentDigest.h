#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "files/ContentReader.h"
#include "kyr/parquet/ColumnNames.h"
#include "schema/ContentSummary.h"

namespace kyr::parquet {

/// The digest of the content's columns and rows, and more, as ContentSummarizer makes it.
ContentSummary summaryOf(ContentReader& content);

/// Calls visit(first, rows, times) with all rows of a content, in order, in pieces that need little
/// memory. The times are null if there is no column of them.
template <typename Visit>
void forEachPiece(ContentReader& content, Visit&& visit) {
  constexpr std::uint64_t kPieceRows = 65'536;
  std::vector<double> times;
  std::vector<char> numbers;
  for (std::size_t part = 0; part < content.parts(); ++part) {
    const std::uint64_t end = content.partStart(part + 1);
    for (std::uint64_t first = content.partStart(part); first < end;) {
      const std::uint64_t count =
          content.isFlat() ? std::min(end - first, kPieceRows) : end - first;
      const auto length = static_cast<std::size_t>(count);
      if (content.hasTimes()) {
        times.resize(length);
        content.readNumbers(columnNames::time, first, count, reinterpret_cast<char*>(times.data()));
      }
      HeldRows rows;
      if (content.isFlat()) {
        numbers.resize(length * content.width());
        content.readNumbers(columnNames::data, first, count, numbers.data());
        rows.rows.rows = length;
        rows.rows.elements = numbers.data();
        rows.rows.bytes = numbers.size();
      } else {
        rows = content.read(first, count);
      }
      visit(first, std::as_const(rows.rows), content.hasTimes() ? times.data() : nullptr);
      first += count;
    }
  }
}

}  // namespace kyr::parquet
