#pragma once

#include "recording/ComparisonFindings.h"
#include "recording/ComparisonRows.h"

namespace kyr::recording {

/// Which rows of two signals are compared with each other.
enum class RowPairs {
  byNumber,  ///< those with the same row number
  byTime,    ///< those with the same time
};

/// Compares two signals row by row. Rows without a partner are out if there is no tolerance, or if
/// they lie between rows that have one.
/// \param timeTolerance  what the times of a pair may differ by [s]
/// \return nothing if times do not ascend that pair the rows
template <typename Number>
std::optional<Findings> compareRows(ComparisonRows<Number>& reference,
                                    ComparisonRows<Number>& other, SampleJudge<Number>& judge,
                                    RowPairs pairs, double timeTolerance);

/// Compares two signals as curves, where both are: each sample with the other curve.
///
/// At the same time, sample by sample if there are equally many. If not, the first one is compared
/// with what the other curve comes from, the last one with what it goes on with. Those between are
/// compared with all samples that the other curve has there, and all values between these if it is
/// a curve of lines.
/// \param timeTolerance  how far away the other curve may have the value [s]
/// \param holds  whether samples hold until the next one
/// \return nothing if times do not ascend, or very many are the same
template <typename Number>
std::optional<Findings> compareCurves(ComparisonRows<Number>& reference,
                                      ComparisonRows<Number>& other, SampleJudge<Number>& judge,
                                      double timeTolerance, bool holds);

}  // namespace kyr::recording
