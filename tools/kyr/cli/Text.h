#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kyr::tool {

/// The text without blanks and tabs at both ends.
std::string_view trimmed(std::string_view text);

/// The text in quotation marks, on one line, cut if it is long: for messages.
std::string inQuotes(std::string_view text);

/// The columns that a text takes on a terminal.
std::size_t displayWidth(const std::string& text);

/// The text on one line: control characters, and marks of the direction of text, become "?".
std::string singleLine(std::string_view text);

/// The text as a CSV cell, in quotation marks if it needs them.
std::string csvCell(std::string_view text);

/// The text with the letters A to Z as a to z.
std::string lowerCase(std::string_view text);

/// "1 signal", "2 signals".
std::string counted(std::uint64_t count, std::string_view noun);

/// "12,345".
std::string grouped(std::uint64_t number);

/// "12,345 bytes".
std::string byteCount(std::uint64_t bytes);

/// A table on a terminal.
class TextTable {
 public:
  enum class Align { left, right };
  struct Column {
    std::string title;
    Align align;
  };

  explicit TextTable(std::vector<Column> columns) : columns_(std::move(columns)) {}

  /// \param cells  one for each column, UTF-8
  void addRow(std::vector<std::string> cells);

  /// The lines of the table, each with its line end.
  /// \param width  of the terminal, to which long names are cut; 0 for none
  std::string text(std::size_t width = 0) const;

 private:
  void fitWidths(std::vector<std::size_t>& widths, std::size_t width) const;

  std::vector<Column> columns_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace kyr::tool
