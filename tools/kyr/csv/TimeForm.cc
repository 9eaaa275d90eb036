#include "csv/TimeForm.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>

#include "csv/CellNumbers.h"
#include "csv/TimeStamps.h"

namespace kyr::tool {

namespace {

struct UnitName {
  std::string_view name;
  TimeUnit unit;
};

constexpr TimeUnit kSeconds{"s", 0, 1};
constexpr TimeUnit kMilliseconds{"ms", -3, 1};
constexpr TimeUnit kMicroseconds{"us", -6, 1};
constexpr TimeUnit kNanosecond{"ns", -9, 1};
constexpr TimeUnit kMinutes{"min", 0, 60};
constexpr TimeUnit kHours{"h", 0, 3600};
constexpr TimeUnit kDays{"d", 0, 86400};

// "µ" has two codes.
constexpr std::array<UnitName, 31> kUnits{{{"", kSeconds},
                                           {"s", kSeconds},
                                           {"sec", kSeconds},
                                           {"secs", kSeconds},
                                           {"second", kSeconds},
                                           {"seconds", kSeconds},
                                           {"ms", kMilliseconds},
                                           {"msec", kMilliseconds},
                                           {"millis", kMilliseconds},
                                           {"millisecond", kMilliseconds},
                                           {"milliseconds", kMilliseconds},
                                           {"us", kMicroseconds},
                                           {"usec", kMicroseconds},
                                           {"micros", kMicroseconds},
                                           {"microsecond", kMicroseconds},
                                           {"microseconds", kMicroseconds},
                                           {"\xC2\xB5s", kMicroseconds},
                                           {"\xCE\xBCs", kMicroseconds},
                                           {"ns", kNanosecond},
                                           {"nsec", kNanosecond},
                                           {"nanos", kNanosecond},
                                           {"nanosecond", kNanosecond},
                                           {"nanoseconds", kNanosecond},
                                           {"min", kMinutes},
                                           {"minute", kMinutes},
                                           {"minutes", kMinutes},
                                           {"h", kHours},
                                           {"hour", kHours},
                                           {"hours", kHours},
                                           {"d", kDays},
                                           {"days", kDays}}};

// The last digit of the fraction that is not 0 stands at 10^-places.
int placesOf(std::int64_t fraction) {
  int places = 9;
  for (; places > 0 && fraction % 10 == 0; --places) fraction /= 10;
  return places;
}

bool parseWholeNumber(std::string_view text, int& value) {
  constexpr int kMost = 100'000;
  const char* const textEnd = text.data() + text.size();
  const auto [end, error] = std::from_chars(text.data(), textEnd, value);
  return error == std::errc() && end == textEnd && std::abs(value) < kMost;
}

}  // namespace

const TimeUnit* timeUnitCalled(std::string_view name) {
  const auto isSame = [](char a, char b) {
    return (a >= 'A' && a <= 'Z' ? static_cast<char>(a - 'A' + 'a') : a) == b;
  };
  for (const UnitName& known : kUnits) {
    const bool isIt =
        std::equal(name.begin(), name.end(), known.name.begin(), known.name.end(), isSame);
    if (isIt) return &known.unit;
  }
  return nullptr;
}

bool TimeForm::isAbsolute() const {
  return kind == Kind::iso || kind == Kind::sinceUnix ||
         (kind == Kind::pattern && hasDate(pattern));
}

std::optional<std::int64_t> TimeForm::nanoseconds(std::string_view text, char decimalMark) const {
  constexpr int kPower = 9;
  std::optional<TimeStamp> stamp;
  switch (kind) {
    case Kind::iso:
      stamp = parseIso(text);
      if (stamp && stamp->hasZone != hasZone) return std::nullopt;
      break;
    case Kind::pattern:
      stamp = parseByPattern(std::string(text), pattern);
      break;
    case Kind::clock:
      return parseClock(text);
    default:
      if (unit.factor != 1) return std::nullopt;
      return parseScaled(text, decimalMark, kPower + unit.power);
  }
  return stamp ? std::optional(stamp->nanoseconds) : std::nullopt;
}

// The power of ten goes into the text, so that only one rounding happens.
std::optional<double> TimeForm::seconds(std::string_view text, char decimalMark) const {
  if (kind != Kind::number) return std::nullopt;
  std::string number(text);
  const std::size_t exponent = number.find_first_of("eE");
  if (unit.power != 0 && !number.empty() && number.back() >= '0' && number.back() <= '9') {
    int power = unit.power;
    if (exponent != std::string::npos) {
      const std::size_t digits = exponent + (number[exponent + 1] == '+' ? 2 : 1);
      int given = 0;
      if (!parseWholeNumber(std::string_view(number).substr(digits), given)) return std::nullopt;
      power += given;
      number.resize(exponent);
    }
    number += "e" + std::to_string(power);
  }
  double value = 0;
  if (parseReal(number, decimalMark, value) == CellFit::none) return std::nullopt;
  return value * unit.factor;
}

double TimeForm::sinceOrigin(std::int64_t nanoseconds) const {
  constexpr std::int64_t kExact = std::int64_t{1} << 53U;
  const std::int64_t whole = nanoseconds / kNanoseconds - origin / kNanoseconds;
  const std::int64_t fraction = nanoseconds % kNanoseconds - origin % kNanoseconds;
  // Below 2^53 one division rounds once.
  if (std::abs(whole) < kExact / kNanoseconds) {
    return static_cast<double>(nanoseconds - origin) / static_cast<double>(kNanoseconds);
  }
  return static_cast<double>(whole) +
         static_cast<double>(fraction) / static_cast<double>(kNanoseconds);
}

bool TimeForm::isExact(std::int64_t nanoseconds) const {
  const std::int64_t fraction = nanoseconds % kNanoseconds - origin % kNanoseconds;
  const std::int64_t whole = nanoseconds / kNanoseconds - origin / kNanoseconds;
  std::int64_t scale = 1;
  for (int places = placesOf(fraction); places > 0; --places) scale *= 10;
  const std::int64_t digits = fraction / (kNanoseconds / scale);
  const auto read = static_cast<long double>(sinceOrigin(nanoseconds));
  return std::round(read * static_cast<long double>(scale)) ==
         static_cast<long double>(whole) * static_cast<long double>(scale) +
             static_cast<long double>(digits);
}

bool isRoundedSecond(std::string_view text, char decimalMark) {
  constexpr std::size_t kExact = 16;  // characters, with the decimal mark
  if (text.size() <= kExact) return false;
  const TimeForm plain;
  const auto nanoseconds = plain.nanoseconds(text, decimalMark);
  return nanoseconds && !plain.isExact(*nanoseconds);
}

std::string TimeForm::start() const { return formatIso({origin, hasZone}); }

}  // namespace kyr::tool
