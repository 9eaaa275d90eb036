#include "print/LiveSource.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <utility>

#include "cli/Interrupt.h"

namespace kyr::tool {

using recording::RecordingInfo;
using recording::RecordingReader;
using recording::RecordingState;
using recording::SignalInfo;

namespace {

bool hasSignal(const RecordingReader& reader, int id) {
  const auto& signals = reader.signals();
  return std::any_of(signals.begin(), signals.end(),
                     [id](const SignalInfo& signal) { return signal.signalId == id; });
}

}  // namespace

std::string stateOf(RecordingState state, const std::string& folder) {
  return state == RecordingState::beingRecorded ? "recording..."
                                                : "not finished: kyr recover " + folder;
}

RecordingInfo recordingInfoOf(const RecordingReader& reader,
                              const recording::LiveRecordingInfo& live) {
  RecordingInfo info;
  info.formatVersion = live.formatVersion;
  info.files = live.files;
  for (const recording::LiveSignalInfo& each : live.signals) {
    SignalInfo signal = each;
    if (each.timeRows > 0) {
      const std::vector<double> first = reader.times(each.signalId, {0, 1});
      const std::vector<double> last =
          reader.times(each.signalId, {each.timeRows - 1, each.timeRows});
      if (!first.empty() && !last.empty()) {
        signal.timeSpan = recording::TimeSpan{first.front(), last.front()};
      }
    }
    info.signals.push_back(std::move(signal));
  }
  std::sort(info.signals.begin(), info.signals.end(),
            [](const auto& a, const auto& b) { return a.signalId < b.signalId; });
  return info;
}

void LiveCat::print(Output& out, const RecordingReader& reader) {
  for (SignalInfo& signal : signals_) {
    if (hasSignal(reader, signal.signalId)) {
      signal = reader.signal(signal.signalId);
    } else {
      signal.dataStorageId.reset();  // removed before the recording was finished
    }
  }
  const SampleTable table(signals_, [&](const SignalInfo& signal, std::vector<double>& time) {
    std::uint64_t& printed = printed_[signal.signalId];
    const std::uint64_t to = std::max(printed, reader.pairCount(signal.signalId));
    recording::SampleRows rows = reader.read(signal.signalId, {printed, to});
    printed = to;
    time = std::move(rows.times);
    return SampleColumn(signal, std::move(rows.bytes), std::move(rows.dimensions), rows.sizes);
  });
  if (!hasHeader_) table.printHeader(out);
  hasHeader_ = true;
  table.printRows(out, window_);
  out.flush();
}

void LiveCat::follow(Output& out, RecordingReader& reader) {
  constexpr std::chrono::milliseconds kInterval(100);
  print(out, reader);
  while (reader.state() != RecordingState::finished) {
    if (reader.state() == RecordingState::notFinished && !reader.refresh()) {
      throw std::runtime_error(folder_ + ": " + stateOf(reader.state(), folder_));
    }
    std::this_thread::sleep_for(kInterval);
    stopIfInterrupted();
    reader.refresh();
    print(out, reader);
  }
}

}  // namespace kyr::tool
