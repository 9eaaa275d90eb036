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
#include <vector>

#include "cli/CommandLine.h"
#include "cli/SignalSelection.h"
#include "cli/Text.h"
#include "commands/Commands.h"
#include "kyr/recording/RecordingReader.h"
#include "print/RecordingSummary.h"
#include "print/SignalJson.h"
#include "print/SignalStatistics.h"
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

std::string rateText(const SignalInfo& signal) {
  const auto rate = rateOf(signal.rowCount, signal.timeSpan);
  return rate ? fmt::format("{:.6g}", *rate) : "-";
}

// "3600 s long", from the first time of all signals to the last.
std::string durationOf(const RecordingInfo& info) {
  std::optional<recording::TimeSpan> all;
  for (const SignalInfo& signal : info.signals) {
    if (!signal.timeSpan) continue;
    if (!all) all = signal.timeSpan;
    all->from = std::min(all->from, signal.timeSpan->from);
    all->to = std::max(all->to, signal.timeSpan->to);
  }
  return all ? fmt::format("{} to {} s, {:.6g} s long\n", all->from, all->to, all->to - all->from)
             : "";
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
  ordered_json json = tool::signalJson(signal);
  json["compression"] = signal.compression;
  json["rows"] = signal.rowCount;
  json["timeSpan"] = std::move(span);
  json["bytes"] = summary.bytesOf(signal);
  json["timeFile"] = orNull(signal.timeStorageId);
  json["dataFile"] = orNull(signal.dataStorageId);
  return json;
}

// \param state  set if the recording is not finished
void printJson(Output& out, const RecordingInfo& info, const std::optional<std::string>& state) {
  const RecordingSummary summary(info);
  ordered_json document = {{"formatVersion", info.formatVersion},
                           {"signals", ordered_json::array()},
                           {"files", ordered_json::array()}};
  if (state) document["state"] = *state;
  for (const auto& [name, value] : info.attributes) {
    document["attributes"][name] = ordered_json::parse(value);
  }
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
  std::vector<std::string> signals;
  bool asJson = false;
  bool namesOnly = false;
  bool showsAll = false;
  Links links = Links::refused;
};

// Leaves the signals that the user named.
void choose(RecordingInfo& info, const RecordingReader& reader, const InfoOptions& options) {
  if (options.signals.empty()) return;
  info.signals = chosenSignals(reader, options.signals, options.folder);
}

void printNames(Output& out, const RecordingInfo& info) {
  for (const SignalInfo& signal : info.signals) {
    out.print("{}\n", isTerminal() ? singleLine(signal.name) : signal.name);
  }
}

// What the table has no room for. Reads the times of the signals.
void printDetails(Output& out, const RecordingInfo& info, const RecordingReader& reader) {
  const RecordingSummary summary(info);
  for (const SignalInfo& signal : info.signals) {
    out.print("{} [id {}]\n", singleLine(signal.name), signal.signalId);
    const auto line = [&](const char* what, const std::string& value) {
      if (!value.empty()) out.print("  {:<12} {}\n", what, singleLine(value));
    };
    line("unit", signal.unit);
    line("description", signal.description);
    line("type", fmt::format("{}, {}", typeName(signal.dataType), shapeOf(signal)));
    line("rows", grouped(signal.rowCount));
    if (const auto times = timeStatisticsOf(reader, signal)) {
      line("time", fmt::format("{} to {} s, {:.6g} s long", times->first, times->last,
                               times->last - times->first));
      if (times->rate) line("rate", fmt::format("{:.6g} per second", *times->rate));
      line("largest gap", fmt::format("{:.6g} s", times->largestGap));
    }
    line("codec", signal.compression);
    line("bytes", byteCount(summary.bytesOf(signal)));
    line("files", fmt::format("time {}, data {}", fileOf(signal.timeStorageId, summary),
                              fileOf(signal.dataStorageId, summary)));
  }
}

int runInfo(const InfoOptions& options) {
  constexpr std::size_t kShownOnTerminal = 40;
  const RecordingReader reader(Path::fromNarrow(options.folder), {true, 0, options.links});
  RecordingInfo info = reader.info();
  std::optional<std::string> state;
  if (reader.state() != recording::RecordingState::finished) {
    state = stateOf(reader.state(), options.folder);
  }
  choose(info, reader, options);
  Output out;
  if (options.namesOnly) {
    printNames(out, info);
  } else if (options.asJson) {
    printJson(out, info, state);
  } else if (!options.signals.empty()) {
    printDetails(out, info, reader);
  } else {
    const bool isShort = isTerminal() && !options.showsAll;
    printInfo(out, info, isShort ? kShownOnTerminal : std::numeric_limits<std::size_t>::max());
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
                   {"rate [1/s]", kRight},
                   {"bytes", kRight},
                   {"time file", kRight},
                   {"data file", kRight}});
  const std::size_t shown = std::min(limit, info.signals.size());
  for (std::size_t i = 0; i < shown; ++i) {
    const SignalInfo& signal = info.signals[i];
    table.addRow({std::to_string(signal.signalId), signal.name, signal.unit,
                  std::string(typeName(signal.dataType)), shapeOf(signal),
                  std::to_string(signal.rowCount), spanOf(signal), rateText(signal),
                  std::to_string(summary.bytesOf(signal)), fileOf(signal.timeStorageId, summary),
                  fileOf(signal.dataStorageId, summary)});
  }
  out.print("{}", table.text(terminalWidth()));
  if (shown < info.signals.size()) {
    out.print("... and {} more (--all shows them)\n", info.signals.size() - shown);
  }
  out.print("\n{}\n{}", summary.text(), durationOf(info));
  for (const auto& [name, value] : info.attributes) {
    out.print("{}: {}\n", singleLine(name), singleLine(value));
  }
}

void addInfoCommand(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("info", "Show what a recording holds");
  const auto options = std::make_shared<InfoOptions>();
  addRecordingArgument(*command, options->folder);
  addLinksOption(*command, options->links);
  addSignalArguments(*command, options->signals);
  CLI::Option* json = command->add_flag("--json", options->asJson, "Print JSON");
  command->add_flag("--names", options->namesOnly, "Print the names of the signals alone")
      ->excludes(json);
  command->add_flag("--all", options->showsAll, "Show all signals on a terminal, too");
  command->footer(R"help(
Only recording.json of a finished recording is read, unless signals are named: then their times are
read, too, for the largest gap (kyr stats shows it in a table). While a recording is being written,
the rows that are durable are shown. The rate is the number of samples for each second between the
first time and the last.

The columns "time file" and "data file" name files in FOLDER/storage. If several signals share a
file, their number stands behind it in parentheses. Without a time file, the times, if there are
any, are beside the samples. The bytes of a signal are those of its files, shared or not. In a
packed recording, the numbers are those in the column "storage" of the packs,
FOLDER/storage/pack-*.parquet.

Examples:
  kyr info run
  kyr info run speed 'g*'
  kyr info run '*'
  kyr info run --names
  kyr info run --json | jq .totals)help");
  setAction(*command, action, options, runInfo);
}

}  // namespace kyr::tool
