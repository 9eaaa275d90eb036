#pragma once

#include <arrow/type_fwd.h>

#include <cstdint>
#include <string>

#include "kyr/recording/RecordingInfo.h"
#include "schema/RowStore.h"

/// The one place that compares what files hold with what a signal says of itself.
namespace kyr::recording {

/// What is wrong with the columns of a content; empty if they are those of such a signal.
/// \param columns  may include a column of times
std::string columnFault(const ::arrow::Schema& columns, KYRSignalCategory category,
                        KYRSignalDataType type);

/// What is wrong with samples: the first one whose elements are not as many as its shape says.
/// Empty if all are right, or have no shapes.
/// \param first  number of the first row
std::string sampleFault(const SignalInfo& signal, const parquet::SampleSchema& schema,
                        const parquet::RowSlice& rows, std::uint64_t first);

/// What is wrong between the number of samples that the signal has and the rows of its contents;
/// empty if they fit.
/// \param rows  of the samples, or of the times if there are no samples
std::string countFault(const SignalInfo& signal, std::uint64_t rows);

}  // namespace kyr::recording
