#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <iterator>
#include <limits>
#include <map>
#include <vector>

#include "recording/ComparisonRows.h"

namespace kyr::recording {

/// How far a time is on the way between two others: from 0 to 1.
inline double partBetween(double before, double after, double time) {
  const double length = after - before;
  // The difference of finite times may be infinite; that of their halves is not.
  if (std::isinf(length)) return (time / 2 - before / 2) / (after / 2 - before / 2);
  return (time - before) / length;
}

/// The number at a time between two samples, on the straight line.
template <typename Number>
Number numberBetween(Number before, Number after, Number part) {
  // An infinity times 0 is no number.
  if (before == after || part == 0) return before;
  if (part == 1) return after;
  // before + (after - before) * part may be infinite in between.
  return before * (1 - part) + after * part;
}

/// The one of two numbers that a value is nearer to in terms of their tolerances; none is a NaN.
/// \param allowed  the tolerance at one of the two
template <typename Number, typename Allowed>
Number nearerOf(Number one, Number other, Number value, const Allowed& allowed) {
  if (value == one || value == other) return value;
  const Number distance = std::abs(value - one);
  const Number others = std::abs(value - other);
  const Number scaled = distance * allowed(other);
  const Number othersScaled = others * allowed(one);
  const bool isOther = scaled == othersScaled ? others < distance : othersScaled < scaled;
  return isOther ? other : one;
}

/// The values that a curve has within a time before and after another one, which moves on. The
/// times of its rows must ascend.
///
/// A curve of straight lines has all values between the smallest and the largest one, jumps
/// included. One that holds its values has no others than these.
template <typename Number>
class ComparisonWindow {
 public:
  ComparisonWindow(ComparisonRows<Number>& rows, double reach, bool holds)
      : rows_(rows), reach_(reach), holds_(holds), elements_(rows.elements()) {}

  /// To a time that is not before the last one, nor outside of the curve.
  /// \param before  the latest row that is earlier than the window, or the first one of the signal
  void moveTo(double time, std::uint64_t before) {
    from_ = time - reach_;
    to_ = time + reach_;
    const bool isInside = !(rows_.time(before) < from_);
    // A value that is held goes on until the next one.
    const std::uint64_t first = holds_ || isInside ? before : before + 1;
    // Rows may have come and gone unseen, and be in memory no more.
    if (first >= end_ || begin_ < rows_.begin()) {
      for (Element& element : elements_) element.clear();
      begin_ = end_ = first;
    }
    while (begin_ < first) pop(begin_++);
    while (!rows_.isAtEnd(end_) && rows_.time(end_) <= to_) push(end_++);
  }

  /// The value in the window that is nearest to another one. Where tolerances differ, it is the one
  /// that the other is nearest to in terms of them.
  /// \param allowed  the tolerance at a value of the window
  template <typename Allowed>
  Number nearest(Number value, std::size_t element, const Allowed& allowed) const {
    return holds_ ? nearestHeld(value, elements_[element], allowed)
                  : nearestOnLines(value, element);
  }

 private:
  static constexpr Number kNone = std::numeric_limits<Number>::quiet_NaN();

  struct Element {
    void clear() {
      smallest.clear();
      largest.clear();
      held.clear();
      nans = 0;
    }

    std::deque<std::uint64_t> smallest;  // rows: the smallest value, then the smallest behind it
    std::deque<std::uint64_t> largest;
    std::map<Number, std::uint64_t> held;  // how often
    std::uint64_t nans = 0;
  };

  Number valueOf(std::uint64_t row, std::size_t element) const {
    return rows_.values(row)[element];
  }

  void push(std::uint64_t row) {
    for (std::size_t i = 0; i < elements_.size(); ++i) {
      Element& element = elements_[i];
      const Number value = valueOf(row, i);
      if (std::isnan(value)) {
        ++element.nans;
      } else if (holds_) {
        ++element.held[value];
      } else {
        auto& [smallest, largest, held, nans] = element;
        while (!smallest.empty() && valueOf(smallest.back(), i) >= value) smallest.pop_back();
        while (!largest.empty() && valueOf(largest.back(), i) <= value) largest.pop_back();
        smallest.push_back(row);
        largest.push_back(row);
      }
    }
  }

  void pop(std::uint64_t row) {
    for (std::size_t i = 0; i < elements_.size(); ++i) {
      Element& element = elements_[i];
      const Number value = valueOf(row, i);
      if (std::isnan(value)) {
        --element.nans;
      } else if (holds_) {
        const auto found = element.held.find(value);
        if (--found->second == 0) element.held.erase(found);
      } else {
        if (element.smallest.front() == row) element.smallest.pop_front();
        if (element.largest.front() == row) element.largest.pop_front();
      }
    }
  }

  template <typename Allowed>
  static Number nearestHeld(Number value, const Element& element, const Allowed& allowed) {
    const auto& held = element.held;
    if (std::isnan(value) && element.nans > 0) return kNone;
    if (held.empty()) return kNone;
    if (std::isnan(value)) return held.begin()->first;
    const auto above = held.lower_bound(value);
    if (above == held.begin()) return above->first;
    const auto below = std::prev(above);
    if (above == held.end()) return below->first;
    return nearerOf(below->first, above->first, value, allowed);
  }

  // Where the line from a row to the next one is at a time.
  Number onLine(std::uint64_t row, double time, std::size_t element) const {
    const double part = partBetween(rows_.time(row), rows_.time(row + 1), time);
    return numberBetween(valueOf(row, element), valueOf(row + 1, element),
                         static_cast<Number>(part));
  }

  Number nearestOnLines(Number value, std::size_t at) const {
    const Element& element = elements_[at];
    Number smallest = std::numeric_limits<Number>::infinity();
    Number largest = -smallest;
    bool hasNaN = element.nans > 0;
    if (!element.smallest.empty()) {
      smallest = valueOf(element.smallest.front(), at);
      largest = valueOf(element.largest.front(), at);
    }
    const auto add = [&](Number end) {
      hasNaN |= std::isnan(end);
      smallest = std::isnan(end) ? smallest : std::min(smallest, end);
      largest = std::isnan(end) ? largest : std::max(largest, end);
    };
    const bool goesOn = end_ < rows_.end();
    if (begin_ > 0 && (begin_ < end_ || goesOn)) add(onLine(begin_ - 1, from_, at));
    if (end_ > 0 && goesOn) add(onLine(end_ - 1, to_, at));
    if (std::isnan(value)) return hasNaN ? kNone : smallest;
    if (smallest > largest) return kNone;
    return std::clamp(value, smallest, largest);
  }

  ComparisonRows<Number>& rows_;
  double reach_;
  bool holds_;
  double from_ = 0;
  double to_ = 0;
  std::uint64_t begin_ = 0;  // rows in the window, and one before it that is held
  std::uint64_t end_ = 0;
  std::vector<Element> elements_;
};

}  // namespace kyr::recording
