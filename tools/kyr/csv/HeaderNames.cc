#include "csv/HeaderNames.h"

#include <fmt/format.h>

#include <map>
#include <set>

#include "cli/Text.h"

namespace kyr::tool {

namespace {

// The position of the bracket that the last character closes; npos if it closes none.
std::size_t openingBracket(std::string_view text) {
  if (text.empty()) return std::string_view::npos;
  const char close = text.back();
  if (close != ']' && close != ')') return std::string_view::npos;
  const char open = close == ']' ? '[' : '(';
  int depth = 0;
  for (std::size_t i = text.size(); i-- > 0;) {
    if (text[i] == close) ++depth;
    if (text[i] == open && --depth == 0) return i;
  }
  return std::string_view::npos;
}

bool isNumber(std::string_view text) {
  return text.find_first_not_of("0123456789,:. ") == std::string_view::npos;
}

bool isAttached(std::string_view header) {
  const std::size_t open = openingBracket(header);
  return open != std::string_view::npos && open > 0 && header[open - 1] != ' ';
}

}  // namespace

HeaderName splitHeader(std::string_view header) {
  header = trimmed(header);
  HeaderName whole{std::string(header), ""};
  const std::size_t open = openingBracket(header);
  if (open == std::string_view::npos) return whole;
  const std::string_view name = trimmed(header.substr(0, open));
  const std::string_view unit = trimmed(header.substr(open + 1, header.size() - open - 2));
  if (name.empty()) return whole;
  const bool spacedBrackets = header.back() == ']' && !isAttached(header);
  if (unit.empty()) return spacedBrackets ? HeaderName{std::string(name), ""} : whole;
  if (isNumber(unit) && !(spacedBrackets && unit == "1")) return whole;
  if (isAttached(header) && name == "der") return whole;
  return {std::string(name), std::string(unit)};
}

std::string joinHeader(const std::string& name, const std::string& unit) {
  if (!unit.empty()) return name + " [" + unit + "]";
  const HeaderName split = splitHeader(name);
  return split.name == name && split.unit.empty() ? name : name + " []";
}

std::vector<HeaderName> uniqueNames(const std::vector<std::string>& headers) {
  std::vector<HeaderName> names;
  std::map<std::string, std::set<std::string>> spellings;
  for (const std::string& header : headers) {
    names.push_back(splitHeader(header));
    spellings[names.back().name].insert(header);
  }
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (isAttached(headers[i]) && spellings[names[i].name].size() > 1) names[i] = {headers[i], ""};
    if (names[i].name.empty()) names[i].name = fmt::format("column {}", i + 1);
  }
  std::set<std::string> taken;
  for (const HeaderName& entry : names) taken.insert(entry.name);
  std::set<std::string> given;
  for (HeaderName& entry : names) {
    if (given.insert(entry.name).second) continue;
    int count = 2;
    const auto numbered = [&] { return fmt::format("{} ({})", entry.name, count); };
    while (taken.count(numbered()) > 0) ++count;
    entry.name = numbered();
    taken.insert(entry.name);
    given.insert(entry.name);
  }
  return names;
}

}  // namespace kyr::tool
