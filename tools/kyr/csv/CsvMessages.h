#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "csv/TimeForm.h"
#include "kyr/parquet/SignalTypes.h"

/// What is said about rows and cells that cannot be stored as they are.
namespace kyr::tool {

/// "run.csv, line 12", and "run.csv, line 12: column "speed"": how such messages begin.
std::string describeLine(const std::string& source, std::int64_t line);
std::string describePlace(const std::string& source, std::int64_t line, const std::string& column);

/// The first names of a header, to show a user who mistyped one.
std::string firstNames(const std::vector<std::string>& names);

/// If all columns are left out.
inline constexpr const char* kNothingLeft =
    ": no column is left to store (--text store keeps columns of text)";

/// \name What is wrong with a row
/// @{
inline constexpr const char* kUnclosedQuote = "a quotation mark is not closed";
std::string wrongCellCount(std::size_t cells, std::size_t expected);
inline constexpr const char* kRaggedHint =
    " (--ragged pad takes missing cells as empty, --ragged stop ends before the row)";
/// @}

/// \name What is wrong with the cell of a column, to be put behind the column's name
/// @{
std::string wrongType(std::string_view cell, KYRSignalDataType type);
/// \param type  one of fractions
std::string roundedNumber(std::string_view cell, char decimalMark, KYRSignalDataType type);
std::string otherNumber(std::string_view cell);
inline constexpr const char* kNoUtf8 =
    "holds text that is not UTF-8 (--encoding latin1, or the name of another encoding, converts "
    "it)";
inline constexpr const char* kNoTime =
    "is empty, and every row needs a time (--time NAME takes the times from another column, "
    "--no-time "
    "numbers the rows)";
std::string wrongTime(std::string_view cell, const TimeForm& form);
std::string roundedTime(std::string_view cell);
std::string infiniteTime(double time);
std::string fallingTime(double time, double before);
std::string indistinctTime(std::string_view cell, std::string_view before);
/// @}

}  // namespace kyr::tool
