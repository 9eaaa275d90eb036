#include "print/ComparisonReport.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

#include "cli/Text.h"

namespace kyr::tool {

namespace {

using nlohmann::ordered_json;
using recording::ComparedSample;
using recording::Comparison;
using recording::ComparisonOptions;
using recording::SignalComparison;
using recording::SignalVerdict;
using recording::TimeSpan;

std::string rounded(double number) { return fmt::format("{:.6g}", number); }

bool isTold(const SignalComparison& signal, const ComparisonReport& report) {
  return report.showsAll || signal.verdict != SignalVerdict::equal;
}

std::string endsText(const SignalComparison& signal) {
  const auto& a = signal.referenceSpan;
  const auto& b = signal.otherSpan;
  if (signal.isByRow || !a || !b) {
    return fmt::format("{} in A, {} in B", counted(signal.referenceRows, "row"),
                       counted(signal.otherRows, "row"));
  }
  std::vector<std::string> ends;
  if (a->from != b->from) ends.push_back(fmt::format("A from {} s, B from {} s", a->from, b->from));
  if (a->to != b->to) ends.push_back(fmt::format("A to {} s, B to {} s", a->to, b->to));
  return fmt::format("{}", fmt::join(ends, ", "));
}

std::string noteOf(const SignalComparison& signal) {
  std::vector<std::string> notes;
  if (signal.verdict == SignalVerdict::onlyInReference) notes.emplace_back("only in A");
  if (signal.verdict == SignalVerdict::onlyInOther) notes.emplace_back("only in B");
  if (signal.verdict == SignalVerdict::notComparable && signal.differences.empty()) {
    notes.emplace_back("other samples");
  }
  for (const recording::DescriptionDifference& each : signal.differences) {
    const bool matters = each.what != "description";
    if (matters) {
      notes.push_back(
          fmt::format("{} {}, {}", each.what, inQuotes(each.reference), inQuotes(each.other)));
    }
  }
  const std::uint64_t alone = signal.rowsOnlyInReference + signal.rowsOnlyInOther;
  if (alone > 0) {
    notes.push_back(fmt::format("{} only in A, {} only in B",
                                counted(signal.rowsOnlyInReference, "row"),
                                counted(signal.rowsOnlyInOther, "row")));
  }
  if (signal.endsDiffer) notes.push_back(endsText(signal));
  if (signal.isByRow && signal.referenceSpan) notes.emplace_back("row by row, as times fall");
  const bool isUnread = signal.verdict == SignalVerdict::differs && signal.rowsCompared == 0;
  if (isUnread && alone == 0) notes.emplace_back("nothing to compare");
  return fmt::format("{}", fmt::join(notes, "; "));
}

std::string whereText(const ComparedSample& worst, const SignalComparison& signal) {
  std::string text = rounded(worst.time);
  if (worst.element > 0) text += fmt::format(" [{}]", worst.element);
  if (signal.isByRow) text = fmt::format("row {}", worst.row);
  return text;
}

std::vector<std::string> cellsOf(const SignalComparison& signal, const ComparisonReport& report) {
  std::vector<std::string> cells{signal.name};
  if (signal.worst) {
    const ComparedSample& worst = *signal.worst;
    const bool hasValues = !std::isnan(worst.reference) || !std::isnan(worst.other);
    if (report.options.hasTolerance()) cells.push_back(rounded(worst.excess()));
    cells.push_back(rounded(worst.error));
    cells.push_back(whereText(worst, signal));
    cells.push_back(hasValues ? rounded(worst.reference) : "-");
    cells.push_back(hasValues ? rounded(worst.other) : "-");
  } else {
    cells.insert(cells.end(), report.options.hasTolerance() ? 5 : 4, "-");
  }
  cells.push_back(signal.firstOut ? rounded(*signal.firstOut) : "-");
  const bool isRead = signal.rowsCompared + signal.rowsOut > 0;
  cells.push_back(
      isRead ? fmt::format("{} of {}", grouped(signal.rowsOut), grouped(signal.rowsCompared))
             : "-");
  cells.push_back(noteOf(signal));
  return cells;
}

TextTable tableOf(const ComparisonReport& report) {
  constexpr auto kLeft = TextTable::Align::left;
  constexpr auto kRight = TextTable::Align::right;
  std::vector<TextTable::Column> columns{{"name", kLeft}};
  if (report.options.hasTolerance()) columns.push_back({"x tolerance", kRight});
  for (const char* const title : {"error", "at [s]", "A", "B", "first out [s]", "rows out"}) {
    columns.push_back({title, kRight});
  }
  columns.push_back({"", kLeft});
  return TextTable(columns);
}

// What was allowed, so that nobody needs to guess.
std::string toleranceText(const ComparisonOptions& options) {
  if (!options.hasTolerance()) return "Equal is what has the same times and the same bits.";
  std::vector<std::string> values;
  if (options.atol > 0) values.push_back(rounded(options.atol));
  if (options.rtol > 0) values.push_back(rounded(options.rtol) + " x |reference|");
  if (options.rangeTol > 0) values.push_back(rounded(options.rangeTol) + " x range of reference");
  std::string text = "Tolerance of values: ";
  if (values.empty()) {
    text += "none";
  } else if (values.size() == 1) {
    text += values.front();
  } else {
    text += fmt::format("the largest of {}", fmt::join(values, ", "));
  }
  return text + (options.timeTol > 0
                     ? fmt::format("; of times: {} x span of reference.", rounded(options.timeTol))
                     : "; of times: none.");
}

std::string summaryText(const Comparison& comparison, const ComparisonReport& report) {
  std::string text = fmt::format("A is {}, B is {}. {}: {} equal", report.reference, report.other,
                                 counted(comparison.signals.size(), "signal"),
                                 grouped(comparison.count(SignalVerdict::equal)));
  const auto add = [&](SignalVerdict verdict, const std::string& what) {
    const std::uint64_t count = comparison.count(verdict);
    if (count > 0) text += fmt::format(", {} {}", grouped(count), what);
  };
  const bool isOne = comparison.count(SignalVerdict::differs) == 1;
  add(SignalVerdict::differs, isOne ? "differs" : "differ");
  add(SignalVerdict::notComparable, "not comparable");
  add(SignalVerdict::onlyInReference, "only in A");
  add(SignalVerdict::onlyInOther, "only in B");
  return text + ".\n";
}

// Signals that pass where both recordings have them, and have no more than that in common.
std::string endsSummary(const Comparison& comparison) {
  const SignalComparison* first = nullptr;
  std::uint64_t count = 0;
  for (const SignalComparison& signal : comparison.signals) {
    if (signal.verdict != SignalVerdict::equal || !signal.endsDiffer) continue;
    if (!first) first = &signal;
    ++count;
  }
  if (!first) return "";
  return fmt::format("Ends differ for {}, compared where both are: {}: {}{}.\n",
                     counted(count, "equal signal"), inQuotes(first->name), endsText(*first),
                     count > 1 ? ", and others" : "");
}

ordered_json jsonOf(const std::optional<TimeSpan>& span) {
  if (!span) return nullptr;
  return {{"from", span->from}, {"to", span->to}};
}

ordered_json jsonOf(const ComparedSample& sample) {
  return {{"time", sample.time},
          {"row", sample.row},
          {"otherRow", sample.otherRow},
          {"element", sample.element},
          {"reference", sample.reference},
          {"other", sample.other},
          {"error", sample.error},
          {"tolerance", sample.tolerance},
          {"errorOverTolerance", sample.excess()}};
}

ordered_json jsonOf(const SignalComparison& signal) {
  ordered_json json = {{"name", signal.name}, {"verdict", recording::verdictName(signal.verdict)}};
  if (signal.referenceId) json["id"] = *signal.referenceId;
  if (signal.otherId) json["otherId"] = *signal.otherId;
  if (!signal.otherName.empty() && signal.otherName != signal.name) {
    json["otherName"] = signal.otherName;
  }
  json["differences"] = ordered_json::array();
  for (const recording::DescriptionDifference& each : signal.differences) {
    json["differences"].push_back(
        {{"what", each.what}, {"reference", each.reference}, {"other", each.other}});
  }
  json["rows"] = signal.referenceRows;
  json["otherRows"] = signal.otherRows;
  json["span"] = jsonOf(signal.referenceSpan);
  json["otherSpan"] = jsonOf(signal.otherSpan);
  json["comparedSpan"] = jsonOf(signal.comparedSpan);
  json["endsDiffer"] = signal.endsDiffer;
  json["knownEqual"] = signal.isKnownEqual;
  json["byRow"] = signal.isByRow;
  json["rowsCompared"] = signal.rowsCompared;
  json["rowsOut"] = signal.rowsOut;
  json["rowsOnlyInReference"] = signal.rowsOnlyInReference;
  json["rowsOnlyInOther"] = signal.rowsOnlyInOther;
  json["firstOut"] = signal.firstOut ? ordered_json(*signal.firstOut) : ordered_json(nullptr);
  json["worst"] = signal.worst ? jsonOf(*signal.worst) : ordered_json(nullptr);
  return json;
}

}  // namespace

std::string comparisonText(const Comparison& comparison, const ComparisonReport& report,
                           std::size_t width) {
  TextTable table = tableOf(report);
  std::size_t shown = 0;
  std::size_t told = 0;
  for (const SignalComparison& signal : comparison.signals) {
    if (!isTold(signal, report)) continue;
    if (++told > report.limit) continue;
    table.addRow(cellsOf(signal, report));
    ++shown;
  }
  std::string text;
  if (shown > 0) text = table.text(width);
  if (shown < told) text += fmt::format("... and {} more (--limit)\n", grouped(told - shown));
  if (told > 0) text += "\n";
  return text + summaryText(comparison, report) + endsSummary(comparison) +
         toleranceText(report.options) + "\n";
}

std::string comparisonJson(const Comparison& comparison, const ComparisonReport& report) {
  const ComparisonOptions& options = report.options;
  ordered_json json = {{"reference", report.reference},
                       {"other", report.other},
                       {"equal", comparison.isEqual()},
                       {"tolerances",
                        {{"atol", options.atol},
                         {"rtol", options.rtol},
                         {"rangeTol", options.rangeTol},
                         {"timeTol", options.timeTol}}}};
  ordered_json& counts = json["counts"];
  for (const SignalVerdict verdict :
       {SignalVerdict::equal, SignalVerdict::differs, SignalVerdict::notComparable,
        SignalVerdict::onlyInReference, SignalVerdict::onlyInOther}) {
    counts[std::string(recording::verdictName(verdict))] = comparison.count(verdict);
  }
  ordered_json& signals = json["signals"] = ordered_json::array();
  for (const SignalComparison& signal : comparison.signals) {
    if (signals.size() >= report.limit) break;
    if (isTold(signal, report) || signal.endsDiffer) signals.push_back(jsonOf(signal));
  }
  return json.dump(2, ' ', /*ensure_ascii=*/false, ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace kyr::tool
