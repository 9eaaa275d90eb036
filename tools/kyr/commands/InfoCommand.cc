#include "commands/InfoCommand.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>

#include "cli/CommandLine.h"
#include "cli/Text.h"
#include "commands/Commands.h"
#include "kyr/recording/RecordingReader.h"
#include "print/RecordingSummary.h"
#include "print/TypeNames.h"

namespace kyr::tool {

namespace {

using nlohmann::ordered_json;
using recording::RecordingInfo;
using recording::RecordingReader;
using recording::SignalInfo;

std::string shapeOf(const SignalInfo& signal) {
  if (signal.dimensions.empty()) return std::string(categoryName(signal.category));
  return fmt::format("{}", fmt::join(signal.dimensions, "x"));
}

std::string spanOf(const SignalInfo& signal) {
  return signal.timeSpan ? fmt::format("{} to {}", signal.timeSpan->from, signal.timeSpan->to)
                         : "-";
}

std::string fileOf(const std::optional<int>& storageId, const RecordingSummary& summary) {
  if (!storageId) return "-";
  const std::size_t users = summary.usersOf(*storageId);
  return users > 1 ? fmt::format("{} ({})", *storageId, users) : fmt::format("{}", *storageId);
}

template <typename T>
ordered_json orNull(const std::optional<T>& value) {
  return value ? ordered_json(*value) : ordered_json(nullptr);
}

ordered_json signalJson(const SignalInfo& signal, const RecordingSummary& summary) {
  ordered_json span = nullptr;
  if (signal.timeSpan) span = {{"from", signal.timeSpan->from}, {"to", signal.timeSpan->to}};
  return {{"id", signal.signalId},
          {"name", signal.name},
          {"unit", signal.unit},
          {"description", signal.description},
          {"type", typeName(signal.dataType)},
          {"category", categoryName(signal.category)},
          {"dimensions", signal.dimensions},
          {"compression", signal.compression},
          {"rows", signal.rowCount},
          {"timeSpan", std::move(span)},
          {"bytes", summary.bytesOf(signal)},
          {"timeFile", orNull(signal.timeStorageId)},
          {"dataFile", orNull(signal.dataStorageId)}};
}

// \param state  set if the recording is not finished
void printJson(Output& out, const RecordingInfo& info, const std::optional<std::string>& state) {
  const RecordingSummary summary(info);
  ordered_json document = {{"formatVersion", info.formatVersion},
                           {"signals", ordered_json::array()},
                           {"files", ordered_json::array()}};
  if (state) document["state"] = *state;
  for (const SignalInfo& signal : info.signals) {
    document["signals"].push_back(signalJson(signal, summary));
  }
  for (const recording::FileInfo& file : info.files) {
    ordered_json object = {{"id", file.storageId}, {"bytes", file.size}, {"rows", file.rowCount}};
    if (file.pack) {
      object["pack"] = *file.pack;
      object["firstRow"] = file.firstRow;
    } else {
      object["xxh3_128"] = file.checksum;
    }
    object["signals"] = summary.usersOf(file.storageId);
    document["files"].push_back(std::move(object));
  }
  for (const recording::PackInfo& pack : info.packs) {
    document["packs"].push_back({{"pack", pack.number},
                                 {"bytes", pack.size},
                                 {"rows", pack.rowCount},
                                 {"xxh3_128", pack.checksum}});
  }
  document["totals"] = {{"signals", info.signals.size()},
                        {"files", summary.fileCount()},
                        {"bytes", summary.storedBytes()},
                        {"bytesWithoutSharing", summary.bytesWithoutSharing()},
                        {"bytesSaved", summary.savedBytes()}};
  out.print("{}\n", document.dump(2));
}

struct InfoOptions {
  std::string folder;
  bool asJson = false;
  Links links = Links::refused;
};

int runInfo(const InfoOptions& options) {
  const RecordingReader reader(Path::fromNarrow(options.folder), {true, 0, options.links});
  const RecordingInfo info = reader.info();
  std::optional<std::string> state;
  if (reader.state() != recording::RecordingState::finished) {
    state = stateOf(reader.state(), options.folder);
  }
  Output out;
  if (options.asJson) {
    printJson(out, info, state);
  } else {
    printInfo(out, info, std::numeric_limits<std::size_t>::max());
    if (state) out.print("{}\n", *state);
  }
  out.flush();
  return 0;
}

}  // namespace

void printInfo(Output& out, const RecordingInfo& info, std::size_t limit) {
  const RecordingSummary summary(info);
  constexpr auto kLeft = TextTable::Align::left;
  constexpr auto kRight = TextTable::Align::right;
  TextTable table({{"id", kRight},
                   {"name", kLeft},
                   {"unit", kLeft},
                   {"type", kLeft},
                   {"shape", kLeft},
                   {"rows", kRight},
                   {"time [s]", kLeft},
                   {"bytes", kRight},
                   {"time file", kRight},
                   {"data file", kRight}});
  const std::size_t shown = std::min(limit, info.signals.size());
  for (std::size_t i = 0; i < shown; ++i) {
    const SignalInfo& signal = info.signals[i];
    table.addRow({std::to_string(signal.signalId), signal.name, signal.unit,
                  std::string(typeName(signal.dataType)), shapeOf(signal),
                  std::to_string(signal.rowCount), spanOf(signal),
                  std::to_string(summary.bytesOf(signal)), fileOf(signal.timeStorageId, summary),
                  fileOf(signal.dataStorageId, summary)});
  }
  out.print("{}", table.text());
  if (shown < info.signals.size()) out.print("... and {} more\n", info.signals.size() - shown);
  out.print("\n{}\n", summary.text());
}

void addInfoCommand(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("info", "Show what a recording holds");
  const auto options = std::make_shared<InfoOptions>();
  addRecordingArgument(*command, options->folder);
  addLinksOption(*command, options->links);
  command->add_flag("--json", options->asJson, "Print JSON");
  command->footer(R"help(
Only recording.json of a finished recording is read. While a recording is being written, the rows
that are durable are shown.

The columns "time file" and "data file" name files in FOLDER/storage. If several signals share a
file, their number stands behind it in parentheses. Without a time file, the times, if there are
any, are beside the samples. The bytes of a signal are those of its files, shared or not. In a
packed recording, the numbers are those in the column "storage" of the packs,
FOLDER/storage/pack-*.parquet.

Examples:
  kyr info run
  kyr info run --json | jq .totals)help");
  setAction(*command, action, options, runInfo);
}

}  // namespace kyr::tool
