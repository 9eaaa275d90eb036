#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <utility>
#include <vector>

#include "kyr/recording/Comparison.h"

namespace kyr::recording {

/// Where a sample of either signal is.
struct RowPlace {
  double time = 0;
  std::uint64_t row = 0;
  std::uint64_t otherRow = 0;
};

/// What the comparison of two signals found so far.
struct Findings {
  std::uint64_t compared = 0;
  std::uint64_t out = 0;
  std::uint64_t onlyInReference = 0;
  std::uint64_t onlyInOther = 0;
  std::optional<ComparedSample> worst;
  std::optional<double> firstOut;

  void addOut(double time, std::uint64_t count = 1) {
    out += count;
    if (!firstOut) firstOut = time;
  }
};

/// Decides whether values pass, and keeps the worst of them.
/// \tparam Number  double, or long double for values that no double can hold
template <typename Number>
class SampleJudge {
 public:
  /// \param floors  what values of each element may differ by wherever they are
  /// \param areHashes  whether values stand for something else, so that their size means nothing
  SampleJudge(const ComparisonOptions& options, std::vector<Number> floors, bool areHashes)
      : isExact_(!options.hasTolerance()),
        areHashes_(areHashes),
        rtol_(areHashes ? 0 : static_cast<Number>(options.rtol)),
        floors_(std::move(floors)) {}

  bool isExact() const { return isExact_; }
  Number rtol() const { return rtol_; }
  std::optional<ComparedSample>& worst() { return worst_; }

  /// Whether the values pass and are no worse than what was seen.
  bool areClear(const Number* reference, const Number* other, std::size_t elements) const {
    for (std::size_t i = 0; i < elements; ++i) {
      if (!isClear(reference[i], other[i], floorOf(i))) return false;
    }
    return true;
  }

  /// What another value may differ by from a reference value, which is a finite number.
  Number allowedAt(Number reference, std::size_t element) const {
    return std::max(floorOf(element), rtol_ * std::abs(reference));
  }

  bool passes(const RowPlace& at, const Number* reference, const Number* other,
              std::size_t elements) {
    bool areIn = true;
    for (std::size_t i = 0; i < elements; ++i) {
      if (!isClear(reference[i], other[i], floorOf(i))) {
        areIn &= judge(at, i, reference[i], other[i]);
      }
    }
    return areIn;
  }

  /// Keeps what cannot be compared as the worst that there is.
  void fail(const RowPlace& at) {
    const double none = std::numeric_limits<double>::quiet_NaN();
    keepIfWorse({at.time, at.row, at.otherRow, 0, none, none, kInfinite, 0});
  }

 private:
  static constexpr double kInfinite = std::numeric_limits<double>::infinity();

  Number floorOf(std::size_t element) const {
    return element < floors_.size() ? floors_[element] : floors_.back();
  }

  // Most values are.
  bool isClear(Number reference, Number other, Number floor) const {
    if (isExact_) return reference == other && std::signbit(reference) == std::signbit(other);
    if (reference == other) return true;
    const Number error = std::abs(reference - other);
    return error <= limit_ * std::max(floor, rtol_ * std::abs(reference)) &&
           error <= std::numeric_limits<Number>::max();
  }

  bool judge(const RowPlace& at, std::size_t element, Number reference, Number other) {
    if (std::isnan(reference) && std::isnan(other)) return true;
    const bool areFinite = std::isfinite(reference) && std::isfinite(other);
    Number error = std::abs(reference - other);
    if (!areFinite || (areHashes_ && error > 0)) error = std::numeric_limits<Number>::infinity();
    const Number tolerance = isExact_ || !areFinite ? 0 : allowedAt(reference, element);
    const bool isIn = !isExact_ && areFinite && error <= tolerance;
    const double none = std::numeric_limits<double>::quiet_NaN();
    keepIfWorse({at.time, at.row, at.otherRow, element,
                 areHashes_ ? none : static_cast<double>(reference),
                 areHashes_ ? none : static_cast<double>(other), static_cast<double>(error),
                 static_cast<double>(tolerance)});
    return isIn;
  }

  void keepIfWorse(const ComparedSample& sample) {
    const auto badness = [](const ComparedSample& each) {
      return std::pair(each.excess(), each.error);
    };
    if (worst_ && !(badness(*worst_) < badness(sample))) return;
    worst_ = sample;
    limit_ = static_cast<Number>(std::min(1.0, sample.excess()));
  }

  bool isExact_;
  bool areHashes_;
  Number rtol_;
  std::vector<Number> floors_;
  Number limit_ = 0;  // error over tolerance up to which nothing needs to be noted
  std::optional<ComparedSample> worst_;
};

}  // namespace kyr::recording
