#include "recording/ComparisonWalks.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "recording/ComparisonWindow.h"

namespace kyr::recording {

namespace {

// More samples at one time than events have.
constexpr std::uint64_t kMostAtOneTime = 65'536;

// Compares rows of two signals that are next to each other in memory.
template <typename Number>
class RowWalk {
 public:
  RowWalk(ComparisonRows<Number>& reference, ComparisonRows<Number>& other,
          SampleJudge<Number>& judge, RowPairs pairs, double timeTolerance)
      : a_(reference), b_(other), judge_(judge), pairs_(pairs), timeTolerance_(timeTolerance) {}

  std::optional<Findings> run() {
    while (true) {
      a_.drop(i_);
      b_.drop(j_);
      if (a_.isAtEnd(i_) || b_.isAtEnd(j_)) break;
      if (i_ + j_ == 0) from_ = std::max(a_.time(0), b_.time(0));
      if (pairs_ == RowPairs::byTime && !(a_.ascends() && b_.ascends())) return std::nullopt;
      const std::uint64_t rows = std::min(a_.end() - i_, b_.end() - j_);
      const std::uint64_t paired = pairs_ == RowPairs::byTime ? pairsIn(rows) : rows;
      comparePairs(paired);
      if (paired < rows) takeAlone();
    }
    takeRest();
    findings_.worst = judge_.worst();
    return findings_;
  }

 private:
  bool areAtSameTime(std::uint64_t i, std::uint64_t j) const {
    const double time = a_.time(i);
    const double other = b_.time(j);
    return time == other || std::abs(time - other) <= timeTolerance_ ||
           (std::isnan(time) && std::isnan(other));
  }

  // How many of the next rows have the same times.
  std::uint64_t pairsIn(std::uint64_t rows) const {
    std::uint64_t count = 0;
    while (count < rows && areAtSameTime(i_ + count, j_ + count)) ++count;
    return count;
  }

  void comparePairs(std::uint64_t rows) {
    const bool comparesTimes = pairs_ == RowPairs::byNumber && a_.hasTimes() && b_.hasTimes();
    for (std::uint64_t k = 0; k < rows; ++k, ++i_, ++j_) {
      const RowPlace at{a_.time(i_), i_, j_};
      bool isIn = !comparesTimes || areAtSameTime(i_, j_);
      isIn &= a_.hasShapes() ? comparesShapes(at)
                             : judge_.passes(at, a_.values(i_), b_.values(j_), a_.elements());
      if (!isIn) findings_.addOut(at.time);
    }
    findings_.compared += rows;
  }

  bool comparesShapes(const RowPlace& at) {
    const Number* const values = a_.values(i_);
    const Number* const others = b_.values(j_);
    const std::size_t size = a_.sizeOf(i_);
    const std::size_t shape = static_cast<std::size_t>(values[0]) + 1;
    if (size != b_.sizeOf(j_) || !std::equal(values, values + shape, others)) {
      judge_.fail(at);
      return false;
    }
    return judge_.passes(at, values + shape, others + shape, size - shape);
  }

  // The earlier row has no partner.
  void takeAlone() {
    const bool isReference = a_.time(i_) < b_.time(j_);
    const double time = isReference ? a_.time(i_) : b_.time(j_);
    ++(isReference ? i_ : j_);
    if (!judge_.isExact() && time < from_) return;
    ++(isReference ? findings_.onlyInReference : findings_.onlyInOther);
    ++findings_.compared;
    findings_.addOut(time);
  }

  void takeRest() {
    if (!judge_.isExact()) return;
    const auto take = [this](ComparisonRows<Number>& rows, std::uint64_t from,
                             std::uint64_t& count) {
      const std::uint64_t rest = rows.count() - from;
      if (rest == 0 || rows.isAtEnd(from)) return;
      count += rest;
      findings_.compared += rest;
      findings_.addOut(rows.time(from), rest);
    };
    take(a_, i_, findings_.onlyInReference);
    take(b_, j_, findings_.onlyInOther);
  }

