#pragma once

#include <string_view>
#include <tuple>
#include <vector>

#include "kyr/recording/RecordingInfo.h"
#include "recording/Attributes.h"
#include "schema/JsonMembers.h"

/// The members of the JSON objects that describe recordings: one list for each object, which
/// finished, packed and live recordings share. docs/format.md describes them.
namespace kyr::recording {

constexpr std::string_view kFormatName = "kyr recording";

/// null also for an infinite span, for which JSON has no numbers.
struct JsonTimeSpan {
  static void read(JsonReader& in, std::optional<TimeSpan>& span);
  static void write(JsonWriter& out, const std::optional<TimeSpan>& span);
};

/// Digests as one text of 16 hexadecimal digits each.
struct JsonBlocks {
  static void read(JsonReader& in, std::vector<std::uint64_t>& blocks);
  static void write(JsonWriter& out, const std::vector<std::uint64_t>& blocks);
};

/// A number, or the text "inf" or "-inf", for which JSON has no numbers.
struct JsonBound {
  static void read(JsonReader& in, std::optional<double>& bound);
  static void write(JsonWriter& out, const std::optional<double>& bound);
};

/// 32 hexadecimal digits.
struct JsonChecksum {
  static void read(JsonReader& in, std::string& checksum);
  static void write(JsonWriter& out, const std::string& checksum) { out.text(checksum); }
};

/// A member that only the description of a finished recording has: its files tell it.
template <typename Member>
struct FinishedOnly : Member {};
template <typename Member>
constexpr FinishedOnly<Member> finishedOnly(const Member& member) {
  return {member};
}

/// The codec of files that have none.
constexpr std::string_view kNoCodec = "uncompressed";

// recording.json leaves out what is the same for most signals.
inline bool hasCodec(const SignalInfo& signal) { return signal.compression != kNoCodec; }
inline bool hasDescription(const SignalInfo& signal) { return !signal.description.empty(); }
inline bool hasDimensions(const SignalInfo& signal) { return !signal.dimensions.empty(); }
inline bool hasUnit(const SignalInfo& signal) { return !signal.unit.empty(); }

/// The members of a signal.
/// \tparam kAreAllThere  whether a signal has those as well that go without saying: in a live
///         recording, and in versions 1 and 2
template <bool kAreAllThere>
constexpr auto signalMembers() {
  using T = SignalInfo;
  const auto unless = [](bool (*isThere)(const T&)) { return kAreAllThere ? nullptr : isThere; };
  return std::make_tuple(
      member<T>("category", &T::category),
      finishedOnly(member<T>("compression", &T::compression, unless(hasCodec))),
      member<T>("dataStorageId", &T::dataStorageId), member<T>("dataType", &T::dataType),
      member<T>("description", &T::description, unless(hasDescription)),
      member<T>("dimensions", &T::dimensions, unless(hasDimensions)), member<T>("id", &T::signalId),
      member<T>("name", &T::name), finishedOnly(member<T>("rowCount", &T::rowCount)),
      finishedOnly(member<T, JsonTimeSpan>("timeSpan", &T::timeSpan)),
      member<T>("timeStorageId", &T::timeStorageId), member<T>("unit", &T::unit, unless(hasUnit)));
}
inline constexpr auto kSignalMembers = signalMembers<false>();
inline constexpr auto kAllSignalMembers = signalMembers<true>();

/// The member "signals" of a recording.
struct SignalsMember {
  std::string_view name = "signals";

  static constexpr bool isIn(const RecordingInfo& /*info*/) { return true; }
  static void read(JsonReader& in, RecordingInfo& info);
  static void write(JsonWriter& out, const RecordingInfo& info);
};

}  // namespace kyr::recording

