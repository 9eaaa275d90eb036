#include "cli/RowWindow.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>
#include <string_view>

#include "cli/Errors.h"

namespace kyr::tool {

namespace {

std::uint64_t parseRow(std::string_view text, std::uint64_t ifEmpty, const std::string& option) {
  if (text.empty()) return ifEmpty;
  std::uint64_t row = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), row);
  if (error == std::errc() && end == text.data() + text.size()) return row;
  throw UsageError(
      fmt::format("--rows {}: give A:B with whole numbers from 0, or A: or :B", option));
}

}  // namespace

bool Window::hasAllTimes() const { return std::isinf(from) && std::isinf(to); }

void addTimeOptions(CLI::App& command, WindowOptions& options) {
  command.add_option("--from", options.from, "Leave out earlier times [s]")->type_name("T");
  command.add_option("--to", options.to, "Leave out later times [s]")->type_name("T");
}

CLI::Option* addWindowOptions(CLI::App& command, WindowOptions& options) {
  addTimeOptions(command, options);
  return command
      .add_option("--rows", options.rows, "Take the rows A to B - 1 alone, counted from 0")
      ->type_name("A:B")
      ->excludes("--from")
      ->excludes("--to");
}

Window windowOf(const WindowOptions& options) {
  Window window;
  window.from = options.from.value_or(window.from);
  window.to = options.to.value_or(window.to);
  if (!(window.from <= window.to)) {
    throw UsageError(
        fmt::format("--from {} --to {}: no time lies in between", window.from, window.to));
  }
  if (options.rows.empty()) return window;
  const std::string_view rows = options.rows;
  const std::size_t colon = rows.find(':');
  // A text without a colon is refused as a number.
  const std::string_view first = colon == std::string_view::npos ? "?" : rows.substr(0, colon);
  window.firstRow = parseRow(first, window.firstRow, options.rows);
  window.endRow = parseRow(rows.substr(colon + 1), window.endRow, options.rows);
  if (window.firstRow > window.endRow) {
    throw UsageError(fmt::format("--rows {}: the first row is after the last", options.rows));
  }
  return window;
}

}  // namespace kyr::tool
