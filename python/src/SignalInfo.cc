#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include "Define.h"
#include "kyr/recording/RecordingInfo.h"

namespace kyr::python {

void defineSignalInfo(nb::module_& module) {
  using recording::SignalInfo;
  nb::class_<SignalInfo>(module, "SignalInfo", "What a recording tells about a signal.")
      .def_ro("id", &SignalInfo::signalId)
      .def_ro("name", &SignalInfo::name)
      .def_ro("unit", &SignalInfo::unit)
      .def_ro("description", &SignalInfo::description)
      .def_ro("dimensions", &SignalInfo::dimensions)
      .def_prop_ro("data_type",
                   [](const SignalInfo& signal) { return static_cast<int>(signal.dataType); })
      .def_prop_ro("category",
                   [](const SignalInfo& signal) { return static_cast<int>(signal.category); });
}

}  // namespace kyr::python
