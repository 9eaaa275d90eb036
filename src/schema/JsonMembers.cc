#include "schema/JsonMembers.h"

#include <fmt/format.h>

#include <charconv>
#include <limits>
#include <system_error>

#include "schema/TypeNames.h"

namespace kyr {

namespace {

// What a value is in an error text: its own text if that is short.
std::string shown(std::string_view value) {
  constexpr std::size_t kMost = 60;
  if (value.front() == '[') return "an array";
  if (value.front() == '{') return "an object";
  if (value.size() <= kMost) return std::string(value);
  return value.front() == '"' ? "a long text" : "a long number";
}

template <typename Value>
void readName(JsonReader& in, Value& value, Value (*called)(const std::string&), const char* what) {
  const std::string name = readText(in, what);
  try {
    value = called(name);
  } catch (const std::runtime_error&) {
    throw JsonValueError("", fmt::format("is \"{}\", which is no {} that is known here", name,
                                         std::string_view(what).substr(2)));
  }
}

}  // namespace

JsonValueError::JsonValueError(std::string place, std::string text)
    : std::runtime_error((place.empty() ? "the document" : place) + " " + text),
      place_(std::move(place)),
      text_(std::move(text)) {}

JsonValueError within(const std::string& outer, const JsonValueError& error) {
  const std::string& inner = error.place();
  const bool isMember = !inner.empty() && inner.front() != '[';
  return {outer + (isMember ? "." : "") + inner, error.text()};
}

void refuseValue(JsonReader& in, std::string_view expected) {
  const std::string value = shown(in.skip());
  throw JsonValueError("", fmt::format("is {}, expected {}", value, expected));
}

std::int64_t readInteger(JsonReader& in, std::int64_t least, std::int64_t most) {
  std::string_view text;
  if (in.takeNumber(text)) {
    std::int64_t value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error == std::errc() && stop == end && value >= least && value <= most) return value;
    throw JsonValueError(
        "", fmt::format("is {}, expected an integer from {} to {}", shown(text), least, most));
  }
  refuseValue(in, fmt::format("an integer from {} to {}", least, most));
}

std::string readText(JsonReader& in, std::string_view expected) {
  std::string text;
  if (!in.takeText(text)) refuseValue(in, expected);
  return text;
}

void JsonConstant::requireText(JsonReader& in, std::string_view value) {
  const std::string found = readText(in, fmt::format("\"{}\"", value));
  if (found == value) return;
  throw JsonValueError("", fmt::format("is \"{}\", expected \"{}\"", found, value));
}

void JsonValue<int>::read(JsonReader& in, int& value) {
  using Limits = std::numeric_limits<std::int32_t>;
  value = static_cast<int>(readInteger(in, Limits::min(), Limits::max()));
}

void JsonValue<std::uint64_t>::read(JsonReader& in, std::uint64_t& value) {
  value = static_cast<std::uint64_t>(readInteger(in, 0, std::numeric_limits<std::int64_t>::max()));
}

void JsonValue<std::string>::read(JsonReader& in, std::string& value) {
  if (!in.takeText(value)) refuseValue(in, "a text");
}

void JsonValue<KYRSignalDataType>::read(JsonReader& in, KYRSignalDataType& value) {
  readName(in, value, dataTypeCalled, "a data type");
}

void JsonValue<KYRSignalDataType>::write(JsonWriter& out, KYRSignalDataType value) {
  out.text(dataTypeName(value));
}

void JsonValue<KYRSignalCategory>::read(JsonReader& in, KYRSignalCategory& value) {
  readName(in, value, categoryCalled, "a category");
}

void JsonValue<KYRSignalCategory>::write(JsonWriter& out, KYRSignalCategory value) {
  out.text(categoryName(value));
}

}  // namespace kyr
