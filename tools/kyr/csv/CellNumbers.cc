#include "csv/CellNumbers.h"

#include <arrow/type.h>
#include <arrow/util/value_parsing.h>
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "print/TypeFunctions.h"

namespace kyr::tool {

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isSign(char c) { return c == '+' || c == '-'; }

std::string_view withoutSign(std::string_view text) {
  return !text.empty() && isSign(text[0]) ? text.substr(1) : text;
}

std::string_view withoutLeadingZeros(std::string_view digits) {
  return digits.substr(std::min(digits.find_first_not_of('0'), digits.size()));
}

std::string_view withoutDigits(std::string_view text) {
  return text.substr(std::min(text.find_first_not_of("0123456789"), text.size()));
}

template <typename ArrowType>
bool parseWhole(std::string_view text, typename ArrowType::c_type& value) {
  return ::arrow::internal::StringConverter<ArrowType>().Convert(ArrowType(), text.data(),
                                                                 text.size(), &value);
}

// Compares the digits with those of the value, which a double that large has no fraction behind.
template <typename T>
bool isRoundedInteger(std::string_view text, T value) {
  constexpr auto kExact = static_cast<T>(std::uint64_t{1} << std::numeric_limits<T>::digits);
  const std::string_view digits = withoutSign(text);
  if (std::abs(value) < kExact || !std::all_of(digits.begin(), digits.end(), isDigit)) return false;
  return fmt::format("{:.0f}", std::abs(value)) != withoutLeadingZeros(digits);
}

template <typename T>
CellFit parseAsReal(std::string_view text, char decimalMark, T& value) {
  if (!::arrow::internal::StringToFloat(text.data(), text.size(), decimalMark, &value)) {
    return CellFit::none;
  }
  // Arrow takes numbers that are too large for infinite ones, which have no digits.
  if (std::isinf(value) && std::any_of(text.begin(), text.end(), isDigit)) return CellFit::tooLarge;
  const bool isTooSmall =
      value == 0 &&
      text.substr(0, text.find_first_of("eE")).find_first_of("123456789") != std::string_view::npos;
  return isTooSmall || isRoundedInteger(text, value) ? CellFit::rounded : CellFit::exact;
}

bool equalsIgnoringCase(std::string_view text, std::string_view lower) {
  return std::equal(text.begin(), text.end(), lower.begin(), lower.end(), [](char a, char b) {
    return (a >= 'A' && a <= 'Z' ? static_cast<char>(a - 'A' + 'a') : a) == b;
  });
}

template <typename T>
bool parseNarrow(std::string_view text, char decimalMark, T& value) {
  using Wide = std::conditional_t<std::is_signed_v<T>, std::int64_t, std::uint64_t>;
  Wide wide = 0;
  if (!parseInteger(text, wide)) {
    double number = 0;
    if (parseReal(text, decimalMark, number) != CellFit::exact) return false;
    // From 2^53 on a double may stand for a neighbour of the number in the text.
    constexpr double kEnd = 9007199254740992.0;
    if (std::trunc(number) != number || std::abs(number) >= kEnd) return false;
    if (number < 0 && !std::is_signed_v<T>) return false;
    wide = static_cast<Wide>(number);
  }
  value = static_cast<T>(wide);
  return value == wide;
}

template <typename T>
void appendBytes(T value, std::vector<char>& bytes) {
  const auto* begin = reinterpret_cast<const char*>(&value);
  bytes.insert(bytes.end(), begin, begin + sizeof(T));
}

template <typename T>
CellFit appendNumber(std::string_view text, char decimalMark, std::vector<char>& bytes) {
  T value{};
  if constexpr (std::is_integral_v<T>) {
    if (!parseNarrow(text, decimalMark, value)) return CellFit::none;
    appendBytes(value, bytes);
    return CellFit::exact;
  } else {
    const CellFit fit = parseAsReal(text, decimalMark, value);
    if (fit != CellFit::none) appendBytes(value, bytes);
    return fit;
  }
}

CellFit appendBoolean(std::string_view text, char decimalMark, std::vector<char>& bytes) {
  bool isTrue = false;
  if (!parseTruthValue(text, isTrue)) {
    std::uint8_t number = 0;
    if (!parseNarrow(text, decimalMark, number) || number > 1) return CellFit::none;
    isTrue = number == 1;
  }
  bytes.push_back(isTrue ? 1 : 0);
  return CellFit::exact;
}

struct AppenderOf {
  template <typename T>
  auto number() const {
    return appendNumber<T>;
  }
  auto boolean() const { return appendBoolean; }
};

// A decimal number as its digits, without zeros at either end, times a power of ten.
struct Decimal {
  std::string digits;
  std::int64_t power = 0;
  bool isNegative = false;
};

bool parseDecimal(std::string_view text, char decimalMark, Decimal& decimal) {
  decimal.isNegative = !text.empty() && text[0] == '-';
  text = withoutSign(text);
  const std::size_t exponent = std::min(text.find_first_of("eE"), text.size());
  if (exponent < text.size()) {
    std::string_view power = text.substr(exponent + 1);
    if (!power.empty() && power[0] == '+') power.remove_prefix(1);
    constexpr std::int64_t kMostPower = 1'000'000;
    if (!parseWhole<::arrow::Int64Type>(power, decimal.power)) return false;
    if (std::abs(decimal.power) > kMostPower) return false;
  }
  const std::string_view mantissa = text.substr(0, exponent);
  const std::size_t mark = std::min(mantissa.find(decimalMark), mantissa.size());
  decimal.digits = mantissa.substr(0, mark);
  if (mark < mantissa.size()) {
    decimal.digits += mantissa.substr(mark + 1);
    decimal.power -= static_cast<std::int64_t>(mantissa.size() - mark - 1);
  }
  if (!std::all_of(decimal.digits.begin(), decimal.digits.end(), isDigit)) return false;
  decimal.digits = withoutLeadingZeros(decimal.digits);
  const std::size_t end = decimal.digits.find_last_not_of('0') + 1;
  decimal.power += static_cast<std::int64_t>(decimal.digits.size() - end);
  decimal.digits.resize(end);
  return true;
}

}  // namespace

