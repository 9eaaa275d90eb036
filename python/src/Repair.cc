#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include <string>
#include <vector>

#include "Define.h"
#include "kyr/recording/RecordingInfo.h"

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

}  // namespace

void defineRepair(nb::module_& module) {
  using namespace nb::literals;
  module.def("verify", verify, "folder"_a, "One line per fault; none for a sound recording.");
}

}  // namespace kyr::python
