#include "kyr/recording/Comparison.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <thread>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "platform/Parallel.h"
#include "recording/ComparisonPairs.h"
#include "recording/ComparisonWalks.h"
#include "schema/TypeNames.h"

namespace kyr::recording {

namespace {

constexpr double kInfinite = std::numeric_limits<double>::infinity();

// Why the rows of two signals need not be read.
struct EqualFiles {
  bool times = false;  // their times are equal, or neither has any
  bool samples = false;
};

// What recording.json says of the contents of a recording, by storage id.
class ContentInfos {
 public:
  explicit ContentInfos(const RecordingInfo& info) {
    for (const FileInfo& file : info.files) files_.emplace(file.storageId, &file);
  }

  // Null if there is none.
  const FileInfo* of(const std::optional<int>& storageId) const {
    const auto found = storageId ? files_.find(*storageId) : files_.end();
    return found == files_.end() ? nullptr : found->second;
  }

 private:
  std::unordered_map<int, const FileInfo*> files_;
};

// Whether two contents are known to be equal. Older recordings have checksums of files alone.
bool areKnownEqual(const FileInfo* one, const FileInfo* other) {
  if (!one || !other) return false;
  if (!one->contentDigest.empty() && one->contentDigest == other->contentDigest) return true;
  return !one->pack && !other->pack && !one->checksum.empty() && one->checksum == other->checksum;
}

// A recording that is compared.
struct Side {
  Side(const Path& path, const ReaderOptions& readerOptions)
      : folder(path),
        options(readerOptions),
        reader(path, readerOptions),
        info(reader.info()),
        contents(info) {}

  // Another reader of the same recording, for another thread.
  std::unique_ptr<RecordingReader> open() const {
    return std::make_unique<RecordingReader>(folder, options);
  }

  Path folder;
  ReaderOptions options;
  RecordingReader reader;
  RecordingInfo info;
  ContentInfos contents;
};

// Whether lines go from sample to sample. The data type of a bus says nothing of its bytes.
bool hasLines(const SignalInfo& signal) {
  return comparedKindOf(signal) != ComparedKind::blobs &&
         (signal.dataType == Double || signal.dataType == Single);
}

void requireTolerances(const ComparisonOptions& options) {
  for (const auto& [name, value] :
       {std::pair("atol", options.atol), std::pair("rtol", options.rtol),
        std::pair("rangeTol", options.rangeTol), std::pair("timeTol", options.timeTol)}) {
    if (std::isfinite(value) && value >= 0) continue;
    throw std::invalid_argument(
        fmt::format("{} is {}: a tolerance is a finite number from 0 on", name, value));
  }
}

std::string shapeText(const SignalInfo& signal) {
  switch (signal.category) {
    case Scalar:
      return "scalar";
    case FixedDim:
      return signal.dimensions.empty() ? "fixed"
                                       : fmt::format("{}", fmt::join(signal.dimensions, "x"));
    case VarDim:
      return "varying";
    default:
      return "bus";
  }
}

// A pair of signals whose rows are compared.
struct Task {
  SignalComparison* result = nullptr;
  EqualFiles equal;
  const FileInfo* known = nullptr;  // what recording.json says of the reference's samples
  std::uint64_t rows = 0;
};

// Compares one pair of signals, for one thread.
class PairComparison {
 public:
  PairComparison(const RecordingReader& reference, const RecordingReader& other,
                 const ComparisonOptions& options, const Task& task)
      : reference_(reference),
        other_(other),
        a_(reference.signal(*task.result->referenceId)),
        b_(other.signal(*task.result->otherId)),
        options_(options),
        equal_(task.equal),
        known_(task.known),
        result_(*task.result) {}

  void run() {
    describeTimes();
    if (result_.verdict == SignalVerdict::notComparable) return;
    if (needsLongDouble(a_) || needsLongDouble(b_)) {
      compare<long double>();
    } else {
      compare<double>();
    }
  }

