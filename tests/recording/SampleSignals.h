#pragma once

#include <arrow/util/type_fwd.h>

#include <vector>

#include "kyr/parquet/SignalPool.h"
#include "kyr/recording/RecordingInfo.h"
#include "support/Samples.h"

namespace kyr::test {

/// A signal as a host has it.
struct SampleSignal {
  recording::SignalDescription description;
  KYRSignalDataType type;
  KYRSignalCategory category;
  bool sharedTime;
  ::arrow::Compression::type codec;
  Samples samples;
};

/// Every data type in every category that can hold it, the time layouts and the codecs taking
/// turns. data/golden-v1 holds these signals and interop/check_files.py computes them by itself:
/// only ever append.
std::vector<SampleSignal> sampleSignals();

/// Makes and stores the signals, each in its own time layout.
void storeSignals(parquet::SignalPool& pool, const std::vector<SampleSignal>& signals);

std::vector<recording::SignalDescription> descriptionsOf(const std::vector<SampleSignal>& signals);

}  // namespace kyr::test
