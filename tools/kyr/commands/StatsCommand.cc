#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "cli/CommandLine.h"
#include "cli/Output.h"
#include "cli/Process.h"
#include "cli/SignalSelection.h"
#include "cli/Text.h"
#include "commands/Commands.h"
#include "kyr/recording/RecordingReader.h"
#include "print/SignalStatistics.h"

namespace kyr::tool {

namespace {

using nlohmann::ordered_json;
using recording::SignalInfo;

struct StatsOptions {
  std::string folder;
  std::vector<std::string> signals;
  bool asJson = false;
};

ordered_json jsonOf(const SignalInfo& signal, const SignalStatistics& statistics) {
  ordered_json object = {{"id", signal.signalId},
                         {"name", signal.name},
                         {"unit", signal.unit},
                         {"rows", statistics.rows}};
  if (statistics.times) {
    object["first"] = statistics.times->first;
    object["last"] = statistics.times->last;
    object["rate"] = nullptr;
    if (statistics.times->rate) object["rate"] = *statistics.times->rate;
    object["largestGap"] = statistics.times->largestGap;
  }
  if (!statistics.numbers) return object;
  const NumberStatistics& numbers = *statistics.numbers;
  object["nan"] = numbers.nan;
  object["infinite"] = numbers.infinite;
  if (numbers.finite == 0) return object;
  object["min"] = numbers.min;
  object["max"] = numbers.max;
  object["mean"] = numbers.mean;
  object["deviation"] = numbers.deviation;
  return object;
}

std::string rounded(double number) { return fmt::format("{:.6g}", number); }

std::vector<std::string> cellsOf(const SignalInfo& signal, const SignalStatistics& statistics) {
  std::vector<std::string> cells{std::to_string(signal.signalId), signal.name, signal.unit,
                                 std::to_string(statistics.rows)};
  const bool hasNumbers = statistics.numbers && statistics.numbers->finite > 0;
  if (hasNumbers) {
    const NumberStatistics& numbers = *statistics.numbers;
    for (const double number : {numbers.min, numbers.max, numbers.mean, numbers.deviation}) {
      cells.push_back(rounded(number));
    }
  } else {
    cells.insert(cells.end(), 4, "-");
  }
  cells.push_back(statistics.numbers ? std::to_string(statistics.numbers->nan) : "-");
  const auto& times = statistics.times;
  cells.push_back(times && times->rate ? rounded(*times->rate) : "-");
  cells.push_back(times ? rounded(times->largestGap) : "-");
  return cells;
}

int runStats(const StatsOptions& options) {
  allowManyFiles();
  const recording::RecordingReader reader(Path::fromNarrow(options.folder));
  constexpr auto kLeft = TextTable::Align::left;
  constexpr auto kRight = TextTable::Align::right;
  TextTable table({{"id", kRight},
                   {"name", kLeft},
                   {"unit", kLeft},
                   {"rows", kRight},
                   {"min", kRight},
                   {"max", kRight},
                   {"mean", kRight},
                   {"deviation", kRight},
                   {"NaN", kRight},
                   {"rate [1/s]", kRight},
                   {"largest gap [s]", kRight}});
  ordered_json document = ordered_json::array();
  for (const SignalInfo& signal : chosenSignals(reader, options.signals, options.folder)) {
    const SignalStatistics statistics = statisticsOf(reader, signal);
    if (options.asJson) {
      document.push_back(jsonOf(signal, statistics));
    } else {
      table.addRow(cellsOf(signal, statistics));
    }
  }
  Output out;
  out.print("{}", options.asJson ? document.dump(2) + "\n" : table.text());
  out.flush();
  return 0;
}

}  // namespace

void addStatsCommand(CLI::App& app, Action& action) {
  CLI::App* command =
      app.add_subcommand("stats", "Count, compare and average the samples of signals");
  const auto options = std::make_shared<StatsOptions>();
  addRecordingArgument(*command, options->folder);
  addSignalArguments(*command, options->signals);
  command->add_flag("--json", options->asJson, "Print JSON, with all digits");
  command->footer(R"help(
Min, max, mean and standard deviation are those of the finite numbers of scalar signals. The rate is
the number of samples for each second between the first time and the last. A block of one signal is
in memory at a time.

Examples:
  kyr stats run
  kyr stats run speed 'g*' --json)help");
  setAction(*command, action, options, runStats);
}

}  // namespace kyr::tool
