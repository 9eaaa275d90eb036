#include <nanobind/stl/optional.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <vector>

#include "Define.h"
#include "kyr/recording/Deduplication.h"
#include "kyr/recording/RecordingInfo.h"
#include "kyr/recording/Recovery.h"

namespace kyr::python {

namespace {

Path pathOf(const nb::bytes& folder) {
  return Path::fromNarrow(std::string(folder.c_str(), folder.size()));
}

std::vector<std::string> verify(const nb::bytes& folder) {
  const Path path = pathOf(folder);
  const nb::gil_scoped_release release;
  return recording::verifyRecording(path);
}

recording::RecoveryResult recover(const nb::bytes& folder) {
  const Path path = pathOf(folder);
  const nb::gil_scoped_release release;
  return recording::recoverRecording(path);
}

std::vector<recording::DeduplicationReport> deduplicate(const std::vector<nb::bytes>& like,
                                                        const std::vector<nb::bytes>& folders) {
  const auto pathsOf = [](const std::vector<nb::bytes>& names) {
    std::vector<Path> paths;
    std::transform(names.begin(), names.end(), std::back_inserter(paths), pathOf);
    return paths;
  };
  const std::vector<Path> known = pathsOf(like);
  const std::vector<Path> paths = pathsOf(folders);
  const nb::gil_scoped_release release;
  recording::Deduplicator deduplicator;
  for (const Path& path : known) deduplicator.add(path);
  std::vector<recording::DeduplicationReport> reports;
  reports.reserve(paths.size());
  for (const Path& path : paths) reports.push_back(deduplicator.deduplicate(path));
  return reports;
}

void defineDeduplication(nb::module_& module) {
  using namespace nb::literals;
  using recording::DeduplicationReport;
  nb::class_<DeduplicationReport>(module, "Deduplication", "What a recording shares with others.")
      .def_ro("contents", &DeduplicationReport::contents, "Contents of the recording.")
      .def_ro("shared", &DeduplicationReport::sharedContents,
              "Contents in files that other recordings have, too.")
      .def_ro("saved_bytes", &DeduplicationReport::savedBytes)
      .def_ro("left_alone", &DeduplicationReport::leftAlone,
              "Why the recording stayed as it was; empty if it did not.")
      .def("__repr__", [](const DeduplicationReport& report) {
        return "<kyr.Deduplication: " + std::to_string(report.sharedContents) + " of " +
               std::to_string(report.contents) + " contents shared, " +
               std::to_string(report.savedBytes) + " bytes saved>";
      });
  module.def("deduplicate", deduplicate, "like"_a, "folders"_a,
             "Lets the folders share files with those of like, and with each other.");
}

}  // namespace

void defineRepair(nb::module_& module) {
  using namespace nb::literals;
  using recording::RecoveredSignal;
  using recording::RecoveryResult;
  nb::class_<RecoveredSignal>(module, "RecoveredSignal", "What became of a signal.")
      .def_ro("id", &RecoveredSignal::signalId)
      .def_ro("name", &RecoveredSignal::name)
      .def_ro("rows_kept", &RecoveredSignal::rowsKept)
      .def_ro("rows_lost", &RecoveredSignal::rowsLost, "Of those that the last flush stored.")
      .def_ro("seconds_lost", &RecoveredSignal::secondsLost, "[s]; None if the times are lost.");
  nb::class_<RecoveryResult>(module, "Recovery", "What became of a recording not finished.")
      .def_ro("was_complete", &RecoveryResult::wasComplete, "There was nothing to do.")
      .def_ro("signals", &RecoveryResult::signals, "By ascending id.")
      .def_ro("notes", &RecoveryResult::notes, "What else was lost or had to be guessed.")
      .def_prop_ro("has_losses", &RecoveryResult::hasLosses,
                   "Whether anything is missing that a flush had stored.")
      .def("__repr__", [](const RecoveryResult& result) {
        std::uint64_t kept = 0;
        std::uint64_t lost = 0;
        for (const RecoveredSignal& signal : result.signals) {
          kept += signal.rowsKept;
          lost += signal.rowsLost;
        }
        if (result.wasComplete) return std::string("<kyr.Recovery: nothing to do>");
        return "<kyr.Recovery: " + std::to_string(result.signals.size()) + " signals, " +
               std::to_string(kept) + " rows kept, " + std::to_string(lost) + " lost>";
      });
  defineDeduplication(module);
  module.def("verify", verify, "folder"_a, "One line per fault; none for a sound recording.");
  module.def("recover", recover, "folder"_a, "Makes a recording of what its writer left.");
}

}  // namespace kyr::python