  ComparisonRows<Number>& a_;
  ComparisonRows<Number>& b_;
  SampleJudge<Number>& judge_;
  RowPairs pairs_;
  double timeTolerance_;
  std::uint64_t i_ = 0;
  std::uint64_t j_ = 0;
  double from_ = 0;  // where both signals have begun
  Findings findings_;
};

// One of two curves, and the samples that it has at a time.
template <typename Number>
struct Curve {
  Curve(ComparisonRows<Number>& all, double reach, bool holds)
      : rows(all), window(all, reach, holds), left(all.elements()), right(all.elements()) {}

  std::uint64_t samples() const { return end - at; }
  // The latest row at or before the time.
  std::uint64_t latest() const { return end > 0 ? end - 1 : 0; }

  ComparisonRows<Number>& rows;
  ComparisonWindow<Number> window;
  std::uint64_t at = 0;   // the next row
  std::uint64_t end = 0;  // behind the rows with the same time
  // The latest row that is too early to count at the time; the first one if there is none.
  std::uint64_t before = 0;
  // What the first and the last of the other curve's samples at the time are compared with.
  std::vector<Number> left;
  std::vector<Number> right;
};

template <typename Number>
class CurveWalk {
 public:
  CurveWalk(ComparisonRows<Number>& reference, ComparisonRows<Number>& other,
            SampleJudge<Number>& judge, double timeTolerance, bool holds)
      : curves_{Curve<Number>(reference, timeTolerance, holds),
                Curve<Number>(other, timeTolerance, holds)},
        judge_(judge),
        reach_(timeTolerance),
        hasReach_(timeTolerance > 0),
        holds_(holds),
        scratch_(reference.elements()) {}

  std::optional<Findings> run() {
    auto& [a, b] = curves_;
    if (!a.rows.isAtEnd(0) && !b.rows.isAtEnd(0)) {
      const double from = std::max(a.rows.time(0), b.rows.time(0));
      for (auto& curve : curves_) skipTo(curve, from);
      while (!a.rows.isAtEnd(a.at) && !b.rows.isAtEnd(b.at) && isSuitable()) {
        compareSameTimes();
        if (a.rows.isAtEnd(a.at) || b.rows.isAtEnd(b.at)) break;
        if (!findGroup()) return std::nullopt;
        for (auto& curve : curves_) dropRows(curve, time_);
        compareGroup();
        for (auto& curve : curves_) curve.at = curve.end;
      }
    }
    if (!isSuitable()) return std::nullopt;
    findings_.worst = judge_.worst();
    return findings_;
  }

 private:
  bool isSuitable() const { return curves_[0].rows.ascends() && curves_[1].rows.ascends(); }

  // Forgets rows that are too early for all that is compared from a time on.
  void dropRows(Curve<Number>& curve, double time) {
    const auto isTooEarly = [&](std::uint64_t row) {
      return row < curve.at && curve.rows.time(row) < time - reach_;
    };
    while (isTooEarly(curve.before + 1)) ++curve.before;
    curve.rows.drop(curve.before);
  }

  // To the first row that is not before the time.
  void skipTo(Curve<Number>& curve, double time) {
    while (!curve.rows.isAtEnd(curve.at) && curve.rows.time(curve.at) < time) {
      ++curve.at;
      dropRows(curve, curve.rows.time(curve.at - 1));
    }
  }

  // Compares the next rows as long as both signals have the same times, except for those with the
  // last of these times: there may be more of them. If the other curve may have a value at another
  // time, only values that need not look for it.
  void compareSameTimes() {
    auto& [a, b] = curves_;
    const std::uint64_t most = std::min(a.rows.end() - a.at, b.rows.end() - b.at);
    std::uint64_t rows = 0;
    while (rows < most && a.rows.time(a.at + rows) == b.rows.time(b.at + rows) &&
           (!hasReach_ || isClear(a.at + rows, b.at + rows))) {
      ++rows;
    }
    if (rows == 0) return;
    const double last = a.rows.time(a.at + rows - 1);
    while (rows > 0 && a.rows.time(a.at + rows - 1) == last) --rows;
    if (hasReach_) {
      findings_.compared += rows;
    } else {
      comparePairs(rows);
    }
    a.at += rows;
    b.at += rows;
  }