 private:
  void describeTimes() {
    hasTimes_ = reference_.timeCount(a_.signalId) > 0;
    const bool othersHasTimes = other_.timeCount(b_.signalId) > 0;
    if (hasTimes_) result_.referenceSpan = reference_.timeSpan(a_.signalId);
    if (othersHasTimes) result_.otherSpan = other_.timeSpan(b_.signalId);
    result_.referenceRows = reference_.pairCount(a_.signalId);
    result_.otherRows = other_.pairCount(b_.signalId);
    const bool isEmpty = result_.referenceRows == 0 || result_.otherRows == 0;
    if (!isEmpty && hasTimes_ != othersHasTimes) {
      result_.differences.push_back(
          {"times", hasTimes_ ? "some" : "none", othersHasTimes ? "some" : "none"});
      result_.verdict = SignalVerdict::notComparable;
    }
    if (!isEmpty && comparedKindOf(a_) == ComparedKind::numbers) requireEqualShapes();
    if (!isEmpty && comparedKindOf(a_) != comparedKindOf(b_)) {
      result_.verdict = SignalVerdict::notComparable;
    }
    const auto& span = result_.referenceSpan;
    // The difference of finite times may be infinite; that of their halves is not.
    if (span) result_.timeTolerance = 2 * (options_.timeTol * (span->to / 2 - span->from / 2));
  }

  void requireEqualShapes() {
    if (comparedKindOf(b_) != ComparedKind::numbers) return;
    // A damaged recording may tell of shapes that no memory holds. Its samples do not.
    if (a_.category == FixedDim) reference_.blocks(a_.signalId, {0, 1}).next();
    if (b_.category == FixedDim) other_.blocks(b_.signalId, {0, 1}).next();
    const std::uint64_t elements = reference_.elementsPerSample(a_.signalId);
    const std::uint64_t others = other_.elementsPerSample(b_.signalId);
    if (elements == others) return;
    result_.differences.push_back(
        {"shape", fmt::format("{} elements", elements), fmt::format("{} elements", others)});
    result_.verdict = SignalVerdict::notComparable;
  }

  template <typename Number>
  void compare() {
    std::optional<Findings> findings;
    const bool holds = !hasLines(a_) || !hasLines(b_);
    const bool hasShapes = comparedKindOf(a_) == ComparedKind::shapes;
    const bool isCurve = options_.hasTolerance() && hasTimes_ && !hasShapes &&
                         comparedKindOf(a_) != ComparedKind::none;
    const std::vector<Number> floors = floorsOf<Number>();
    result_.valueTolerance = static_cast<double>(floors.front());
    const bool areTimesKnown = equal_.times && result_.timeTolerance == 0;
    const auto judge = [&] {
      return SampleJudge<Number>(options_, floors, comparedKindOf(a_) == ComparedKind::blobs);
    };
    if (isCurve && !areTimesKnown) {
      auto [rows, others] = bothRows<Number>(/*readsOthersTimes=*/true);
      SampleJudge<Number> curveJudge = judge();
      findings = compareCurves(rows, others, curveJudge, result_.timeTolerance, holds);
    } else if (hasTimes_ && !areTimesKnown && (!options_.hasTolerance() || hasShapes)) {
      auto [rows, others] = bothRows<Number>(/*readsOthersTimes=*/true);
      SampleJudge<Number> rowJudge = judge();
      findings = compareRows(rows, others, rowJudge, RowPairs::byTime, result_.timeTolerance);
    }
    if (!findings) {
      result_.isByRow = !hasTimes_ || !areTimesKnown;
      auto [rows, others] = bothRows<Number>(/*readsOthersTimes=*/!areTimesKnown);
      SampleJudge<Number> rowJudge = judge();
      findings = compareRows(rows, others, rowJudge, RowPairs::byNumber, result_.timeTolerance);
    }
    conclude(*findings);
  }

  template <typename Number>
  std::pair<ComparisonRows<Number>, ComparisonRows<Number>> bothRows(bool readsOthersTimes) const {
    return {ComparisonRows<Number>(reference_, a_.signalId, hasTimes_, options_.checkpoint),
            ComparisonRows<Number>(other_, b_.signalId, hasTimes_ && readsOthersTimes,
                                   options_.checkpoint)};
  }

