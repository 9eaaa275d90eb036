#include "print/SampleTable.h"

#include <fmt/compile.h>

#include <algorithm>
#include <cmath>
#include <set>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "cli/Text.h"
#include "csv/CellNumbers.h"
#include "csv/HeaderNames.h"

namespace kyr::tool {

using recording::RecordingReader;
using recording::RecordingState;
using recording::RowRange;
using recording::SignalInfo;

namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

// The numbers from `from` to `to`, both included, among the rows.
std::vector<RowRange> numbersBetween(double from, double to, const RowRange& rows) {
  const auto clamped = [&rows](double number) {
    if (!(number > static_cast<double>(rows.from))) return rows.from;
    return number < static_cast<double>(rows.to) ? static_cast<std::uint64_t>(number) : rows.to;
  };
  return {{clamped(std::ceil(from)), clamped(std::floor(to) + 1)}};
}

// Lets the window's rows be the only ones.
void skipRows(RowRange& rows, Window& window) {
  const std::uint64_t count = rows.to - rows.from;
  rows.to = rows.from + std::min(window.endRow, count);
  rows.from += std::min(window.firstRow, count);
  window.firstRow = 0;
  window.endRow = std::numeric_limits<std::uint64_t>::max();
}

// Calls \p visit for each row of a window.
template <typename Visit>
void forEachRow(MergedTimes times, const Window& window, const Visit& visit) {
  for (std::uint64_t row = 0; row < window.endRow && times.next(); ++row) {
    if (row >= window.firstRow && window.isIn(times.time()) && !visit(times)) return;
  }
}

}  // namespace

SampleTable::SampleTable(const RecordingReader& reader, std::vector<SignalInfo> signals)
    : reader_(reader), signals_(std::move(signals)) {}

// A recording that is being written changes between two calls of print().
void SampleTable::refreshSignals() {
  std::map<int, const SignalInfo*> known;
  for (const SignalInfo& signal : reader_.signals()) known[signal.signalId] = &signal;
  for (SignalInfo& signal : signals_) {
    const auto found = known.find(signal.signalId);
    if (found != known.end()) {
      signal = *found->second;
    } else {
      signal.dataStorageId.reset();  // removed before the recording was finished
    }
  }
}

void SampleTable::findRows(std::size_t blockRows) {
  groups_.clear();
  columns_.clear();
  std::map<std::tuple<int, std::uint64_t, std::uint64_t>, std::size_t> places;
  std::map<int, std::uint64_t> shown;
  for (const SignalInfo& signal : signals_) {
    Column& column = columns_.emplace_back();
    if (!signal.dataStorageId) continue;
    const int id = signal.signalId;
    const Group group{id, isCounted(signal), {printed_[id], reader_.pairCount(id)}};
    shown[id] = std::max(group.rows.from, group.rows.to);
    if (group.rows.from >= group.rows.to) continue;
    noteKind(signal, group.isCounted);
    const int times = group.isCounted ? -1 : reader_.withSameTimes(id).front();
    const auto [place, isNew] =
        places.emplace(std::tuple(times, group.rows.from, group.rows.to), groups_.size());
    if (isNew) groups_.push_back(group);
    column.group = place->second;
    column.samples.emplace(reader_, signal, group.rows.to, blockRows);
  }
  printed_ = std::move(shown);
}

// Whether row numbers take the place of the signal's times.
bool SampleTable::isCounted(const SignalInfo& signal) const {
  const std::uint64_t times = reader_.timeCount(signal.signalId);
  const std::uint64_t samples = reader_.sampleCount(signal.signalId);
  if (times == 0 && !signal.timeStorageId) return true;
  if (times == samples || reader_.state() != RecordingState::finished) return false;
  throw std::runtime_error(fmt::format("signal {} has {} but {}: kyr verify tells more",
                                       inQuotes(signal.name), counted(times, "time"),
                                       counted(samples, "sample")));
}

void SampleTable::noteKind(const SignalInfo& signal, bool isCounted) {
  (isCounted ? hasCounts_ : hasTime_) = true;
  if (!hasTime_ || !hasCounts_) return;
  throw std::runtime_error(
      fmt::format("signal {} and others cannot stand in one table, because only some have times: "
                  "name signals of one kind",
                  inQuotes(signal.name)));
}

// Whether rows outside the window may be left out before merging: no time behind the window comes
// before one that is not. It would hold up those that follow it.
bool SampleTable::canLeaveOut(const Group& group, double to) const {
  if (group.isCounted) return true;
  const auto rows = reader_.rowsBetween(group.signal, -kInfinity, to);
  return rows.empty() || (rows.size() == 1 && rows.front().from == 0);
}

std::vector<RowRange> SampleTable::rowsIn(const Group& group, const Window& window) const {
  if (group.isCounted) return numbersBetween(window.from, window.to, group.rows);
  std::vector<RowRange> rows = reader_.rowsBetween(group.signal, window.from, window.to);
  for (RowRange& range : rows) {
    range.from = std::clamp(range.from, group.rows.from, group.rows.to);
    range.to = std::clamp(range.to, group.rows.from, group.rows.to);
  }
  return rows;
}

std::vector<TimeWalk> SampleTable::walks(const Window& window, std::size_t blockRows) const {
  const bool isSelective =
      !window.hasAllTimes() &&
      (groups_.size() == 1 || std::all_of(groups_.begin(), groups_.end(), [&](const Group& group) {
         return canLeaveOut(group, window.to);
       }));
  std::vector<TimeWalk> walks;
  for (const Group& group : groups_) {
    std::vector<RowRange> rows{group.rows};
    if (isSelective) rows = rowsIn(group, window);
    walks.push_back(group.isCounted ? TimeWalk::counting(reader_, std::move(rows), blockRows)
                                    : TimeWalk(reader_, group.signal, std::move(rows), blockRows));
  }
  return walks;
}

