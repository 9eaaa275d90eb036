#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "kyr/parquet/SignalTypes.h"
#include "platform/JsonReader.h"
#include "platform/JsonWriter.h"

/// JSON objects from one list of their members each, by which they are both written and read.
///
/// The list of a type T is JsonObject<T>::members, a tuple of member() and constant(), sorted by
/// name. Values are read strictly: another type, or a number out of range, is a JsonValueError.
namespace kyr {

template <typename T>
struct JsonObject;

template <typename T>
struct JsonValue;

/// A value that is not what it should be, and where: `files[3].size is -1, expected ...`.
class JsonValueError : public std::runtime_error {
 public:
  /// \param place  such as `files[3].size`; empty for the document itself
  JsonValueError(std::string place, std::string text);

  const std::string& place() const { return place_; }
  const std::string& text() const { return text_; }

 private:
  std::string place_;
  std::string text_;
};

/// What the place of an error is called from outside: with \p outer before it.
JsonValueError within(const std::string& outer, const JsonValueError& error);

/// Refuses the next value.
/// \throws JsonValueError saying what it is, and what was expected
[[noreturn]] void refuseValue(JsonReader& in, std::string_view expected);

/// An integer within [least, most].
std::int64_t readInteger(JsonReader& in, std::int64_t least, std::int64_t most);
std::string readText(JsonReader& in, std::string_view expected = "a text");

/// A member of the JSON objects that stand for a T.
template <typename T, typename Owner, typename Value, typename Codec>
struct JsonMember {
  std::string_view name;
  Value Owner::*pointer;
  bool (*isThere)(const T&);  // null for always

  bool isIn(const T& object) const { return isThere == nullptr || isThere(object); }
  void read(JsonReader& in, T& object) const { Codec::read(in, object.*pointer); }
  void write(JsonWriter& out, const T& object) const { Codec::write(out, object.*pointer); }
};

/// \param isThere  whether an object has the member; null for always
/// \tparam Codec  how the value is written and read, if not as other values of its type
template <typename T, typename Codec = void, typename Owner, typename Value>
constexpr auto member(std::string_view name, Value Owner::*pointer,
                      bool (*isThere)(const T&) = nullptr) {
  using Used = std::conditional_t<std::is_void_v<Codec>, JsonValue<Value>, Codec>;
  return JsonMember<T, Owner, Value, Used>{name, pointer, isThere};
}

/// A member that has the same text in all objects.
struct JsonConstant {
  std::string_view name;
  std::string_view value;

  template <typename T>
  bool isIn(const T& /*object*/) const {
    return true;
  }
  template <typename T>
  void read(JsonReader& in, T& /*object*/) const {
    requireText(in, value);
  }
  template <typename T>
  void write(JsonWriter& out, const T& /*object*/) const {
    out.text(value);
  }

 private:
  static void requireText(JsonReader& in, std::string_view value);
};

constexpr JsonConstant constant(std::string_view name, std::string_view value) {
  return {name, value};
}

/// Writes and reads objects by a list of members. Reading skips members that are not in the list,
/// and refuses an object without one that it must have.
template <typename T, const auto& kMembers>
struct JsonFields {
  static void write(JsonWriter& out, const T& object) {
    out.beginObject();
    std::apply([&](const auto&... members) { (writeMember(out, members, object), ...); }, kMembers);
    out.endObject();
  }

  static void read(JsonReader& in, T& object) {
    std::array<bool, kCount> seen{};
    std::size_t expected = 0;  // members mostly come in the order of the list
    const bool isObject = in.takeObject([&](std::string_view name) {
      const std::size_t index = find(name, expected);
      if (index == kCount) {
        in.skip();
        return;
      }
      if (seen[index]) throw JsonValueError("", "has \"" + std::string(name) + "\" twice");
      seen[index] = true;
      kReaders[index](in, object);
      expected = index + 1;
    });
    if (!isObject) refuseValue(in, "an object");
    for (std::size_t i = 0; i < kCount; ++i) {
      if (seen[i] || !kConditions[i](object)) continue;
      throw JsonValueError("", "has no \"" + std::string(kNames[i]) + "\"");
    }
  }

 private:
  static constexpr std::size_t kCount = std::tuple_size_v<std::decay_t<decltype(kMembers)>>;
  using Indices = std::make_index_sequence<kCount>;

