#include "csv/TimeColumn.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <optional>
#include <stdexcept>
#include <string_view>

#include "cli/Text.h"
#include "csv/CsvMessages.h"
#include "csv/DialectGuess.h"
#include "csv/HeaderNames.h"
#include "csv/TimeStamps.h"

namespace kyr::tool {

namespace {

// A name in small letters, with "_" between words.
std::string plainName(std::string_view name) {
  std::string plain;
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    const bool isWord = std::isalnum(byte) != 0 || byte >= 0x80;
    if (isWord) {
      plain += static_cast<char>(byte < 0x80 ? std::tolower(byte) : byte);
    } else if (!plain.empty() && plain.back() != '_') {
      plain += '_';
    }
  }
  while (!plain.empty() && plain.back() == '_') plain.pop_back();
  return plain;
}

// A name such as "time_us" without its unit, if that is one.
std::string withoutUnit(const std::string& plain, std::string& unit) {
  const std::size_t mark = plain.rfind('_');
  if (mark == std::string::npos || mark == 0) return plain;
  const std::string end = plain.substr(mark + 1);
  if (end == "d" || timeUnitCalled(end) == nullptr) return plain;
  unit = end;
  return plain.substr(0, mark);
}

// How surely a column of this name holds the times: 0 for not at all.
int rankOf(const std::string& header, std::string& unit) {
  constexpr std::array<std::string_view, 11> kOthers{
      "timestamp",       "time_stamp",   "datetime", "date_time", "sim_time", "simtime",
      "simulation_time", "elapsed_time", "elapsed",  "rel_time",  "zeit"};
  HeaderName split = splitHeader(header);
  unit = split.unit;
  std::string suffix;
  const std::string name = withoutUnit(plainName(split.name), suffix);
  if (unit.empty()) unit = suffix;
  if (name == "time") return 3;
  if (std::find(kOthers.begin(), kOthers.end(), name) != kOthers.end()) return 2;
  return name == "t" ? 1 : 0;
}

// The first value of a column in the rows that were looked at; empty without one.
std::string firstCell(const CsvLayout& layout, std::size_t place) {
  for (const std::vector<std::string>& row : layout.rows) {
    if (place < row.size() && !isMissing(layout.dialect, row[place])) return row[place];
  }
  return {};
}

std::optional<TimeForm::Kind> kindOf(const std::string& cell, const CsvDialect& dialect) {
  if (isNumberCell(cell, dialect)) return TimeForm::Kind::number;
  if (parseIso(cell)) return TimeForm::Kind::iso;
  if (parseClock(cell)) return TimeForm::Kind::clock;
  return std::nullopt;
}

std::size_t placeCalled(const std::string& source, const CsvLayout& layout,
                        const std::string& name) {
  const auto& names = layout.names;
  auto found = std::find(names.begin(), names.end(), name);
  if (found == names.end()) {
    found = std::find_if(names.begin(), names.end(), [&](const std::string& header) {
      return splitHeader(header).name == name;
    });
  }
  if (found != names.end()) return static_cast<std::size_t>(found - names.begin());
  throw std::runtime_error(fmt::format("{}: there is no column {} for --time: the names are {}",
                                       source, inQuotes(name), firstNames(names)));
}

// The column with the best name whose cells are times, or else the first.
std::size_t bestPlace(const CsvLayout& layout) {
  std::size_t best = 0;
  int most = 0;
  std::string unit;
  for (std::size_t i = 0; i < layout.names.size(); ++i) {
    const int rank = rankOf(layout.names[i], unit);
    const std::string cell = firstCell(layout, i);
    if (rank <= most || (!cell.empty() && !kindOf(cell, layout.dialect))) continue;
    most = rank;
    best = i;
  }
  return best;
}

TimeForm::Kind chosenKind(const std::string& cell, const CsvLayout& layout,
                          const CsvOptions& options) {
  const std::string& format = options.timeFormat;
  if (format == "number") return TimeForm::Kind::number;
  if (format == "iso") return TimeForm::Kind::iso;
  if (format == "clock") return TimeForm::Kind::clock;
  if (format == "unix") return TimeForm::Kind::sinceUnix;
  if (!format.empty()) return TimeForm::Kind::pattern;
  return kindOf(cell, layout.dialect).value_or(TimeForm::Kind::number);
}

// Numbers of a small unit that are moments of this century count from 1970. As seconds a double
// could not tell their nanoseconds apart.
bool isMoment(const TimeForm& form, const std::string& cell, char decimalMark) {
  constexpr std::int64_t kFirst = 1'000'000'000;  // [s], in September 2001
  const auto nanoseconds = form.nanoseconds(cell, decimalMark);
  return form.unit.power < 0 && nanoseconds && *nanoseconds / kNanoseconds >= kFirst;
}

void chooseUnit(const std::string& source, const std::string& given, const CsvOptions& options,
                TimeForm& form, std::vector<std::string>& notes) {
  const std::string& name = options.timeUnit.empty() ? given : options.timeUnit;
  const TimeUnit* const unit = timeUnitCalled(name);
  if (unit != nullptr) {
    form.unit = *unit;
  } else {
    notes.push_back(
        fmt::format("warning: {}: the times are in {}, which is no known unit, and are "
                    "stored as seconds (--time-unit gives their unit)",
                    source, inQuotes(name)));
  }
}

// Tells of seconds that are moments of this century if they are taken for a smaller unit.
void noteLargeTimes(const std::string& source, const CsvLayout& layout, const TimeForm& form,
                    const std::string& cell, std::vector<std::string>& notes) {
  constexpr double kFirst = 1e9;   // [s], in September 2001
  constexpr double kLast = 4.1e9;  // [s], in December 2099
  const auto first = form.seconds(cell, layout.dialect.decimalMark);
  if (!form.isPlain() || !first) return;
  double scale = 1;
  for (const char* unit : {"ms", "us", "ns"}) {
    scale *= 1000;
    if (*first < kFirst * scale || *first > kLast * scale) continue;
    notes.push_back(fmt::format(
        "warning: {}: the times begin at {} s (--time-unit {} reads them as times since 1970)",
        source, cell, unit));
  }
}

// The origin is the whole second of the first time.
void chooseOrigin(const CsvLayout& layout, std::size_t place, TimeForm& form) {
  if (!form.isAbsolute()) return;
  for (const std::vector<std::string>& row : layout.rows) {
    if (place >= row.size()) continue;
    if (const auto stamp = parseIso(row[place])) form.hasZone = stamp->hasZone;
    const auto first = form.nanoseconds(row[place], layout.dialect.decimalMark);
    if (!first) continue;
    const std::int64_t fraction = *first % kNanoseconds;
    form.origin = *first - fraction - (fraction < 0 ? kNanoseconds : 0);
    break;
  }
  if (form.kind == TimeForm::Kind::sinceUnix) form.hasZone = true;
  if (form.kind == TimeForm::Kind::pattern) {
    form.hasZone = form.pattern.find("%z") != std::string::npos;
  }
}

}  // namespace