  // Whether two samples at one time are so much alike that values at other times change nothing.
  // With a relative tolerance above 1, these may make it worse.
  bool isClear(std::uint64_t i, std::uint64_t j) const {
    const auto& [a, b] = curves_;
    return judge_.rtol() <= 1 &&
           judge_.areClear(a.rows.values(i), b.rows.values(j), scratch_.size());
  }

  // Whether that holds for all samples at the time, and what the other curve has there.
  bool isGroupClear() {
    const auto& [a, b] = curves_;
    if (judge_.rtol() > 1) return false;
    const bool arePairs = a.samples() == b.samples();
    for (std::uint64_t k = 0; arePairs && k < a.samples(); ++k) {
      if (!isClear(a.at + k, b.at + k)) return false;
    }
    if (arePairs) return true;
    if (haveInnerSamples()) return false;
    for (auto& curve : curves_) findEnds(curve);
    for (std::size_t side = 0; side < 2; ++side) {
      for (std::uint64_t k = 0; k < curves_[side].samples(); ++k) {
        findPartner(side, k, /*looksAround=*/false);
        const Number* const values = curves_[side].rows.values(curves_[side].at + k);
        const Number* const partner = scratch_.data();
        const bool isReference = side == 0;
        if (!judge_.areClear(isReference ? values : partner, isReference ? partner : values,
                             scratch_.size())) {
          return false;
        }
      }
    }
    return true;
  }

  // Finds the next time that either signal has, and the rows with it.
  bool findGroup() {
    auto& [a, b] = curves_;
    time_ = std::min(a.rows.time(a.at), b.rows.time(b.at));
    for (auto& curve : curves_) {
      curve.end = curve.at;
      while (!curve.rows.isAtEnd(curve.end) && curve.rows.time(curve.end) <= time_) ++curve.end;
      if (!curve.rows.ascends() || curve.samples() > kMostAtOneTime) return false;
    }
    return true;
  }

  void compareGroup() {
    auto& [a, b] = curves_;
    if (!hasReach_ && a.samples() == b.samples()) return comparePairs(a.samples());
    findings_.compared += std::max(a.samples(), b.samples());
    if (hasReach_ && isGroupClear()) return;
    std::array<std::uint64_t, 2> out{0, 0};
    for (auto& curve : curves_) {
      if (!hasReach_) findEnds(curve);
      if (hasReach_ || haveInnerSamples()) curve.window.moveTo(time_, beginOfWindow(curve));
    }
    for (std::size_t side = 0; side < 2; ++side) {
      for (std::uint64_t k = 0; k < curves_[side].samples(); ++k) {
        if (!isSampleIn(side, k)) ++out[side];
      }
    }
    if (out[0] + out[1] > 0) findings_.addOut(time_, std::max(out[0], out[1]));
  }

  // Whether a curve has samples between its first and its last one at the time.
  bool haveInnerSamples() const { return curves_[0].samples() > 2 || curves_[1].samples() > 2; }

  // The window of a curve that jumps at the time begins with the jump, unless times may differ.
  std::uint64_t beginOfWindow(const Curve<Number>& curve) const {
    return !hasReach_ && curve.samples() > 1 ? curve.at : curve.before;
  }

  void comparePairs(std::uint64_t rows) {
    auto& [a, b] = curves_;
    const std::size_t elements = a.rows.elements();
    for (std::uint64_t k = 0; k < rows; ++k) {
      const RowPlace at{a.rows.time(a.at + k), a.at + k, b.at + k};
      if (!judge_.passes(at, a.rows.values(a.at + k), b.rows.values(b.at + k), elements)) {
        findings_.addOut(at.time);
      }
    }
    findings_.compared += rows;
  }

