#pragma once

#include <nanobind/nanobind.h>

#include <memory>

#include "Recorder.h"

namespace kyr::python {

/// \brief A signal that is being written, as Python sees it.
struct SignalWriter {
  std::shared_ptr<Recorder> recorder;
  std::shared_ptr<SampleStage> stage;
};

/// \brief Signals over one time vector.
struct GroupWriter {
  std::shared_ptr<Recorder> recorder;
  std::vector<std::shared_ptr<SampleStage>> stages;
};

/// \brief A Python float or int as an element of a type. False for anything else, and if it does
/// not fit; Python code then finds out more, and says so.
bool elementOf(nanobind::handle value, KYRSignalDataType type, char* out);

/// \brief Defined in Python: takes any times and samples apart, checks them and adds them.
nanobind::object pythonAppend(const char* name);

}  // namespace kyr::python
