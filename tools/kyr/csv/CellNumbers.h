#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "kyr/parquet/SignalTypes.h"

namespace kyr::tool {

/// How a type holds the number in a cell.
enum class CellFit {
  exact,     ///< also for fractions: they have the nearest value
  rounded,   ///< an integer that the type does not have, or a number so small that 0 is nearest
  tooLarge,  ///< a number beyond a type of fractions; its value is infinite
  none,      ///< the cell holds no value of the type
};

/// The texts here have no blanks around them.
bool parseInteger(std::string_view text, std::int64_t& value);
bool parseInteger(std::string_view text, std::uint64_t& value);

/// Takes true and false, in any case, 0 and 1.
bool parseTruthValue(std::string_view text, bool& value);

/// \param decimalMark  "." or ","
CellFit parseReal(std::string_view text, char decimalMark, double& value);

/// Whether a text is a number whose digits are in groups of three, such as "1,234" or
/// "1.234.567,5".
bool hasThousands(std::string_view text);

/// Whether a text that is no number may be meant as one: it has another decimal mark, or separators
/// of thousands.
bool isOtherNumber(std::string_view text, char decimalMark);

/// Whether a double holds the number exactly.
bool isExactInDouble(std::int64_t number);
bool isExactInDouble(std::uint64_t number);

/// Whether two decimal numbers are equal, however they are written and however many digits they
/// have. False if one of them is written in another way.
bool isSameDecimal(std::string_view a, std::string_view b, char decimalMark);

/// The number in a text times 10^\p power, if it is whole and an int64.
std::optional<std::int64_t> parseScaled(std::string_view text, char decimalMark, int power);

/// Reads cells as values of a type.
///
/// Integers may be written as decimal numbers of the same value ("1.0", "1e3"), booleans as true,
/// false and as the numbers 0 and 1.
class CellParser {
 public:
  /// \param type  one that columnType() gives
  CellParser(KYRSignalDataType type, char decimalMark);

  /// Appends the value in \p text to \p bytes, in memory order. Appends nothing if it does not fit.
  CellFit append(std::string_view text, std::vector<char>& bytes) const {
    return append_(text, decimalMark_, bytes);
  }

 private:
  CellFit (*append_)(std::string_view text, char decimalMark, std::vector<char>& bytes);
  char decimalMark_;
};

}  // namespace kyr::tool
