#include "print/RowTexts.h"

#include <algorithm>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>

namespace kyr::tool {

namespace {

// Text that waits takes memory.
constexpr unsigned kMaxAhead = 16;

}  // namespace

RowTexts::RowTexts(Output& out, std::vector<CellText> cells, const TimeText& time)
    : out_(out),
      texts_(std::move(cells)),
      time_(time),
      ahead_(std::clamp(std::thread::hardware_concurrency(), 1U, kMaxAhead)) {}

fmt::memory_buffer RowTexts::textOf(const Rows& rows) const {
  fmt::memory_buffer text;
  const Cell* cell = rows.cells.data();
  for (const double time : rows.times) {
    time_(text, time);
    for (const CellText cellText : texts_) {
      text.push_back(',');
      if (cell->isThere) cellText(text, cell->element);
      ++cell;
    }
    text.push_back('\n');
  }
  return text;
}

void RowTexts::begin() {
  if (begun_.size() == ahead_) {
    print(begun_.front().get());
    begun_.pop_front();
  }
  const auto rows = std::make_shared<const Rows>(std::exchange(rows_, {}));
  const auto text = [this, rows] { return textOf(*rows); };
  try {
    begun_.push_back(std::async(std::launch::async, text));
  } catch (const std::system_error&) {
    // The system has no thread left. The text is made when it is printed.
    begun_.push_back(std::async(std::launch::deferred, text));
  }
  rows_.cells.reserve(kCells);
}

void RowTexts::print(const fmt::memory_buffer& text) {
  out_.buffer().append(text);
  out_.flushIfFull();
}

void RowTexts::finish() {
  for (; !begun_.empty(); begun_.pop_front()) print(begun_.front().get());
  print(textOf(std::exchange(rows_, {})));
}

}  // namespace kyr::tool
