#include "print/MergedTimes.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <optional>
#include <utility>

#include "cli/Interrupt.h"

namespace kyr::tool {

using recording::RecordingReader;
using recording::RowRange;

namespace {

// NaN comes last, so that merging ends.
bool isBefore(double a, double b) { return !std::isnan(a) && (std::isnan(b) || a < b); }

}  // namespace

TimeWalk::TimeWalk(const RecordingReader& reader, int id, std::vector<RowRange> rows,
                   std::size_t blockRows)
    : TimeWalk(reader, id, /*isCounting=*/false, std::move(rows), blockRows) {}

TimeWalk TimeWalk::counting(const RecordingReader& reader, std::vector<RowRange> rows,
                            std::size_t blockRows) {
  return {reader, 0, /*isCounting=*/true, std::move(rows), blockRows};
}

TimeWalk::TimeWalk(const RecordingReader& reader, int id, bool isCounting,
                   std::vector<RowRange> rows, std::size_t blockRows)
    : reader_(&reader),
      id_(id),
      isCounting_(isCounting),
      rows_(std::move(rows)),
      blockRows_(blockRows) {
  std::reverse(rows_.begin(), rows_.end());
  readBlock();
}

void TimeWalk::readBlock() {
  stopIfInterrupted();
  at_ = 0;
  block_.clear();
  while (!rows_.empty() && rows_.back().from >= rows_.back().to) rows_.pop_back();
  if (rows_.empty()) return;
  RowRange& rest = rows_.back();
  blockRow_ = rest.from;
  block_.resize(static_cast<std::size_t>(std::min<std::uint64_t>(rest.to - rest.from, blockRows_)));
  rest.from += block_.size();
  if (isCounting_) {
    std::iota(block_.begin(), block_.end(), static_cast<double>(blockRow_));
  } else {
    reader_->readTimes(id_, {blockRow_, rest.from}, block_.data());
  }
}

MergedTimes::MergedTimes(std::vector<TimeWalk> walks)
    : walks_(std::move(walks)), isIn_(walks_.size(), 0) {}

bool MergedTimes::next() {
  std::optional<double> earliest;
  for (std::size_t i = 0; i < walks_.size(); ++i) {
    TimeWalk& walk = walks_[i];
    if (isIn(i)) walk.next();
    isIn_[i] = !walk.isAtEnd();
    if (isIn(i) && (!earliest || isBefore(walk.time(), *earliest))) earliest = walk.time();
  }
  if (!earliest) return false;
  time_ = *earliest;
  for (std::size_t i = 0; i < walks_.size(); ++i) {
    isIn_[i] = isIn(i) && !isBefore(time_, walks_[i].time());
  }
  return true;
}

}  // namespace kyr::tool
