#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "kyr/recording/Envelope.h"
#include "kyr/recording/RecordingReader.h"

namespace kyr::recording {

/// Rows of a signal of numbers.
struct NumberBlock {
  std::uint64_t firstRow = 0;
  std::size_t rows = 0;
  const double* times = nullptr;
  const double* values = nullptr;
};

/// Where an envelope gets its rows from.
class NumberSource {
 public:
  using Visit = std::function<void(const NumberBlock& block)>;

  virtual ~NumberSource() = default;
  virtual std::uint64_t rows() = 0;
  /// Does what RecordingReader::rowsBetween() does.
  virtual std::vector<RowRange> rowsBetween(double from, double to) = 0;
  /// Calls \p visit with consecutive blocks, which are valid during the call.
  virtual void read(const RowRange& rows, const Visit& visit) = 0;
  /// The same rows for another thread.
  virtual std::unique_ptr<NumberSource> copy() = 0;
};

/// Consecutive rows that are summed up together.
struct EnvelopeBucket {
  EnvelopeColumn sum;
  std::uint32_t minAt = 0;  ///< row of the smallest value, counted from the first one
  std::uint32_t maxAt = 0;  ///< likewise of the largest one
};

struct EnvelopeLimits {
  std::uint64_t exactRows = 4'194'304;  ///< windows of so many rows are read, not looked up
  std::uint64_t bucketRows = 256;       ///< rows that are summed up together, at first
  std::size_t maxBuckets = 524'288;     ///< beyond that, buckets get twice as many rows
  std::size_t borderReads = 64;         ///< buckets at borders of columns that are read at most
};

/// Makes envelopes of a signal. A window of few rows is read. For the others, all rows are summed
/// up in buckets when the first envelope is asked for, and rows that a live recording got since
/// then are added later.
class EnvelopeIndex {
 public:
  explicit EnvelopeIndex(const EnvelopeLimits& limits = {})
      : limits_(limits), bucketRows_(limits.bucketRows) {}

  /// \throws std::invalid_argument as RecordingReader::envelope()
  Envelope envelope(NumberSource& source, double from, double to, std::size_t columns);

  std::size_t bytes() const { return buckets_.capacity() * sizeof(EnvelopeBucket); }

 private:
  class Columns;

  void extend(NumberSource& source);
  void append(std::vector<EnvelopeBucket> buckets);
  void widenBuckets();
  void lookUp(NumberSource& source, const RowRange& rows, Columns& columns) const;
  std::vector<std::size_t> addInnerBuckets(const RowRange& rows, Columns& columns) const;

  EnvelopeLimits limits_;
  std::uint64_t bucketRows_;
  std::uint64_t rows_ = 0;  // in buckets_; the last one may have fewer rows
  bool ascends_ = true;     // all times, without NaN; there are no buckets otherwise
  std::vector<EnvelopeBucket> buckets_;
};

/// The spans of an envelope: columns of one value are joined while the value stays the same.
std::vector<ValueSpan> spansOf(const Envelope& envelope, double from, double to);

}  // namespace kyr::recording
