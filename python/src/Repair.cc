#include <nanobind/stl/optional.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include <string>
#include <vector>

#include "Define.h"
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
  module.def("verify", verify, "folder"_a, "One line per fault; none for a sound recording.");
  module.def("recover", recover, "folder"_a, "Makes a recording of what its writer left.");
}

}  // namespace kyr::python