  // Smallest and largest value of scalars, unless these must be read. Those of 64-bit integers are
  // known as doubles alone.
  std::optional<std::pair<double, double>> knownRange() const {
    const bool isKnown = known_ && known_->minimum && known_->maximum && a_.category == Scalar &&
                         !needsLongDouble(a_) && std::isfinite(*known_->minimum) &&
                         std::isfinite(*known_->maximum);
    if (!isKnown) return std::nullopt;
    return std::pair(*known_->minimum, *known_->maximum);
  }

  // What the values of each element may differ by wherever they are.
  template <typename Number>
  std::vector<Number> floorsOf() const {
    const auto atol = static_cast<Number>(options_.atol);
    const ComparedKind kind = comparedKindOf(a_);
    if (kind == ComparedKind::blobs) return {Number(0)};
    if (options_.rangeTol == 0 || kind == ComparedKind::none) return {atol};
    if (const auto range = knownRange()) {
      const double room = options_.rangeTol * range->second - options_.rangeTol * range->first;
      return {std::max(atol, static_cast<Number>(room))};
    }
    ComparisonRows<Number> rows(reference_, a_.signalId, /*hasTimes=*/false, options_.checkpoint);
    // The elements of varying shapes are taken together.
    const std::size_t elements = std::max<std::size_t>(1, rows.elements());
    const Number most = std::numeric_limits<Number>::infinity();
    std::vector<Number> smallest(elements, most);
    std::vector<Number> largest(elements, -most);
    for (std::uint64_t row = 0; !rows.isAtEnd(row); ++row) {
      const Number* const values = rows.values(row);
      const std::size_t shape = rows.hasShapes() ? static_cast<std::size_t>(values[0]) + 1 : 0;
      for (std::size_t i = shape; i < rows.sizeOf(row); ++i) {
        if (!std::isfinite(values[i])) continue;
        const std::size_t element = rows.hasShapes() ? 0 : i;
        smallest[element] = std::min(smallest[element], values[i]);
        largest[element] = std::max(largest[element], values[i]);
      }
      rows.drop(row);
    }
    const auto part = static_cast<Number>(options_.rangeTol);
    for (std::size_t i = 0; i < elements; ++i) {
      // The range itself may be beyond the largest number.
      const bool isKnown = smallest[i] <= largest[i];
      largest[i] = isKnown ? std::max(atol, part * largest[i] - part * smallest[i]) : atol;
    }
    return largest;
  }

  void conclude(const Findings& findings) {
    result_.rowsCompared = findings.compared;
    result_.rowsOut = findings.out;
    result_.rowsOnlyInReference = findings.onlyInReference;
    result_.rowsOnlyInOther = findings.onlyInOther;
    result_.worst = findings.worst;
    result_.firstOut = findings.firstOut;
    noteEnds();
    const bool isNothingCompared =
        findings.compared == 0 && (result_.referenceRows > 0 || result_.otherRows > 0);
    const bool isOtherType = a_.dataType != b_.dataType && !options_.hasTolerance();
    if (findings.out > 0 || isNothingCompared || isOtherType ||
        (options_.needsSameEnds && result_.endsDiffer)) {
      result_.verdict = SignalVerdict::differs;
    }
  }

  void noteEnds() {
    const auto& a = result_.referenceSpan;
    const auto& b = result_.otherSpan;
    if (result_.isByRow || !a || !b) {
      result_.endsDiffer = result_.referenceRows != result_.otherRows;
      return;
    }
    const double tolerance = result_.timeTolerance;
    result_.endsDiffer =
        std::abs(a->from - b->from) > tolerance || std::abs(a->to - b->to) > tolerance;
    const TimeSpan both{std::max(a->from, b->from), std::min(a->to, b->to)};
    if (both.from <= both.to) result_.comparedSpan = both;
  }

