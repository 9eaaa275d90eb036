#pragma once

#include <fmt/format.h>

#include <cstddef>
#include <cstring>
#include <deque>
#include <functional>
#include <future>
#include <vector>

#include "cli/Output.h"

namespace kyr::tool {

/// Prints rows of numbers as CSV. The text of many rows is made some thousand cells at a time, each
/// in a thread of its own, while the caller goes on with the next ones.
class RowTexts {
 public:
  using CellText = void (*)(fmt::memory_buffer& out, const char* element);
  using TimeText = std::function<void(fmt::memory_buffer& out, double time)>;

  /// \param out, time  must outlive the object
  /// \param cells  make the cells of each column
  RowTexts(Output& out, std::vector<CellText> cells, const TimeText& time);
  RowTexts(const RowTexts&) = delete;
  RowTexts& operator=(const RowTexts&) = delete;

  void beginRow(double time) { rows_.times.push_back(time); }
  /// Adds the next cell of the row.
  /// \param element  null if it is empty; copied
  void addCell(const char* element, std::size_t width) {
    Cell cell{{}, element != nullptr};
    if (element != nullptr) std::memcpy(cell.element, element, width);
    rows_.cells.push_back(cell);
  }
  void endRow() {
    if (rows_.cells.size() + rows_.times.size() >= kCells) begin();
  }
  /// Prints all rows.
  void finish();

 private:
  static constexpr std::size_t kCells = 16'384;

  struct Cell {
    char element[8];  // as many bytes as the largest number has
    bool isThere;
  };
  struct Rows {
    std::vector<double> times;
    std::vector<Cell> cells;  // row by row
  };

  fmt::memory_buffer textOf(const Rows& rows) const;
  void begin();
  void print(const fmt::memory_buffer& text);

  Output& out_;
  std::vector<CellText> texts_;
  const TimeText& time_;
  std::size_t ahead_;
  Rows rows_;
  std::deque<std::future<fmt::memory_buffer>> begun_;
};

}  // namespace kyr::tool
