#pragma once

#include <arrow/type_fwd.h>

#include <cstddef>
#include <memory>

#include "kyr/recording/RecordingReader.h"
#include "recording/SignalRows.h"

namespace kyr::recording {

/// Pairs of a signal as Arrow data, batch by batch; RecordingReader::exportTo() describes the
/// columns. Failures are an arrow::Status with the text of the exception.
/// \param range  within the signal's pairs
std::shared_ptr<::arrow::RecordBatchReader> arrowStream(SignalRows rows, const RowRange& range,
                                                        std::size_t maxRows);

}  // namespace kyr::recording