namespace kyr {

template <>
struct JsonValue<recording::SignalInfo>
    : JsonFields<recording::SignalInfo, recording::kSignalMembers> {
  static void read(JsonReader& in, recording::SignalInfo& signal) {
    signal.compression = recording::kNoCodec;
    JsonFields::read(in, signal);
  }
};

template <>
struct JsonObject<recording::FileInfo> {
  using T = recording::FileInfo;
  static constexpr bool isPacked(const T& file) { return file.pack.has_value(); }
  static constexpr bool isWhole(const T& file) { return !file.pack; }
  static bool hasBlocks(const T& file) { return !file.blocks.empty(); }
  static bool hasDigest(const T& file) { return !file.contentDigest.empty(); }
  static constexpr bool hasMinimum(const T& file) { return file.minimum.has_value(); }
  static constexpr bool hasMaximum(const T& file) { return file.maximum.has_value(); }
  static constexpr auto members = std::make_tuple(
      member<T, recording::JsonBlocks>("blocks_xxh3_64", &T::blocks, hasBlocks),
      member<T, recording::JsonChecksum>("content_xxh3_128", &T::contentDigest, hasDigest),
      member<T>("firstRow", &T::firstRow, isPacked),
      member<T, recording::JsonBound>("maximum", &T::maximum, hasMaximum),
      member<T, recording::JsonBound>("minimum", &T::minimum, hasMinimum),
      member<T>("pack", &T::pack, isPacked), member<T>("rowCount", &T::rowCount),
      member<T>("size", &T::size, isWhole), member<T>("storageId", &T::storageId),
      member<T, recording::JsonChecksum>("xxh3_128", &T::checksum, isWhole));
};

template <>
struct JsonObject<recording::PackInfo> {
  using T = recording::PackInfo;
  static bool hasBlocks(const T& pack) { return !pack.blocks.empty(); }
  static constexpr auto members = std::make_tuple(
      member<T, recording::JsonBlocks>("blocks_xxh3_64", &T::blocks, hasBlocks),
      member<T>("pack", &T::number), member<T>("rowCount", &T::rowCount),
      member<T>("size", &T::size), member<T, recording::JsonChecksum>("xxh3_128", &T::checksum));
};

template <>
struct JsonObject<recording::RecordingInfo> {
  using T = recording::RecordingInfo;
  static bool hasAttributes(const T& info) { return !info.attributes.empty(); }
  static bool hasPacks(const T& info) { return info.formatVersion == 2 || !info.packs.empty(); }
  static bool hasTable(const T& info) { return !info.signalsChecksum.empty(); }
  static bool hasRecords(const T& info) { return info.formatVersion < 2; }
  static constexpr auto members = std::make_tuple(
      member<T, recording::JsonAttributes>("attributes", &T::attributes, hasAttributes),
      member<T>("files", &T::files), constant("format", recording::kFormatName),
      member<T>("formatVersion", &T::formatVersion), member<T>("packs", &T::packs, hasPacks),
      member<T>("records", &T::records, hasRecords), recording::SignalsMember(),
      member<T, recording::JsonChecksum>("signals_xxh3_128", &T::signalsChecksum, hasTable));
};

}  // namespace kyr

namespace kyr::recording {

/// The members of a signal whose files still grow.
template <typename Member>
constexpr auto ifLive(const Member& member) {
  return std::make_tuple(member);
}
template <typename Member>
constexpr std::tuple<> ifLive(const FinishedOnly<Member>& /*member*/) {
  return {};
}
template <typename... Members>
constexpr auto liveMembers(const std::tuple<Members...>& members) {
  return std::apply([](const auto&... each) { return std::tuple_cat(ifLive(each)...); }, members);
}
inline constexpr auto kLiveSignalMembers = liveMembers(kAllSignalMembers);
using JsonLiveSignal = JsonFields<SignalInfo, kLiveSignalMembers>;
/// A signal of a description of any kind that is damaged.
inline constexpr auto kSalvagedSignalMembers = liveMembers(kSignalMembers);
using JsonSalvagedSignal = JsonFields<SignalInfo, kSalvagedSignalMembers>;

/// \throws std::invalid_argument if a text of the signal is no valid UTF-8
void requireText(const SignalDescription& signal);

/// Readers multiply the dimensions of a sample, the bytes of an element, and the number of samples.
/// \throws std::invalid_argument naming the signal if that is more than 64 bits can count
void requireCountable(const SignalInfo& signal);

/// Looks whether a recording that grows can describe a signal and count its samples, before it has
/// any.
/// \throws std::invalid_argument naming the signal and what cannot be
void requireWritable(const SignalInfo& signal);

}  // namespace kyr::recording
