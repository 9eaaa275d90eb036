#include "Define.h"

NB_MODULE(_core, module) {
  module.doc() =
      "What the package kyr is made of: readers and writers over kyr's library.\n\n"
      "Private. Programs use the package, whose classes stand on these.";
  // Objects that are alive when the interpreter ends are no fault of the user's.
  nanobind::set_leak_warnings(false);
  module.attr("version") = KYR_VERSION;
  kyr::python::defineErrors(module);
  kyr::python::defineSignalInfo(module);
  kyr::python::defineReader(module);
  kyr::python::defineResampling(module);
  kyr::python::defineColumns(module);
  kyr::python::defineComparison(module);
  kyr::python::defineRepair(module);
  kyr::python::defineScan(module);
  kyr::python::defineWriting(module);
}
