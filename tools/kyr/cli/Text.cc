#include "cli/Text.h"

#include <algorithm>
#include <iterator>
#include <numeric>

namespace kyr::tool {

namespace {

bool isControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }

// Bytes of the control character that the text begins with; 0 if that is none. In UTF-8 there are
// further ones that terminals obey, and marks that turn the direction of the text around them.
std::size_t controlBytes(std::string_view text) {
  if (isControl(text.front())) return 1;
  const auto byteAt = [&](std::size_t i) {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
  };
  const auto isIn = [](unsigned byte, unsigned least, unsigned most) {
    return byte >= least && byte <= most;
  };
  if (byteAt(0) == 0xc2 && isIn(byteAt(1), 0x80, 0x9f)) return 2;  // U+0080 to U+009F
  if (byteAt(0) != 0xe2) return 0;
  const bool turns = (byteAt(1) == 0x80 && isIn(byteAt(2), 0xaa, 0xae)) ||  // U+202A to U+202E
                     (byteAt(1) == 0x81 && isIn(byteAt(2), 0xa6, 0xa9));    // U+2066 to U+2069
  return turns ? 3 : 0;
}

// The text, which may lose its end.
std::string cutTo(const std::string& text, std::size_t width) {
  if (displayWidth(text) <= width) return text;
  std::string cut;
  for (std::size_t at = 0; at < text.size();) {
    std::size_t end = at + 1;
    while (end < text.size() && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) ++end;
    const std::string longer = cut + text.substr(at, end - at);
    if (displayWidth(longer) + 1 > width) break;
    cut = longer;
    at = end;
  }
  return cut + "~";
}

}  // namespace

// fmt counts the columns when it pads: if the width is the
// number of bytes, it adds as many blanks as the text has more bytes than columns.
std::size_t displayWidth(const std::string& text) {
  return 2 * text.size() - fmt::formatted_size("{:<{}}", text, text.size());
}

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
  std::string line;
  while (!text.empty()) {
    const std::size_t bytes = controlBytes(text);
    line += bytes > 0 ? '?' : text.front();
    text.remove_prefix(std::max<std::size_t>(1, bytes));
  }
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

std::string lowerCase(std::string_view text) {
  std::string lower(text);
  for (char& letter : lower) {
    if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
  }
  return lower;
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

// Cuts the widest column that stands on the left until the table fits.
std::string TextTable::text(std::size_t width) const {
  std::vector<std::vector<std::string>> lines(1);
  for (const Column& column : columns_) lines[0].push_back(column.title);
  lines.insert(lines.end(), rows_.begin(), rows_.end());
  std::vector<std::size_t> widths(columns_.size(), 0);
  for (const auto& cells : lines) {
    for (std::size_t i = 0; i < widths.size(); ++i) {
      widths[i] = std::max(widths[i], displayWidth(cells[i]));
    }
  }
  fitWidths(widths, width);
  std::string result;
  for (const auto& cells : lines) {
    std::string line;
    for (std::size_t i = 0; i < widths.size(); ++i) {
      if (i > 0) line += "  ";
      const bool right = columns_[i].align == Align::right;
      fmt::format_to(std::back_inserter(line), right ? "{:>{}}" : "{:<{}}",
                     cutTo(cells[i], widths[i]), widths[i]);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    result += line + "\n";
  }
  return result;
}

void TextTable::fitWidths(std::vector<std::size_t>& widths, std::size_t width) const {
  constexpr std::size_t kLeast = 8;
  const std::size_t gaps = 2 * (widths.size() - 1);
  while (width > 0) {
    const std::size_t all = std::accumulate(widths.begin(), widths.end(), gaps);
    if (all <= width) return;
    std::size_t widest = widths.size();
    for (std::size_t i = 0; i < widths.size(); ++i) {
      const bool isLeft = columns_[i].align == Align::left;
      if (isLeft && (widest == widths.size() || widths[i] > widths[widest])) widest = i;
    }
    if (widest == widths.size() || widths[widest] <= kLeast) return;
    widths[widest] = std::max(kLeast, widths[widest] - std::min(widths[widest], all - width));
  }
}

}  // namespace kyr::tool
