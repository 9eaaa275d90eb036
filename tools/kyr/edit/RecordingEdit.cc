#include "edit/RecordingEdit.h"

#include <algorithm>
#include <utility>

#include "cli/Interrupt.h"
#include "cli/Settings.h"
#include "csv/ColumnStore.h"
#include "kyr/parquet/StreamableSignal.h"
#include "kyr/platform/FeatureFlag.h"

namespace kyr::tool {

using recording::RecordingReader;
using recording::RowRange;
using recording::SignalInfo;

namespace {

// Signals can be appended to if the pool has them as streamable ones.
recording::Recording openStreamable(const std::string& folder, const std::vector<int>& ids) {
  FeatureFlag::set("fKYRUseParquetRowGroup", true);
  return recording::openRecording(Path::fromNarrow(folder), ids);
}

std::uint64_t rowsAtOnce(const RecordingReader& reader, int id) {
  constexpr std::uint64_t kBytes = std::uint64_t{1} << 22U;
  constexpr std::uint64_t kMost = 65'536;
  constexpr std::uint64_t kOfUnknownSize = 1024;
  const std::uint64_t elements = reader.elementsPerSample(id);
  if (elements == 0) return kOfUnknownSize;
  return std::clamp<std::uint64_t>(kBytes / (elements * reader.elementBytes(id)), 1, kMost);
}

// The shapes as StreamableSignal takes them.
std::vector<std::vector<unsigned long>> shapesOf(const RecordingReader& reader,
                                                 const SignalInfo& signal,
                                                 const recording::SampleRows& rows) {
  if (signal.category != FixedDim) return rows.dimensions;
  if (!signal.dimensions.empty()) return {{signal.dimensions.begin(), signal.dimensions.end()}};
  return {{reader.elementsPerSample(signal.signalId)}};
}

}  // namespace

RecordingEdit::RecordingEdit(const std::string& folder, const std::vector<int>& ids)
    : base_(openStreamable(folder, ids)) {
  for (recording::SignalDescription& description : base_->descriptions()) {
    const int id = description.signalId;
    descriptions_[id] = std::move(description);
  }
}

RecordingEdit::RecordingEdit(const std::string& beside, std::size_t signals, std::size_t packBelow)
    : working_(recording::WorkingFolder::beside(Path::fromNarrow(beside))),
      pool_(std::make_unique<parquet::SignalPool>(working_->path().join("shared"),
                                                  storageFor(signals, packBelow))) {}

int RecordingEdit::add(const SignalInfo& signal) {
  recording::SignalDescription description = signal;
  if (descriptions_.count(description.signalId) > 0) {
    description.signalId = descriptions_.rbegin()->first + 1;
  }
  const int id = description.signalId;
  pool().describeSignal(id, description.name, description.unit);
  const auto made = pool().getStreamableSignal(id);
  made->setDataType(signal.dataType);
  made->setCategory(signal.category);
  if (const auto codec = chosenCodec()) made->setParquetCompressionType(*codec);
  descriptions_[id] = std::move(description);
  return id;
}

void RecordingEdit::keep(const RecordingReader& reader, int id,
                         const std::vector<RowRange>& ranges) {
  pool().getStreamableSignal(id)->resetData();
  for (const RowRange& range : ranges) append(reader, id, range, id, 0);
}

void RecordingEdit::append(const RecordingReader& reader, int from, const RowRange& rows, int to,
                           double seconds) {
  const SignalInfo& signal = reader.signal(from);
  parquet::StreamableSignal& target = *pool().getStreamableSignal(to);
  const std::uint64_t end =
      std::min(rows.to, std::max(reader.timeCount(from), reader.sampleCount(from)));
  const std::uint64_t piece = rowsAtOnce(reader, from);
  for (std::uint64_t row = rows.from; row < end; row += std::min(piece, end - row)) {
    stopIfInterrupted();
    const RowRange range{row, row + std::min(piece, end - row)};
    recording::SampleRows read = reader.read(from, range);
    for (double& time : read.times) time += seconds;
    if (!read.times.empty()) target.appendTime(read.times.data(), read.times.size());
    if (row >= reader.sampleCount(from)) continue;
    const auto shapes = shapesOf(reader, signal, read);
    const char none = 0;
    target.appendData(read.bytes.empty() ? &none : read.bytes.data(), read.bytes.size(), shapes,
                      read.sizes);
  }
}

void RecordingEdit::save(const std::string& folder, const recording::SaveOptions& options) {
  std::vector<recording::SignalDescription> descriptions;
  for (const auto& [id, description] : descriptions_) descriptions.push_back(description);
  recording::saveRecording(pool(), descriptions, Path::fromNarrow(folder), options);
}

}  // namespace kyr::tool
