#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kyr/platform/Path.h"
#include "kyr/platform/export.h"
#include "kyr/recording/RecordingInfo.h"
#include "kyr/recording/RecordingReader.h"

namespace kyr::recording {

/// \brief What two recordings may differ by.
///
/// Without any tolerance, signals are equal if they have the same times and every bit of their
/// samples is the same, except that a NaN equals any NaN.
///
/// With a tolerance, signals are curves: straight lines between the samples if both signals are
/// floating point, else each sample holds until the next one. A sample of either curve passes if
/// the other curve has, no more than `timeTol` x span of the reference's times away, a value that
/// differs by no more than the largest of `atol`, `rtol` x |reference value|, and `rangeTol` x
/// (largest - smallest value of the reference). NaN equals NaN, and an infinity only itself. The
/// curves are compared where both are.
struct ComparisonOptions {
  double atol = 0;      ///< in the unit of the signal
  double rtol = 0;      ///< part of the reference value
  double rangeTol = 0;  ///< part of the range of the reference's finite values, by element
  double timeTol = 0;   ///< part of the time span of the reference signal
  /// Whether curves that begin or end at different times differ. Without tolerances they do in any
  /// case.
  bool needsSameEnds = false;

  /// Names in the other recording by names in the reference, where they are not the same.
  std::map<std::string, std::string> otherNames;
  /// Names and patterns (RecordingReader::matching()) of signals to compare; all if there are none.
  /// Signals go by the name that they have in the reference.
  std::vector<std::string> signals;
  std::vector<std::string> ignored;  ///< names and patterns of signals that are left out
  ReaderOptions reader = {};         ///< for both recordings
  /// Called now and then by each thread that compares. What it throws ends the comparison.
  std::function<void()> checkpoint = {};

  bool hasTolerance() const { return atol > 0 || rtol > 0 || rangeTol > 0 || timeTol > 0; }
};

enum class SignalVerdict {
  differs,
  notComparable,  ///< unit, shape or kind of samples differ, so that values mean nothing together
  onlyInReference,
  onlyInOther,
  equal,  ///< or within the tolerances
};

/// \brief "equal", "differs", "not comparable", "only in reference" or "only in other".
KYR_PARQUET_EXPORT std::string_view verdictName(SignalVerdict verdict);

/// \brief What is said of a signal and differs between the recordings.
struct DescriptionDifference {
  std::string what;  ///< "unit", "type", "shape", "times" or "description"
  std::string reference;
  std::string other;
};

/// \brief An element of a sample, and what the other curve has there.
struct KYR_PARQUET_EXPORT ComparedSample {
  double time = 0;             ///< [s]; the row number for signals without times
  std::uint64_t row = 0;       ///< the reference's latest row at or before the time
  std::uint64_t otherRow = 0;  ///< the same for the other signal
  std::uint64_t element = 0;   ///< in the order of memory
  double reference = 0;        ///< NaN for blobs, as is `other`
  double other = 0;
  double error = 0;      ///< |reference - other|; infinite if one of them is no finite number
  double tolerance = 0;  ///< the tolerance at this place

  /// \brief The error over its tolerance: above 1 if the sample is out; infinite without tolerance.
  double excess() const;
};

struct SignalComparison {
  std::string name;       ///< in the reference; in the other recording if it is only there
  std::string otherName;  ///< in the other recording; empty if it is not there
  std::optional<int> referenceId;
  std::optional<int> otherId;
  SignalVerdict verdict = SignalVerdict::equal;

  /// Units, shapes and times make signals not comparable. A type makes them differ if there is no
  /// tolerance. Descriptions are told only.
  std::vector<DescriptionDifference> differences;
  /// Whether nothing was read, because the files of both recordings are known to be equal.
  bool isKnownEqual = false;
  /// Whether rows were compared one by one, because times do not ascend or signals have none.
  bool isByRow = false;

  std::uint64_t referenceRows = 0;
  std::uint64_t otherRows = 0;
  /// Places where either signal has a sample: in the span of both, or without tolerances anywhere.
  /// Two samples at the same time, one in each signal, are one place.
  std::uint64_t rowsCompared = 0;
  std::uint64_t rowsOut = 0;  ///< those of them that differ by more than the tolerance
  /// Rows out whose time the other signal does not have. They are counted without tolerances, and
  /// for samples of varying shape.
  std::uint64_t rowsOnlyInReference = 0;
  std::uint64_t rowsOnlyInOther = 0;
  std::optional<ComparedSample> worst;  ///< largest error over tolerance, if anything differs
  std::optional<double> firstOut;       ///< [s], or a row number

  std::optional<TimeSpan> referenceSpan;
  std::optional<TimeSpan> otherSpan;
  std::optional<TimeSpan> comparedSpan;
  bool endsDiffer = false;  ///< spans or numbers of rows, by more than the tolerance of times

  double valueTolerance = 0;  ///< what the first element may differ by; `rtol` is left out
  double timeTolerance = 0;   ///< [s]
};

struct KYR_PARQUET_EXPORT Comparison {
  /// Those that are not equal first, in the order of SignalVerdict, the worst first: by error over
  /// tolerance, or without tolerances by error over value.
  std::vector<SignalComparison> signals;

  /// \brief Whether all signals are equal, or within the tolerances.
  bool isEqual() const;
  std::uint64_t count(SignalVerdict verdict) const;
};

/// \brief Compare the signals of a recording with those of a reference, by their names.
///
/// Signals of the same name in one recording go by their units, and then by their ids. Files that
/// are equal are not read. Others are read block by block, several signals at a time. In memory are
/// a few blocks of each, and with a tolerance of time the rows within twice this time.
///
/// Both may be live recordings, which are compared as of their last flush.
/// \throws std::invalid_argument for a tolerance that is negative or not finite, and for names and
///         patterns of `signals` and `otherNames` that no signal has
/// \throws std::exception as RecordingReader
KYR_PARQUET_EXPORT Comparison compareRecordings(const Path& reference, const Path& other,
                                                const ComparisonOptions& options = {});

}  // namespace kyr::recording
