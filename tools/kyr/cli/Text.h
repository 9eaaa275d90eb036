#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kyr::tool {

/// Without blanks and tabs at both ends.
std::string_view trimmed(std::string_view text);

/// In quotation marks, on one line, shortened when it is long: for messages.
std::string inQuotes(std::string_view text);

/// On one line: control characters become "?".
std::string singleLine(std::string_view text);

/// A CSV cell, in quotation marks where it needs them.
std::string csvCell(std::string_view text);

/// "1 signal", "2 signals".
std::string counted(std::uint64_t count, std::string_view noun);

/// "12,345".
std::string grouped(std::uint64_t number);

/// "12,345 bytes".
std::string byteCount(std::uint64_t bytes);

/// Columns on a terminal.
class TextTable {
 public:
  enum class Align { left, right };
  struct Column {
    std::string title;
    Align align;
  };

  explicit TextTable(std::vector<Column> columns) : columns_(std::move(columns)) {}

  /// \param cells  as many as there are columns, UTF-8
  void addRow(std::vector<std::string> cells);

  /// The lines, each with its line end.
  std::string text() const;

 private:
  std::vector<Column> columns_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace kyr::tool
