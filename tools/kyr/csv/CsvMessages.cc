#include "csv/CsvMessages.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "cli/Text.h"
#include "csv/CellNumbers.h"
#include "csv/TimeStamps.h"
#include "print/TypeNames.h"

namespace kyr::tool {

std::string describeLine(const std::string& source, std::int64_t line) {
  return fmt::format("{}, line {}", source, line);
}

std::string describePlace(const std::string& source, std::int64_t line, const std::string& column) {
  return fmt::format("{}: column {}", describeLine(source, line), inQuotes(column));
}

std::string firstNames(const std::vector<std::string>& names) {
  constexpr std::size_t kShown = 5;
  std::string text;
  for (std::size_t i = 0; i < std::min(names.size(), kShown); ++i) {
    text += (i > 0 ? ", " : "") + inQuotes(names[i]);
  }
  return names.size() > kShown ? text + ", ..." : text;
}

std::string wrongCellCount(std::size_t cells, std::size_t expected) {
  return fmt::format("the row has {}, but the header has {}", counted(cells, "cell"), expected);
}

std::string wrongType(std::string_view cell, KYRSignalDataType type) {
  return fmt::format("holds {}, which does not fit {} (--type NAME=TYPE gives another type)",
                     inQuotes(cell), typeName(type));
}

std::string roundedNumber(std::string_view cell, char decimalMark, KYRSignalDataType type) {
  double value = 0;
  const bool isInfinite = parseReal(trimmed(cell), decimalMark, value) == CellFit::tooLarge ||
                          (type == Single && std::abs(value) > std::numeric_limits<float>::max());
  if (isInfinite) {
    return fmt::format("holds {}, which is stored as infinite, because {} has no number so large",
                       inQuotes(cell), typeName(type));
  }
  if (value == 0 || (type == Single && static_cast<float>(value) == 0)) {
    return fmt::format("holds {}, which is stored as 0, because {} has no number so small",
                       inQuotes(cell), typeName(type));
  }
  constexpr double kModern = 1e9;  // [s], in September 2001
  if (cell.find(decimalMark) != std::string_view::npos) {
    return roundedTime(cell) + (value >= kModern ? " (--time-format unix keeps them)" : "");
  }
  return fmt::format(
      "holds {}, which is rounded, because {} holds integers exactly up to 2^{} only",
      inQuotes(cell), typeName(type), type == Single ? 24 : 53);
}

std::string otherNumber(std::string_view cell) {
  return fmt::format(
      "holds {}, so the column is stored as text (--decimal sets the decimal mark; separators of "
      "thousands are not read)",
      inQuotes(cell));
}

std::string wrongTime(std::string_view cell, const TimeForm& form) {
  constexpr const char* kHint =
      "(--time NAME takes the times from another column, --no-time numbers the rows, --header LINE "
      "tells which line has the names)";
  switch (form.kind) {
    case TimeForm::Kind::iso:
      if (parseIso(cell)) {
        return fmt::format("holds {}, which has {} zone, other than the first time", inQuotes(cell),
                           form.hasZone ? "no" : "a");
      }
      return fmt::format(
          "holds {}, which is no time as ISO 8601 has it, of the years 1678 to 2261 (--time-format "
          "reads others)",
          inQuotes(cell));
    case TimeForm::Kind::clock:
      return fmt::format(
          "holds {}, which is no time of the form hh:mm:ss (--time-format reads others)",
          inQuotes(cell));
    case TimeForm::Kind::pattern:
      return fmt::format("holds {}, which is not of the form {} that --time-format gives",
                         inQuotes(cell), inQuotes(form.pattern));
    default:
      return fmt::format("holds {}, which is no time: --time-format tells how it is written {}",
                         inQuotes(cell), kHint);
  }
}

std::string roundedTime(std::string_view cell) {
  return fmt::format("holds {}, which is rounded, because no double has so many digits",
                     inQuotes(cell));
}

std::string infiniteTime(double time) {
  return fmt::format("is {}, but times must be finite (--no-time numbers the rows)", time);
}

std::string fallingTime(double time, double before) {
  return fmt::format(
      "is {}, after {} in the row before, but times must not decrease (--time NAME takes them from "
      "another column, --no-time numbers the rows)",
      time, before);
}

std::string indistinctTime(std::string_view cell, std::string_view before) {
  return fmt::format("holds {} after {}, which is rounded to the same time", inQuotes(cell),
                     inQuotes(before));
}

}  // namespace kyr::tool
