#include "view/ViewedRuns.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <limits>
#include <nlohmann/json.hpp>
#include <numeric>
#include <stdexcept>
#include <thread>
#include <utility>

#include "cli/Text.h"
#include "print/SampleCursor.h"
#include "print/SampleNumbers.h"
#include "print/SignalJson.h"
#include "view/EnvelopePoints.h"

namespace kyr::tool {

namespace {

using nlohmann::ordered_json;
using recording::RecordingReader;
using recording::RecordingState;
using recording::RowRange;
using recording::SignalInfo;

// How the page draws it.
std::string_view kindOf(const SignalInfo& signal) {
  switch (signal.dataType) {
    case Double:
    case Single:
      return "number";
    case Boolean:
      return "boolean";
    case ByteString:
    case Binary:
      return "text";
    default:
      return signal.category == Bus || signal.category == VarDimBus ? "text" : "integer";
  }
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
  json["elements"] = signal.category == Scalar ? 1 : elements;
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

// Every row that is a multiple of the stride after the first one.
std::vector<double> valuesOf(const RecordingReader& reader, const ViewedSignal& signal,
                             const RowRange& rows, std::uint64_t stride) {
  const SignalInfo& info = reader.signal(signal.id);
  const ToDoubles convert = toDoublesFor(info.dataType);
  if (convert == nullptr) {
    throw std::runtime_error(fmt::format("{} has no numbers", inQuotes(info.name)));
  }
  const std::size_t width = reader.elementBytes(signal.id);
  std::vector<double> values;
  recording::SampleBlocks blocks = reader.blocks(signal.id, rows);
  while (const recording::SampleBlock* block = blocks.next()) {
    const auto* const bytes = static_cast<const char*>(block->elements);
    for (std::size_t row = 0; bytes != nullptr && row < block->rows; ++row) {
      if ((block->firstRow + row - rows.from) % stride != 0) continue;
      const auto [begin, end] = elementsOf(*block, row);
      double value = recording::EnvelopeColumn::kNone;
      if (signal.element < end - begin)
        convert(bytes + (begin + signal.element) * width, 1, &value);
      values.push_back(value);
    }
  }
  return values;
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
  const auto shortNameOf = [](const std::string& folder) {
    const auto path = std::filesystem::absolute(folder).lexically_normal();
    return (path.has_filename() ? path.filename() : path.parent_path().filename()).string();
  };
  for (const std::string& folder : folders) {
    const std::string name = shortNameOf(folder);
    const auto uses = std::count_if(folders.begin(), folders.end(), [&](const std::string& other) {
      return shortNameOf(other) == name;
    });
    runs_.emplace_back(folder, uses > 1 ? folder : name, links);
  }
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
    for (LockedReader& locked : each.readers) {
      const std::lock_guard lock(locked.mutex);
      isNew |= locked.reader.refresh();
    }
    if (isNew) ++each.revision;
    LockedReader& first = each.readers.front();
    const std::lock_guard lock(first.mutex);
    ordered_json json = {{"state", nameOf(first.reader.state())},
                         {"revision", each.revision.load()},
                         {"signals", first.reader.signals().size()}};
    addSpan(json, first.reader);
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
  LockedReader& from = run(x.run).readerFor(x.id);
  const std::lock_guard lock(from.mutex);
  const RecordingReader& reader = from.reader;
  const std::vector<int>& alike = reader.withSameTimes(x.id);
  if (x.run != y.run ||
      (x.id != y.id && std::find(alike.begin(), alike.end(), y.id) == alike.end())) {
    throw std::runtime_error(fmt::format(
        "{} and {} do not have the same times", inQuotes(reader.signal(x.id).name),
        y.run == x.run ? inQuotes(reader.signal(y.id).name) : "a signal of another recording"));
  }
  const std::uint64_t end = std::min(reader.pairCount(x.id), reader.pairCount(y.id));
  const std::vector<RowRange> ranges = reader.rowsBetween(x.id, window.from, window.to);
  std::string bytes;
  if (ranges.empty()) return bytes;
  const RowRange rows{std::min(ranges.front().from, end), std::min(ranges.back().to, end)};
  const std::uint64_t stride = (rows.to - rows.from) / std::max<std::size_t>(1, window.columns) + 1;
  const std::vector<double> xs = valuesOf(reader, x, rows, stride);
  const std::vector<double> ys = valuesOf(reader, y, rows, stride);
  for (std::size_t i = 0; i < std::min(xs.size(), ys.size()); ++i) {
    put(bytes, xs[i]);
    put(bytes, ys[i]);
  }
  return bytes;
}

}  // namespace kyr::tool
