#include "Errors.h"

#include <exception>
#include <new>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "Define.h"
#include "kyr/recording/DamagedError.h"

namespace kyr::python {

namespace {

// They live as long as the process, as Python's own exceptions do.
PyObject* errorType = nullptr;
PyObject* damagedErrorType = nullptr;

// Names of files may be no valid UTF-8. What is not becomes what Python makes of such names.
nb::object textOf(const char* what) {
  const std::string_view text(what);
  return nb::steal(
      PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "surrogateescape"));
}

void raise(PyObject* type, const char* what) { PyErr_SetObject(type, textOf(what).ptr()); }

// An OSError of two arguments has the members `errno` and `strerror`.
void raise(const std::system_error& error) {
  const std::error_category& category = error.code().category();
  if (category != std::generic_category() && category != std::system_category()) {
    raise(errorType, error.what());
    return;
  }
  PyErr_SetObject(errorType, nb::make_tuple(error.code().value(), textOf(error.what())).ptr());
}

// The only place where exceptions of C++ become Python's. Of nanobind's own, which are passed on,
// none comes here: it catches them before.
void translate(const std::exception_ptr& exception, void*) {
  try {
    std::rethrow_exception(exception);
  } catch (const recording::DamagedError& error) {
    raise(damagedErrorType, error.what());
  } catch (const std::system_error& error) {
    raise(error);
  } catch (const std::invalid_argument& error) {
    raise(PyExc_ValueError, error.what());
  } catch (const std::out_of_range& error) {
    raise(PyExc_IndexError, error.what());
  } catch (const std::length_error&) {
    PyErr_NoMemory();
  } catch (const std::bad_alloc&) {
    PyErr_NoMemory();
  } catch (const std::exception& error) {
    raise(errorType, error.what());
  }
}

PyObject* defineError(nb::module_& module, const char* name, const char* doc, PyObject* base) {
  PyObject* const type =
      PyErr_NewExceptionWithDoc((std::string("kyr.") + name).c_str(), doc, base, nullptr);
  if (type == nullptr) throw nb::python_error();
  module.attr(name) = nb::borrow(type);
  return type;
}

}  // namespace

void defineErrors(nb::module_& module) {
  errorType = defineError(
      module, "Error",
      "A recording cannot be read or written. The text names the file or folder and says why.",
      PyExc_OSError);
  damagedErrorType =
      defineError(module, "DamagedError",
                  "A file of a recording is missing, or is not what the recording says of it.\n\n"
                  "The text names the file, what is wrong with it, and the rows that cannot be "
                  "read. All other\n"
                  "rows can.",
                  errorType);
  nb::register_exception_translator(translate, nullptr);
}

}  // namespace kyr::python
