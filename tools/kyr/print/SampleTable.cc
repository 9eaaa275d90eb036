#include "print/SampleTable.h"

#include <fmt/compile.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "cli/Text.h"
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

}  // namespace

bool Window::hasAllTimes() const { return std::isinf(from) && std::isinf(to); }

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

void SampleTable::printHeader(Output& out) const {
  out.print("{}", hasCounts_ ? "row" : "time");
  for (const SignalInfo& signal : signals_) {
    out.print(",{}", csvCell(joinHeader(signal.name, signal.unit)));
  }
  out.endRow();
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
  fmt::memory_buffer& buffer = out.buffer();
  MergedTimes times(walks(rest, blockRows));
  for (std::uint64_t row = 0; row < rest.endRow && times.next(); ++row) {
    const double time = times.time();
    const bool isInside = rest.hasAllTimes() || (time >= rest.from && time <= rest.to);
    if (row < rest.firstRow || !isInside) continue;
    fmt::format_to(fmt::appender(buffer), FMT_COMPILE("{}"), time);
    for (Column& column : columns_) {
      buffer.push_back(',');
      if (column.samples && times.isIn(column.group)) {
        column.samples->append(buffer, times.row(column.group));
      }
    }
    out.endRow();
  }
  columns_.clear();
  out.flush();
}

}  // namespace kyr::tool
