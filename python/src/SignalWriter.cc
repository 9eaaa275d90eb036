#include "SignalWriter.h"

#include <nanobind/ndarray.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include <algorithm>
#include <cstring>
#include <limits>

#include "Define.h"

namespace kyr::python {

namespace {

// Rows that are staged at a time; of many rows, not all are in memory twice.
constexpr std::size_t kPieceRows = 65'536;
constexpr std::size_t kNumberBytes = 8;

template <typename T>
bool store(T value, char* out) {
  std::memcpy(out, &value, sizeof(value));
  return true;
}

template <typename T>
bool storeInteger(PyObject* value, char* out) {
  if constexpr (std::is_same_v<T, std::uint64_t>) {
    const unsigned long long number = PyLong_AsUnsignedLongLong(value);
    if (number == static_cast<unsigned long long>(-1) && PyErr_Occurred() != nullptr) {
      PyErr_Clear();
      return false;
    }
    return store<T>(number, out);
  } else {
    int overflow = 0;
    const long long number = PyLong_AsLongLongAndOverflow(value, &overflow);
    if (overflow != 0 || number < std::numeric_limits<T>::min() ||
        number > std::numeric_limits<T>::max()) {
      return false;
    }
    return store(static_cast<T>(number), out);
  }
}

bool storeDouble(PyObject* value, double& out) {
  if (!PyFloat_Check(value) && !PyLong_CheckExact(value)) return false;
  out = PyFloat_AsDouble(value);
  if (out == -1.0 && PyErr_Occurred() != nullptr) {
    PyErr_Clear();  // an integer beyond all doubles
    return false;
  }
  return true;
}

using Times = nb::ndarray<const double, nb::ndim<1>, nb::c_contig, nb::device::cpu>;
using Elements = nb::ndarray<nb::ro, nb::c_contig, nb::device::cpu>;

void appendRows(SignalWriter& writer, const Times& times, const Elements& elements) {
  SampleStage& stage = *writer.stage;
  const std::size_t rows = times.size();
  const std::size_t width = stage.sampleBytes();
  if (width == 0 || elements.nbytes() != rows * width) {
    throw std::invalid_argument("the samples are not as many as the times");
  }
  const auto* const bytes = static_cast<const char*>(elements.data());
  const nb::gil_scoped_release release;
  for (std::size_t row = 0; row < rows; row += kPieceRows) {
    const std::size_t count = std::min(kPieceRows, rows - row);
    writer.recorder->take(stage, [&](SampleStage& taken) {
      taken.add(times.data() + row, count, bytes + row * width);
    });
  }
}

// Whether the elements have the type as numpy tells it.
bool hasType(const Elements& elements, KYRSignalDataType type) {
  switch (type) {
    case Double:
      return elements.dtype() == nb::dtype<double>();
    case Single:
      return elements.dtype() == nb::dtype<float>();
    case Boolean:
      return elements.dtype() == nb::dtype<bool>();
    case Int32:
      return elements.dtype() == nb::dtype<std::int32_t>();
    case Int64:
      return elements.dtype() == nb::dtype<std::int64_t>();
    default:
      return false;  // rarer; Python code takes them
  }
}

// Whether it is an array, and not merely something with a buffer: the buffers of numpy.datetime64
// have no shape, and nanobind follows the pointer to it all the same.
bool isArray(const nb::handle& object) {
  // It lives as long as the process. It has no guard: others may come here while numpy is imported.
  static PyObject* type = nullptr;
  if (type == nullptr)
    type = nb::object(nb::module_::import_("numpy").attr("ndarray")).release().ptr();
  return reinterpret_cast<PyObject*>(Py_TYPE(object.ptr())) == type;
}

// Arrays of numbers, or of vectors, that are as the library wants them.
bool tryAppendArrays(SignalWriter& writer, const nb::handle& time, const nb::handle& value) {
  const auto& extents = writer.stage->description().dimensions;
  Times times;
  Elements elements;
  if (extents.size() > 1 || !isArray(time) || !isArray(value) ||
      !nb::try_cast(time, times, false) || !nb::try_cast(value, elements, false) ||
      elements.ndim() != 1 + extents.size() || elements.shape(0) != times.size() ||
      !hasType(elements, writer.stage->type()) ||
      (!extents.empty() && elements.shape(1) != extents[0])) {
    return false;
  }
  appendRows(writer, times, elements);
  return true;
}

void appendVarying(SignalWriter& writer, double time, const Elements& sample,
                   std::vector<unsigned long> shape) {
  if (sample.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
    throw std::invalid_argument("a sample has more elements than fit");
  }
  const nb::gil_scoped_release release;
  writer.recorder->take(*writer.stage, [&](SampleStage& stage) {
    stage.add(time, static_cast<const char*>(sample.data()), sample.nbytes(), std::move(shape),
              static_cast<int>(sample.size()));
  });
}

void append(const nb::object& self, const nb::handle& time, const nb::handle& value) {
  SignalWriter& writer = *nb::inst_ptr<SignalWriter>(self);
  SampleStage& stage = *writer.stage;
  char element[kNumberBytes];
  double seconds = 0;
  if (stage.category() == Scalar && stage.type() != Binary && storeDouble(time.ptr(), seconds) &&
      elementOf(value, stage.type(), element)) {
    const auto add = [&](SampleStage& taken) { taken.add(seconds, element); };
    if (writer.recorder->tryTake(stage, add)) return;
    const nb::gil_scoped_release release;
    writer.recorder->take(stage, add);
    return;
  }
  if (tryAppendArrays(writer, time, value)) return;
  pythonAppend("append_rows")(self, time, value);
}

void appendToGroup(const nb::object& self, const nb::handle& time, const nb::handle& values) {
  GroupWriter& group = *nb::inst_ptr<GroupWriter>(self);
  double seconds = 0;
  if ((PyList_CheckExact(values.ptr()) || PyTuple_CheckExact(values.ptr())) &&
      nb::len(values) == group.stages.size() && storeDouble(time.ptr(), seconds)) {
    std::vector<char> elements(group.stages.size() * kNumberBytes);
    std::size_t index = 0;
    bool areNumbers = true;
    for (const nb::handle value : values) {
      const SampleStage& stage = *group.stages[index];
      areNumbers = areNumbers && stage.category() == Scalar && stage.type() != Binary &&
                   elementOf(value, stage.type(), &elements[index * kNumberBytes]);
      ++index;
    }
    if (areNumbers) {
      const nb::gil_scoped_release release;
      for (index = 0; index < group.stages.size(); ++index) {
        group.recorder->take(*group.stages[index], [&](SampleStage& stage) {
          stage.add(seconds, &elements[index * kNumberBytes]);
        });
      }
      return;
    }
  }
  pythonAppend("append_to_group")(self, time, values);
}

}  // namespace

bool elementOf(nb::handle value, KYRSignalDataType type, char* out) {
  if (type == Double || type == Single) {
    double number = 0;
    if (!storeDouble(value.ptr(), number)) return false;
    return type == Double ? store(number, out) : store(static_cast<float>(number), out);
  }
  if (type == Boolean) {
    if (!PyBool_Check(value.ptr())) return false;
    return store<char>(value.ptr() == Py_True ? 1 : 0, out);
  }
  if (!PyLong_CheckExact(value.ptr())) return false;
  switch (type) {
    case Int8:
      return storeInteger<std::int8_t>(value.ptr(), out);
    case UInt8:
      return storeInteger<std::uint8_t>(value.ptr(), out);
    case Int16:
      return storeInteger<std::int16_t>(value.ptr(), out);
    case UInt16:
      return storeInteger<std::uint16_t>(value.ptr(), out);
    case Int32:
      return storeInteger<std::int32_t>(value.ptr(), out);
    case UInt32:
      return storeInteger<std::uint32_t>(value.ptr(), out);
    case Int64:
      return storeInteger<std::int64_t>(value.ptr(), out);
    case UInt64:
      return storeInteger<std::uint64_t>(value.ptr(), out);
    default:
      return false;
  }
}

nb::object pythonAppend(const char* name) {
  return nb::module_::import_("kyr._appending").attr(name);
}

void defineSignalWriter(nb::module_& module) {
  using namespace nb::literals;
  const auto describes = [](const SignalWriter& writer) -> const recording::SignalDescription& {
    return writer.stage->description();
  };
  nb::class_<SignalWriter>(module, "SignalWriter", nb::is_weak_referenceable(), R"(
A signal that is being recorded. `Recorder.add()` makes it.)")
      .def("append", append, "t"_a, "y"_a, R"(
Appends a row, or many.

:param t: a time [s], or an array of times
:param y: a sample, or an array of as many samples as times: shape (n,) for numbers, (n, rows,
    columns) for matrices, a sequence of samples if these differ in size
:raises TypeError, ValueError: if the signal's type or shape does not fit; nothing is appended
:raises kyr.Error: if a file cannot be written. Rows that were appended before, and perhaps this
    call's, stay in memory for the next try; `len()` tells how many there are)")
      .def("__len__",
           [](const SignalWriter& writer) {
             std::uint64_t rows = 0;
             const nb::gil_scoped_release release;
             writer.recorder->look([&] { rows = writer.stage->rows(); });
             return rows;
           })
      .def("_append_rows", appendRows, "times"_a, "elements"_a)
      .def("_append_varying", appendVarying, "time"_a, "sample"_a, "shape"_a)
      .def_prop_ro("id", [=](const SignalWriter& writer) { return describes(writer).signalId; })
      .def_prop_ro("name", [=](const SignalWriter& writer) { return describes(writer).name; })
      .def_prop_ro("unit", [=](const SignalWriter& writer) { return describes(writer).unit; })
      .def_prop_ro("_dimensions",
                   [=](const SignalWriter& writer) { return describes(writer).dimensions; })
      .def_prop_ro(
          "_data_type",
          [](const SignalWriter& writer) { return static_cast<int>(writer.stage->type()); })
      .def_prop_ro("_category", [](const SignalWriter& writer) {
        return static_cast<int>(writer.stage->category());
      });
  nb::class_<GroupWriter>(module, "GroupWriter", nb::is_weak_referenceable(), R"(
Signals that are recorded over one time vector. `Recorder.group()` makes it.)")
      .def("append", appendToGroup, "t"_a, "y"_a, R"(
Appends a row to every signal, or many.

:param t: a time [s], or an array of n times
:param y: a sample for each signal, in the order of the names; for an array of times, an array of
    the shape (n, signals), or arrays of n samples by name)")
      .def("__len__", [](const GroupWriter& group) { return group.stages.size(); })
      .def_prop_ro("_signals", [](const GroupWriter& group) {
        std::vector<SignalWriter> signals;
        for (const auto& stage : group.stages) signals.push_back({group.recorder, stage});
        return signals;
      });
}

}  // namespace kyr::python