  const RecordingReader& reference_;
  const RecordingReader& other_;
  const SignalInfo& a_;
  const SignalInfo& b_;
  const ComparisonOptions& options_;
  EqualFiles equal_;
  const FileInfo* known_;
  SignalComparison& result_;
  bool hasTimes_ = false;
};

class RecordingComparison {
 public:
  RecordingComparison(const Path& reference, const Path& other, const ComparisonOptions& options)
      : options_(options), reference_(reference, options.reader), other_(other, options.reader) {}

  Comparison run() {
    const auto pairs = pairSignals(reference_.info.signals, other_.info.signals, options_);
    Comparison comparison;
    comparison.signals.reserve(pairs.size());
    for (const SignalPair& pair : pairs) addPair(pair, comparison.signals.emplace_back());
    compareAll();
    sort(comparison.signals);
    return comparison;
  }

 private:
  void addPair(const SignalPair& pair, SignalComparison& result) {
    const SignalInfo* const a = pair.reference;
    const SignalInfo* const b = pair.other;
    result.name = (a ? a : b)->name;
    if (a) {
      result.referenceId = a->signalId;
      result.referenceRows = a->rowCount;
      result.referenceSpan = a->timeSpan;
    }
    if (b) {
      result.otherId = b->signalId;
      result.otherName = b->name;
      result.otherRows = b->rowCount;
      result.otherSpan = b->timeSpan;
    }
    if (!a || !b) {
      result.verdict = a ? SignalVerdict::onlyInReference : SignalVerdict::onlyInOther;
      return;
    }
    describe(*a, *b, result);
    if (result.verdict == SignalVerdict::notComparable) return;
    const EqualFiles equal = equalFilesOf(*a, *b);
    result.isKnownEqual = equal.times && equal.samples && a->dataType == b->dataType;
    if (result.isKnownEqual) {
      result.comparedSpan = result.referenceSpan;
      return;
    }
    tasks_.push_back(
        {&result, equal, reference_.contents.of(a->dataStorageId), a->rowCount + b->rowCount});
  }

  static void describe(const SignalInfo& a, const SignalInfo& b, SignalComparison& result) {
    const auto note = [&result](const char* what, std::string one, std::string other) {
      if (one == other) return false;
      result.differences.push_back({what, std::move(one), std::move(other)});
      return true;
    };
    bool isComparable = !note("unit", a.unit, b.unit);
    const auto typeText = [](const SignalInfo& signal) {
      return std::string(dataTypeName(signal.dataType));
    };
    note("type", typeText(a), typeText(b));
    // Nobody needs to tell the shape of a fixed-dimension signal.
    const bool isUntold = a.category == FixedDim && b.category == FixedDim &&
                          (a.dimensions.empty() || b.dimensions.empty());
    if (!isUntold) isComparable &= !note("shape", shapeText(a), shapeText(b));
    isComparable &= comparedKindOf(a) == comparedKindOf(b) || !a.dataStorageId || !b.dataStorageId;
    note("description", a.description, b.description);
    if (!isComparable) result.verdict = SignalVerdict::notComparable;
  }

  EqualFiles equalFilesOf(const SignalInfo& a, const SignalInfo& b) const {
    const auto areSame = [this](const std::optional<int>& one, const std::optional<int>& another) {
      if (!one || !another) return one.has_value() == another.has_value();
      return areKnownEqual(reference_.contents.of(one), other_.contents.of(another));
    };
    EqualFiles equal;
    equal.samples = areSame(a.dataStorageId, b.dataStorageId);
    equal.times = areSame(a.timeStorageId, b.timeStorageId);
    // Without a file of times, they may be in that of the samples.
    if (!a.timeStorageId) equal.times &= equal.samples;
    return equal;
  }