  // Finds what the first and the last of the other curve's samples at the time are compared with.
  void findEnds(Curve<Number>& curve) {
    const std::size_t elements = curve.rows.elements();
    const auto copy = [&](std::uint64_t row, std::vector<Number>& values) {
      const Number* const from = curve.rows.values(row);
      std::copy(from, from + elements, values.begin());
    };
    if (holds_ || curve.samples() > 0) {
      const bool comesFromBefore = holds_ && curve.samples() < 2 && curve.at > 0;
      copy(comesFromBefore ? curve.at - 1 : curve.at, curve.left);
      copy(curve.end - 1, curve.right);
      return;
    }
    const double part =
        partBetween(curve.rows.time(curve.at - 1), curve.rows.time(curve.at), time_);
    const Number* const from = curve.rows.values(curve.at - 1);
    const Number* const to = curve.rows.values(curve.at);
    for (std::size_t i = 0; i < elements; ++i) {
      curve.right[i] = numberBetween(from[i], to[i], static_cast<Number>(part));
    }
    curve.left = curve.right;
  }

  bool isSampleIn(std::size_t side, std::uint64_t k) {
    findPartner(side, k, hasReach_);
    const std::uint64_t row = curves_[side].at + k;
    const std::uint64_t latest = curves_[1 - side].latest();
    const Number* const values = curves_[side].rows.values(row);
    if (side == 0)
      return judge_.passes({time_, row, latest}, values, scratch_.data(), scratch_.size());
    return judge_.passes({time_, latest, row}, scratch_.data(), values, scratch_.size());
  }

  // Finds what a sample is compared with.
  void findPartner(std::size_t side, std::uint64_t k, bool looksAround) {
    const Curve<Number>& own = curves_[side];
    const Curve<Number>& other = curves_[1 - side];
    const Number* const values = own.rows.values(own.at + k);
    const bool isLast = k + 1 == own.samples();
    if (!looksAround && (k == 0 || isLast)) {
      scratch_ = isLast ? other.right : other.left;
      return;
    }
    for (std::size_t i = 0; i < scratch_.size(); ++i) {
      const auto allowed = [&](Number found) {
        return judge_.allowedAt(side == 0 ? values[i] : found, i);
      };
      scratch_[i] = other.window.nearest(values[i], i, allowed);
    }
  }

  std::array<Curve<Number>, 2> curves_;
  SampleJudge<Number>& judge_;
  double reach_;
  bool hasReach_;
  bool holds_;
  double time_ = 0;  // at which samples are compared now
  std::vector<Number> scratch_;
  Findings findings_;
};

}  // namespace

template <typename Number>
std::optional<Findings> compareRows(ComparisonRows<Number>& reference,
                                    ComparisonRows<Number>& other, SampleJudge<Number>& judge,
                                    RowPairs pairs, double timeTolerance) {
  return RowWalk<Number>(reference, other, judge, pairs, timeTolerance).run();
}

template <typename Number>
std::optional<Findings> compareCurves(ComparisonRows<Number>& reference,
                                      ComparisonRows<Number>& other, SampleJudge<Number>& judge,
                                      double timeTolerance, bool holds) {
  return CurveWalk<Number>(reference, other, judge, timeTolerance, holds).run();
}

template std::optional<Findings> compareRows(ComparisonRows<double>&, ComparisonRows<double>&,
                                             SampleJudge<double>&, RowPairs, double);
template std::optional<Findings> compareRows(ComparisonRows<long double>&,
                                             ComparisonRows<long double>&,
                                             SampleJudge<long double>&, RowPairs, double);
template std::optional<Findings> compareCurves(ComparisonRows<double>&, ComparisonRows<double>&,
                                               SampleJudge<double>&, double, bool);
template std::optional<Findings> compareCurves(ComparisonRows<long double>&,
                                               ComparisonRows<long double>&,
                                               SampleJudge<long double>&, double, bool);

}  // namespace kyr::recording
