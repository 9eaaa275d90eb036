#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "kyr/recording/RecordingReader.h"

namespace kyr::recording {

/// Times in ascending order without repetitions, and the last sample of each.
struct OrderedPiece {
  std::vector<double> times;
  std::vector<std::int64_t> samples;
};

/// The times of a signal in ascending order. Times that ascend are read piece by piece; others are
/// sorted in memory.
class OrderedTimes {
 public:
  /// \throws std::invalid_argument naming the signal if it has no times, or not only finite ones
  OrderedTimes(const RecordingReader& reader, int id);

  double first() const { return first_; }
  double last() const { return last_; }

  /// All times from the latest one at or before \p from up to the next one after \p to.
  OrderedPiece around(double from, double to) const;

  /// Walks through the times.
  class Cursor {
   public:
    /// Begins with the first time that is not before \p from.
    Cursor(const OrderedTimes& times, double from);

    bool isAtEnd() const { return at_ == piece_.times.size(); }
    double time() const { return piece_.times[at_]; }
    void next();

   private:
    void read(std::uint64_t begin);

    const OrderedTimes* times_;
    OrderedPiece piece_;
    std::size_t at_ = 0;      // in the piece
    std::uint64_t next_ = 0;  // row behind the piece, if times are read piece by piece
  };

 private:
  void readAll();
  // Times at or before \p time, if they ascend.
  std::uint64_t countUpTo(double time) const;

  const RecordingReader* reader_;
  int id_;
  std::uint64_t count_;
  double first_ = 0;
  double last_ = 0;
  std::optional<OrderedPiece> sorted_;  // if the times do not ascend
};

}  // namespace kyr::recording
