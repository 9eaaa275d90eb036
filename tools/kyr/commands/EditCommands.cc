#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "cli/CommandLine.h"
#include "cli/Errors.h"
#include "cli/Output.h"
#include "cli/Process.h"
#include "cli/RecordingFolder.h"
#include "cli/RowWindow.h"
#include "cli/Settings.h"
#include "cli/SignalSelection.h"
#include "cli/Text.h"
#include "commands/Commands.h"
#include "edit/RecordingEdit.h"
#include "edit/StartTimes.h"
#include "kyr/recording/RecordingReader.h"
#include "print/RecordingSummary.h"

namespace kyr::tool {

namespace {

using recording::RecordingReader;
using recording::RowRange;
using recording::SignalInfo;

constexpr std::size_t kPackBelow = 1048576;

struct EditOptions {
  std::string first;
  std::string second;
  std::string folder;
  std::vector<std::string> signals;
  WindowOptions window;
  std::vector<std::string> settings;
  bool packs = false;
  bool hasNoPacks = false;
  bool replaces = false;
};

RecordingReader openFinished(const std::string& folder) {
  RecordingReader reader(Path::fromNarrow(folder));
  requireFinished(reader, folder);
  return reader;
}

std::vector<int> idsOf(const std::vector<SignalInfo>& signals) {
  std::set<int> ids;
  for (const SignalInfo& signal : signals) ids.insert(signal.signalId);
  return {ids.begin(), ids.end()};
}

// Small contents stay in packs if the recording has some.
recording::SaveOptions savingAs(const std::string& like, const EditOptions& options) {
  recording::SaveOptions saving;
  const bool hasPacks = !recording::describeRecording(Path::fromNarrow(like)).packs.empty();
  saving.packBelow = hasPacks ? kPackBelow : 0;
  saving.replaces = options.replaces;
  return saving;
}

int finish(const std::string& folder) {
  const RecordingSummary summary(recording::describeRecording(Path::fromNarrow(folder)));
  Output out;
  out.print("{}: {}\n", folder, summary.text());
  out.flush();
  return 0;
}

bool isWhole(const RecordingReader& reader, int id, const std::vector<RowRange>& ranges) {
  return ranges.size() == 1 && ranges.front().from == 0 &&
         ranges.front().to >= reader.timeCount(id);
}

int runCut(const EditOptions& options) {
  const Window window = windowOf(options.window);
  const bool hasWindow = options.window.from || options.window.to;
  checkSavedRecording(options.folder, options.replaces);
  allowManyFiles();
  const RecordingReader reader = openFinished(options.first);
  const auto signals = chosenSignals(reader, options.signals, options.first);
  RecordingEdit edit(options.first, idsOf(signals));
  for (const int id : idsOf(signals)) {
    if (reader.timeCount(id) == 0) {
      if (hasWindow) {
        tell(fmt::format("warning: signal {} has no times and is kept whole",
                         inQuotes(reader.signal(id).name)));
      }
      continue;
    }
    const std::vector<RowRange> ranges = reader.rowsBetween(id, window.from, window.to);
    if (hasWindow && !isWhole(reader, id, ranges)) edit.keep(reader, id, ranges);
  }
  edit.save(options.folder, savingAs(options.first, options));
  return finish(options.folder);
}

recording::Attributes mergedAttributes(const RecordingReader& first,
                                       const RecordingReader& second) {
  recording::Attributes attributes = first.attributes();
  attributes.insert(second.attributes().begin(), second.attributes().end());
  return attributes;
}

// Times of which only one recording says when they begin cannot be compared.
void requireSameKindOfTimes(const RecordingReader& first, const RecordingReader& second,
                            const EditOptions& options) {
  if (startOf(first.attributes()).has_value() == startOf(second.attributes()).has_value()) return;
  throw std::runtime_error(
      fmt::format("{} and {}: only one of them has the attribute \"start\", from which its times "
                  "count (kyr set sets or removes it)",
                  options.first, options.second));
}

int runMerge(const EditOptions& options) {
  checkSavedRecording(options.folder, options.replaces);
  allowManyFiles();
  const RecordingReader first = openFinished(options.first);
  const RecordingReader second = openFinished(options.second);
  requireSameKindOfTimes(first, second, options);
  const double shift = secondsBetweenStarts(first, second);
  RecordingEdit edit(options.first, idsOf(first.signals()));
  for (const SignalInfo& signal : second.signals()) {
    edit.append(second, signal.signalId, {}, edit.add(signal), shift);
  }
  recording::SaveOptions saving = savingAs(options.first, options);
  saving.attributes = mergedAttributes(first, second);
  edit.save(options.folder, saving);
  return finish(options.folder);
}

// The signal of that name, if there is one and it holds values of the same kind.
std::optional<int> partnerOf(const SignalInfo& signal, const RecordingReader& first,
                             const EditOptions& options) {
  std::optional<int> partner;
  for (const SignalInfo& each : first.signals()) {
    if (each.name != signal.name) continue;
    if (partner) {
      throw std::runtime_error(
          fmt::format("{}: several signals are called {}, and it is unknown "
                      "which of them goes on",
                      options.first, inQuotes(signal.name)));
    }
    const bool isSame = each.dataType == signal.dataType && each.category == signal.category &&
                        each.dimensions == signal.dimensions && each.unit == signal.unit;
    if (!isSame) {
      throw std::runtime_error(
          fmt::format("signal {} has another type, shape or unit in {} than "
                      "in {}",
                      inQuotes(signal.name), options.second, options.first));
    }
    partner = each.signalId;
  }
  return partner;
}

void requireLater(const RecordingReader& first, int id, const RecordingReader& second, int other,
                  double shift) {
  const auto before = first.timeSpan(id);
  const auto after = second.timeSpan(other);
  if (!before || !after || after->from + shift >= before->to) return;
  throw std::runtime_error(
      fmt::format("signal {} begins at {} s, before it ends at {} s in the first recording",
                  inQuotes(first.signal(id).name), after->from + shift, before->to));
}

int runAppend(const EditOptions& options) {
  checkSavedRecording(options.folder, options.replaces);
  allowManyFiles();
  const RecordingReader first = openFinished(options.first);
  const RecordingReader second = openFinished(options.second);
  requireSameKindOfTimes(first, second, options);
  const double shift = secondsBetweenStarts(first, second);
  RecordingEdit edit(options.first, idsOf(first.signals()));
  for (const SignalInfo& signal : second.signals()) {
    const std::optional<int> partner = partnerOf(signal, first, options);
    if (partner) requireLater(first, *partner, second, signal.signalId, shift);
    edit.append(second, signal.signalId, {}, partner ? *partner : edit.add(signal), shift);
  }
  recording::SaveOptions saving = savingAs(options.first, options);
  saving.attributes = mergedAttributes(first, second);
  edit.save(options.folder, saving);
  return finish(options.folder);
}

int runRepack(const EditOptions& options) {
  applySettings(options.settings);
  allowManyFiles();
  const RecordingReader reader = openFinished(options.first);
  recording::SaveOptions saving = savingAs(options.first, options);
  if (options.packs) saving.packBelow = kPackBelow;
  if (options.hasNoPacks) saving.packBelow = 0;
  saving.replaces = true;
  saving.attributes = reader.attributes();
  RecordingEdit edit(options.first, reader.signals().size(), saving.packBelow);
  for (const SignalInfo& signal : reader.signals()) {
    edit.append(reader, signal.signalId, {}, edit.add(signal), 0);
  }
  edit.save(options.first, saving);
  return finish(options.first);
}

void addNewArgument(CLI::App& command, EditOptions& options) {
  addArgument(command, "NEW", options.folder, "Folder of the new recording");
  command.add_flag("-f,--force", options.replaces, "Replace the recording in NEW");
}

}  // namespace

void addCutCommand(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("cut", "Make a recording of a part of another");
  const auto options = std::make_shared<EditOptions>();
  addArgument(*command, "FOLDER", options->first, "Folder of the recording");
  addNewArgument(*command, *options);
  addSignalArguments(*command, options->signals);
  addTimeOptions(*command, options->window);
  command->footer(R"help(
Signals of which all rows stay are linked and not copied.

Examples:
  kyr cut run part --from 10 --to 20
  kyr cut run few speed 'g*')help");
  setAction(*command, action, options, runCut);
}

void addMergeCommand(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("merge", "Put the signals of two recordings side by side");
  const auto options = std::make_shared<EditOptions>();
  addArgument(*command, "A", options->first, "Folder of a recording, whose files are linked");
  addArgument(*command, "B", options->second, "Folder of another");
  addNewArgument(*command, *options);
  command->footer(R"help(
Signals of B whose ids A has get other ids. If both recordings have the attribute "start", the times
of B are shifted so that they count from the start of A. Attributes of A win.

Examples:
  kyr merge run run42 both)help");
  setAction(*command, action, options, runMerge);
}

void addAppendCommand(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("append", "Let a recording continue another");
  const auto options = std::make_shared<EditOptions>();
  addArgument(*command, "A", options->first, "Folder of the recording that comes first");
  addArgument(*command, "B", options->second, "Folder of the recording that continues it");
  addNewArgument(*command, *options);
  command->footer(R"help(
A signal of B continues the signal of A with the same name, type, shape and unit, and may not begin
before that one ends. Other signals are added. If both recordings have the attribute "start", the
times of B are shifted so that they count from the start of A.

Examples:
  kyr cut run head --to 10 && kyr cut run tail --from 10.05 && kyr append head tail whole)help");
  setAction(*command, action, options, runAppend);
}

void addRepackCommand(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("repack", "Write the files of a recording anew");
  const auto options = std::make_shared<EditOptions>();
  addRecordingArgument(*command, options->first);
  CLI::Option* packs =
      command->add_flag("--pack", options->packs, "Put small signals into files that they share");
  command->add_flag("--no-pack", options->hasNoPacks, "Give each signal a file of its own")
      ->excludes(packs);
  addCompressionOption(*command, options->settings);
  addSetOption(*command, options->settings);
  command->footer(R"help(
Small row groups, such as those of a recording that was flushed often, become full ones. The samples
stay as they are, and the recording is replaced in one step.

Examples:
  kyr repack run
  kyr repack run --pack --compression zstd)help");
  setAction(*command, action, options, runRepack);
}

}  // namespace kyr::tool
