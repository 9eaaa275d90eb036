#include "view/ViewedRuns.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>
#include <numeric>
#include <stdexcept>
#include <thread>
#include <utility>

#include "cli/Files.h"
#include "cli/Text.h"
#include "print/SignalJson.h"
#include "view/EnvelopePoints.h"
#include "view/SignalPairs.h"

namespace kyr::tool {

namespace {

using nlohmann::ordered_json;
using recording::RecordingReader;
using recording::RecordingState;
using recording::SignalInfo;

// How the page draws it.
std::string_view kindOf(const SignalInfo& signal) {
  if (isText(signal)) return "text";
  if (signal.dataType == Boolean) return "boolean";
  return hasFractions(signal) ? "number" : "integer";
}

std::string_view nameOf(RecordingState state) {
  switch (state) {
    case RecordingState::beingRecorded:
      return "live";
    case RecordingState::notFinished:
      return "not finished";
    default:
      return "finished";
  }
}

ordered_json signalJson(const RecordingReader& reader, const SignalInfo& signal) {
  const std::uint64_t elements =
      std::accumulate(signal.dimensions.begin(), signal.dimensions.end(), std::uint64_t{1},
                      [](std::uint64_t product, std::size_t extent) { return product * extent; });
  ordered_json json = tool::signalJson(signal);
  const bool varies = signal.dimensions.empty() && signal.category != Scalar;
  json["elements"] = varies ? 0 : elements;
  json["rows"] = signal.rowCount;
  json["kind"] = kindOf(signal);
  try {
    if (const auto span = shownSpan(reader, signal)) {
      json["from"] = span->from;
      json["to"] = span->to;
    }
  } catch (const std::exception& error) {
    json["fault"] = error.what();
  }
  return json;
}

// Smallest and largest time of all signals that have finite ones.
void addSpan(ordered_json& json, const RecordingReader& reader) {
  constexpr double kMost = std::numeric_limits<double>::max();
  double from = kMost;
  double to = -kMost;
  for (const SignalInfo& signal : reader.signals()) {
    try {
      const auto span = shownSpan(reader, signal);
      if (!span) continue;
      from = std::min(from, std::max(span->from, -kMost));
      to = std::max(to, std::min(span->to, kMost));
    } catch (const std::exception&) {
      continue;  // signalJson() tells
    }
  }
  if (from > to) return;
  json["from"] = from;
  json["to"] = to;
}

template <typename Number>
void put(std::string& bytes, Number number) {
  const auto value = static_cast<double>(number);
  bytes.append(reinterpret_cast<const char*>(&value), sizeof(value));
}

void putAll(std::string& bytes, const std::vector<double>& numbers) {
  bytes.append(reinterpret_cast<const char*>(numbers.data()), numbers.size() * sizeof(double));
}

std::size_t readersOfRun() {
  constexpr unsigned kMost = 4;
  return std::clamp(std::thread::hardware_concurrency(), 1U, kMost);
}

// The readers of a recording share the memory that envelopes may have.
recording::ReaderOptions optionsOfOne(Links links) {
  recording::ReaderOptions options;
  options.links = links;
  options.maxEnvelopeBytes /= readersOfRun();
  return options;
}

}  // namespace

ViewedRuns::LockedReader::LockedReader(const std::string& folder, Links links)
    : reader(Path::fromNarrow(folder), optionsOfOne(links)) {}

ViewedRuns::Run::Run(std::string folderName, std::string shownName, Links links)
    : folder(std::move(folderName)), name(std::move(shownName)) {
  for (std::size_t i = 0; i < readersOfRun(); ++i) readers.emplace_back(folder, links);
}

ViewedRuns::LockedReader& ViewedRuns::Run::readerFor(int id) {
  return readers[static_cast<unsigned>(id) % readers.size()];
}

ViewedRuns::ViewedRuns(const std::vector<std::string>& folders, Links links) {
  const std::vector<std::string> names = namesOfRuns(folders);
  for (std::size_t i = 0; i < folders.size(); ++i) runs_.emplace_back(folders[i], names[i], links);
}

ViewedRuns::Run& ViewedRuns::run(std::size_t index) {
  if (index >= runs_.size()) {
    throw std::runtime_error(fmt::format("there is no recording {}", index));
  }
  return runs_[index];
}

ordered_json ViewedRuns::runs() {
  ordered_json all = ordered_json::array();
  for (Run& each : runs_) {
    LockedReader& locked = each.readers.front();
    const std::lock_guard lock(locked.mutex);
    const RecordingReader& reader = locked.reader;
    ordered_json json = {{"name", each.name},
                         {"folder", each.folder},
                         {"state", nameOf(reader.state())},
                         {"revision", each.revision.load()},
                         {"signals", ordered_json::array()}};
    addSpan(json, reader);
    for (const SignalInfo& signal : reader.signals()) {
      json["signals"].push_back(signalJson(reader, signal));
    }
    all.push_back(std::move(json));
  }
  return all;
}

ordered_json ViewedRuns::states() {
  ordered_json all = ordered_json::array();
  for (Run& each : runs_) {
    bool isNew = false;
    std::string fault;
    try {
      for (LockedReader& locked : each.readers) {
        const std::lock_guard lock(locked.mutex);
        isNew |= locked.reader.refresh();
      }
    } catch (const std::exception& error) {
      fault = error.what();  // the other recordings are followed nevertheless
    }
    if (isNew) ++each.revision;
    LockedReader& first = each.readers.front();
    const std::lock_guard lock(first.mutex);
    ordered_json json = {{"state", nameOf(first.reader.state())},
                         {"revision", each.revision.load()},
                         {"signals", first.reader.signals().size()}};
    addSpan(json, first.reader);
    if (!fault.empty()) json["fault"] = fault;
    all.push_back(std::move(json));
  }
  return all;
}

std::string ViewedRuns::points(const ViewedSignal& signal, const ViewedWindow& window) {
  LockedReader& from = run(signal.run).readerFor(signal.id);
  const std::lock_guard lock(from.mutex);
  const recording::Envelope envelope =
      from.reader.envelope(signal.id, window.from, window.to, window.columns, signal.element);
  std::string bytes;
  put(bytes, rowsOf(envelope));
  put(bytes, 0);
  for (const PlotPoint& point : pointsOf(envelope)) {
    put(bytes, point.time);
    put(bytes, point.value);
  }
  return bytes;
}

ordered_json ViewedRuns::spans(const ViewedSignal& signal, const ViewedWindow& window) {
  LockedReader& from = run(signal.run).readerFor(signal.id);
  const std::lock_guard lock(from.mutex);
  const bool isText = kindOf(from.reader.signal(signal.id)) == "text";
  ordered_json all = ordered_json::array();
  for (const recording::ValueSpan& span :
       from.reader.spans(signal.id, window.from, window.to, window.columns, signal.element)) {
    ordered_json json = {{"from", span.from}, {"to", span.to}, {"rows", span.rows}};
    if (span.isMixed) {
      json["mixed"] = true;
    } else if (isText) {
      json["text"] = span.text;
      json["bytes"] = span.textBytes;
    } else {
      json["value"] = span.value;
    }
    all.push_back(std::move(json));
  }
  return all;
}

std::string ViewedRuns::pairs(const ViewedSignal& x, const ViewedSignal& y,
                              const ViewedWindow& window) {
  if (x.run != y.run) throw std::runtime_error("x-y plots are of signals of one recording");
  LockedReader& from = run(x.run).readerFor(x.id);
  const std::lock_guard lock(from.mutex);
  const SignalPairs pairs = pairsOf(from.reader, {x.id, x.element}, {y.id, y.element}, window.from,
                                    window.to, window.columns);
  std::string bytes;
  put(bytes, pairs.rows);
  put(bytes, pairs.isInterpolated ? 1 : 0);
  putAll(bytes, pairs.values);
  return bytes;
}

std::string ViewedRuns::rows(const ViewedSignal& signal, double from, double to) {
  constexpr std::uint64_t kMost = 1'000'000;
  LockedReader& locked = run(signal.run).readerFor(signal.id);
  const std::lock_guard lock(locked.mutex);
  std::string bytes;
  putAll(bytes, rowsOf(locked.reader, {signal.id, signal.element}, from, to, kMost));
  return bytes;
}

}  // namespace kyr::tool
