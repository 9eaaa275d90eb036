#include "recording/RecordingMembers.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <system_error>

#include "kyr/parquet/SignalTypes.h"
#include "schema/TypeNames.h"

namespace kyr::recording {

namespace {

constexpr std::size_t kBlockDigits = 16;
constexpr std::size_t kChecksumDigits = 32;

// Looks at all characters, so that the compiler compares many at once.
bool areDigits(std::string_view text) {
  bool areAll = true;
  for (const char c : text) areAll &= (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
  return areAll;
}

// \param what  it is, such as "time"
double readFinite(JsonReader& in, const char* what, const char* expected) {
  std::string_view text;
  if (!in.takeNumber(text)) refuseValue(in, expected);
  double value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error == std::errc() && std::isfinite(value)) return value;
  throw JsonValueError("", fmt::format("has the {} {}, which is out of range", what, text));
}

}  // namespace

void JsonTimeSpan::read(JsonReader& in, std::optional<TimeSpan>& span) {
  span.reset();
  if (in.takeNull()) return;
  std::size_t count = 0;
  double times[2]{};
  const bool isArray = in.takeArray([&] {
    const double time = readFinite(in, "time", "a time in seconds");
    if (count < 2) times[count] = time;
    ++count;
  });
  if (!isArray) refuseValue(in, "null or an array of two times");
  if (count != 2) throw JsonValueError("", fmt::format("has {} times, expected two", count));
  span = {times[0], times[1]};
}

void JsonTimeSpan::write(JsonWriter& out, const std::optional<TimeSpan>& span) {
  if (!span || !std::isfinite(span->from) || !std::isfinite(span->to)) {
    out.null();
    return;
  }
  out.beginArray();
  out.number(span->from);
  out.number(span->to);
  out.endArray();
}

void JsonBound::read(JsonReader& in, std::optional<double>& bound) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  std::string text;
  if (!in.takeText(text)) {
    bound = readFinite(in, "value", "a number");
  } else if (text == "inf" || text == "-inf") {
    bound = text == "inf" ? kInfinity : -kInfinity;
  } else {
    throw JsonValueError("", fmt::format("is \"{}\", expected a number", text));
  }
}

void JsonBound::write(JsonWriter& out, const std::optional<double>& bound) {
  if (std::isfinite(*bound)) {
    out.number(*bound);
  } else {
    out.text(*bound > 0 ? "inf" : "-inf");
  }
}

void JsonBlocks::read(JsonReader& in, std::vector<std::uint64_t>& blocks) {
  const std::string digits = readText(in);
  if (digits.empty() || digits.size() % kBlockDigits != 0 || !areDigits(digits)) {
    throw JsonValueError("", "is no sequence of digests of 16 hexadecimal digits each");
  }
  blocks.resize(digits.size() / kBlockDigits);
  for (std::size_t i = 0; i < blocks.size(); ++i) {
    const char* begin = digits.data() + i * kBlockDigits;
    std::from_chars(begin, begin + kBlockDigits, blocks[i], 16);
  }
}

void JsonBlocks::write(JsonWriter& out, const std::vector<std::uint64_t>& blocks) {
  std::string digits;
  digits.reserve(blocks.size() * kBlockDigits);
  for (const std::uint64_t block : blocks) {
    fmt::format_to(std::back_inserter(digits), "{:016x}", block);
  }
  out.text(digits);
}

void JsonChecksum::read(JsonReader& in, std::string& checksum) {
  if (!in.takeText(checksum)) refuseValue(in, "a text");
  if (checksum.size() == kChecksumDigits && areDigits(checksum)) return;
  throw JsonValueError("", "is no checksum of 32 hexadecimal digits");
}

void SignalsMember::read(JsonReader& in, RecordingInfo& info) {
  JsonArray<SignalInfo>::read(in, info.signals);
}

void SignalsMember::write(JsonWriter& out, const RecordingInfo& info) {
  if (info.formatVersion > 2) {
    JsonArray<SignalInfo>::write(out, info.signals);
  } else {
    JsonArray<SignalInfo, JsonFields<SignalInfo, kAllSignalMembers>>::write(out, info.signals);
  }
}

void requireText(const SignalDescription& signal) {
  for (const std::string* text : {&signal.name, &signal.unit, &signal.description}) {
    if (plainLength(*text) == text->size()) continue;
    try {
      static_cast<void>(toUtf16(*text));
    } catch (const std::invalid_argument& error) {
      throw std::invalid_argument(fmt::format("signal {}: {}", signal.signalId, error.what()));
    }
  }
}

void requireCountable(const SignalInfo& signal) {
  constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();
  const auto& dimensions = signal.dimensions;
  if (std::count(dimensions.begin(), dimensions.end(), 0U) > 0) return;
  std::uint64_t bytes = std::max<std::uint64_t>(1, parquet::elementWidth(signal.dataType));
  const auto multiply = [&](std::uint64_t factor) {
    if (factor > 0 && bytes > kMost / factor) {
      throw std::invalid_argument(fmt::format(
          "signal {}: {} samples of the dimensions [{}] are more bytes than 64 bits can "
          "count",
          signal.signalId, signal.rowCount, fmt::join(dimensions, ", ")));
    }
    bytes *= std::max<std::uint64_t>(1, factor);
  };
  for (const std::size_t extent : dimensions) multiply(extent);
  if (!dimensions.empty()) multiply(signal.rowCount);
}

void requireWritable(const SignalInfo& signal) {
  constexpr std::size_t kMostTextBytes = 65536;
  if (dataTypeName(signal.dataType).empty() || categoryName(signal.category).empty()) {
    throw std::invalid_argument(fmt::format("signal {}: data type {} or category {} is unknown",
                                            signal.signalId, static_cast<int>(signal.dataType),
                                            static_cast<int>(signal.category)));
  }
  requireText(signal);
  for (const auto& [what, text] : {std::pair("name", &signal.name),
                                   {"unit", &signal.unit},
                                   {"description", &signal.description}}) {
    if (text->size() > kMostTextBytes) {
      throw std::invalid_argument(
          fmt::format("signal {}: its {} has {} bytes, at most {} are possible", signal.signalId,
                      what, text->size(), kMostTextBytes));
    }
  }
  requireCountable(signal);
}

}  // namespace kyr::recording
