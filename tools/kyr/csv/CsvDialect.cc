#include "csv/CsvDialect.h"

#include <algorithm>
#include <array>

namespace kyr::tool {

bool isNamedMissing(const CsvDialect& dialect, std::string_view text) {
  return text.empty() ||
         std::find(dialect.missing.begin(), dialect.missing.end(), text) != dialect.missing.end();
}

bool isMissing(const CsvDialect& dialect, std::string_view text) {
  constexpr std::array<std::string_view, 6> kUsual{"NA", "N/A", "null", "NULL", "None", "-"};
  return isNamedMissing(dialect, text) ||
         std::find(kUsual.begin(), kUsual.end(), text) != kUsual.end();
}

}  // namespace kyr::tool