  template <typename Member>
  static void writeMember(JsonWriter& out, const Member& member, const T& object) {
    if (!member.isIn(object)) return;
    out.key(member.name);
    member.write(out, object);
  }

  template <std::size_t Index>
  static void readMember(JsonReader& in, T& object) {
    constexpr auto& member = std::get<Index>(kMembers);
    try {
      member.read(in, object);
    } catch (const JsonValueError& error) {
      throw within(std::string(member.name), error);
    }
  }

  template <std::size_t Index>
  static bool isIn(const T& object) {
    return std::get<Index>(kMembers).isIn(object);
  }

  template <std::size_t... Index>
  static constexpr auto namesOf(std::index_sequence<Index...> /*indices*/) {
    return std::array<std::string_view, kCount>{std::get<Index>(kMembers).name...};
  }
  template <std::size_t... Index>
  static constexpr auto readersOf(std::index_sequence<Index...> /*indices*/) {
    return std::array<void (*)(JsonReader&, T&), kCount>{&readMember<Index>...};
  }
  template <std::size_t... Index>
  static constexpr auto conditionsOf(std::index_sequence<Index...> /*indices*/) {
    return std::array<bool (*)(const T&), kCount>{&isIn<Index>...};
  }

  static constexpr auto kNames = namesOf(Indices());
  static constexpr auto kReaders = readersOf(Indices());
  static constexpr auto kConditions = conditionsOf(Indices());

  // \return kCount if the list has no such member
  static std::size_t find(std::string_view name, std::size_t expected) {
    if (expected < kCount && kNames[expected] == name) return expected;
    return static_cast<std::size_t>(std::find(kNames.begin(), kNames.end(), name) - kNames.begin());
  }
};

template <typename T>
struct JsonValue : JsonFields<T, JsonObject<T>::members> {};

template <>
struct JsonValue<int> {
  static void read(JsonReader& in, int& value);
  static void write(JsonWriter& out, int value) { out.number(std::int64_t{value}); }
};

/// A count of bytes, rows or the like: 0 to 2^63-1, which is what Parquet can count.
template <>
struct JsonValue<std::uint64_t> {
  static void read(JsonReader& in, std::uint64_t& value);
  static void write(JsonWriter& out, std::uint64_t value) { out.number(value); }
};

template <>
struct JsonValue<std::string> {
  static void read(JsonReader& in, std::string& value);
  static void write(JsonWriter& out, const std::string& value) { out.text(value); }
};

template <>
struct JsonValue<KYRSignalDataType> {
  static void read(JsonReader& in, KYRSignalDataType& value);
  static void write(JsonWriter& out, KYRSignalDataType value);
};

template <>
struct JsonValue<KYRSignalCategory> {
  static void read(JsonReader& in, KYRSignalCategory& value);
  static void write(JsonWriter& out, KYRSignalCategory value);
};

/// null if there is none.
template <typename T>
struct JsonValue<std::optional<T>> {
  static void read(JsonReader& in, std::optional<T>& value) {
    value.reset();
    if (!in.takeNull()) JsonValue<T>::read(in, value.emplace());
  }
  static void write(JsonWriter& out, const std::optional<T>& value) {
    if (value) {
      JsonValue<T>::write(out, *value);
    } else {
      out.null();
    }
  }
};

template <typename T, typename Codec = JsonValue<T>>
struct JsonArray {
  static void read(JsonReader& in, std::vector<T>& values) {
    values.clear();
    [[maybe_unused]] const std::size_t begin = in.position();
    const bool isArray = in.takeArray([&] {
      if constexpr (std::is_aggregate_v<T>) {
        // Thousands of objects are mostly as long as the first one.
        if (values.size() == 1) values.reserve(in.remaining() / (in.position() - begin) + 1);
      }
      try {
        Codec::read(in, values.emplace_back());
      } catch (const JsonValueError& error) {
        throw within("[" + std::to_string(values.size() - 1) + "]", error);
      }
    });
    if (!isArray) refuseValue(in, "an array");
  }
  static void write(JsonWriter& out, const std::vector<T>& values) {
    out.beginArray();
    for (const T& value : values) Codec::write(out, value);
    out.endArray();
  }
};

template <typename T>
struct JsonValue<std::vector<T>> : JsonArray<T> {};

}  // namespace kyr