  // The recording may have been replaced meanwhile.
  static void requireSame(const RecordingReader& reader, const SignalInfo& signal,
                          const Path& folder) {
    const auto& all = reader.signals();
    const auto found = std::find_if(all.begin(), all.end(), [&](const SignalInfo& each) {
      return each.signalId == signal.signalId;
    });
    if (found != all.end() && found->name == signal.name && found->rowCount == signal.rowCount &&
        found->dataStorageId == signal.dataStorageId) {
      return;
    }
    throw std::runtime_error(folder.toNarrow() + ": was replaced while it was compared");
  }

  void compareAll() {
    constexpr std::uint64_t kRowsPerThread = 500'000;
    std::stable_sort(tasks_.begin(), tasks_.end(),
                     [](const Task& one, const Task& other) { return one.rows > other.rows; });
    std::uint64_t rows = 0;
    for (const Task& task : tasks_) rows += task.rows;
    std::uint64_t threads =
        std::min<std::uint64_t>({tasks_.size(), coreCount(), 1 + rows / kRowsPerThread});
    // Another reader might see a later flush.
    const bool isLive = reference_.reader.state() != RecordingState::finished ||
                        other_.reader.state() != RecordingState::finished;
    if (isLive) threads = 1;
    const std::thread::id caller = std::this_thread::get_id();
    runInThreads(static_cast<std::size_t>(threads), [&] {
      if (std::this_thread::get_id() == caller) {
        return compareNext(reference_.reader, other_.reader);
      }
      const auto reference = reference_.open();
      const auto other = other_.open();
      compareNext(*reference, *other);
    });
  }

  // Compares pairs until there are no more.
  void compareNext(const RecordingReader& reference, const RecordingReader& other) {
    try {
      for (std::size_t i = next_++; i < tasks_.size(); i = next_++) {
        const Task& task = tasks_[i];
        requireSame(reference, reference_.reader.signal(*task.result->referenceId),
                    reference_.folder);
        requireSame(other, other_.reader.signal(*task.result->otherId), other_.folder);
        PairComparison(reference, other, options_, task).run();
      }
    } catch (...) {
      next_ = tasks_.size();  // the other threads need not go on
      throw;
    }
  }

  static void sort(std::vector<SignalComparison>& signals) {
    const auto badness = [](const SignalComparison& signal) {
      if (!signal.worst) return std::tuple(0.0, 0.0, signal.rowsOut);
      const ComparedSample& worst = *signal.worst;
      const double size = std::max(std::abs(worst.reference), std::abs(worst.other));
      const double relative = worst.error > 0 ? worst.error / size : 0;
      return std::tuple(worst.excess(), std::isnan(relative) ? kInfinite : relative,
                        signal.rowsOut);
    };
    std::stable_sort(signals.begin(), signals.end(),
                     [&](const SignalComparison& one, const SignalComparison& other) {
                       if (one.verdict != other.verdict) return one.verdict < other.verdict;
                       return one.verdict == SignalVerdict::differs &&
                              badness(one) > badness(other);
                     });
  }

  const ComparisonOptions& options_;
  Side reference_;
  Side other_;
  std::vector<Task> tasks_;
  std::atomic<std::size_t> next_ = 0;
};

}  // namespace

std::string_view verdictName(SignalVerdict verdict) {
  switch (verdict) {
    case SignalVerdict::differs:
      return "differs";
    case SignalVerdict::notComparable:
      return "not comparable";
    case SignalVerdict::onlyInReference:
      return "only in reference";
    case SignalVerdict::onlyInOther:
      return "only in other";
    default:
      return "equal";
  }
}

double ComparedSample::excess() const { return tolerance > 0 ? error / tolerance : kInfinite; }

bool Comparison::isEqual() const { return count(SignalVerdict::equal) == signals.size(); }

std::uint64_t Comparison::count(SignalVerdict verdict) const {
  return static_cast<std::uint64_t>(std::count_if(
      signals.begin(), signals.end(),
      [verdict](const SignalComparison& signal) { return signal.verdict == verdict; }));
}

Comparison compareRecordings(const Path& reference, const Path& other,
                             const ComparisonOptions& options) {
  requireTolerances(options);
  return RecordingComparison(reference, other, options).run();
}

}  // namespace kyr::recording