bool isTimeName(const std::string& header) {
  constexpr int kSure = 2;
  std::string unit;
  return rankOf(header, unit) >= kSure;
}

TimeColumn findTimeColumn(const std::string& source, const CsvLayout& layout,
                          const CsvOptions& options, std::vector<std::string>& notes) {
  TimeColumn column;
  column.place =
      options.timeName.empty() ? bestPlace(layout) : placeCalled(source, layout, options.timeName);
  const std::string& header = layout.names[column.place];
  std::string unit;
  const int rank = rankOf(header, unit);
  column.name = splitHeader(header).name;
  if (column.place > 0 && options.timeName.empty()) {
    notes.push_back(fmt::format("{}: the times are those of column {}, {} (--time says otherwise)",
                                source, column.place + 1, inQuotes(column.name)));
  }
  if (rank == 0) unit = splitHeader(header).unit;
  if (unit.empty() && column.place < layout.units.size()) unit = layout.units[column.place];
  const std::string cell = firstCell(layout, column.place);
  column.form.kind = chosenKind(cell, layout, options);
  column.form.pattern = options.timeFormat;
  const bool isNumber =
      column.form.kind == TimeForm::Kind::number || column.form.kind == TimeForm::Kind::sinceUnix;
  if (isNumber) chooseUnit(source, unit, options, column.form, notes);
  const bool isFree = options.timeFormat.empty() && column.form.kind == TimeForm::Kind::number;
  if (isFree && isMoment(column.form, cell, layout.dialect.decimalMark)) {
    column.form.kind = TimeForm::Kind::sinceUnix;
  }
  if (isFree && options.timeUnit.empty() && unit.empty()) {
    noteLargeTimes(source, layout, column.form, cell, notes);
  }
  chooseOrigin(layout, column.place, column.form);
  if (column.form.isAbsolute()) {
    notes.push_back(
        fmt::format("{}: the times count from {} on, which is the attribute \"start\" "
                    "of the recording",
                    source, column.form.start()));
  }
  return column;
}

}  // namespace kyr::tool