bool parseInteger(std::string_view text, std::int64_t& value) {
  // Arrow takes "0xFFFFFFFFFFFFFFFF" for -1.
  return parseWhole<::arrow::Int64Type>(text, value) && (value >= 0 || text[0] == '-');
}

bool parseInteger(std::string_view text, std::uint64_t& value) {
  return parseWhole<::arrow::UInt64Type>(text, value);
}

bool parseTruthValue(std::string_view text, bool& value) {
  value = text == "1" || equalsIgnoringCase(text, "true");
  return value || text == "0" || equalsIgnoringCase(text, "false");
}

CellFit parseReal(std::string_view text, char decimalMark, double& value) {
  return parseAsReal(text, decimalMark, value);
}

bool hasThousands(std::string_view text) {
  constexpr std::size_t kGroup = 3;
  const auto takeDigits = [&] {
    const std::size_t count = text.size() - withoutDigits(text).size();
    text.remove_prefix(count);
    return count;
  };
  text = withoutSign(text);
  if (text.empty() || text[0] == '0') return false;
  const std::size_t first = takeDigits();
  if (first == 0 || first > kGroup || text.empty()) return false;
  const char separator = text[0];
  if (std::string_view(",.' ").find(separator) == std::string_view::npos) return false;
  while (!text.empty() && text[0] == separator) {
    text.remove_prefix(1);
    if (takeDigits() != kGroup) return false;
  }
  if (text.empty()) return true;
  const bool hasMark = text[0] == '.' || text[0] == ',';
  return hasMark && withoutDigits(text.substr(1)).empty();
}

bool isOtherNumber(std::string_view text, char decimalMark) {
  double value = 0;
  return hasThousands(text) ||
         parseReal(text, decimalMark == ',' ? '.' : ',', value) != CellFit::none;
}

bool isExactInDouble(std::uint64_t number) {
  constexpr std::uint64_t kEnd = std::uint64_t{1} << std::numeric_limits<double>::digits;
  while (number >= kEnd && number % 2 == 0) number /= 2;
  return number < kEnd;
}

bool isExactInDouble(std::int64_t number) {
  const auto bits = static_cast<std::uint64_t>(number);
  return isExactInDouble(number < 0 ? 0 - bits : bits);
}

bool isSameDecimal(std::string_view a, std::string_view b, char decimalMark) {
  if (a == b) return true;
  Decimal first;
  Decimal second;
  if (!parseDecimal(a, decimalMark, first) || !parseDecimal(b, decimalMark, second)) return false;
  if (first.digits.empty() || second.digits.empty()) return first.digits == second.digits;
  return first.digits == second.digits && first.power == second.power &&
         first.isNegative == second.isNegative;
}

std::optional<std::int64_t> parseScaled(std::string_view text, char decimalMark, int power) {
  constexpr std::int64_t kMostDigits = 19;
  Decimal decimal;
  if (text.find_first_of("0123456789") == std::string_view::npos ||
      !parseDecimal(text, decimalMark, decimal)) {
    return std::nullopt;
  }
  if (decimal.digits.empty()) return 0;
  const std::int64_t zeros = decimal.power + power;
  if (zeros < 0 || zeros + static_cast<std::int64_t>(decimal.digits.size()) > kMostDigits) {
    return std::nullopt;
  }
  decimal.digits.append(static_cast<std::size_t>(zeros), '0');
  std::int64_t value = 0;
  if (!parseWhole<::arrow::Int64Type>(decimal.digits, value)) return std::nullopt;
  return decimal.isNegative ? -value : value;
}

CellParser::CellParser(KYRSignalDataType type, char decimalMark)
    : append_(functionFor(type, AppenderOf())), decimalMark_(decimalMark) {
  if (!append_) throw std::logic_error("a CSV column cannot have this type");
}

}  // namespace kyr::tool
