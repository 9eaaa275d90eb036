#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kyr::tool {

/// The attribute of a recording that tells from when its times count.
constexpr const char* kStartAttribute = "start";

struct TimeUnit {
  std::string_view name;
  int power = 0;  ///< a unit has `factor` times 10^power seconds
  double factor = 1;
};

/// The unit called so, such as "ms", "usec" or "Hours", in any case; null if there is none.
const TimeUnit* timeUnitCalled(std::string_view name);

/// How the times of a CSV text are written, and what they are in seconds.
struct TimeForm {
  enum class Kind {
    number,     ///< a number of the unit
    sinceUnix,  ///< a number of the unit since 1970
    iso,
    clock,
    pattern,
  };

  Kind kind = Kind::number;
  TimeUnit unit;
  std::string pattern;
  bool hasZone = false;

  /// The whole second [ns] from which the times of the recording count.
  std::int64_t origin = 0;

  /// Whether cells are numbers of seconds, which are stored as they are.
  bool isPlain() const { return kind == Kind::number && unit.power == 0 && unit.factor == 1; }

  /// Whether the times are moments and not durations, so that the recording has to tell the origin.
  bool isAbsolute() const;

  /// The nanoseconds that a cell says, since 1970 if it is a moment. Nothing if they are no whole
  /// number, or the cell says something else.
  std::optional<std::int64_t> nanoseconds(std::string_view text, char decimalMark) const;

  /// The seconds that a cell with a number says.
  std::optional<double> seconds(std::string_view text, char decimalMark) const;

  /// The seconds from the origin on.
  double sinceOrigin(std::int64_t nanoseconds) const;

  /// Whether the double that sinceOrigin() gives has all the digits.
  bool isExact(std::int64_t nanoseconds) const;

  /// The origin as a text.
  std::string start() const;
};

/// Whether no double has all digits of a number of seconds with a fraction of nine digits or less.
/// Longer fractions are those of doubles that were printed with more digits than they have.
bool isRoundedSecond(std::string_view text, char decimalMark);

}  // namespace kyr::tool
