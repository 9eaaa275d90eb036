#include <nanobind/stl/map.h>
#include <nanobind/stl/optional.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/string_view.h>
#include <nanobind/stl/tuple.h>
#include <nanobind/stl/vector.h>

#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "Define.h"
#include "kyr/recording/Comparison.h"

namespace kyr::python {

namespace {

using recording::ComparedSample;
using recording::SignalComparison;

using Span = std::optional<std::tuple<double, double>>;

Span spanOf(const std::optional<recording::TimeSpan>& span) {
  if (!span) return std::nullopt;
  return std::tuple(span->from, span->to);
}

std::vector<SignalComparison> compare(const nb::bytes& reference, const nb::bytes& other,
                                      const std::tuple<double, double, double, double>& tolerances,
                                      bool sameEnds, std::map<std::string, std::string> names,
                                      std::vector<std::string> signals,
                                      std::vector<std::string> ignored, bool followLinks) {
  const auto pathOf = [](const nb::bytes& folder) {
    return Path::fromNarrow(std::string(folder.c_str(), folder.size()));
  };
  const Path one = pathOf(reference);
  const Path another = pathOf(other);
  recording::ComparisonOptions options;
  std::tie(options.atol, options.rtol, options.rangeTol, options.timeTol) = tolerances;
  options.needsSameEnds = sameEnds;
  options.otherNames = std::move(names);
  options.signals = std::move(signals);
  options.ignored = std::move(ignored);
  if (followLinks) options.reader.links = Links::followed;
  // Ctrl-C, which Python shows to its first thread only.
  options.checkpoint = [] {
    const nb::gil_scoped_acquire acquire;
    if (PyErr_CheckSignals() != 0) throw nb::python_error();
  };
  const nb::gil_scoped_release release;
  return recording::compareRecordings(one, another, options).signals;
}

void defineComparedSample(nb::module_& module) {
  nb::class_<ComparedSample>(module, "ComparedSample",
                             "An element of a sample, and what the other curve has there.")
      .def_ro("time", &ComparedSample::time, "[s]; the row number for signals without times.")
      .def_ro("row", &ComparedSample::row, "Of the reference, the latest at or before the time.")
      .def_ro("other_row", &ComparedSample::otherRow, "Of the other signal, likewise.")
      .def_ro("element", &ComparedSample::element, "In the order of memory.")
      .def_ro("reference", &ComparedSample::reference, "NaN for blobs.")
      .def_ro("other", &ComparedSample::other, "NaN for blobs.")
      .def_ro("error", &ComparedSample::error, "Infinite if one of both is no finite number.")
      .def_ro("tolerance", &ComparedSample::tolerance, "The one that holds there.")
      .def_prop_ro("excess", &ComparedSample::excess,
                   "Error over tolerance: above 1 if it is out; infinite without tolerance.");
}

}  // namespace

void defineComparison(nb::module_& module) {
  using namespace nb::literals;
  defineComparedSample(module);
  nb::class_<SignalComparison>(module, "SignalComparison", "What became of a signal.")
      .def_ro("name", &SignalComparison::name)
      .def_ro("other_name", &SignalComparison::otherName, "Empty if it is not there.")
      .def_ro("id", &SignalComparison::referenceId)
      .def_ro("other_id", &SignalComparison::otherId, "None if it is only in the reference.")
      .def_prop_ro(
          "verdict",
          [](const SignalComparison& signal) { return recording::verdictName(signal.verdict); },
          "\"equal\", \"differs\", \"not comparable\", \"only in reference\", \"only in other\".")
      .def_prop_ro(
          "differences",
          [](const SignalComparison& signal) {
            std::map<std::string, std::tuple<std::string, std::string>> all;
            for (const auto& each : signal.differences) {
              all.emplace(each.what, std::tuple(each.reference, each.other));
            }
            return all;
          },
          "What is said of the signal and differs, such as its unit: reference and other.")
      .def_ro("is_known_equal", &SignalComparison::isKnownEqual, "Nothing had to be read.")
      .def_ro("is_by_row", &SignalComparison::isByRow, "Rows were compared one by one.")
      .def_ro("rows", &SignalComparison::referenceRows, "Of the reference.")
      .def_ro("other_rows", &SignalComparison::otherRows, "Of the other signal.")
      .def_ro("rows_compared", &SignalComparison::rowsCompared,
              "Places where either signal has a sample.")
      .def_ro("rows_out", &SignalComparison::rowsOut, "Of these.")
      .def_ro("rows_only_in_reference", &SignalComparison::rowsOnlyInReference,
              "Times that only the reference has.")
      .def_ro("rows_only_in_other", &SignalComparison::rowsOnlyInOther,
              "Times that only the other signal has.")
      .def_ro("worst", &SignalComparison::worst, "Largest error over tolerance; None if equal.")
      .def_ro("first_out", &SignalComparison::firstOut, "[s], or a row number.")
      .def_prop_ro(
          "span", [](const SignalComparison& s) { return spanOf(s.referenceSpan); },
          "First and last time of the reference [s].")
      .def_prop_ro(
          "other_span", [](const SignalComparison& s) { return spanOf(s.otherSpan); },
          "Of the other signal.")
      .def_prop_ro(
          "compared_span", [](const SignalComparison& s) { return spanOf(s.comparedSpan); },
          "What both have.")
      .def_ro("ends_differ", &SignalComparison::endsDiffer,
              "Whether spans or numbers of rows differ.");
  module.def("compare", compare, "reference"_a, "other"_a, "tolerances"_a, "same_ends"_a, "names"_a,
             "signals"_a, "ignored"_a, "follow_links"_a,
             "Compares the signals of two recordings, those that differ first. The tolerances are\n"
             "those of values, absolute, relative and by range, and that of times.");
}

}  // namespace kyr::python
