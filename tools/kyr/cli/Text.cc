#include "cli/Text.h"

#include <algorithm>
#include <iterator>

namespace kyr::tool {

namespace {

// The columns that a text takes on a terminal. fmt counts them when it pads: if the width is the
// number of bytes, it adds as many blanks as the text has more bytes than columns.
std::size_t displayWidth(const std::string& text) {
  return 2 * text.size() - fmt::formatted_size("{:<{}}", text, text.size());
}

bool isControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }

}  // namespace

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::string inQuotes(std::string_view text) {
  constexpr std::size_t kLongest = 40;
  if (text.size() <= kLongest) return "\"" + singleLine(text) + "\"";
  std::size_t end = kLongest;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) --end;
  return "\"" + singleLine(text.substr(0, end)) + "...\"";
}

std::string singleLine(std::string_view text) {
  std::string line(text);
  std::replace_if(line.begin(), line.end(), isControl, '?');
  return line;
}

std::string csvCell(std::string_view text) {
  if (text.find_first_of("\",\r\n") == std::string_view::npos) return std::string(text);
  std::string cell = "\"";
  for (const char c : text) {
    if (c == '"') cell += '"';
    cell += c;
  }
  return cell + '"';
}

std::string counted(std::uint64_t count, std::string_view noun) {
  return fmt::format("{} {}{}", grouped(count), noun, count == 1 ? "" : "s");
}

std::string grouped(std::uint64_t number) {
  std::string digits = std::to_string(number);
  for (std::size_t end = digits.size(); end > 3; end -= 3) digits.insert(end - 3, 1, ',');
  return digits;
}

std::string byteCount(std::uint64_t bytes) { return counted(bytes, "byte"); }

void TextTable::addRow(std::vector<std::string> cells) {
  for (std::string& cell : cells) cell = singleLine(cell);
  rows_.push_back(std::move(cells));
}

std::string TextTable::text() const {
  std::vector<std::vector<std::string>> lines(1);
  for (const Column& column : columns_) lines[0].push_back(column.title);
  lines.insert(lines.end(), rows_.begin(), rows_.end());
  std::vector<std::size_t> widths(columns_.size(), 0);
  for (const auto& cells : lines) {
    for (std::size_t i = 0; i < widths.size(); ++i) {
      widths[i] = std::max(widths[i], displayWidth(cells[i]));
    }
  }
  std::string result;
  for (const auto& cells : lines) {
    std::string line;
    for (std::size_t i = 0; i < widths.size(); ++i) {
      if (i > 0) line += "  ";
      const bool right = columns_[i].align == Align::right;
      fmt::format_to(std::back_inserter(line), right ? "{:>{}}" : "{:<{}}", cells[i], widths[i]);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    result += line + "\n";
  }
  return result;
}

}  // namespace kyr::tool
