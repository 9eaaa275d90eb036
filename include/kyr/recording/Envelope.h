#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace kyr::recording {

/// \brief What a column of an envelope, one pixel wide in a plot, shows of the rows in it.
///
/// First and last are those of the first and last row, and may be NaN. Smallest and largest leave
/// NaN out; they and their times are NaN if all values are. Of equal values the first row counts.
struct EnvelopeColumn {
  static constexpr double kNone = std::numeric_limits<double>::quiet_NaN();

  std::uint64_t firstRow = 0;
  std::uint64_t rows = 0;    ///< 0 for a column without rows; the other members mean nothing then
  std::uint64_t nans = 0;    ///< how many of the values are NaN
  double firstTime = kNone;  ///< [s], as all times here
  double first = kNone;
  double minTime = kNone;
  double min = kNone;
  double maxTime = kNone;
  double max = kNone;
  double lastTime = kNone;
  double last = kNone;
};

/// \brief One row beside an envelope.
struct EnvelopePoint {
  std::uint64_t row = 0;
  double time = 0;  ///< [s]
  double value = 0;
};

/// \brief What a plot of some columns shows of a window of a signal.
struct Envelope {
  std::vector<EnvelopeColumn> columns;  ///< as many as were asked for, equally wide
  /// The rows before and after those in the window, to which a line goes on. Empty at the ends of
  /// the signal, and where times do not ascend.
  std::optional<EnvelopePoint> before;
  std::optional<EnvelopePoint> after;
};

/// \brief Rows in a window that follow each other and have the same value.
struct ValueSpan {
  double from = 0;  ///< time of the first row, or the window's beginning if it began before [s]
  double to = 0;    ///< time of the next span or the last row, or the window's end [s]
  std::uint64_t firstRow = 0;
  std::uint64_t rows = 0;  ///< 0 if the value is that of the row before the window
  bool isMixed = false;    ///< whether several values lie in columns beside each other
  double value = EnvelopeColumn::kNone;  ///< the number, unless mixed
  std::string text;                      ///< the first 256 bytes of the blob, unless mixed
  std::uint64_t textBytes = 0;           ///< how many bytes the blob has
};

}  // namespace kyr::recording
