#pragma once

#include <nanobind/nanobind.h>

namespace kyr::python {

namespace nb = nanobind;

// Each defines the classes and functions of one concept in the extension module.
void defineErrors(nb::module_& module);
void defineSignalInfo(nb::module_& module);
void defineReader(nb::module_& module);
void defineColumns(nb::module_& module);
void defineComparison(nb::module_& module);
void defineRepair(nb::module_& module);
void defineResampling(nb::module_& module);
void defineScan(nb::module_& module);
void defineSignalWriter(nb::module_& module);
void defineWriting(nb::module_& module);

}  // namespace kyr::python
