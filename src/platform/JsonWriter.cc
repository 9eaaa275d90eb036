#include "platform/JsonWriter.h"

#include <fmt/format.h>

#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <nlohmann/json.hpp>

namespace kyr {

namespace {

// The shortest text that reads back as the same number. It has a decimal point or an exponent, so
// that readers take it for a number with a fraction.
std::string textOf(double value) {
  constexpr double kLeastFixed = 1e-4;
  constexpr double kMostFixed = 1e15;
  const double size = std::abs(value);
  const bool isFixed = size == 0 || (size >= kLeastFixed && size < kMostFixed);
  char digits[32];
  const char* const end =
      std::to_chars(digits, digits + sizeof(digits), value,
                    isFixed ? std::chars_format::fixed : std::chars_format::scientific)
          .ptr;
  std::string text(digits, static_cast<std::size_t>(end - digits));
  if (isFixed && text.find('.') == std::string::npos) text += ".0";
  return text;
}

}  // namespace

std::size_t plainLength(std::string_view text) {
  static constexpr auto kIsPlain = [] {
    std::array<bool, 256> table{};
    for (std::size_t i = 0; i < table.size(); ++i) table[i] = isPlainInJson(static_cast<char>(i));
    return table;
  }();
  std::size_t length = 0;
  while (length < text.size() && kIsPlain[static_cast<unsigned char>(text[length])]) ++length;
  return length;
}

void JsonWriter::breakLine() {
  if (!isIndented_) return;
  text_ += '\n';
  text_.append(depth_, ' ');
}

void JsonWriter::beginValue() {
  if (isMember_) {
    isMember_ = false;
    return;
  }
  if (depth_ == 0) return;
  if (!isFirst_) text_ += ',';
  breakLine();
  isFirst_ = false;
}

void JsonWriter::open(char bracket) {
  beginValue();
  text_ += bracket;
  ++depth_;
  isFirst_ = true;
}

void JsonWriter::close(char bracket) {
  --depth_;
  if (!isFirst_) breakLine();
  text_ += bracket;
  isFirst_ = false;
}

void JsonWriter::key(std::string_view name) {
  beginValue();
  const std::string_view end = isIndented_ ? "\": " : "\":";
  // One append instead of three, because half of a document are keys.
  char token[64];
  if (name.size() + end.size() < sizeof(token)) {
    token[0] = '"';
    std::memcpy(token + 1, name.data(), name.size());
    std::memcpy(token + 1 + name.size(), end.data(), end.size());
    text_.append(token, 1 + name.size() + end.size());
  } else {
    text_.append("\"").append(name).append(end);
  }
  isMember_ = true;
}

void JsonWriter::raw(std::string_view value) {
  beginValue();
  text_ += value;
}

void JsonWriter::number(std::int64_t value) {
  const fmt::format_int digits(value);
  raw({digits.data(), digits.size()});
}

void JsonWriter::number(std::uint64_t value) {
  const fmt::format_int digits(value);
  raw({digits.data(), digits.size()});
}

void JsonWriter::number(double value) {
  for (const KnownNumber& known : known_) {
    // -0.0 equals 0.0, but is written in another way.
    if (known.value == value && std::signbit(known.value) == std::signbit(value)) {
      return raw(known.text);
    }
  }
  KnownNumber& known = known_[oldest_];
  oldest_ = 1 - oldest_;
  known = {value, textOf(value)};
  raw(known.text);
}

void JsonWriter::text(std::string_view value) {
  if (plainLength(value) != value.size()) return raw(nlohmann::json(value).dump());
  beginValue();
  text_ += '"';
  text_ += value;
  text_ += '"';
}

}  // namespace kyr
