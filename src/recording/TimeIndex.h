#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "files/ContentReader.h"
#include "kyr/recording/RecordingInfo.h"
#include "kyr/recording/RecordingReader.h"

namespace kyr::recording {

/// Where the times of a content are small and large, so that a window of times is found without
/// reading all of them.
///
/// Row groups that are marked as ascending tell without being decoded; others are read once, when
/// they are first needed.
class TimeIndex {
 public:
  /// Reads times [first, first + count) to \p out.
  using Read = std::function<void(std::uint64_t first, std::uint64_t count, double* out)>;

  /// Takes note of rows up to \p rows, as far as they are not known.
  /// \param hasMarks  whether the content is a file of times, which may be marked as ascending
  void extend(const parquet::ContentReader& content, bool hasMarks, std::uint64_t rows,
              const Read& read);

  /// Rows before \p rows with a time in [from, to], as ascending ranges with gaps between them.
  /// Where times ascend that is one range, and at most two row groups are read for it.
  std::vector<RowRange> rowsBetween(double from, double to, std::uint64_t rows,
                                    const Read& read) const;

  /// Smallest and largest of the first \p rows times, NaN left out.
  std::optional<TimeSpan> span(std::uint64_t rows, const Read& read) const;

 private:
  // Rows that follow each other.
  struct Piece {
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
    double min = 0;  // above max if all times are NaN
    double max = 0;
    bool ascends = false;  // without NaN
  };

  void addUnmarked(std::uint64_t begin, std::uint64_t end, const Read& read);

  std::vector<Piece> pieces_;
};

}  // namespace kyr::recording
