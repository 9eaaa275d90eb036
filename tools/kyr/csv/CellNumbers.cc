#include "csv/CellParser.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <type_traits>

#include "cli/Text.h"

namespace kyr::tool {

namespace {

template <typename T>
std::optional<T> parseWhole(std::string_view text) {
  T value{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (end != text.data() + text.size()) return std::nullopt;
  if (error == std::errc()) return value;
  if constexpr (std::is_floating_point_v<T>) {
    // Out of range is also said of numbers that are too small: those become 0.
    const double nearest = std::strtod(std::string(text).c_str(), nullptr);
    if (error == std::errc::result_out_of_range && std::abs(nearest) < 1) {
      return static_cast<T>(nearest);
    }
  }
  return std::nullopt;
}

template <typename T>
std::optional<T> parseInteger(std::string_view text) {
  if (const auto value = parseWhole<T>(text)) return value;
  const auto number = parseWhole<double>(text);
  // Beyond 2^53 a double may stand for a neighbour of the number in the text.
  constexpr double kExact = 9007199254740992.0;
  if (!number || std::trunc(*number) != *number || std::abs(*number) > kExact) return std::nullopt;
  const auto wide = static_cast<std::int64_t>(*number);
  if (wide < 0 && !std::is_signed_v<T>) return std::nullopt;
  const auto value = static_cast<T>(wide);
  return static_cast<std::int64_t>(value) == wide ? std::optional(value) : std::nullopt;
}

bool equalsIgnoringCase(std::string_view text, std::string_view lower) {
  if (text.size() != lower.size()) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if ((c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c) != lower[i]) return false;
  }
  return true;
}

std::optional<std::uint8_t> parseBoolean(std::string_view text) {
  if (equalsIgnoringCase(text, "true")) return std::uint8_t{1};
  if (equalsIgnoringCase(text, "false")) return std::uint8_t{0};
  const auto number = parseInteger<std::uint8_t>(text);
  return number && *number <= 1 ? number : std::nullopt;
}

template <typename T>
bool append(const std::optional<T>& value, std::vector<char>& bytes) {
  if (!value) return false;
  const auto* begin = reinterpret_cast<const char*>(&*value);
  bytes.insert(bytes.end(), begin, begin + sizeof(T));
  return true;
}

// Arrow's reader takes a plus sign, std::from_chars does not.
std::string_view withoutPlus(std::string_view text) {
  return text.size() > 1 && text[0] == '+' && text[1] != '-' ? text.substr(1) : text;
}

template <typename T>
bool appendNumber(std::string_view text, std::vector<char>& bytes) {
  const std::string_view number = withoutPlus(trimmed(text));
  if constexpr (std::is_integral_v<T>) {
    return append(parseInteger<T>(number), bytes);
  } else {
    return append(parseWhole<T>(number), bytes);
  }
}

bool appendBoolean(std::string_view text, std::vector<char>& bytes) {
  return append(parseBoolean(trimmed(text)), bytes);
}

}  // namespace

CellParser cellParser(KYRSignalDataType type) {
  switch (type) {
    case Double:
      return appendNumber<double>;
    case Single:
      return appendNumber<float>;
    case Int8:
      return appendNumber<std::int8_t>;
    case UInt8:
      return appendNumber<std::uint8_t>;
    case Int16:
      return appendNumber<std::int16_t>;
    case UInt16:
      return appendNumber<std::uint16_t>;
    case Int32:
      return appendNumber<std::int32_t>;
    case UInt32:
      return appendNumber<std::uint32_t>;
    case Int64:
      return appendNumber<std::int64_t>;
    case UInt64:
      return appendNumber<std::uint64_t>;
    case Boolean:
      return appendBoolean;
    default:
      throw std::logic_error("a CSV column cannot have this type");
  }
}

}  // namespace kyr::tool
