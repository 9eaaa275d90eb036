#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "cli/CommandLine.h"
#include "cli/Errors.h"
#include "cli/Interrupt.h"
#include "cli/Output.h"
#include "cli/PendingOutput.h"
#include "cli/Process.h"
#include "commands/Commands.h"
#include "kyr/recording/Comparison.h"
#include "print/ComparisonReport.h"
#include "view/Report.h"
#include "view/ViewedRuns.h"

namespace kyr::tool {

namespace {

using recording::Comparison;
using recording::SignalComparison;
using recording::SignalVerdict;

constexpr int kDifferent = 1;
constexpr int kFailed = 3;

struct DiffOptions {
  std::string reference;
  std::string other;
  recording::ComparisonOptions comparison;
  std::vector<std::string> names;
  std::uint64_t limit = 50;
  bool showsAll = false;
  bool asJson = false;
  std::string page;
  bool replaces = false;
};

std::map<std::string, std::string> otherNamesOf(const DiffOptions& options) {
  std::map<std::string, std::string> names;
  for (const std::string& text : options.names) {
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos || equals == 0 || equals + 1 == text.size()) {
      throw UsageError(fmt::format("--map {}: give OLD=NEW", text));
    }
    names[text.substr(0, equals)] = text.substr(equals + 1);
  }
  return names;
}

// Both curves of the worst signals, with the tolerance around the first one.
void writePage(const Comparison& comparison, const DiffOptions& options) {
  constexpr std::size_t kMostSignals = 20;
  ReportOptions report;
  for (const SignalComparison& signal : comparison.signals) {
    const bool isShown =
        signal.verdict == SignalVerdict::differs || signal.verdict == SignalVerdict::notComparable;
    if (!isShown || report.signals.size() == std::min<std::size_t>(kMostSignals, options.limit)) {
      break;
    }
    report.signals.push_back(signal.name);
    report.otherNames[signal.otherName] = signal.name;
    report.tolerances[*signal.referenceId] = {signal.valueTolerance, options.comparison.rtol,
                                              signal.timeTolerance};
  }
  ViewedRuns runs({options.reference, options.other}, options.comparison.reader.links);
  writeReport(runs, report, options.page, options.replaces);
}

int compare(const DiffOptions& options) {
  allowManyFiles();
  ComparisonReport report{options.reference, options.other, options.comparison,
                          static_cast<std::size_t>(options.limit), options.showsAll};
  report.options.otherNames = otherNamesOf(options);
  report.options.checkpoint = stopIfInterrupted;
  const Comparison comparison = recording::compareRecordings(
      Path::fromNarrow(options.reference), Path::fromNarrow(options.other), report.options);
  if (!options.page.empty()) writePage(comparison, options);
  const int verdict = comparison.isEqual() ? 0 : kDifferent;
  try {
    Output out;
    out.print("{}", options.asJson ? comparisonJson(comparison, report)
                                   : comparisonText(comparison, report, terminalWidth()));
    out.flush();
  } catch (const OutputClosed&) {
    return verdict;
  }
  return verdict;
}

// Scripts tell recordings that differ from those that cannot be compared.
int runDiff(const DiffOptions& options) {
  try {
    return compare(options);
  } catch (const UsageError&) {
    throw;
  } catch (const Interrupted&) {
    throw;
  } catch (...) {
    reportCurrentException();
    return kFailed;
  }
}

void addTolerance(CLI::App& command, const std::string& name, double& value,
                  const std::string& meaning) {
  command.add_option(name, value, meaning)->type_name("X")->check(isTolerance());
}

void addNames(CLI::App& command, const std::string& name, std::vector<std::string>& values,
              const std::string& type, const std::string& meaning) {
  command.add_option(name, values, meaning + "; may be given repeatedly")
      ->type_name(type)
      ->allow_extra_args(false);
}

void addOutputOptions(CLI::App& command, DiffOptions& options) {
  command.add_flag("--all", options.showsAll, "Also print the signals that are equal");
  command.add_option("--limit", options.limit, "Print so many signals at most; 50 unless given")
      ->type_name("N")
      ->check(isCount());
  command.add_flag("--json", options.asJson, "Print JSON, with all digits");
  auto* page = command
                   .add_option("--html", options.page,
                               "Write a page with both curves and the tolerance of the 20 worst "
                               "signals to FILE")
                   ->type_name("FILE");
  command.add_flag("--force", options.replaces, "Replace the file of --html")->needs(page);
}

}  // namespace

void addDiffCommand(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("diff", "Compare two recordings");
  const auto options = std::make_shared<DiffOptions>();
  addArgument(*command, "A", options->reference, "Folder of the recording that is the reference");
  addArgument(*command, "B", options->other, "Folder of the other recording");
  recording::ComparisonOptions& comparison = options->comparison;
  addTolerance(*command, "--atol", comparison.atol, "Let values differ by X, in their unit");
  addTolerance(*command, "--rtol", comparison.rtol, "Let values differ by X times those of A");
  addTolerance(*command, "--range-tol", comparison.rangeTol,
               "Let values differ by X times the range of the signal in A");
  addTolerance(*command, "--time-tol", comparison.timeTol,
               "Let curves be apart by X times the time span of the signal in A");
  command->add_flag("--same-ends", comparison.needsSameEnds,
                    "With a tolerance, let signals differ that begin or end at different times");
  addNames(*command, "--map", options->names, "OLD=NEW", "Signal OLD of A is called NEW in B");
  addNames(*command, "--signals", comparison.signals, "PATTERN",
           "Compare these signals only, by name or pattern");
  addNames(*command, "--ignore", comparison.ignored, "PATTERN", "Leave these signals out");
  addOutputOptions(*command, *options);
  addLinksOption(*command, comparison.reader.links);
  command->footer(R"help(
Without a tolerance, signals are equal if they have the same times and every bit of their samples is
the same; a NaN equals any NaN. Content that is known to be equal is not read.

With a tolerance, signals are curves: straight lines between samples with fractions, else each
sample holds until the next one. Each sample of A and of B passes if the other curve comes near
enough, by the largest of --atol, --rtol and --range-tol, within --time-tol before and after. Curves
are compared where both are. Missing signals and other units are differences in any case.

Exit codes: 0 equal, 1 different, 2 wrong usage, 3 failed.

Examples:
  kyr diff run run42
  kyr diff run run42 --rtol 1e-3 --range-tol 1e-4 --time-tol 0.002
  kyr diff run run42 --signals 's*' --ignore torque --atol 0.1 --json
  kyr diff run run42 --rtol 1e-6 --html diff.html)help");
  setAction(*command, action, options, runDiff);
}

}  // namespace kyr::tool
