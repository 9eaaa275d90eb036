#include "csv/CsvMessages.h"

#include <fmt/format.h>

#include "cli/Text.h"
#include "print/TypeNames.h"

namespace kyr::tool {

std::string describeLine(const std::string& source, std::int64_t line) {
  return fmt::format("{}, line {}", source, line);
}

std::string describePlace(const std::string& source, std::int64_t line, const std::string& column) {
  return fmt::format("{}: column {}", describeLine(source, line), inQuotes(column));
}

std::string wrongCellCount(std::size_t cells, std::size_t expected) {
  return fmt::format("the row has {}, but the header has {}", counted(cells, "cell"), expected);
}

std::string wrongType(std::string_view cell, KYRSignalDataType type) {
  return fmt::format("holds {}, which does not fit {}", inQuotes(cell), typeName(type));
}

std::string roundedNumber(std::string_view cell, KYRSignalDataType type) {
  return fmt::format(
      "holds {}, which is rounded, because {} holds integers exactly up to 2^{} only",
      inQuotes(cell), typeName(type), type == Single ? 24 : 53);
}

std::string timeWithoutNumber(std::string_view cell) {
  return fmt::format(
      "holds {}, but times must be numbers (--time NAME takes the times from another column)",
      inQuotes(cell));
}

std::string infiniteTime(double time) {
  return fmt::format("is {}, but times must be finite", time);
}

std::string fallingTime(double time, double before) {
  return fmt::format("is {}, after {} in the row before, but times must not decrease", time,
                     before);
}

std::string indistinctTime(std::string_view cell, std::string_view before) {
  return fmt::format("holds {} after {}, which is rounded to the same time", inQuotes(cell),
                     inQuotes(before));
}

}  // namespace kyr::tool
