#include "print/LiveSource.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <utility>

#include "cli/Interrupt.h"
#include "kyr/parquet/SignalPool.h"
#include "kyr/recording/Recording.h"

namespace kyr::tool {

using recording::LiveReader;
using recording::LiveSignalInfo;
using recording::RecordingInfo;
using recording::SignalInfo;
using Part = parquet::StreamableSignal::SignalPart;

namespace {

std::vector<double> readTimes(LiveReader& reader, const LiveSignalInfo& signal, std::uint64_t from,
                              std::uint64_t to) {
  const std::vector<char> bytes = reader.read(signal, Part::time, from, to).bytes;
  std::vector<double> times(bytes.size() / sizeof(double));
  if (!times.empty()) std::memcpy(times.data(), bytes.data(), times.size() * sizeof(double));
  return times;
}

// The number of samples that have a time, if the signal has times.
std::uint64_t completeRows(const LiveSignalInfo& signal) {
  return signal.timeRows > 0 ? std::min(signal.timeRows, signal.dataRows) : signal.dataRows;
}

const LiveSignalInfo* liveSignal(const LiveReader& reader, int id) {
  for (const LiveSignalInfo& signal : reader.info().signals) {
    if (signal.signalId == id) return &signal;
  }
  return nullptr;
}

}  // namespace

std::string stateOf(const recording::LiveRecordingInfo& live, const std::string& folder) {
  return live.isBeingWritten ? "recording..." : "not finished: kyr recover " + folder;
}

RecordingInfo recordingInfoOf(LiveReader& reader) {
  RecordingInfo info;
  info.formatVersion = reader.info().formatVersion;
  info.files = reader.info().files;
  for (const LiveSignalInfo& live : reader.info().signals) {
    SignalInfo signal = live;
    if (live.timeRows > 0) {
      const std::vector<double> first = readTimes(reader, live, 0, 1);
      const std::vector<double> last = readTimes(reader, live, live.timeRows - 1, live.timeRows);
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

void LiveCat::print(Output& out, const SampleTable::Load& load) {
  const SampleTable table(signals_, load);
  if (!hasHeader_) table.printHeader(out);
  hasHeader_ = true;
  table.printRows(out, window_);
  out.flush();
}

void LiveCat::print(Output& out, LiveReader& reader) {
  for (SignalInfo& signal : signals_) {
    const LiveSignalInfo* live = liveSignal(reader, signal.signalId);
    if (live != nullptr) static_cast<SignalInfo&>(signal) = *live;
  }
  print(out, [&](const SignalInfo& signal, std::vector<double>& time) {
    const LiveSignalInfo& live = *liveSignal(reader, signal.signalId);
    const std::uint64_t from = printed_[signal.signalId];
    const std::uint64_t to = std::max(from, completeRows(live));
    time = readTimes(reader, live, from, to);
    recording::LiveRows rows = reader.read(live, Part::data, from, to);
    printed_[signal.signalId] = to;
    return SampleColumn(signal, std::move(rows.bytes), std::move(rows.dimensions), rows.sizes);
  });
}

void LiveCat::printFinished(Output& out) {
  const Path folder = Path::fromNarrow(folder_);
  recording::Recording opened = recording::openRecording(folder);
  for (SignalInfo& signal : signals_) {
    for (const SignalInfo& finished : opened.info().signals) {
      if (finished.signalId == signal.signalId) signal = finished;
    }
  }
  print(out, [&](const SignalInfo& signal, std::vector<double>& time) {
    SampleColumn column(*opened.pool().getSignal(signal.signalId), signal, time);
    const std::size_t printed = printed_[signal.signalId];
    column.dropFirst(printed);
    time.erase(time.begin(),
               time.begin() + static_cast<std::ptrdiff_t>(std::min(printed, time.size())));
    return column;
  });
}

void LiveCat::follow(Output& out, LiveReader& reader) {
  constexpr std::chrono::milliseconds kInterval(100);
  print(out, reader);
  while (reader.refresh()) {
    print(out, reader);
    if (!reader.info().isBeingWritten && reader.refresh()) {
      throw std::runtime_error(folder_ + ": " + stateOf(reader.info(), folder_));
    }
    std::this_thread::sleep_for(kInterval);
    stopIfInterrupted();
  }
  printFinished(out);
}

}  // namespace kyr::tool