// Signals of the same name get their ids behind it. So does a signal called time, where its name is
// a key in JSON. In CSV its column comes back as it was imported.
std::vector<std::string> SampleTable::headerNames() const {
  std::vector<std::string> names{hasCounts_ ? "row" : "time"};
  std::map<std::string, std::set<int>> users;
  for (const SignalInfo& signal : signals_) {
    users[joinHeader(signal.name, signal.unit)].insert(signal.signalId);
  }
  for (const SignalInfo& signal : signals_) {
    std::string name = joinHeader(signal.name, signal.unit);
    if (users[name].size() > 1 || (format_ && name == names.front()))
      name = fmt::format("{} (id {})", name, signal.signalId);
    names.push_back(isTerminal() ? singleLine(name) : name);
  }
  return names;
}

void SampleTable::printHeader(Output& out) const {
  const std::vector<std::string> names = headerNames();
  if (!format_) {
    for (std::size_t i = 0; i < names.size(); ++i) {
      out.print("{}{}", i > 0 ? "," : "", csvCell(names[i]));
    }
    return out.endRow();
  }
  std::vector<CellType> types{start_ ? CellType::text : CellType::number};
  for (const SignalInfo& signal : signals_) types.push_back(SampleColumn::typeOf(signal));
  format_->header(out, names, types);
}

void SampleTable::appendTime(fmt::memory_buffer& buffer, double time) const {
  if (!start_ || hasCounts_ || !std::isfinite(time)) {
    fmt::format_to(fmt::appender(buffer), FMT_COMPILE("{}"), time);
    return;
  }
  // The digits that the time has, and not those of the double.
  constexpr int kDigits = 9;
  const auto exact = parseScaled(fmt::format("{}", time), '.', kDigits);
  TimeStamp stamp = *start_;
  stamp.nanoseconds += exact ? *exact : std::llround(time * static_cast<double>(kNanoseconds));
  buffer.append(formatIso(stamp));
}

// None unless the table is CSV of numbers.
std::optional<std::vector<SampleColumn::ElementText>> SampleTable::numberTexts() const {
  if (format_) return std::nullopt;
  std::vector<SampleColumn::ElementText> texts;
  for (const Column& column : columns_) {
    texts.push_back(column.samples ? column.samples->numberText() : nullptr);
    if (column.samples && texts.back() == nullptr) return std::nullopt;
  }
  return texts;
}

void SampleTable::addRow(RowTexts& rows, const MergedTimes& times) {
  rows.beginRow(times.time());
  for (Column& column : columns_) {
    const bool isThere = column.samples && times.isIn(column.group);
    const char* const number = isThere ? column.samples->number(times.row(column.group)) : nullptr;
    rows.addCell(number, isThere ? column.samples->width() : 0);
  }
  rows.endRow();
}

void SampleTable::printRow(Output& out, const MergedTimes& times) {
  fmt::memory_buffer& buffer = out.buffer();
  appendTime(buffer, times.time());
  for (Column& column : columns_) {
    buffer.push_back(',');
    if (column.samples && times.isIn(column.group)) {
      column.samples->append(buffer, times.row(column.group));
    }
  }
  out.endRow();
}

void SampleTable::printFormatted(Output& out, const MergedTimes& times) {
  std::vector<std::optional<std::string>> cells;
  fmt::memory_buffer cell;
  appendTime(cell, times.time());
  cells.emplace_back(fmt::to_string(cell));
  for (Column& column : columns_) {
    cell.clear();
    cells.emplace_back();
    if (!column.samples || !times.isIn(column.group)) continue;
    column.samples->appendBare(cell, times.row(column.group));
    cells.back() = fmt::to_string(cell);
  }
  format_->row(out, cells);
}

std::uint64_t SampleTable::countRows(const Window& window, std::size_t blockRows) const {
  std::uint64_t rows = 0;
  forEachRow(MergedTimes(walks(window, blockRows)), window, [&](const MergedTimes& /*times*/) {
    ++rows;
    return true;
  });
  return rows;
}

void SampleTable::print(Output& out, const Window& window) {
  const std::size_t blockRows = blockRowsFor(2 * signals_.size());
  refreshSignals();
  findRows(blockRows);
  if (!hasHeader_) printHeader(out);
  hasHeader_ = true;
  // Rows of several groups are counted while they are merged.
  Window rest = window;
  if (groups_.size() == 1) skipRows(groups_.front().rows, rest);
  std::uint64_t skipped = 0;
  if (rest.tail) {
    const std::uint64_t rows = countRows(rest, blockRows);
    skipped = rows - std::min(rows, *rest.tail);
  }
  const RowTexts::TimeText timeText = [this](fmt::memory_buffer& buffer, double time) {
    appendTime(buffer, time);
  };
  std::optional<RowTexts> texts;
  if (auto numbers = numberTexts()) texts.emplace(out, *std::move(numbers), timeText);
  std::uint64_t left = rest.head.value_or(std::numeric_limits<std::uint64_t>::max());
  forEachRow(MergedTimes(walks(rest, blockRows)), rest, [&](const MergedTimes& times) {
    if (skipped > 0) {
      --skipped;
      return true;
    }
    if (left-- == 0) return false;
    if (texts) {
      addRow(*texts, times);
    } else {
      format_ ? printFormatted(out, times) : printRow(out, times);
    }
    return true;
  });
  if (texts) texts->finish();
  columns_.clear();
  out.flush();
}

void SampleTable::end(Output& out) {
  if (format_) format_->end(out);
  out.flush();
}

}  // namespace kyr::tool
