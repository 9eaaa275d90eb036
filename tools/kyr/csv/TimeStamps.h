#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// Moments as nanoseconds since 1970, and as texts.
namespace kyr::tool {

constexpr std::int64_t kNanoseconds = 1'000'000'000;

struct TimeStamp {
  std::int64_t nanoseconds = 0;  ///< since 1970-01-01T00:00:00, in UTC if there is a zone
  bool hasZone = false;
};

/// Reads ISO 8601, "2024-05-01T10:00:00.25+02:00". The zone, the fraction of up to nine digits and
/// the time of day may lack; a blank may stand for the T. Years from 1678 to 2261 are known.
std::optional<TimeStamp> parseIso(std::string_view text);

/// Reads "10:15:30.5" as nanoseconds since midnight. The hours may go beyond 24.
std::optional<std::int64_t> parseClock(std::string_view text);

/// Reads a text by a pattern of strptime(). "%f" stands for up to nine digits of a fraction.
/// Without a date in the pattern, nanoseconds since midnight.
std::optional<TimeStamp> parseByPattern(const std::string& text, const std::string& pattern);

/// Whether a pattern tells the day.
bool hasDate(const std::string& pattern);

/// "2024-05-01T10:00:00.25Z", with as many digits as are needed.
std::string formatIso(const TimeStamp& stamp);

}  // namespace kyr::tool
