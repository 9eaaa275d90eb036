#include "recording/TimeIndex.h"

#include <algorithm>
#include <limits>

#include "recording/TimeSpans.h"

namespace kyr::recording {

namespace {

// Times that are in memory at once.
constexpr std::uint64_t kPieceRows = 65'536;

void append(std::vector<RowRange>& ranges, std::uint64_t from, std::uint64_t to) {
  if (from >= to) return;
  if (!ranges.empty() && ranges.back().to == from) {
    ranges.back().to = to;
  } else {
    ranges.push_back({from, to});
  }
}

// Adds the rows of \p times, which begin with row \p first, that lie in the window.
void appendMatches(std::vector<RowRange>& ranges, const std::vector<double>& times,
                   std::uint64_t first, bool ascends, double from, double to) {
  if (ascends) {
    const auto begin = std::lower_bound(times.begin(), times.end(), from);
    const auto end = std::upper_bound(begin, times.end(), to);
    const auto rowOf = [&](auto place) {
      return first + static_cast<std::uint64_t>(place - times.begin());
    };
    return append(ranges, rowOf(begin), rowOf(end));
  }
  for (std::size_t i = 0; i < times.size(); ++i) {
    if (times[i] >= from && times[i] <= to) append(ranges, first + i, first + i + 1);
  }
}

// Calls visit(times, first row) with pieces of rows [begin, end).
template <typename Visit>
void forEachPiece(std::uint64_t begin, std::uint64_t end, const TimeIndex::Read& read,
                  Visit&& visit) {
  std::vector<double> times;
  for (std::uint64_t row = begin; row < end; row += times.size()) {
    times.resize(static_cast<std::size_t>(std::min(kPieceRows, end - row)));
    read(row, times.size(), times.data());
    visit(times, row);
  }
}

}  // namespace

void TimeIndex::extend(const parquet::ContentReader& content, bool hasMarks, std::uint64_t rows,
                       const Read& read) {
  const std::uint64_t known = pieces_.empty() ? 0 : pieces_.back().end;
  if (known >= rows) return;
  const std::size_t first = content.partOfRow(known);
  const auto marks =
      hasMarks ? content.ascendingParts(first) : std::vector<std::optional<parquet::NumberRange>>();
  for (std::size_t part = first; part < content.parts() && content.partStart(part) < rows; ++part) {
    const std::uint64_t begin = std::max(known, content.partStart(part));
    const std::uint64_t end = content.partStart(part + 1);
    const auto mark = part - first < marks.size() ? marks[part - first] : std::nullopt;
    if (mark && begin == content.partStart(part)) {
      pieces_.push_back({begin, end, mark->min, mark->max, /*ascends=*/true});
    } else {
      // A part of a row group that is still to be flushed is looked at again.
      addUnmarked(begin, std::min(end, rows), read);
    }
  }
}

void TimeIndex::addUnmarked(std::uint64_t begin, std::uint64_t end, const Read& read) {
  forEachPiece(begin, end, read, [&](const std::vector<double>& times, std::uint64_t first) {
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    Piece piece{first, first + times.size(), kInfinity, -kInfinity, /*ascends=*/true};
    double last = -kInfinity;
    for (const double time : times) {
      piece.ascends = piece.ascends && time >= last;  // false for NaN
      last = time;
      if (time < piece.min) piece.min = time;
      if (time > piece.max) piece.max = time;
    }
    // Infinite times leave the initial values, which are right for them.
    if (piece.ascends) {
      piece.min = times.front();
      piece.max = times.back();
    }
    pieces_.push_back(piece);
  });
}

std::vector<RowRange> TimeIndex::rowsBetween(double from, double to, std::uint64_t rows,
                                             const Read& read) const {
  std::vector<RowRange> ranges;
  for (const Piece& piece : pieces_) {
    const std::uint64_t end = std::min(piece.end, rows);
    if (piece.begin >= end || !(piece.min <= to) || !(piece.max >= from)) continue;
    if (piece.ascends && piece.min >= from && piece.max <= to) {
      append(ranges, piece.begin, end);
      continue;
    }
    forEachPiece(piece.begin, end, read,
                 [&](const std::vector<double>& times, std::uint64_t first) {
                   appendMatches(ranges, times, first, piece.ascends, from, to);
                 });
  }
  return ranges;
}

std::optional<TimeSpan> TimeIndex::span(std::uint64_t rows, const Read& read) const {
  std::optional<TimeSpan> span;
  for (const Piece& piece : pieces_) {
    if (piece.begin >= rows) break;
    if (piece.end <= rows) {
      if (piece.min <= piece.max) {
        noteTime(span, piece.min);
        noteTime(span, piece.max);
      }
      continue;
    }
    forEachPiece(piece.begin, rows, read, [&](const std::vector<double>& times, std::uint64_t) {
      for (const double time : times) noteTime(span, time);
    });
  }
  return span;
}

}  // namespace kyr::recording
