#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "cli/CommandLine.h"
#include "cli/Errors.h"
#include "cli/GivenAttributes.h"
#include "cli/Output.h"
#include "cli/SignalSelection.h"
#include "cli/Text.h"
#include "commands/Commands.h"
#include "kyr/recording/Recording.h"
#include "kyr/recording/RecordingReader.h"
#include "print/RecordingSummary.h"

namespace kyr::tool {

namespace {

struct SetOptions {
  std::string folder;
  std::vector<std::string> changes;
};

// "speed.unit=m/s", taken apart.
struct Change {
  std::string what;
  std::string field;
  std::string value;
};

Change parseChange(const std::string& text) {
  constexpr const char* kForms =
      "give SIGNAL.name=TEXT, SIGNAL.unit=TEXT, SIGNAL.description=TEXT or attribute.NAME=VALUE";
  const std::size_t equals = text.find('=');
  if (equals == std::string::npos) throw UsageError(fmt::format("{}: {}", text, kForms));
  const std::string left = text.substr(0, equals);
  constexpr std::string_view kAttribute = "attribute.";
  if (left.rfind(kAttribute, 0) == 0 && left.size() > kAttribute.size()) {
    return {left.substr(kAttribute.size()), "attribute", text.substr(equals + 1)};
  }
  const std::size_t point = left.rfind('.');
  const std::string field = point == std::string::npos ? "" : left.substr(point + 1);
  if (field != "name" && field != "unit" && field != "description") {
    throw UsageError(fmt::format("{}: {}", text, kForms));
  }
  return {left.substr(0, point), field, text.substr(equals + 1)};
}

void changeSignals(const recording::RecordingReader& reader, const Change& change,
                   const std::string& folder,
                   std::map<int, recording::SignalDescription>& changed) {
  const auto signals = chosenSignals(reader, {change.what}, folder);
  if (change.field == "name" && signals.size() > 1) {
    throw std::runtime_error(
        fmt::format("{}: {} are called {}, and one name is not enough for them", folder,
                    counted(signals.size(), "signal"), inQuotes(change.what)));
  }
  if (change.field == "name" && change.value.empty()) {
    throw UsageError(fmt::format("{}.name: give a name", change.what));
  }
  for (const recording::SignalInfo& signal : signals) {
    recording::SignalDescription& description =
        changed.try_emplace(signal.signalId, signal).first->second;
    if (change.field == "name") description.name = change.value;
    if (change.field == "unit") description.unit = change.value;
    if (change.field == "description") description.description = change.value;
  }
}

int runSet(const SetOptions& options) {
  const Path path = Path::fromNarrow(options.folder);
  std::vector<Change> changes;
  changes.reserve(options.changes.size());
  for (const std::string& text : options.changes) changes.push_back(parseChange(text));
  const recording::RecordingReader reader(path);
  requireFinished(reader, options.folder);
  recording::Attributes attributes = reader.attributes();
  std::map<int, recording::SignalDescription> changed;
  for (const Change& change : changes) {
    if (change.field != "attribute") {
      changeSignals(reader, change, options.folder, changed);
    } else if (change.value.empty()) {
      attributes.erase(change.what);
    } else {
      attributes[change.what] = jsonValue(change.value);
    }
  }
  std::vector<recording::SignalDescription> descriptions;
  descriptions.reserve(changed.size());
  for (auto& [id, description] : changed) descriptions.push_back(std::move(description));
  recording::updateRecording(path, descriptions, attributes);
  Output out;
  out.print("{}: changed {} and {}\n", options.folder, counted(descriptions.size(), "signal"),
            counted(static_cast<std::size_t>(std::count_if(
                        changes.begin(), changes.end(),
                        [](const Change& each) { return each.field == "attribute"; })),
                    "attribute"));
  out.flush();
  return 0;
}

}  // namespace

void addSetCommand(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("set", "Change names, units, descriptions and attributes");
  const auto options = std::make_shared<SetOptions>();
  addRecordingArgument(*command, options->folder);
  command
      ->add_option("CHANGE", options->changes,
                   "SIGNAL.name=TEXT, SIGNAL.unit=TEXT, SIGNAL.description=TEXT or "
                   "attribute.NAME=VALUE; an attribute without a value is removed")
      ->required()
      ->type_name("");
  command->footer(R"help(
Only recording.json changes, in one step, and the table signals.parquet beside it. SIGNAL may be a
pattern: 'floor1_*.unit=K'.

Examples:
  kyr set run speed.unit=km/h speed.description="of the wheel"
  kyr set run torque.name=M 'attribute.model=pump 7')help");
  setAction(*command, action, options, runSet);
}

}  // namespace kyr::tool
