#include "csv/TimeStamps.h"

#include <arrow/util/value_parsing.h>
#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstddef>
#include <ctime>

namespace kyr::tool {

namespace {

constexpr std::size_t kMaxFraction = 9;

// Takes the digits of a fraction off the front of a text.
std::optional<std::int64_t> takeFraction(std::string_view& text) {
  std::size_t digits = 0;
  std::int64_t value = 0;
  for (; digits < text.size() && text[digits] >= '0' && text[digits] <= '9'; ++digits) {
    if (digits == kMaxFraction) return std::nullopt;
    value = value * 10 + (text[digits] - '0');
  }
  if (digits == 0) return std::nullopt;
  text.remove_prefix(digits);
  for (; digits < kMaxFraction; ++digits) value *= 10;
  return value;
}

// Years whose nanoseconds 64 bits can count.
bool isKnownYear(std::int64_t year) { return year >= 1678 && year <= 2261; }

std::optional<std::int64_t> takeNumber(std::string_view& text) {
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || text.front() == '-') return std::nullopt;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return value;
}

bool takeColon(std::string_view& text) {
  if (text.empty() || text.front() != ':') return false;
  text.remove_prefix(1);
  return true;
}

}  // namespace

std::optional<TimeStamp> parseIso(std::string_view text) {
  constexpr std::size_t kShortest = 10;
  std::int64_t year = 0;
  if (text.size() < kShortest || text[4] != '-') return std::nullopt;
  const auto [end, error] = std::from_chars(text.data(), text.data() + 4, year);
  if (error != std::errc() || end != text.data() + 4 || !isKnownYear(year)) return std::nullopt;
  std::string written(text);
  std::replace(written.begin(), written.end(), ',', '.');
  TimeStamp stamp;
  const bool isRead = ::arrow::internal::ParseTimestampISO8601(
      written.data(), written.size(), ::arrow::TimeUnit::NANO, &stamp.nanoseconds, &stamp.hasZone);
  return isRead ? std::optional(stamp) : std::nullopt;
}

std::optional<std::int64_t> parseClock(std::string_view text) {
  constexpr std::int64_t kMostHours = 1'000'000;
  constexpr std::int64_t kSixty = 60;
  if (text.empty()) return std::nullopt;
  const auto hours = takeNumber(text);
  if (!hours || *hours > kMostHours || !takeColon(text) || text.empty()) return std::nullopt;
  const auto minutes = takeNumber(text);
  if (!minutes || *minutes >= kSixty || !takeColon(text) || text.empty()) return std::nullopt;
  const auto seconds = takeNumber(text);
  if (!seconds || *seconds >= kSixty) return std::nullopt;
  std::int64_t fraction = 0;
  if (!text.empty()) {
    if (text.front() != '.' && text.front() != ',') return std::nullopt;
    text.remove_prefix(1);
    const auto digits = takeFraction(text);
    if (!digits || !text.empty()) return std::nullopt;
    fraction = *digits;
  }
  return ((*hours * kSixty + *minutes) * kSixty + *seconds) * kNanoseconds + fraction;
}

bool hasDate(const std::string& pattern) {
  for (std::size_t i = 0; i + 1 < pattern.size(); ++i) {
    if (pattern[i] != '%') continue;
    ++i;
    if (std::string_view("YyFDcsxGj").find(pattern[i]) != std::string_view::npos) return true;
  }
  return false;
}

std::optional<TimeStamp> parseByPattern(const std::string& text, const std::string& pattern) {
  std::tm parts{};
  parts.tm_year = 70;
  parts.tm_mday = 1;
  std::int64_t fraction = 0;
  const std::size_t mark = std::min(pattern.find("%f"), pattern.size());
  const char* at = ::strptime(text.c_str(), pattern.substr(0, mark).c_str(), &parts);
  if (at != nullptr && mark < pattern.size()) {
    std::string_view rest(at);
    const auto digits = takeFraction(rest);
    if (!digits) return std::nullopt;
    fraction = *digits;
    at = ::strptime(rest.data(), pattern.substr(mark + 2).c_str(), &parts);
  }
  if (at == nullptr || *at != '\0' || !isKnownYear(parts.tm_year + std::int64_t{1900})) {
    return std::nullopt;
  }
  const std::int64_t offset = parts.tm_gmtoff;  // timegm() clears it
  TimeStamp stamp;
  stamp.hasZone = pattern.find("%z") != std::string::npos;
  stamp.nanoseconds = (std::int64_t{::timegm(&parts)} - offset) * kNanoseconds + fraction;
  return stamp;
}

std::string formatIso(const TimeStamp& stamp) {
  std::int64_t fraction = stamp.nanoseconds % kNanoseconds;
  if (fraction < 0) fraction += kNanoseconds;
  const std::time_t seconds = (stamp.nanoseconds - fraction) / kNanoseconds;
  std::tm parts{};
  ::gmtime_r(&seconds, &parts);
  std::string text =
      fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", parts.tm_year + 1900, parts.tm_mon + 1,
                  parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
  if (fraction > 0) {
    text += fmt::format(".{:09}", fraction);
    text.erase(text.find_last_not_of('0') + 1);
  }
  return stamp.hasZone ? text + "Z" : text;
}

}  // namespace kyr::tool
